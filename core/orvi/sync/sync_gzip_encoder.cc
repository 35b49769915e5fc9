#include "orvi/sync/sync_gzip_encoder.h"

#include <zlib.h>

#include <cstring>

#include "orvi/utils/gzip_deflate.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

constexpr int kGzipWindowBits = 15 + 16;  // 32 KiB window, gzip framing
constexpr int kMemoryLevel = 8;

}  // namespace

struct SyncGzipEncoder::Stream {
  z_stream z;
  gz_header header;   // zlib keeps a pointer to it until the stream ends
  bool fresh = true;  // no reset needed before the first use

  Stream() {
    std::memset(&z, 0, sizeof z);
    std::memset(&header, 0, sizeof header);
  }
  ~Stream() { deflateEnd(&z); }
};

SyncGzipEncoder::SyncGzipEncoder() = default;
SyncGzipEncoder::~SyncGzipEncoder() = default;

int SyncGzipEncoder::compress(std::string& data) {
  if (data.empty()) return -1;

  if (!stream_) {
    auto stream = std::make_unique<Stream>();
    if (deflateInit2(&stream->z, Z_BEST_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
      ORVI_LOGE("deflateInit2 failed");
      return -2;  // nothing to end: the stream was never set up
    }
    stream_ = std::move(stream);
  } else if (!stream_->fresh) {
    deflateReset(&stream_->z);
  }
  z_stream& z = stream_->z;
  stream_->fresh = false;

  // The header goes after every reset; it is all zeros, like compressEx's.
  if (deflateSetHeader(&z, &stream_->header) != Z_OK) {
    ORVI_LOGE("deflateSetHeader failed");
    stream_.reset();
    return -3;
  }

  const int result = utils::deflateWhole(z, data);
  if (result < 0) stream_.reset();
  return result;
}

}  // namespace orvi
