#include "orvi/utils/base64.h"

#include <gtest/gtest.h>

#include <string>

namespace orvi {
namespace utils {
namespace {

TEST(Base64Test, Rfc4648Vectors) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},        {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(base64Decode(encoded), plain);
  }
}

TEST(Base64Test, EveryByteValueRoundTripsUsingTheWholeAlphabet) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (size_t cut = 253; cut <= 256; ++cut) {
    const std::string input = all.substr(0, cut);
    const std::string text = base64Encode(input);
    EXPECT_EQ(text.size() % 4, 0u);
    EXPECT_EQ(base64Decode(text), input);
  }
  EXPECT_NE(base64Encode(all).find('+'), std::string::npos);
  EXPECT_NE(base64Encode(all).find('/'), std::string::npos);
}

TEST(Base64Test, DecodeStopsAtPaddingOrForeignCharacters) {
  EXPECT_EQ(base64Decode("QQ"), "A");
  EXPECT_EQ(base64Decode("QQ=="), "A");
  EXPECT_EQ(base64Decode("Q"), "");
  EXPECT_EQ(base64Decode("QU JD"), "A");      // the blank ends the data
  EXPECT_EQ(base64Decode("Zm9v\nYmFy"), "foo");
  EXPECT_EQ(base64Decode("Zm9v=YmFy"), "foo");
  EXPECT_EQ(base64Decode("-_-_"), "");         // URL-safe alphabet is foreign
  EXPECT_EQ(base64Decode(std::string("Zm\0v", 4)), "f");
}

}  // namespace
}  // namespace utils
}  // namespace orvi
