#include "orvi/sync/sync_wire_text.h"

#include <array>
#include <cstring>

namespace orvi {
namespace sync_wire {
namespace {

// Bytes that cannot stand for themselves inside a JSON string.
const std::array<bool, 256>& needsEscape() {
  static const std::array<bool, 256> table = [] {
    std::array<bool, 256> t{};
    for (int c = 0; c < 0x20; ++c) t[c] = true;
    t['"'] = t['\\'] = true;
    return t;
  }();
  return table;
}

bool isContinuation(unsigned char c) {
  return (c & 0xC0) == 0x80;
}

// Length of the well-formed character at `p` (at most `left` bytes
// available), or 0 when it is not one.
size_t charLength(const unsigned char* p, size_t left) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;   // overlong
    if (c == 0xED) high = 0x9F;  // surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;   // overlong
    if (c == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (left < length || p[1] < low || p[1] > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (!isContinuation(p[i])) return 0;
  }
  return length;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  size_t left = text.size();
  while (left > 0) {
    // Plain ASCII, eight bytes at a time.
    if (left >= 8) {
      uint64_t word;
      std::memcpy(&word, p, sizeof word);
      if ((word & 0x8080808080808080ULL) == 0) {
        p += 8;
        left -= 8;
        continue;
      }
    }
    const size_t length = charLength(p, left);
    if (length == 0) return false;
    p += length;
    left -= length;
  }
  return true;
}

void appendString(std::string& out, std::string_view text) {
  static const char kHex[] = "0123456789abcdef";
  const auto& escape = needsEscape();
  out += '"';
  size_t run = 0;  // start of the bytes not yet copied
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (!escape[c]) continue;
    out.append(text.data() + run, i - run);
    run = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: {
        const char code[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
        out.append(code, sizeof code);
      }
    }
  }
  out.append(text.data() + run, text.size() - run);
  out += '"';
}

void appendKey(std::string& out, std::string_view key) {
  out += '"';
  out += key;
  out += "\":";
}

void appendInt(std::string& out, int64_t value) {
  out += std::to_string(value);
}

}  // namespace sync_wire
}  // namespace orvi
