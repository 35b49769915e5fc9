#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/custom_message_wrapper.h"
#include "orvi/message/wrapper/delta_message_wrapper.h"
#include "orvi/message/wrapper/system_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

TEST(WrappersTest, KindsAndTheirNames) {
  const std::pair<std::shared_ptr<MessageBase>, std::string> cases[] = {
      {std::make_shared<UserMessageWrapper>(), "user"},
      {std::make_shared<AssistantMessageWrapper>(), "assistant"},
      {std::make_shared<DeltaMessageWrapper>(), "delta"},
      {std::make_shared<SystemMessageWrapper>(), "system"},
      {std::make_shared<CustomMessageWrapper>(), "custom"},
  };
  int expected_kind = 0;
  for (const auto& [wrapper, name] : cases) {
    EXPECT_EQ(static_cast<int>(wrapper->type()), expected_kind++);
    EXPECT_EQ(messageKindName(wrapper->type()), name);
  }
  EXPECT_STREQ(messageKindName(static_cast<MessageKind>(5)), "");
}

TEST(WrappersTest, UserMessageFromInputBecomesTheUplinkFrame) {
  test::ScopedLogCapture log;
  InputMessage input;
  input.content = MessageContent("hello", 1);
  input.context =
      Context(std::vector<std::string>{"draft"}, std::nullopt, std::string("ref"), std::nullopt);
  input.extra = "opaque";
  auto wrapper = UserMessageWrapper::fromInput(input, "lc", "");
  wrapper->setSectionIds("", "ls");
  wrapper->message()->create_time = 42;
  wrapper->message()->status = MessageStatus::Completed;
  wrapper->sync();

  const std::string id = wrapper->message()->local_message_id;
  ASSERT_EQ(id.size(), 36u);
  EXPECT_EQ(wrapper->envelope().local_message_id, id);
  EXPECT_EQ(wrapper->marshal(),
            R"({"conversation_id":"","local_conversation_id":"lc","reply_message_id":"",)"
            R"("section_id":"","local_section_id":"ls","messages":[{"message_id":"",)"
            R"("local_message_id":")" +
                id +
                R"(","role":"user","content":{"payload":"hello",)"
                R"("content_type":1},"create_time":42,"status":2,"is_complete":true}],)"
                R"("context":{"drafts":["draft"],"refer":"ref"},"extra":"opaque"})");

  // A second sync keeps the id; engine changes made after sync still show.
  wrapper->sync();
  EXPECT_EQ(wrapper->message()->local_message_id, id);
  EXPECT_TRUE(log->has("user message(" + id + ") has already message id, skip generate"));
  wrapper->setSectionIds("s1", "ls");
  wrapper->setRunMode("callee");
  EXPECT_NE(wrapper->marshal().find(R"("section_id":"s1")"), std::string::npos);
  EXPECT_NE(wrapper->marshal().find(R"("options":{"run_mode":"callee"})"), std::string::npos);
}

TEST(WrappersTest, AssistantAndSystemBuildTheirPublicRecordOnce) {
  AssistantMessageWrapper assistant;
  ASSERT_TRUE(assistant.unmarshal(
      R"({"message_id":"a1","role":"assistant","content":{"payload":"{\"text\":\"\"}",)"
      R"("content_type":2},"tool_calls":[{"name":"t","properties":"{}","compose_type":"cluster"}],)"
      R"("create_time":10,"status":0})"));
  assistant.sync();
  auto first = assistant.message();
  EXPECT_EQ(first->status, MessageStatus::Pending);
  EXPECT_EQ((*first->tool_calls)[0].compose_type, ToolCallComposeType::Cluster);
  first->content->content = R"({"text":"grown"})";
  first->status = MessageStatus::Completed;
  assistant.sync();
  EXPECT_EQ(assistant.message(), first);
  EXPECT_EQ(assistant.message()->content->content, R"({"text":"grown"})");

  // marshal writes the message as it stands now.
  const auto rewritten = idl::fromText<idl::Message>(assistant.marshal());
  EXPECT_EQ(rewritten.content->payload, R"({"text":"grown"})");
  EXPECT_EQ(rewritten.status, 2);

  AssistantMessageWrapper finished;
  ASSERT_TRUE(finished.unmarshal(R"({"message_id":"a2","status":7})"));
  finished.sync();
  EXPECT_EQ(finished.message()->status, MessageStatus::Completed);

  SystemMessageWrapper system;
  ASSERT_TRUE(system.unmarshal(R"({"code":0,"msg":"stream_complete"})"));
  system.sync();
  auto record = system.message();
  system.sync();
  EXPECT_EQ(system.message(), record);
  EXPECT_EQ(record->msg, "stream_complete");
  EXPECT_EQ(system.marshal(), R"({"code":0,"msg":"stream_complete"})");
}

// A stored or recovered user frame without messages is refused from the
// function the log line names, whichever way the frame was read; the
// stored answer of a frame without "role" reads back as an answer.
TEST(WrappersTest, RefusalsNameTheirFunctionAndAnswersKeepTheirRole) {
  test::ScopedLogCapture log;
  UserMessageWrapper from_text;
  EXPECT_FALSE(from_text.unmarshal(std::string(R"({"messages":[]})")));
  UserMessageWrapper from_json;
  EXPECT_FALSE(from_json.unmarshal(idl::Json::parse(R"({"messages":[]})")));
  size_t named = 0;
  for (const auto& line : log->lines()) {
    if (line.find("messages is empty") == std::string::npos) continue;
    EXPECT_NE(line.find(":unmarshal:"), std::string::npos) << line;
    ++named;
  }
  EXPECT_EQ(named, 2u);

  const struct {
    const char* content;
    AssistantMessageWrapper::RoleText role;
  } roles[] = {
      {R"({"message_id":"a"})", AssistantMessageWrapper::RoleText::Absent},
      {R"({"message_id":"a","role":"user"})", AssistantMessageWrapper::RoleText::User},
      {R"({"message_id":"a","role":"assistant"})", AssistantMessageWrapper::RoleText::Assistant},
      {R"({"message_id":"a","role":"system"})", AssistantMessageWrapper::RoleText::Other},
  };
  for (const auto& c : roles) {
    AssistantMessageWrapper wrapper;
    ASSERT_TRUE(wrapper.unmarshal(c.content)) << c.content;
    EXPECT_EQ(wrapper.roleText(), c.role) << c.content;
  }
  AssistantMessageWrapper without_role;
  ASSERT_TRUE(without_role.unmarshal(R"({"message_id":"a","content":{"payload":"{}"}})"));
  without_role.sync();
  AssistantMessageWrapper read_back;
  ASSERT_TRUE(read_back.unmarshal(without_role.marshal()));
  EXPECT_EQ(read_back.roleText(), AssistantMessageWrapper::RoleText::Assistant);
}

}  // namespace
}  // namespace orvi
