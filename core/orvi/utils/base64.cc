#include "orvi/utils/base64.h"

#include <array>
#include <cstdint>
#include <vector>

namespace orvi {
namespace utils {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int8_t kNotInAlphabet = -1;

// Position of each byte value in the alphabet, or kNotInAlphabet.
const std::array<int8_t, 256>& decodeTable() {
  static const std::array<int8_t, 256> table = [] {
    std::array<int8_t, 256> t{};
    t.fill(kNotInAlphabet);
    for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
    return t;
  }();
  return table;
}

}  // namespace

std::string base64Encode(const std::string& bytes) {
  const std::vector<unsigned char> in(bytes.begin(), bytes.end());
  std::string out((in.size() + 2) / 3 * 4, '\0');
  char* cursor = &out[0];

  size_t i = 0;
  for (; i + 3 <= in.size(); i += 3) {
    const uint32_t group = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
    *cursor++ = kAlphabet[(group >> 18) & 0x3f];
    *cursor++ = kAlphabet[(group >> 12) & 0x3f];
    *cursor++ = kAlphabet[(group >> 6) & 0x3f];
    *cursor++ = kAlphabet[group & 0x3f];
  }
  const size_t rest = in.size() - i;
  if (rest > 0) {
    const uint32_t group = (in[i] << 16) | (rest == 2 ? in[i + 1] << 8 : 0);
    *cursor++ = kAlphabet[(group >> 18) & 0x3f];
    *cursor++ = kAlphabet[(group >> 12) & 0x3f];
    *cursor++ = rest == 2 ? kAlphabet[(group >> 6) & 0x3f] : '=';
    *cursor++ = '=';
  }
  return out;
}

std::string base64Decode(const std::string& text) {
  const auto& table = decodeTable();
  std::string out(text.size() / 4 * 3 + 2, '\0');
  char* cursor = &out[0];

  uint32_t group = 0;
  int filled = 0;
  for (const char c : text) {
    const int8_t value = table[static_cast<unsigned char>(c)];
    if (value == kNotInAlphabet) break;  // "=" and anything foreign end the data
    group = (group << 6) | static_cast<uint32_t>(value);
    if (++filled == 4) {
      *cursor++ = static_cast<char>((group >> 16) & 0xff);
      *cursor++ = static_cast<char>((group >> 8) & 0xff);
      *cursor++ = static_cast<char>(group & 0xff);
      group = 0;
      filled = 0;
    }
  }
  if (filled > 1) {
    group <<= 6 * (4 - filled);
    *cursor++ = static_cast<char>((group >> 16) & 0xff);
    if (filled == 3) *cursor++ = static_cast<char>((group >> 8) & 0xff);
  }
  out.resize(static_cast<size_t>(cursor - out.data()));
  return out;
}

}  // namespace utils
}  // namespace orvi
