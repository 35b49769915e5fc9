// How the emulator reads JSON that came over the network (WebSocket frames
// and REST bodies): with the client library's nesting guard, so that a
// hostile client cannot overflow the I/O thread's stack when the tree is
// later copied or printed, and in time linear in the number of keys.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace orvi {
namespace emulator {

// The text as a tree (object keys in sorted order), or a discarded value
// when it does not parse or nests deeper than kMaxJsonDepth; `why`, when
// given, then says which.
nlohmann::ordered_json parseInbound(const std::string& text, std::string* why = nullptr);

}  // namespace emulator
}  // namespace orvi
