// Text helpers of the sync wire: a strict UTF-8 check and the JSON string
// escaping that compact frames use. Frames are written directly into one
// string instead of through a JSON tree, which costs several times more
// than the text it produces.
//
// The escaping is the JSON library's compact form, byte for byte: `"` and
// `\` escaped, \b \f \n \r \t short, other control characters as \u00xx in
// lower-case hex, everything else (DEL and non-ASCII included) as it is.
// Strings must be valid UTF-8; callers check with isValidUtf8 first.
//
// Stateless functions, callable from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvi {
namespace sync_wire {

// Well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing
// above U+10FFFF, no cut-off character at the end.
bool isValidUtf8(std::string_view text);

// Appends `text` as a quoted JSON string.
void appendString(std::string& out, std::string_view text);

// Appends `"key":` (the key needs no escaping).
void appendKey(std::string& out, std::string_view key);

void appendInt(std::string& out, int64_t value);

}  // namespace sync_wire
}  // namespace orvi
