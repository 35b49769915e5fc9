#include "orvi/sync/sync_message_processor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using P = SyncMessageProcessor;

TEST(SyncMessageProcessorTest, FragmentsCopyTheRecordAndSurviveBrokenUtf8) {
  // A stray continuation byte (\200) counts as a character of its own, and a
  // character cut off at the end (\342) is not read past; both reach the
  // wire as U+FFFD.
  const auto messages =
      P::splitFragments({"rec", "\200ab\342", "text", "delta", 42, "gzip", "meta", {}}, 2);
  const std::vector<std::string> pieces = {"\uFFFDa", "b\uFFFD"};
  ASSERT_EQ(messages.size(), pieces.size());
  for (size_t i = 0; i < pieces.size(); ++i) {
    EXPECT_EQ(messages[i].text, R"({"version":0,"sync_infos":[{"id":"rec","content":")" +
                                    pieces[i] +
                                    R"(","content_type":"text","type":"delta","index":42,)"
                                    R"("compression":"gzip","extra":"meta","fragment":{"total":2,)"
                                    R"("index":)" +
                                    std::to_string(i) + "}}]}");
  }
  test::ScopedLogCapture log;
  EXPECT_TRUE(P::splitFragments({"none", "", {}, "base", 0, {}, {}, {}}, 2).empty());
  EXPECT_TRUE(log->has("Empty content for sync info id: none"));
}

}  // namespace
}  // namespace orvi
