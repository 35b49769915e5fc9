// The emulator's protocol logic without sockets: a fake ServiceHost records
// the frames and runs scheduled tasks on a fake clock. Whatever the emulator
// sends is read back with the library's own parsers, which is what a client
// would do with it.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "chat_service.h"
#include "codec.h"
#include "fake_service_host.h"
#include "fault_switches.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "rest_service.h"
#include "store.h"
#include "sync_service.h"

namespace orvi {
namespace emulator {
namespace {

using Json = nlohmann::json;

// A downlink frame as a client reads it: its content inflated when gzipped.
struct Frame {
  Json frame;
  Json content;
  bool gzipped = false;
};

Frame decode(const std::string& text) {
  Frame out;
  out.frame = Json::parse(text);
  std::string content = out.frame.at("content").get<std::string>();
  out.gzipped = out.frame.contains("compression");
  if (out.gzipped) {
    EXPECT_EQ(out.frame["compression"], Json({{"algo", "gzip"}}));
    content = utils::base64Decode(content);
    EXPECT_GT(utils::decompressEx(content), 0);
  }
  out.content = Json::parse(content);
  EXPECT_NE(MessageProcessor::parse(text), nullptr) << "the library refuses " << text;
  return out;
}

std::string uplink(const std::string& local_message_id, const std::string& text,
                   const std::string& section_id = "", const std::string& action = "",
                   const std::string& local_section_id = "ls-1") {
  Json message = {{"message_id", ""}, {"local_message_id", local_message_id}, {"role", "user"}};
  if (!text.empty()) message["content"] = {{"payload", text}, {"content_type", 0}};
  Json frame = {{"conversation_id", section_id.empty() ? "" : "c-1"},
                {"local_conversation_id", "lc-1"},
                {"section_id", section_id},
                {"local_section_id", local_section_id},
                {"messages", Json::array({message})}};
  if (!action.empty()) frame["action"] = action;
  return frame.dump();
}

class EmulatorServiceTest : public ::testing::Test {
 protected:
  std::vector<Frame> framesFrom(size_t first = 0) {
    std::vector<Frame> frames;
    for (size_t i = first; i < host_.sent.size(); ++i)
      frames.push_back(decode(host_.sent[i].second));
    return frames;
  }
  // The text the deltas of these frames build.
  static std::string streamedText(const std::vector<Frame>& frames) {
    std::string text;
    for (const auto& f : frames) {
      if (f.frame["event"] != "delta") continue;
      for (const auto& op : Json::parse(f.content["json_patch"].get<std::string>())) {
        text += op.at("value").get<std::string>();
      }
    }
    return text;
  }
  static size_t count(const std::vector<Frame>& frames, const std::string& event) {
    size_t n = 0;
    for (const auto& f : frames) n += f.frame["event"] == event ? 1 : 0;
    return n;
  }
  RecoverSectionResult recover(const std::string& section_id) {
    const RestReply reply =
        rest_.handle("/api/recover_section",
                     Json{{"conversation_id", "c-1"}, {"section_id", section_id}}.dump());
    EXPECT_EQ(reply.status, 200);
    return MessageProcessor::recoverSection(reply.body);
  }
  static std::string textOf(const MessagePtr& message) {
    auto assistant = std::dynamic_pointer_cast<AssistantMessageWrapper>(message);
    if (!assistant || !assistant->wire().content) return "<not an assistant message>";
    return Json::parse(assistant->wire().content->payload).at("text").get<std::string>();
  }

