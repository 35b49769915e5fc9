#include "orvi/utils/untrusted_json.h"

#include <gtest/gtest.h>

#include <string>

namespace orvi {
namespace {

std::string nested(std::size_t depth, const std::string& leaf = "1") {
  return std::string(depth, '[') + leaf + std::string(depth, ']');
}

TEST(UntrustedJson, DepthCountsOnlyBracketsAParserWouldSee) {
  EXPECT_EQ(jsonNestingDepth("1"), 0u);
  EXPECT_EQ(jsonNestingDepth(R"({"a":[{"b":[]}]})"), 4u);
  // Brackets inside strings, also after escaped quotes and backslashes.
  EXPECT_EQ(jsonNestingDepth(R"(["[[[{{{", "\"[[[", "\\", "]]]"])"), 1u);
  EXPECT_EQ(jsonNestingDepth(R"(["\\"] ])"), 1u);
  // Unbalanced closers never make the count wrap.
  EXPECT_EQ(jsonNestingDepth("]]]]]][["), 2u);
  // The scan stops just past the limit.
  EXPECT_EQ(jsonNestingDepth(nested(100000), 10), 11u);
}

TEST(UntrustedJson, RefusesDeepTextsAndParsesEverythingElse) {
  EXPECT_EQ(parseUntrustedJson(nested(kMaxJsonDepth)).dump(), nested(kMaxJsonDepth));
  EXPECT_THROW(parseUntrustedJson(nested(kMaxJsonDepth + 1)), JsonTooDeep);
  // A hostile frame: deep nesting inside an otherwise valid object, and one
  // that is deep but never closed. Neither reaches the parser.
  EXPECT_THROW(parseUntrustedJson(R"({"content":)" + nested(100000) + "}"), JsonTooDeep);
  EXPECT_THROW(parseUntrustedJson(std::string(50000, '{')), JsonTooDeep);
  try {
    parseUntrustedJson(std::string(300, '['));
    FAIL() << "not refused";
  } catch (const JsonTooDeep& e) {
    EXPECT_EQ(std::string(e.what()), "JSON nested deeper than 256 levels at byte 256, refused");
  }
  // Deep brackets inside a string are just text.
  const auto inside = parseUntrustedJson("\"" + std::string(100000, '[') + "\"");
  EXPECT_EQ(inside.get_ref<const std::string&>().size(), 100000u);
  EXPECT_THROW(parseUntrustedJson("{\"a\":"), nlohmann::json::parse_error);
}

TEST(UntrustedJson, DepthOfBuiltTreesIsMeasuredWithoutRecursion) {
  const auto value = nlohmann::json::parse(nested(10));
  EXPECT_TRUE(jsonDepthWithin(value, 0, 10));
  EXPECT_FALSE(jsonDepthWithin(value, 0, 9));
  EXPECT_TRUE(jsonDepthWithin(value, 246));
  EXPECT_FALSE(jsonDepthWithin(value, 247));
  EXPECT_TRUE(jsonDepthWithin(nlohmann::json("text"), kMaxJsonDepth));
  EXPECT_FALSE(jsonDepthWithin(nlohmann::json("text"), kMaxJsonDepth + 1));
}

TEST(UntrustedJson, LoggedTextIsCutWithItsLength) {
  EXPECT_EQ(textForLog("short"), "short");
  const std::string shown = textForLog(std::string(kLoggedTextBytes + 10, 'x'));
  EXPECT_EQ(shown, std::string(kLoggedTextBytes, 'x') + "...(10 more bytes)");
}

// Numbers from outside become integers only when they fit: the JSON
// library's own conversion of an out-of-range float is undefined behaviour
// (UBSan flagged a sync "index" of 9.6e19).
TEST(UntrustedJson, IntegersAreReadOnlyWhenTheyFit) {
  const struct {
    const char* text;
    bool fits_int32, fits_int64;
  } cases[] = {
      {"7", true, true},
      {"-2147483648", true, true},
      {"2147483648", false, true},
      {"9223372036854775807", false, true},
      {"18446744073709551615", false, false},  // unsigned, past int64
      {"-9223372036854775808", false, true},
      {"2.9", true, true},  // truncated, as before
      {"-2147483648.5", true, true},
      {"96223372036854775807.0", false, false},
      {"9223372036854775808.0", false, false},  // 2^63
      {"1e300", false, false},
      {"\"7\"", false, false},
      {"null", false, false},
      {"[1]", false, false},
  };
  for (const auto& c : cases) {
    const auto value = nlohmann::json::parse(c.text);
    if (c.fits_int32) {
      EXPECT_EQ(checkedInteger<int32_t>(value), value.get<int32_t>()) << c.text;
    } else {
      EXPECT_THROW(checkedInteger<int32_t>(value), nlohmann::json::type_error) << c.text;
    }
    if (c.fits_int64) {
      EXPECT_EQ(checkedInteger<int64_t>(value), value.get<int64_t>()) << c.text;
    } else {
      EXPECT_THROW(checkedInteger<int64_t>(value), nlohmann::json::type_error) << c.text;
    }
  }
}

}  // namespace
}  // namespace orvi
