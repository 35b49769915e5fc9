#include "orvi/utils/gzip.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "orvi/utils/gzip_deflate.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace utils {
namespace {

constexpr int kGzipWindowBits = 15 + 16;        // 32 KiB window, gzip framing
constexpr int kAutoDetectWindowBits = 15 + 32;  // 32 KiB window, gzip or zlib
constexpr size_t kInflateChunk = 32768;
constexpr uint64_t kMaxInflateInput = 4294967295ULL;

}  // namespace

int compressEx(std::string& data) {
  if (data.empty()) return -1;

  z_stream stream;
  std::memset(&stream, 0, sizeof stream);
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kGzipWindowBits, 8,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    ORVI_LOGE("deflateInit2 failed");
    return -2;
  }

  gz_header header;
  std::memset(&header, 0, sizeof header);
  if (deflateSetHeader(&stream, &header) != Z_OK) {
    ORVI_LOGE("deflateSetHeader failed");
    deflateEnd(&stream);
    return -3;
  }

  const int result = deflateWhole(stream, data);
  deflateEnd(&stream);
  return result;
}

int deflateWhole(z_stream& stream, std::string& data) {
  const uLong bound = deflateBound(&stream, static_cast<uLong>(data.size()));
  std::string output(bound, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(&output[0]);
  stream.avail_out = static_cast<uInt>(bound);

  const int ret = deflate(&stream, Z_FINISH);
  if (ret != Z_STREAM_END) {
    ORVI_LOGE("deflate failed, ret: %d", ret);
    return -4;
  }
  output.resize(bound - stream.avail_out);

  const size_t original = data.size();
  const float ratio = (static_cast<float>(original) - static_cast<float>(output.size())) * 100.0f /
                      static_cast<float>(original);
  ORVI_LOGI("tryCompress gzip, original: %zu, compressed: %zu, compress ratio: %.2f%%", original,
            output.size(), static_cast<double>(ratio));
  data.swap(output);
  return static_cast<int>(data.size());
}

int decompressEx(std::string& data, size_t max_output) {
  // The result is the length as an int: no limit can reach 2 GiB.
  if (max_output > kMaxInflatedBytes) max_output = kMaxInflatedBytes;
  if (data.empty()) return -1;
  if (static_cast<uint64_t>(data.size()) > kMaxInflateInput) {
    ORVI_LOGE("inflate failed: input too large: %zu", data.size());
    return -4;
  }

  z_stream stream;
  std::memset(&stream, 0, sizeof stream);
  if (inflateInit2(&stream, kAutoDetectWindowBits) != Z_OK) {
    ORVI_LOGE("inflateInit2 failed");
    return -2;
  }
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());

  std::string output;
  std::vector<unsigned char> chunk(kInflateChunk);
  for (;;) {
    stream.next_out = chunk.data();
    stream.avail_out = static_cast<uInt>(chunk.size());
    const int ret = inflate(&stream, Z_NO_FLUSH);
    if (ret != Z_OK && ret != Z_STREAM_END) {
      ORVI_LOGE("inflate failed, ret: %d", ret);
      inflateEnd(&stream);
      return -3;
    }
    const size_t produced = chunk.size() - stream.avail_out;
    // Checked before the chunk is kept: memory never grows past the limit.
    if (produced > max_output - output.size()) {
      ORVI_LOGE("inflate failed: output too large: %zu", output.size() + produced);
      inflateEnd(&stream);
      return -5;
    }
    output.append(reinterpret_cast<const char*>(chunk.data()), produced);

    if (ret == Z_STREAM_END) {
      inflateEnd(&stream);
      ORVI_LOGI("tryDecompress gzip, compressed: %zu, decompressed: %zu", data.size(),
                output.size());
      data.swap(output);
      return static_cast<int>(data.size());
    }
    if (stream.avail_in == 0 && produced == 0) {
      ORVI_LOGE("inflate failed: no progress");
      inflateEnd(&stream);
      return -3;
    }
  }
}

}  // namespace utils
}  // namespace orvi