  FakeHost host_;
  FaultSwitches faults_{Faults{}};
  Store store_;
  ChatService chat_{host_, faults_, store_, 10, 3, nullptr};
  RestService rest_{store_, [this] { return host_.now; }};
};

TEST_F(EmulatorServiceTest, AcknowledgesStreamsAndAnswersARepeatedMessageOnce) {
  chat_.onText(7, uplink("lm-1", "Hello there"));
  host_.runAll();
  const std::vector<Frame> frames = framesFrom();
  ASSERT_GE(frames.size(), 5u);
  for (size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].gzipped, i % 3 == 2) << i;  // every third frame
    EXPECT_EQ(frames[i].frame["local_conversation_id"], "lc-1");
    EXPECT_EQ(frames[i].frame["conversation_id"], "c-1");
    EXPECT_EQ(frames[i].frame["section_id"], "s-1");
    EXPECT_EQ(frames[i].frame["local_section_id"], "ls-1");
  }
  const Json& ack = frames[0].content;
  EXPECT_EQ(ack["role"], "user");
  EXPECT_EQ(ack["local_message_id"], "lm-1");
  EXPECT_EQ(ack["message_id"], "um-1");
  EXPECT_EQ(ack["status"], 2);
  EXPECT_EQ(ack["create_time"], frames[0].frame["server_time"]);
  EXPECT_EQ(frames[1].content["role"], "assistant");
  EXPECT_EQ(frames[1].content["status"], 0);
  EXPECT_EQ(streamedText(frames), ChatService::answerFor("Hello there"));
  EXPECT_EQ(frames[frames.size() - 2].content, Json({{"code", 0}, {"msg", "stream_complete"}}));
  EXPECT_EQ(frames.back().content, Json({{"code", 0}, {"msg", "section_complete"}}));

  // The resend (byte for byte, no conversation id yet) is the same message.
  const size_t before = host_.sent.size();
  chat_.onText(7, uplink("lm-1", "Hello there"));
  host_.runAll();
  const std::vector<Frame> again = framesFrom(before);
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again[0].content["message_id"], "um-1");
  EXPECT_EQ(again[0].content["create_time"], ack["create_time"]);
  ASSERT_EQ(store_.conversations().size(), 1u);
  EXPECT_EQ(store_.conversations()[0].sections.size(), 1u);
}

TEST_F(EmulatorServiceTest, CancelStopsTheStreamAndIsStoredAsCancelled) {
  chat_.onText(1, uplink("lm-1", "tell me a story"));
  host_.advance(35);  // three deltas
  chat_.onText(1, uplink("lm-2", "", "s-1", "cancel"));
  const size_t after_cancel = host_.sent.size();
  host_.runAll();
  EXPECT_EQ(host_.sent.size(), after_cancel);
  const std::vector<Frame> frames = framesFrom();
  EXPECT_EQ(count(frames, "delta"), 3u);
  EXPECT_EQ(frames.back().content["local_message_id"], "lm-2");
  EXPECT_EQ(count(frames, "system"), 0u);

  const RecoverSectionResult recovered = recover("s-1");
  ASSERT_TRUE(recovered.valid);
  EXPECT_EQ(recovered.section.status, RecoverStatus::Cancelled);
  ASSERT_EQ(recovered.section.messages.size(), 3u);  // prompt, partial answer, cancel
  EXPECT_EQ(textOf(recovered.section.messages[1]), streamedText(frames));
  EXPECT_GE(ChatService::answerFor("tell me a story").size(), 300u);
}

