#include "orvi/message/processor/message_processor.h"

#include <gtest/gtest.h>

#include <string>

#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/custom_message_wrapper.h"
#include "orvi/message/wrapper/delta_message_wrapper.h"
#include "orvi/message/wrapper/system_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using idl::toText;

std::string downlink(const std::string& event, const std::string& content,
                     const std::string& extra_members = "") {
  idl::OrderedJson frame = {{"conversation_id", "c1"},
                            {"local_conversation_id", "lc1"},
                            {"section_id", "s1"},
                            {"local_section_id", "ls1"},
                            {"event", event},
                            {"content", content},
                            {"server_time", 1700}};
  std::string text = frame.dump();
  if (!extra_members.empty()) text.insert(text.size() - 1, "," + extra_members);
  return text;
}

const char kAssistant[] =
    R"({"message_id":"a1","role":"assistant","content":{"payload":"{\"text\":\"hi\"}",)"
    R"("content_type":1},"create_time":5,"status":0})";

std::string gzipBase64(std::string text) {
  utils::compressEx(text);
  return utils::base64Encode(text);
}

TEST(MessageProcessorTest, EventsChooseTheWrapperAndCarryTheEnvelope) {
  const struct {
    std::string frame;
    MessageKind kind;
  } cases[] = {
      {downlink("message", kAssistant), MessageKind::Assistant},
      {downlink("delta", R"({"message_id":"a1","json_patch":"[]"})"), MessageKind::Delta},
      {downlink("system", R"({"code":0,"msg":"stream_complete"})"), MessageKind::System},
      {downlink("custom", R"({"message_id":"x"})"), MessageKind::Custom},
      {downlink("surprise", kAssistant), MessageKind::Assistant},  // unknown reads as message
  };
  for (const auto& c : cases) {
    const MessagePtr message = MessageProcessor::parse(c.frame);
    ASSERT_TRUE(message) << c.frame;
    EXPECT_EQ(message->type(), c.kind);
    EXPECT_EQ(message->envelope().conversation_id, "c1");
    EXPECT_EQ(message->envelope().local_conversation_id, "lc1");
    EXPECT_EQ(message->sectionId(), "s1");
    EXPECT_EQ(message->localSectionId(), "ls1");
  }
  auto assistant = std::dynamic_pointer_cast<AssistantMessageWrapper>(
      MessageProcessor::parse(downlink("message", kAssistant, R"("extra":"x")")));
  ASSERT_TRUE(assistant && assistant->message());
  EXPECT_EQ(assistant->message()->content->content, R"({"text":"hi"})");
  EXPECT_EQ(assistant->envelope().server_time, 1700);
  EXPECT_EQ(*assistant->envelope().extra, "x");
}

TEST(MessageProcessorTest, LocalOrRemoteIsDecidedByEventOrContentKeys) {
  test::ScopedLogCapture log;
  // "event" without "content" is remote: an assistant frame with ids only.
  auto bare = std::dynamic_pointer_cast<AssistantMessageWrapper>(
      MessageProcessor::parse(R"({"event":"message","conversation_id":"c","server_time":3})"));
  ASSERT_TRUE(bare);
  EXPECT_FALSE(bare->message());
  EXPECT_EQ(bare->envelope().conversation_id, "c");
  EXPECT_EQ(bare->envelope().server_time, 3);

  // Neither key: a stored user message.
  auto user = MessageProcessor::parse(
      R"({"local_conversation_id":"lc","messages":[{"local_message_id":"lm"}]})");
  ASSERT_TRUE(user);
  EXPECT_EQ(user->type(), MessageKind::User);
  EXPECT_EQ(user->envelope().local_message_id, "lm");

  // An array is local too, and has no messages.
  EXPECT_FALSE(MessageProcessor::parse("[1,2]"));
  EXPECT_TRUE(log->has("messages is empty"));
}

