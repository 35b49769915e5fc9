#include "orvi/sync/sync_message_processor.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "orvi/sync/sync_wire_text.h"
#include "support/recording_log_handler.h"
#include "support/sync_fakes.h"

namespace orvi {
namespace {

using P = SyncMessageProcessor;

idl::SyncInfo recordWith(std::string content) {
  return {"rec", std::move(content), {}, "delta", 42, {}, {}, {}};
}

// Characters as the fragment rule counts them: by lead byte, a stray
// continuation byte being a character of its own.
size_t countChars(const std::string& text) {
  size_t chars = 0;
  for (size_t at = 0; at < text.size(); ++chars) {
    const auto c = static_cast<unsigned char>(text[at]);
    at += c < 0x80             ? 1
          : (c & 0xE0) == 0xC0 ? 2
          : (c & 0xF0) == 0xE0 ? 3
          : (c & 0xF8) == 0xF0 ? 4
                               : 1;
  }
  return chars;
}

TEST(SyncMessageProcessorTest, FragmentsSplitByCharactersAndJoinBackToTheContent) {
  // Cases: content, fragment count, characters per fragment.
  for (const auto& [content, count, want] :
       std::vector<std::tuple<std::string, int32_t, std::vector<size_t>>>{
           {std::string(1000, 'a'), 3, {333, 333, 334}},
           {test::mixedUtf8(1000), 3, {333, 333, 334}},
           {test::mixedUtf8(17), 4, {4, 4, 4, 5}},
           {std::string(40, 'b') + "漢" + std::string(40, 'c'), 2, {40, 41}},
           {"\200ab\342", 2, {2, 2}},  // stray byte counts one; a cut lead ends the text
           {"xy", 5, {0, 0, 0, 0, 2}},
       }) {
    SCOPED_TRACE(testing::PrintToString(content));
    const auto slices = P::planFragments(recordWith(content), count);
    ASSERT_EQ(slices.size(), want.size());
    std::string joined;
    for (size_t i = 0; i < slices.size(); ++i) {
      EXPECT_EQ(slices[i].total, count);
      EXPECT_EQ(slices[i].index, static_cast<int32_t>(i));
      EXPECT_EQ(slices[i].begin, joined.size());
      const std::string piece = content.substr(slices[i].begin, slices[i].end - slices[i].begin);
      EXPECT_EQ(countChars(piece), want[i]) << i;
      EXPECT_TRUE(sync_wire::isValidUtf8(piece) || !sync_wire::isValidUtf8(content)) << i;
      joined += piece;
    }
    EXPECT_EQ(joined, content);
  }
  test::ScopedLogCapture log;
  EXPECT_TRUE(P::planFragments(recordWith(""), 2).empty());
  EXPECT_TRUE(log->has("Empty content for sync info id: rec"));
}

}  // namespace
}  // namespace orvi
