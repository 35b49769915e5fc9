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

#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

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

// The integer an outside number holds, read as T. A float is truncated as
// the JSON library would, but only when its integral part fits T: the
// library's own conversion of 1e999 or 2^63 to an integer is undefined
// behaviour. Anything that does not fit, and anything but a number, throws
// the JSON library's type error, which callers already log and drop.
template <typename T>
T checkedInteger(const nlohmann::json& value) {
  static_assert(std::is_integral<T>::value, "an integer type");
  using Limits = std::numeric_limits<T>;
  bool fits = false;
  if (value.is_number_unsigned()) {
    fits = value.get<uint64_t>() <= static_cast<uint64_t>(Limits::max());
  } else if (value.is_number_integer()) {
    const int64_t number = value.get<int64_t>();
    fits = number >= 0 ? static_cast<uint64_t>(number) <= static_cast<uint64_t>(Limits::max())
                       : number >= static_cast<int64_t>(Limits::min());
  } else if (value.is_number_float()) {
    // Compared in long double so that the limits of 64-bit types are exact.
    const long double number = std::trunc(static_cast<long double>(value.get<double>()));
    fits = number >= static_cast<long double>(Limits::min()) &&
           number <= static_cast<long double>(Limits::max());
  } else {
    throw nlohmann::json::type_error::create(
        302, std::string("type must be number, but is ") + value.type_name(), &value);
  }
  if (!fits) {
    throw nlohmann::json::type_error::create(
        302, "number " + value.dump() + " does not fit the field", &value);
  }
  return value.get<T>();
}

// What error lines quote of an outside text: its first kLoggedTextBytes
// bytes, then the count of the rest. A log line holds 4096 bytes anyway;
// this keeps a 100 MB frame from being copied into it.
constexpr std::size_t kLoggedTextBytes = 2048;
std::string textForLog(std::string_view text);

}  // namespace orvi