TEST(MessageProcessorTest, CompressedContentIsUnpackedOnlyForGzip) {
  test::ScopedLogCapture log;
  const std::string packed = gzipBase64(kAssistant);
  auto message = MessageProcessor::parse(downlink("message", packed, R"("compression":{"algo":"gzip"})"));
  ASSERT_TRUE(message);
  auto assistant = std::dynamic_pointer_cast<AssistantMessageWrapper>(message);
  EXPECT_EQ(assistant->message()->message_id, "a1");
  EXPECT_EQ(log->countContaining("Successfully uncompress content, original size: "), 1u);

  const struct {
    std::string compression;
    std::string content;
    std::string line;
  } failures[] = {
      {R"({"algo":"GZIP"})", packed, "Unsupported compression algo: GZIP"},
      {R"({"algo":""})", packed, "Compression algo is empty"},
      {R"({"algo":"gzip"})", "not base64 at all!", "Failed to uncompress content, ret: -3"},
      {R"({"algo":"gzip"})", utils::base64Encode("plain, not gzip"),
       "Failed to uncompress content, ret: -3"},
  };
  for (const auto& f : failures) {
    log->clear();
    EXPECT_FALSE(MessageProcessor::parse(downlink("message", f.content, "\"compression\":" + f.compression)));
    EXPECT_TRUE(log->has(f.line)) << f.compression << " " << f.content;
  }
}

// Input from the network can be anything; every case ends in a log line and
// an empty result, never an exception, a crash or a hang.
TEST(MessageProcessorTest, BadInputGivesNothingAndALogLine) {
  test::ScopedLogCapture log;
  const std::string deep(100000, '[');
  const std::string deep_object = std::string(50000, '[') + std::string(50000, ']');
  const std::string cases[] = {
      "",
      "{",
      "null",
      "\"just a string\"",
      std::string("{\"event\":\"message\",\"content\":\"\xff\xfe\"}"),
      R"({"event":"message","content":null})",
      R"({"event":"message","content":["a"]})",
      R"({"event":"delta","content":""})",
      R"({"event":"system","content":"{\"code\":\"zero\"}"})",
      R"({"event":"message","content":"{\"message_id\":1e999}"})",
      R"({"messages":{"a":1}})",
      R"({"messages":[{"status":"done"}]})",
      deep,
      deep_object,
  };
  for (const auto& text : cases) {
    log->clear();
    MessagePtr message;
    EXPECT_NO_THROW(message = MessageProcessor::parse(text));
    EXPECT_FALSE(message) << text.substr(0, 80);
    EXPECT_GE(log->countContaining("rror") + log->countContaining("messages is empty"), 1u)
        << text.substr(0, 80);
  }
  // A deeply nested but valid frame is simply a local frame without messages.
  const std::string nested_content =
      R"({"event":"message","content":")" + std::string(20000, '[') + R"("})";
  EXPECT_NO_THROW(MessageProcessor::parse(nested_content));

  // Huge strings are carried, not choked on.
  const std::string big(8 << 20, 'x');
  idl::OrderedJson content = {{"message_id", "big"}, {"content", {{"payload", big}}}};
  auto message = MessageProcessor::parse(downlink("message", content.dump()));
  ASSERT_TRUE(message);
  EXPECT_EQ(std::dynamic_pointer_cast<AssistantMessageWrapper>(message)->message()->content->content.size(),
            big.size());
}