TEST_F(EmulatorServiceTest, FaultsDropDelayAndCut) {
  // A dropped acknowledgement still gets its answer; the resend is acked once.
  faults_.set(Faults{1, 0, -1, false, 0, false, -1});
  chat_.onText(1, uplink("lm-1", "first"));
  host_.runAll();
  std::vector<Frame> frames = framesFrom();
  EXPECT_EQ(frames[0].content["role"], "assistant");
  EXPECT_EQ(streamedText(frames), ChatService::answerFor("first"));
  size_t before = host_.sent.size();
  chat_.onText(1, uplink("lm-1", "first", "s-1"));
  host_.runAll();
  frames = framesFrom(before);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].content["message_id"], "um-1");

  // A delayed acknowledgement comes first, the answer after it.
  faults_.set(Faults{0, 500, -1, false, 0, false, -1});
  before = host_.sent.size();
  chat_.onText(1, uplink("lm-2", "second", "", "", "ls-2"));
  host_.advance(499);
  EXPECT_EQ(host_.sent.size(), before);
  host_.advance(1);
  ASSERT_EQ(host_.sent.size(), before + 2);
  EXPECT_EQ(decode(host_.sent[before].second).content["local_message_id"], "lm-2");

  // A cut after two deltas; the store holds the whole answer, complete.
  host_.runAll();
  faults_.set(Faults{0, 0, 2, true, 0, false, -1});
  before = host_.sent.size();
  chat_.onText(4, uplink("lm-3", "third", "", "", "ls-3"));
  host_.runAll();
  ASSERT_EQ(host_.cuts.size(), 1u);
  EXPECT_EQ(host_.cuts[0], std::make_pair(SessionId{4}, true));
  EXPECT_EQ(count(framesFrom(before), "delta"), 2u);
  const RecoverSectionResult recovered = recover("");  // the latest section
  ASSERT_TRUE(recovered.valid);
  EXPECT_EQ(recovered.section.status, RecoverStatus::Completed);
  ASSERT_NE(recovered.section.finish_system_message, nullptr);
  EXPECT_EQ(textOf(recovered.section.messages.back()), ChatService::answerFor("third"));
  EXPECT_EQ(faults_.get().cut_after_deltas, -1);  // once
}

TEST_F(EmulatorServiceTest, ToolCallWaitsForTheReplyInTheSameSection) {
  chat_.onText(1, uplink("lm-1", "What is the weather?"));
  host_.runAll();
  std::vector<Frame> frames = framesFrom();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[1].content["tool_calls"][0]["name"], "get_weather");
  EXPECT_EQ(frames[2].content["msg"], "stream_complete");
  EXPECT_EQ(recover("s-1").section.status, RecoverStatus::Started);

  Json reply = Json::parse(uplink("lm-2", "", "s-1"));
  reply["messages"][0]["tool_result"] = {
      {"tool_call_result", {{{"name", "get_weather"}, {"result", "Sunny, 21 C"}}}}};
  const size_t before = host_.sent.size();
  chat_.onText(1, reply.dump());
  host_.runAll();
  frames = framesFrom(before);
  EXPECT_EQ(frames[0].content["local_message_id"], "lm-2");
  EXPECT_EQ(streamedText(frames), ChatService::toolAnswerFor("Sunny, 21 C"));
  EXPECT_NE(streamedText(frames).find("Sunny, 21 C"), std::string::npos);
  EXPECT_EQ(frames.back().content["msg"], "section_complete");
  EXPECT_EQ(frames.back().frame["section_id"], "s-1");
}

TEST_F(EmulatorServiceTest, RestRepliesAreWhatTheLibraryReads) {
  for (const char* prompt : {"one", "two", "three"}) {
    chat_.onText(1,
                 uplink(std::string("lm-") + prompt, prompt, "", "", std::string("ls-") + prompt));
    host_.runAll();
  }
  // Paging: newest first page, then the one before it.
  auto page = [&](const std::string& cursor) {
    return MessageProcessor::recoverSections(
        rest_
            .handle("/api/recover_sections",
                    Json{{"conversation_id", "c-1"}, {"cursor", cursor}, {"count", 2}}.dump())
            .body);
  };
  const RecoverSectionsResult newest = page("0");
  ASSERT_TRUE(newest.valid);
  ASSERT_EQ(newest.sections.size(), 2u);
  EXPECT_TRUE(newest.has_more);
  EXPECT_EQ(newest.sections[1].messages[0]->sectionId(), "s-3");
  EXPECT_EQ(textOf(newest.sections[1].messages[1]), ChatService::answerFor("three"));
  const RecoverSectionsResult older = page(newest.next_cursor);
  ASSERT_TRUE(older.valid);
  ASSERT_EQ(older.sections.size(), 1u);
  EXPECT_FALSE(older.has_more);
  EXPECT_EQ(older.sections[0].messages[0]->sectionId(), "s-1");

  const ConversationListInfo list = MessageProcessor::parseConversationListResp(
      rest_.handle("/api/conversation_list", R"({"cursor":"","count":20,"create_time_desc":true})")
          .body);
  ASSERT_FALSE(list.error.has_value());
  ASSERT_EQ(list.conversations.size(), 1u);
  EXPECT_EQ(list.conversations[0].name, "one");
  EXPECT_EQ(list.conversations[0].message_count, 6);

  EXPECT_TRUE(MessageProcessor::parseConversationMsgDeleteResp(
      rest_
          .handle("/api/delete_messages",
                  R"({"conversation_id":"c-1","message_ids":["um-1","am-1"]})")
          .body));
  EXPECT_EQ(recover("s-1").section.messages.size(), 0u);
  EXPECT_TRUE(MessageProcessor::parseConversationBatchDeleteResp(
      rest_.handle("/api/delete_conversations", R"({"conversation_ids":["c-1"]})").body));
  // Unknown conversations and paths fail.
  EXPECT_FALSE(recover("s-1").valid);
  EXPECT_FALSE(MessageProcessor::parseConversationBatchDeleteResp(
      rest_.handle("/api/delete_conversations", R"({"conversation_ids":["c-1"]})").body));
  EXPECT_EQ(rest_.handle("/api/other", "{}").status, 404);
}

