// The rules by which wire records are read from and written to JSON, in one
// place. A wire record declares its keys once, in table order, in a static
// `fields(self, visitor)` and marks itself with `using IsWireRecord = void;`;
// from_json/to_json (found by argument-dependent lookup) do the rest:
//
// Reading: a value that is not an object leaves the record untouched; a
// missing key leaves its field untouched; a present key of the wrong JSON
// type throws the JSON library's type_error 302 ("type must be string, but is
// null"). Numbers come from any number kind (floats truncated, out-of-range
// values clamped to the field's range) or from a boolean; booleans also from
// a number (non-zero is true). String enums read their text through the
// enum's table, an unknown text giving the table's first value; other enums
// travel as integers.
//
// Writing: keys in declaration order (with ordered_json), unset optionals
// left out, lists marked Write::IfNonEmpty left out when empty.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace idl {

using Json = nlohmann::json;                 // what incoming text is parsed into
using OrderedJson = nlohmann::ordered_json;  // what the library writes

enum class Write { Always, IfNonEmpty };

// Enums whose wire form is a string; specialised next to each enum's table.
template <typename T>
struct IsStringEnum : std::false_type {};

namespace detail {

template <typename T, typename = void>
struct IsRecord : std::false_type {};
template <typename T>
struct IsRecord<T, typename T::IsWireRecord> : std::true_type {};

template <typename T>
struct IsVector : std::false_type {};
template <typename T>
struct IsVector<std::vector<T>> : std::true_type {};

template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <typename J>
[[noreturn]] void throwTypeError(const char* expected, const J& value) {
  throw J::type_error::create(
      302, std::string("type must be ") + expected + ", but is " + value.type_name(), &value);
}

template <typename T>
T clampUnsigned(uint64_t value) {
  const uint64_t max = static_cast<uint64_t>(std::numeric_limits<T>::max());
  return value > max ? std::numeric_limits<T>::max() : static_cast<T>(value);
}

template <typename T>
T clampSigned(int64_t value) {
  if (value < 0) {
    const int64_t min = static_cast<int64_t>(std::numeric_limits<T>::min());
    return value < min ? std::numeric_limits<T>::min() : static_cast<T>(value);
  }
  return clampUnsigned<T>(static_cast<uint64_t>(value));
}

template <typename T>
T clampFloat(double value) {
  if (std::isnan(value)) return 0;
  // Compare in long double so that the limits of 64-bit types are exact.
  const long double v = value;
  if (v <= static_cast<long double>(std::numeric_limits<T>::min())) {
    return std::numeric_limits<T>::min();
  }
  if (v >= static_cast<long double>(std::numeric_limits<T>::max())) {
    return std::numeric_limits<T>::max();
  }
  return static_cast<T>(value);
}

template <typename J, typename T>
void readValue(const J& value, T& out);

template <typename J>
struct Reader {
  const J& object;
  template <typename T>
  void operator()(const char* key, T& field, Write = Write::Always) const {
    const auto it = object.find(key);
    if (it != object.end()) readValue(*it, field);
  }
};

template <typename J, typename T>
void readValue(const J& value, T& out) {
  if constexpr (std::is_same<T, std::string>::value) {
    if (!value.is_string()) throwTypeError("string", value);
    out = value.template get_ref<const std::string&>();
  } else if constexpr (std::is_same<T, bool>::value) {
    if (value.is_boolean()) {
      out = value.template get<bool>();
    } else if (value.is_number()) {
      out = value.template get<double>() != 0;
    } else {
      throwTypeError("boolean", value);
    }
  } else if constexpr (std::is_integral<T>::value) {
    if (value.is_number_unsigned()) {
      out = clampUnsigned<T>(value.template get<uint64_t>());
    } else if (value.is_number_integer()) {
      out = clampSigned<T>(value.template get<int64_t>());
    } else if (value.is_number_float()) {
      out = clampFloat<T>(value.template get<double>());
    } else if (value.is_boolean()) {
      out = value.template get<bool>() ? 1 : 0;
    } else {
      throwTypeError("number", value);
    }
  } else if constexpr (std::is_enum<T>::value) {
    if constexpr (IsStringEnum<T>::value) {
      from_json(value, out);  // the enum's table, found by argument-dependent lookup
    } else {
      int32_t number = 0;
      readValue(value, number);
      out = static_cast<T>(number);
    }
  } else if constexpr (IsVector<T>::value) {
    if (!value.is_array()) throwTypeError("array", value);
    T items;
    items.reserve(value.size());
    for (const auto& element : value) {
      typename T::value_type item{};
      readValue(element, item);
      items.push_back(std::move(item));
    }
    out = std::move(items);
  } else if constexpr (IsOptional<T>::value) {
    typename T::value_type item{};
    readValue(value, item);
    out = std::move(item);
  } else {
    static_assert(IsRecord<T>::value, "not a wire type");
    if (!value.is_object()) return;
    T::fields(out, Reader<J>{value});
  }
}

template <typename J, typename T>
void writeValue(J& out, const T& value);

template <typename J>
struct Writer {
  J& object;
  template <typename T>
  void operator()(const char* key, const T& field, Write mode = Write::Always) const {
    if constexpr (IsOptional<T>::value) {
      if (!field) return;
      writeValue(object[key], *field);
    } else {
      if constexpr (IsVector<T>::value) {
        if (mode == Write::IfNonEmpty && field.empty()) return;
      }
      writeValue(object[key], field);
    }
  }
};

template <typename J, typename T>
void writeValue(J& out, const T& value) {
  if constexpr (std::is_enum<T>::value) {
    if constexpr (IsStringEnum<T>::value) {
      to_json(out, value);
    } else {
      out = static_cast<int32_t>(value);
    }
  } else if constexpr (IsVector<T>::value) {
    out = J::array();
    for (const auto& item : value) {
      J element;
      writeValue(element, item);
      out.push_back(std::move(element));
    }
  } else if constexpr (IsRecord<T>::value) {
    out = J::object();
    T::fields(value, Writer<J>{out});
  } else {
    out = value;
  }
}

}  // namespace detail

template <typename J, typename R, typename = typename R::IsWireRecord>
void from_json(const J& json, R& record) {
  detail::readValue(json, record);
}

template <typename J, typename R, typename = typename R::IsWireRecord>
void to_json(J& json, const R& record) {
  detail::writeValue(json, record);
}

// Compact text of a record, keys in table order. Invalid UTF-8 in strings
// is replaced by U+FFFD rather than failing, so host text always goes out.
template <typename R>
std::string toText(const R& record) {
  OrderedJson json;
  detail::writeValue(json, record);
  return json.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

// Parses `text` into a record; throws the JSON library's exceptions.
template <typename R>
R fromText(const std::string& text) {
  R record;
  detail::readValue(parseUntrustedJson(text), record);
  return record;
}

}  // namespace idl
}  // namespace orvi