// A message stored and parsed back is the same message: ids, section ids,
// content, status and tool calls survive the record.
TEST(MessageProcessorTest, StoredRecordsParseBackToTheSameMessage) {
  InputMessage input;
  input.content = MessageContent("question", 0);
  input.tool_result = ToolResult({}, {ToolCallResult("t", "r", "", ToolResultStatus::Succeed,
                                                     std::nullopt, 0)},
                                 ToolResultStatus::Succeed, std::nullopt, 0);
  auto user = UserMessageWrapper::fromInput(input, "lc1", "c1");
  user->setSectionIds("s1", "ls1");
  user->message()->status = MessageStatus::Completed;
  user->message()->create_time = 77;
  user->sync();

  const MessageRecord user_record = MessageProcessor::message2Record(user);
  EXPECT_EQ(user_record.type, "user");
  EXPECT_EQ(user_record.local_message_id, user->message()->local_message_id);
  EXPECT_EQ(user_record.local_section_id, "ls1");
  EXPECT_EQ(user_record.status, "2");
  EXPECT_EQ(user_record.create_time, 77);
  auto user_back = std::dynamic_pointer_cast<UserMessageWrapper>(MessageProcessor::parse(user_record.content));
  ASSERT_TRUE(user_back);
  EXPECT_EQ(user_back->message()->local_message_id, user->message()->local_message_id);
  EXPECT_EQ(user_back->message()->content->content, "question");
  EXPECT_EQ(user_back->message()->status, MessageStatus::Completed);
  EXPECT_EQ(user_back->message()->tool_result->tool_call_result[0].result, "r");
  EXPECT_EQ(user_back->envelope().conversation_id, "c1");
  EXPECT_EQ(user_back->sectionId(), "s1");
  EXPECT_EQ(user_back->localSectionId(), "ls1");

  const std::string assistant_frame = downlink(
      "message",
      R"({"message_id":"a1","role":"assistant","content":{"payload":"{}","content_type":1},)"
      R"("tool_calls":[{"name":"t","properties":"{}","compose_type":"draft","depends":["x"]}],)"
      R"("create_time":5,"status":0})");
  auto assistant = std::dynamic_pointer_cast<AssistantMessageWrapper>(MessageProcessor::parse(assistant_frame));
  ASSERT_TRUE(assistant);
  assistant->message()->content->content = R"({"text":"streamed"})";
  assistant->message()->status = MessageStatus::Completed;
  const MessageRecord assistant_record = MessageProcessor::message2Record(assistant);
  EXPECT_EQ(assistant_record.type, "assistant");
  EXPECT_EQ(assistant_record.message_id, "a1");
  EXPECT_EQ(assistant_record.section_id, "s1");
  auto assistant_back = std::dynamic_pointer_cast<AssistantMessageWrapper>(
      MessageProcessor::parse(assistant_record.content));
  ASSERT_TRUE(assistant_back);
  EXPECT_EQ(assistant_back->message()->message_id, "a1");
  EXPECT_EQ(assistant_back->message()->content->content, R"({"text":"streamed"})");
  EXPECT_EQ(assistant_back->message()->status, MessageStatus::Completed);
  EXPECT_EQ((*assistant_back->message()->tool_calls)[0].compose_type, ToolCallComposeType::Draft);
  EXPECT_EQ(*(*assistant_back->message()->tool_calls)[0].depends, std::vector<std::string>{"x"});
  EXPECT_EQ(assistant_back->localSectionId(), "ls1");
  EXPECT_EQ(assistant_back->envelope().server_time, 1700);

  for (const auto& frame : {downlink("delta", R"({"message_id":"a1","json_patch":"[{\"op\":\"append\"}]"})"),
                            downlink("system", R"({"code":3,"msg":"section_complete"})")}) {
    const MessagePtr original = MessageProcessor::parse(frame);
    ASSERT_TRUE(original);
    const MessageRecord record = MessageProcessor::message2Record(original);
    EXPECT_EQ(record.type, messageKindName(original->type()));
    EXPECT_EQ(record.create_time, 1700);
    const MessagePtr back = MessageProcessor::parse(record.content);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->type(), original->type());
    EXPECT_EQ(back->marshal(), original->marshal());
    EXPECT_EQ(back->sectionId(), "s1");
    EXPECT_EQ(back->envelope().local_conversation_id, "lc1");
  }

  // Custom messages are not stored, and a null message gives an empty record.
  EXPECT_TRUE(MessageProcessor::message2Record(MessageProcessor::parse(downlink("custom", "{}"))).type.empty());
  EXPECT_TRUE(MessageProcessor::message2Record(nullptr).type.empty());
}

TEST(MessageProcessorTest, MatchesAssistantFramesById) {
  const std::string frame = R"({"event":"message","content":{"role":"assistant","message_id":"a1"}})";
  EXPECT_TRUE(MessageProcessor::isMatchAssistantMessage(frame, "a1"));
  EXPECT_FALSE(MessageProcessor::isMatchAssistantMessage(frame, "a2"));
  EXPECT_FALSE(MessageProcessor::isMatchAssistantMessage(downlink("message", kAssistant), "a1"));
  EXPECT_FALSE(MessageProcessor::isMatchAssistantMessage(R"({"messages":[]})", ""));
}

