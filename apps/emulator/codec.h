// The one content encoding the service applies to downlink frames:
// Base64 (standard alphabet, with padding) of gzip (level 9).
#pragma once

#include <string>

namespace orvi {
namespace emulator {

// Gzip-format bytes of `data` (a gzip header and trailer, not bare zlib).
std::string gzipCompress(const std::string& data);
std::string base64Encode(const std::string& bytes);
inline std::string gzipBase64(const std::string& data) {
  return base64Encode(gzipCompress(data));
}

}  // namespace emulator
}  // namespace orvi
