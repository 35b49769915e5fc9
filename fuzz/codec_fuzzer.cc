// Base64 and gzip, in nlohmann's style: arbitrary bytes in, and whatever
// comes out must read back to what went in. Inflating arbitrary bytes must
// respect its limit and leave the input alone when it fails.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"

namespace {

using orvi::utils::base64Decode;
using orvi::utils::base64Encode;
using orvi::utils::compressEx;
using orvi::utils::decompressEx;

constexpr size_t kInflateLimit = 1u << 20;

void check(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvi::fuzz::quietLogs();
  const std::string bytes = orvi::fuzz::asText(data, size);

  // Base64: bytes -> text -> the same bytes; any text decodes to bytes that
  // encode to a text decoding the same.
  const std::string text = base64Encode(bytes);
  check(text.size() == (bytes.size() + 2) / 3 * 4);
  check(base64Decode(text) == bytes);
  const std::string decoded = base64Decode(bytes);
  check(decoded.size() <= bytes.size() / 4 * 3 + 2);
  check(base64Decode(base64Encode(decoded)) == decoded);

  // gzip: bytes -> gzip -> the same bytes; one byte short of the limit the
  // same stream is refused with -5 and left as it was.
  if (!bytes.empty()) {
    std::string packed = bytes;
    check(compressEx(packed) > 0);
    std::string unpacked = packed;
    check(decompressEx(unpacked) == static_cast<int>(bytes.size()) && unpacked == bytes);
    std::string refused = packed;
    check(decompressEx(refused, bytes.size() - 1) == -5 && refused == packed);
  }

  // Arbitrary bytes as a gzip stream: within the limit or refused untouched;
  // what does inflate round-trips like any other content.
  std::string inflated = bytes;
  const int ret = decompressEx(inflated, kInflateLimit);
  if (ret < 0) {
    check(inflated == bytes);
  } else {
    check(static_cast<size_t>(ret) == inflated.size() && inflated.size() <= kInflateLimit);
    if (!inflated.empty()) {
      std::string again = inflated;
      check(compressEx(again) > 0 && decompressEx(again) == ret && again == inflated);
    }
  }
  return 0;
}
