#include "printable.h"

#include <cstdint>
#include <cstdio>

namespace orvi_chat {
namespace {

const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// Length of the UTF-8 sequence a lead byte starts, 0 for a byte that
// cannot start one.
size_t sequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

// The code point of the whole sequence at `at` of `length` bytes, or -1
// when it is not valid UTF-8 (a bad continuation, an overlong form, a
// surrogate or a value past U+10FFFF).
int32_t decode(std::string_view text, size_t at, size_t length) {
  if (at + length > text.size()) return -1;
  const auto lead = static_cast<unsigned char>(text[at]);
  int32_t code = length == 2 ? (lead & 0x1F) : length == 3 ? (lead & 0x0F) : (lead & 0x07);
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[at + i]);
    if (!isContinuation(byte)) return -1;
    code = (code << 6) | (byte & 0x3F);
  }
  const int32_t smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
  if (code < smallest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return -1;
  return code;
}

void appendAscii(std::string& out, char c) {
  if (c == '\n' || c == '\t' || (c >= 0x20 && c < 0x7F)) {
    out += c;
  } else {
    out += '^';
    out += c == 0x7F ? '?' : static_cast<char>(c + 0x40);
  }
}

}  // namespace

std::string printableText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t at = 0;
  while (at < text.size()) {
    const size_t length = sequenceLength(static_cast<unsigned char>(text[at]));
    if (length == 1) {
      appendAscii(out, text[at++]);
      continue;
    }
    const int32_t code = length == 0 ? -1 : decode(text, at, length);
    if (code < 0) {
      out += kReplacement;  // one per bad byte; the next byte is read afresh
      ++at;
    } else if (code <= 0x9F) {
      char shown[16];
      std::snprintf(shown, sizeof(shown), "<U+%04X>", static_cast<unsigned>(code));
      out += shown;
      at += length;
    } else {
      out.append(text.substr(at, length));
      at += length;
    }
  }
  return out;
}

size_t completePrefixLength(std::string_view text) {
  // A cut sequence is at most three bytes: its lead byte and up to two
  // continuation bytes.
  const size_t earliest = text.size() > 3 ? text.size() - 3 : 0;
  for (size_t at = text.size(); at > earliest; --at) {
    const auto byte = static_cast<unsigned char>(text[at - 1]);
    if (isContinuation(byte)) continue;
    const size_t length = sequenceLength(byte);
    return length > 1 && at - 1 + length > text.size() ? at - 1 : text.size();
  }
  return text.size();
}

}  // namespace orvi_chat
