// Standard Base64 (RFC 4648 alphabet, "=" padding).
#pragma once

#include <string>

namespace orvi {
namespace utils {

std::string base64Encode(const std::string& bytes);

// Decodes up to the first "=" or the first character outside the alphabet
// (whitespace included) and ignores the rest. Never fails: invalid input
// gives a shorter result. A trailing group of k characters gives k - 1 bytes.
std::string base64Decode(const std::string& text);

}  // namespace utils
}  // namespace orvi
