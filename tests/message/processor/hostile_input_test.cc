// What the processor does with input a broken or hostile server sends: frames
// too long, compressed content that inflates too far, nesting too deep,
// members of the wrong type, REST replies of the same kinds. Each is refused
// with one error line that names what was refused, and gives nothing.
#include <gtest/gtest.h>

#include <string>

#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "orvi/utils/untrusted_json.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

std::string nested(size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

std::string frame(const std::string& content, const std::string& extra_members = "") {
  idl::OrderedJson json = {
      {"local_conversation_id", "lc"}, {"event", "message"}, {"content", content}};
  std::string text = json.dump();
  if (!extra_members.empty()) text.insert(text.size() - 1, "," + extra_members);
  return text;
}

std::string assistant(const std::string& payload) {
  return idl::OrderedJson{{"message_id", "a1"},
                          {"role", "assistant"},
                          {"content", {{"payload", payload}, {"content_type", 1}}}}
      .dump();
}

// Content that gzip shrinks about a thousand times: a message whose payload
// is `bytes` spaces long.
std::string gzipFrame(size_t bytes) {
  std::string content = assistant(std::string(bytes, ' '));
  EXPECT_GT(utils::compressEx(content), 0);
  return frame(utils::base64Encode(content), R"("compression":{"algo":"gzip"})");
}

TEST(HostileInputTest, FramesBeyondTheirLimitsAreRefusedWithOneLineNamingWhy) {
  test::ScopedLogCapture log;
  const std::string small = frame(assistant("hi"));
  const struct {
    std::string text;
    size_t limit;
    std::string line;  // the error line that names the refusal
  } cases[] = {
      {small, small.size() - 1,
       "Refused a frame of " + std::to_string(small.size()) + " bytes, longer than the limit of " +
           std::to_string(small.size() - 1) + " bytes"},
      {gzipFrame(1u << 20), 64u << 10,
       "Refused a compressed frame: its content inflates past the limit of 65536 bytes"},
      {gzipFrame(17u << 20), kDefaultMaxDownlinkFrameBytes,
       "Refused a compressed frame: its content inflates past the limit of 16777216 bytes"},
      {nested(300), kDefaultMaxDownlinkFrameBytes,
       "Error: JSON nested deeper than 256 levels at byte 256, refused, original json: " +
           nested(300)},
      {frame(nested(300)), kDefaultMaxDownlinkFrameBytes, "JSON nested deeper than 256 levels"},
      {frame("{\"message_id\":" + nested(20000) + "}"), kDefaultMaxDownlinkFrameBytes,
       "JSON nested deeper than 256 levels"},
  };
  for (const auto& c : cases) {
    log->clear();
    EXPECT_FALSE(MessageProcessor::parse(c.text, c.limit)) << c.line;
    EXPECT_EQ(log->countContaining(c.line), 1u) << c.line;
  }
  // The limits are per frame: the same frames within them are read.
  EXPECT_TRUE(MessageProcessor::parse(small, small.size()));
  EXPECT_TRUE(MessageProcessor::parse(gzipFrame(1u << 20), 2u << 20));
}

TEST(HostileInputTest, StoredFramesHaveNoLengthLimitButStillInflateWithinOne) {
  test::ScopedLogCapture log;
  // An assistant message that grew past the live limit through its deltas
  // is stored whole and must read back.
  const std::string stored = frame(assistant(std::string(kDefaultMaxDownlinkFrameBytes, 'x')));
  const MessagePtr message = MessageProcessor::parse(stored);
  ASSERT_TRUE(message);
  EXPECT_EQ(std::dynamic_pointer_cast<AssistantMessageWrapper>(message)
                ->message()
                ->content->content.size(),
            kDefaultMaxDownlinkFrameBytes);
  EXPECT_FALSE(MessageProcessor::parse(stored, kDefaultMaxDownlinkFrameBytes));
  // A store that holds a compressed bomb gets nothing from it.
  log->clear();
  EXPECT_FALSE(MessageProcessor::parse(gzipFrame(17u << 20)));
  EXPECT_EQ(log->countContaining("Refused a compressed frame"), 1u);
}

// The error line of a badly typed frame quotes the text that came, cut to a
// log line's worth: never the tree printed back (which reorders keys and
// recurses over its depth).
TEST(HostileInputTest, BadlyTypedFramesAreQuotedAsTheyCame) {
  test::ScopedLogCapture log;
  const std::string cases[] = {
      R"({"zz":1,   "messages":"not a list"})",  // a stored user frame
      R"({"zz":1,   "messages":[{"status":"done"}],"a":)" + nested(250) + "}",  // deep beside it
      R"({"zz":1,   "messages":5,"pad":")" + std::string(10000, 'p') + "\"}",   // long
      R"({"zz":1,   "event":"delta","content":{"message_id":1}})",              // a remote frame
  };
  for (const auto& text : cases) {
    log->clear();
    EXPECT_FALSE(MessageProcessor::parse(text));
    const std::string expected = "original json: " + textForLog(text);
    EXPECT_EQ(log->countContaining(expected), 1u) << text.substr(0, 60);
    EXPECT_EQ(log->countContaining("type must be"), 1u) << text.substr(0, 60);
  }
}

TEST(HostileInputTest, RestRepliesBeyondTheirLimitsGiveEmptyResults) {
  test::ScopedLogCapture log;
  const std::string too_long = R"({"ret":"0","pad":")" + std::string(kMaxReplyBytes, 'p') + "\"}";
  const std::string deep = R"({"ret":"0","data":)" + nested(300) + "}";
  const std::string deep_sections = R"({"ret":"0","data":{"section_list":[)" + nested(300) + "]}}";
  const struct {
    const std::string* body;
    std::string line;
  } cases[] = {
      {&too_long, "Refused a REST reply of " + std::to_string(too_long.size()) +
                      " bytes, longer than the limit of " + std::to_string(kMaxReplyBytes) +
                      " bytes"},
      {&deep, "JSON nested deeper than 256 levels"},
      {&deep_sections, "JSON nested deeper than 256 levels"},
  };
  for (const auto& c : cases) {
    log->clear();
    EXPECT_FALSE(MessageProcessor::recoverSection(*c.body).valid);
    EXPECT_FALSE(MessageProcessor::recoverSections(*c.body).valid);
    EXPECT_FALSE(MessageProcessor::parseConversationMsgDeleteResp(*c.body));
    EXPECT_FALSE(MessageProcessor::parseConversationBatchDeleteResp(*c.body));
    const ConversationListInfo page = MessageProcessor::parseConversationListResp(*c.body);
    EXPECT_TRUE(page.error && page.conversations.empty());
    EXPECT_EQ(log->countContaining(c.line), 5u) << c.line;
  }
}

}  // namespace
}  // namespace orvi