TEST_F(EmulatorServiceTest, SyncAcksWholeRecordsAndCollectsFragmentsWithOneNack) {
  FaultSwitches faults{Faults{0, 0, -1, false, 0, false, 1}};
  SyncService sync(host_, faults, nullptr);
  auto fragment = [](const char* id, int index) {
    return Json{{"id", id},
                {"content", "x"},
                {"type", "base"},
                {"index", 3},
                {"fragment", {{"total", 3}, {"index", index}}}};
  };
  auto envelope = [](Json infos) { return Json{{"version", 0}, {"sync_infos", infos}}.dump(); };
  auto replies = [&] {
    std::vector<Json> out;
    for (const auto& sent : host_.sent) out.push_back(Json::parse(sent.second));
    host_.sent.clear();
    return out;
  };

  sync.onText(2, envelope({{{"id", "draft"}, {"content", "a"}, {"type", "delta"}, {"index", 4}}}));
  EXPECT_EQ(replies(), std::vector<Json>{Json({{"id", "draft"}, {"action", "ack"}, {"index", 4}})});
  sync.onText(2, envelope({fragment("doc", 0), fragment("doc", 1), fragment("doc", 2)}));
  const Json nack = {
      {"id", "doc"}, {"action", "nack"}, {"index", 3}, {"fragment", {{"total", 3}, {"index", 1}}}};
  EXPECT_EQ(replies(), std::vector<Json>{nack});
  sync.onText(2, envelope({fragment("doc", 1)}));
  EXPECT_EQ(replies(), std::vector<Json>{Json({{"id", "doc"}, {"action", "ack"}, {"index", 3}})});
  // Once only: the next fragmented record is collected without a nack.
  sync.onText(2, envelope({fragment("two", 1), fragment("two", 0)}));
  EXPECT_TRUE(replies().empty());
  sync.onText(2, envelope({fragment("two", 2), fragment("two", 2)}));
  EXPECT_EQ(replies().size(), 2u);  // complete, and the duplicate acknowledged again
}

TEST(EmulatorCodecTest, GzipBase64IsWhatTheLibraryDecodes) {
  std::string binary;
  for (int i = 0; i < 70000; ++i) binary += static_cast<char>((i * 7919) % 256);
  for (const std::string& input : {std::string("a"), std::string("ab"), std::string("abc"),
                                   std::string("{\"text\":\"grüße\"}"), binary}) {
    EXPECT_EQ(base64Encode(input), utils::base64Encode(input));
    std::string bytes = utils::base64Decode(gzipBase64(input));
    ASSERT_EQ(bytes.substr(0, 2), std::string("\x1f\x8b"));  // gzip, not bare zlib
    ASSERT_GT(utils::decompressEx(bytes), 0);
    EXPECT_EQ(bytes, input);
  }
}

}  // namespace
}  // namespace emulator
}  // namespace orvi
