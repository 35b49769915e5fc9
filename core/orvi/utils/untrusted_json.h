// The one door through which JSON text from outside the process (frames,
// their content and payload strings, patches, REST bodies, sync downlink,
// tool-call text, the legacy history files, records read back from the
// host's store) becomes a JSON tree.
//
// The JSON library parses iteratively, but printing, comparing, copying and
// patching a tree recurse over its depth: a few kilobytes of brackets would
// overflow the stack long after parsing succeeded. So nesting is measured
// before the parser runs, by a flat scan that never recurses, and a text
// nested deeper than kMaxJsonDepth is refused with an exception that the
// callers' existing JSON error handling logs and swallows.
//
// Stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace orvi {

// The deepest nesting of arrays and objects accepted from outside. Real
// frames stay below 10; the bound only has to keep recursion over a tree
// far from the smallest thread stack a host may run us on.
constexpr std::size_t kMaxJsonDepth = 256;

// Thrown instead of parsing a text nested deeper than kMaxJsonDepth.
class JsonTooDeep : public std::runtime_error {
 public:
  explicit JsonTooDeep(std::size_t offset);
};

// The nesting depth of `text` as a JSON parser would see it (brackets
// inside strings do not count), scanning no further than needed: the result
// is at most `limit + 1`.
std::size_t jsonNestingDepth(std::string_view text, std::size_t limit = kMaxJsonDepth);

// Parses outside text; throws JsonTooDeep or the JSON library's parse error.
nlohmann::json parseUntrustedJson(std::string_view text);

// True when `value` (a tree built in the library, for example by a patch)
// stays within kMaxJsonDepth once placed `base_depth` levels down. Walks
// with an explicit stack.
bool jsonDepthWithin(const nlohmann::json& value, std::size_t base_depth = 0,
                     std::size_t limit = kMaxJsonDepth);

// What error lines quote of an outside text: its first kLoggedTextBytes
// bytes, then the count of the rest. A log line holds 4096 bytes anyway;
// this keeps a 100 MB frame from being copied into it.
constexpr std::size_t kLoggedTextBytes = 2048;
std::string textForLog(std::string_view text);

}  // namespace orvi
