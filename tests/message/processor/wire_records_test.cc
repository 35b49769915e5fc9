#include "orvi/message/processor/wire_records.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace orvi {
namespace idl {
namespace {

template <typename R>
std::string written(const R& record) {
  return toText(record);
}

// Reads `text` into R and returns the exception text, or "" when it read.
template <typename R>
std::string readError(const std::string& text) {
  try {
    fromText<R>(text);
    return "";
  } catch (const Json::exception& e) {
    return e.what();
  }
}

TEST(WireRecordsTest, MissingKeysAndNonObjectsLeaveDefaults) {
  const Message empty = fromText<Message>("{}");
  EXPECT_TRUE(empty.message_id.empty());
  EXPECT_EQ(empty.role, Role::User);
  EXPECT_FALSE(empty.content || empty.tool_calls || empty.tool_result || empty.update_time ||
               empty.extra);
  EXPECT_EQ(empty.create_time, 0);

  // A nested record whose value is not an object is present but empty.
  const Message odd = fromText<Message>(R"({"content": [1, 2], "message_id": "m"})");
  ASSERT_TRUE(odd.content.has_value());
  EXPECT_TRUE(odd.content->payload.empty());
  EXPECT_EQ(odd.message_id, "m");
  EXPECT_EQ(fromText<DownlinkMessage>("[1]").content, "");
}

TEST(WireRecordsTest, NumbersAndBooleansAreReadLeniently) {
  const Message m = fromText<Message>(
      R"({"is_complete": 1, "status": true, "create_time": 12.9, "update_time": -3.7,
          "content": {"payload": "p", "content_type": 2.9}})");
  EXPECT_TRUE(m.is_complete);
  EXPECT_EQ(m.status, 1);
  EXPECT_EQ(m.create_time, 12);
  EXPECT_EQ(*m.update_time, -3);
  EXPECT_EQ(m.content->content_type, 2);
  EXPECT_FALSE(fromText<Message>(R"({"is_complete": 0})").is_complete);
}

TEST(WireRecordsTest, OutOfRangeNumbersAreClamped) {
  const SystemContent big = fromText<SystemContent>(R"({"code": 99999999999})");
  EXPECT_EQ(big.code, std::numeric_limits<int32_t>::max());
  const SystemContent small = fromText<SystemContent>(R"({"code": -1e300})");
  EXPECT_EQ(small.code, std::numeric_limits<int32_t>::min());
  const Message huge = fromText<Message>(R"({"create_time": 1e300, "status": 18446744073709551615})");
  EXPECT_EQ(huge.create_time, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(huge.status, std::numeric_limits<int32_t>::max());
}

TEST(WireRecordsTest, WrongTypesFailWithTheLibraryTypeError) {
  const struct {
    std::string text;
    std::string expected;
  } cases[] = {
      {R"({"message_id": null})", "type must be string, but is null"},
      {R"({"message_id": 5})", "type must be string, but is number"},
      {R"({"create_time": "5"})", "type must be number, but is string"},
      {R"({"is_complete": "yes"})", "type must be boolean, but is string"},
      {R"({"tool_calls": {}})", "type must be array, but is object"},
      {R"({"tool_calls": [{"depends": "a"}]})", "type must be array, but is string"},
      {R"({"update_time": null})", "type must be number, but is null"},
  };
  for (const auto& c : cases) {
    const std::string error = readError<Message>(c.text);
    EXPECT_NE(error.find("[json.exception.type_error.302] " + c.expected), std::string::npos)
        << c.text << " gave " << error;
  }
}

TEST(WireRecordsTest, UnknownEnumTextsReadAsTheFirstValue) {
  EXPECT_EQ(fromText<Message>(R"({"role": "system"})").role, Role::User);
  EXPECT_EQ(fromText<Message>(R"({"role": "assistant"})").role, Role::Assistant);
  EXPECT_EQ(fromText<DownlinkMessage>(R"({"event": "unknown"})").event, RemoteEventType::Message);
  EXPECT_EQ(fromText<DownlinkMessage>(R"({"event": "delta"})").event, RemoteEventType::Delta);
  EXPECT_EQ(fromText<ToolCall>(R"({"compose_type": "Draft"})").compose_type,
            ToolCallComposeType::Node);
  EXPECT_EQ(fromText<ToolCallResult>(R"({"status": "cancelled"})").status,
            ToolResultStatus::Cancelled);
}

TEST(WireRecordsTest, WritersFollowTableOrderAndLeaveOutUnsetMembers) {
  Message message;
  message.message_id = "m";
  message.local_message_id = "lm";
  message.create_time = 7;
  message.status = 2;
  EXPECT_EQ(written(message),
            R"({"message_id":"m","local_message_id":"lm","role":"user","create_time":7,)"
            R"("status":2,"is_complete":false})");

  MessageBatchDeleteRequest request;
  request.conversation_id = "c";
  EXPECT_EQ(written(request), R"({"conversation_id":"c"})");
  request.message_ids = {"a", "b"};
  EXPECT_EQ(written(request), R"({"conversation_id":"c","message_ids":["a","b"]})");

  ToolResult result;
  result.status = static_cast<ToolResultStatus>(9);
  EXPECT_EQ(written(result), R"({"tool_call_result":[],"status":"succeed","code":0})");

  ToolCall call;
  call.name = "search";
  call.compose_type = static_cast<ToolCallComposeType>(7);
  call.depends = std::vector<std::string>{};
  EXPECT_EQ(written(call),
            R"({"name":"search","properties":"","compose_type":"node","depends":[]})");

  UplinkMessage uplink;
  uplink.local_conversation_id = "lc";
  uplink.local_section_id = "ls";
  uplink.options = Options{std::string("callee"), std::nullopt};
  EXPECT_EQ(written(uplink),
            R"({"conversation_id":"","local_conversation_id":"lc","reply_message_id":"",)"
            R"("section_id":"","local_section_id":"ls","messages":[],"context":{},)"
            R"("options":{"run_mode":"callee"}})");
}

TEST(WireRecordsTest, RecoverRepliesSpellErrmsgWithoutUnderscore) {
  const auto recover = fromText<RecoverSectionResponse>(R"({"ret": "1", "err_msg": "x"})");
  EXPECT_EQ(recover.ret, "1");
  EXPECT_TRUE(recover.errmsg.empty());
  EXPECT_EQ(fromText<RecoverSectionsResponse>(R"({"errmsg": "y"})").errmsg, "y");
  EXPECT_EQ(fromText<BaseResponse>(R"({"err_msg": "z", "errmsg": "w"})").err_msg, "z");
}

// Whatever is written reads back to the same record: write, read, write
// again and compare the texts, for a fully populated record of each kind.
TEST(WireRecordsTest, EveryPopulatedRecordRoundTrips) {
  Message message;
  message.message_id = "m";
  message.local_message_id = "lm";
  message.role = Role::Assistant;
  message.content = MessageContent{"{\"text\":\"h\\u00e9\"}", 3};
  ToolCall call{"tool", "{}", ToolCallComposeType::Cluster, std::vector<std::string>{"a"},
                std::string("x")};
  message.tool_calls = std::vector<ToolCall>{call};
  ToolResult result;
  result.patch_list = {"p"};
  result.tool_call_result = {ToolCallResult{"tool", "ok", ToolResultStatus::Failed,
                                            std::string("bad"), 4}};
  message.tool_result = result;
  message.create_time = -5;
  message.update_time = 9;
  message.status = 3;
  message.is_complete = true;
  message.extra = "e";

  UplinkMessage uplink;
  uplink.conversation_id = "c";
  uplink.messages = {message};
  uplink.context.drafts = std::vector<std::string>{"d"};
  uplink.context.file_list = std::vector<FileInfo>{FileInfo{"s", "uri", 2, "n", "m", "d"}};
  uplink.action = "cancel";
  uplink.options = Options{std::string("caller"), std::string("{}")};

  DownlinkMessage downlink;
  downlink.event = RemoteEventType::Custom;
  downlink.content = toText(message);
  downlink.server_time = 1;
  downlink.compression = Compression{"gzip", std::string("m"), std::string("c")};

  RecoverSectionsResponse recover;
  recover.ret = "0";
  RecoverSectionData section;
  section.status = RecoverStatus::Cancelled;
  section.finish_system_message = SystemContent{1, "done"};
  RecoverMessage recovered;
  recovered.role = Role::Assistant;
  recovered.tool_calls = std::vector<ToolCall>{call};
  section.message_list = {recovered};
  recover.data.section_list = {section};
  recover.data.has_more = true;

  ConversationListResponse list;
  list.data.conversation_list = {ConversationInfo{"lc", "c", 1, 2, "n", 3, "x"}};

  const std::string texts[] = {written(uplink), written(downlink), written(recover),
                               written(list)};
  EXPECT_EQ(written(fromText<UplinkMessage>(texts[0])), texts[0]);
  EXPECT_EQ(written(fromText<DownlinkMessage>(texts[1])), texts[1]);
  EXPECT_EQ(written(fromText<RecoverSectionsResponse>(texts[2])), texts[2]);
  EXPECT_EQ(written(fromText<ConversationListResponse>(texts[3])), texts[3]);
  EXPECT_NE(texts[2].find(R"("status":2)"), std::string::npos);  // numeric enum
}

}  // namespace
}  // namespace idl
}  // namespace orvi