TEST(MessageProcessorTest, DeleteRepliesSucceedOnlyOnRetZero) {
  test::ScopedLogCapture log;
  EXPECT_TRUE(MessageProcessor::parseConversationMsgDeleteResp(R"({"ret":"0","log_id":"L"})"));
  EXPECT_TRUE(log->has("Delete messages, ret: 0, errmsg: , log_id: L"));
  for (const char* body : {R"({"ret":"0 "})", R"({"ret":"00"})", "{}", R"({"ret":0})", "nope"}) {
    EXPECT_FALSE(MessageProcessor::parseConversationBatchDeleteResp(body)) << body;
  }
}

TEST(MessageProcessorTest, ConversationListReplies) {
  test::ScopedLogCapture log;
  const auto page = MessageProcessor::parseConversationListResp(
      R"({"ret":"0","data":{"conversation_list":[{"local_conversation_id":"lc","conversation_id":"c",)"
      R"("create_time":1,"update_time":2,"name":"n","msg_count":3,"extra":"e"}],)"
      R"("has_more":true,"next_cursor":"k"}})");
  EXPECT_FALSE(page.error);
  ASSERT_EQ(page.conversations.size(), 1u);
  const ConversationInfo& info = page.conversations[0];
  EXPECT_EQ(info.local_conversation_id + info.conversation_id + info.name + info.extra, "lccne");
  EXPECT_EQ(info.create_time, 1);
  EXPECT_EQ(*info.update_time, 2);
  EXPECT_EQ(*info.message_count, 3);
  EXPECT_TRUE(page.has_more);
  EXPECT_EQ(page.next_cursor, "k");

  const auto refused = MessageProcessor::parseConversationListResp(R"({"ret":"7","err_msg":"no"})");
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code, "7");
  EXPECT_TRUE(log->has("conversation list response invalid, ret: 7, err_msg: no, log_id: "));

  const auto broken = MessageProcessor::parseConversationListResp(R"({"ret":"0","data":[)");
  EXPECT_TRUE(broken.error && broken.conversations.empty());
  EXPECT_EQ(log->countContaining(", original json error."), 1u);
}

TEST(MessageProcessorTest, RecoveredSectionsBecomeWrappers) {
  const std::string section =
      R"({"status":0,"finish_system_message":{"code":0,"msg":"section_complete"},"message_list":[)"
      R"({"message_id":"u1","local_message_id":"lu1","conversation_id":"c","section_id":"s",)"
      R"("local_section_id":"ls","role":"user","content":{"payload":"q","content_type":0},"create_time":1},)"
      R"({"message_id":"a1","conversation_id":"c","section_id":"s","role":"assistant",)"
      R"("content":{"payload":"{}","content_type":1},"create_time":2}]})";
  const auto one = MessageProcessor::recoverSection(R"({"ret":"0","errmsg":"","data":)" + section + "}");
  ASSERT_TRUE(one.valid);
  ASSERT_EQ(one.section.messages.size(), 2u);
  auto user = std::dynamic_pointer_cast<UserMessageWrapper>(one.section.messages[0]);
  auto assistant = std::dynamic_pointer_cast<AssistantMessageWrapper>(one.section.messages[1]);
  ASSERT_TRUE(user && assistant);
  EXPECT_EQ(user->message()->message_id, "u1");
  EXPECT_EQ(user->message()->local_message_id, "lu1");
  EXPECT_EQ(user->sectionId(), "s");
  EXPECT_EQ(assistant->message()->message_id, "a1");
  EXPECT_EQ(assistant->message()->status, MessageStatus::Completed);
  EXPECT_EQ(assistant->envelope().conversation_id, "c");
  auto finish = std::dynamic_pointer_cast<SystemMessageWrapper>(one.section.finish_system_message);
  ASSERT_TRUE(finish);
  EXPECT_EQ(finish->message()->msg, "section_complete");

  const auto paged = MessageProcessor::recoverSections(
      R"({"ret":"0","data":{"section_list":[)" + section + "," + section +
      R"(],"has_more":true,"next_cursor":"n2"}})");
  ASSERT_TRUE(paged.valid);
  EXPECT_EQ(paged.sections.size(), 2u);
  EXPECT_TRUE(paged.has_more);
  EXPECT_EQ(paged.next_cursor, "n2");

  EXPECT_FALSE(MessageProcessor::recoverSection(R"({"ret":"1"})").valid);
  EXPECT_FALSE(MessageProcessor::recoverSections(R"({"ret":"0","data":{"section_list":{}}})").valid);
}

}  // namespace
}  // namespace orvi
