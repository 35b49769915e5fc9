// The operations of a streamed delta, checked against the document before
// anything runs: the JSON Patch operations of RFC 6902 ("add", "remove",
// "replace", "move", "copy", "test") and the streaming "append".
//
// The JSON library's patch facility trusts its input more than a library
// fed by the network can: it adds below a string or a number (an assertion
// in a build with assertions, a silent no-op without), turns a null parent
// into an object, and a pointer assignment pads an array up to any index.
// So every operation is checked here first, and the library only executes
// what it can complete as RFC 6902 says: the parent of every target exists
// and is an object or an array, array indexes are in bounds, "-" appears
// only as the last token of a place that is added to, a "from" location
// exists and a move never goes into its own child. On top of that, nothing
// may make the document deeper than kMaxJsonDepth, and what one delta places
// is bounded (PlacementBudget), so a chain of "copy" operations that doubles
// the document stops long before memory does.
//
// Free functions over a caller-owned document; no state, no locking.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvi {

// The largest payload text a delta may leave behind, and the most one delta
// may place in the document. Streamed answers are far below it; the bound
// keeps a few kilobytes of hostile "copy" operations from taking gigabytes.
constexpr std::size_t kMaxPatchedPayloadBytes = 16u << 20;

// An operation refused by the checks; what() says why, quoting paths as
// they came (cut for the log), never a re-serialised value.
class PatchRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What the values placed by one delta may add up to: string bytes plus a
// fixed charge per JSON value, roughly what they take in memory. Charging
// stops walking a value as soon as the budget is spent.
class PlacementBudget {
 public:
  // Both throw PatchRefused once the charges pass kMaxPatchedPayloadBytes.
  void chargeValue(const nlohmann::json& value);
  void chargeBytes(std::size_t bytes);

 private:
  std::size_t remaining_ = kMaxPatchedPayloadBytes;
};

// True when `token` is an array index as RFC 6901 writes one: "0" or
// digits without a leading zero. `index` saturates at the largest size_t.
bool arrayIndex(const std::string& token, std::size_t& index);

// The reference tokens of a JSON Pointer (RFC 6901), unescaped. Throws the
// JSON library's parse error for a malformed pointer.
std::vector<std::string> pointerTokens(const std::string& pointer);

// The value at `tokens`, or null when there is none ("-" names none).
const nlohmann::json* findValue(const nlohmann::json& document,
                                const std::vector<std::string>& tokens);

// "append": extends the string at `path` by `value`, or creates it there,
// building missing objects (and a new array for a "0" token) the way a
// pointer assignment does, but never padding an existing array. A value
// that exists and is not a string raises the JSON library's type error.
void applyAppend(nlohmann::json& document, const std::string& path, const std::string& value,
                 PlacementBudget& budget);

// Any other operation: `operation` is an object whose "op" is a string.
// Throws PatchRefused, or the JSON library's exception for a malformed
// pointer; on a throw `document` may be part-way changed, so callers patch
// a copy.
void applyStandardOperation(nlohmann::json& document, const nlohmann::json& operation,
                            PlacementBudget& budget);

}  // namespace orvi
