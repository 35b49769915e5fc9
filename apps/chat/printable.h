// Text from the server and from the library's log on its way to a terminal.
// A terminal obeys control characters, so a server could otherwise clear the
// screen, set the window title or rewrite earlier lines. These functions
// keep newline and tab, show every other control character visibly (C0 and
// DEL in caret notation, "^[" for ESC; C1 as "<U+009B>"), and replace bytes
// that are not UTF-8 with U+FFFD, so nothing but text reaches the screen.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace orvi_chat {

// `text` made safe to print.
std::string printableText(std::string_view text);

// How many leading bytes of a still-growing `text` can be printed now: all
// of them except a UTF-8 sequence cut at the end, which the next update may
// complete. Printing a cut sequence alone would let the terminal join its
// halves across two writes, after the check.
size_t completePrefixLength(std::string_view text);

}  // namespace orvi_chat
