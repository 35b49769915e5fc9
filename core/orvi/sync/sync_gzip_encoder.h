// SyncGzipEncoder compresses sync contents with gzip exactly as
// utils::compressEx does (level 9, 32 KiB window, an all-zero header, one
// deflate call over a bound-sized buffer), with the same result codes and
// log lines, but keeps its deflate stream from one record to the next:
// setting up a level-9 stream costs more than compressing a 1 KiB record.
// A reset stream produces the same bytes as a fresh one.
//
// Not thread-safe: SyncQos uses it from one send round at a time. The
// stream (about 270 KiB) lives as long as the encoder.
#pragma once

#include <memory>
#include <string>

namespace orvi {

class SyncGzipEncoder {
 public:
  SyncGzipEncoder();
  ~SyncGzipEncoder();

  SyncGzipEncoder(const SyncGzipEncoder&) = delete;
  SyncGzipEncoder& operator=(const SyncGzipEncoder&) = delete;

  // Replaces `data` by its gzip bytes and returns their count; on failure
  // returns compressEx's negative code and leaves `data` as it was.
  int compress(std::string& data);

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;  // made on first use, dropped after an error
};

}  // namespace orvi
