// The emulator against clients that send anything: deep nesting, garbage,
// members of the wrong type, objects of very many keys, huge prompts. It
// must go on serving, answer what is a message, ignore the rest with a log
// line that says why, and report a failure to listen with its real reason.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "chat_service.h"
#include "emulator.h"
#include "fake_service_host.h"
#include "fault_switches.h"
#include "rest_service.h"
#include "store.h"
#include "sync_service.h"

namespace orvi {
namespace emulator {
namespace {

using Json = nlohmann::json;

std::string nested(size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

std::string userMessage(const std::string& local_message_id, const std::string& payload,
                        const std::string& extra_members = "") {
  std::string text = Json{{"conversation_id", ""},
                          {"local_conversation_id", "lc"},
                          {"local_section_id", "ls-" + local_message_id},
                          {"messages", Json::array({{{"local_message_id", local_message_id},
                                                     {"content", {{"payload", payload}}}}})}}
                         .dump();
  if (!extra_members.empty()) text.insert(text.size() - 1, "," + extra_members);
  return text;
}

std::string manyKeys(size_t keys) {
  std::string text = "{";
  for (size_t i = 0; i < keys; ++i) text += "\"k" + std::to_string(i) + "\":0,";
  return text + "\"local_conversation_id\":\"lc\",\"messages\":[{\"local_message_id\":\"keys\"}]}";
}

class EmulatorHostileTest : public ::testing::Test {
 protected:
  size_t logged(const std::string& fragment) const {
    size_t n = 0;
    for (const auto& line : log_) n += line.find(fragment) != std::string::npos ? 1 : 0;
    return n;
  }
  // The acknowledgement the emulator sent for `local_message_id`, if any.
  bool acknowledged(const std::string& local_message_id) const {
    for (const auto& sent : host_.sent) {
      const Json frame = Json::parse(sent.second);
      if (frame["event"] != "message" || frame.contains("compression")) continue;
      const Json content = Json::parse(frame["content"].get<std::string>());
      if (content.value("role", "") == "user" &&
          content.value("local_message_id", "") == local_message_id) {
        return true;
      }
    }
    return false;
  }

  std::vector<std::string> log_;
  FakeHost host_;
  FaultSwitches faults_{Faults{}};
  Store store_;
  ChatService chat_{host_, faults_, store_,
                    10,    0,       [this](const std::string& line) { log_.push_back(line); }};
  SyncService sync_{host_, faults_, [this](const std::string& line) { log_.push_back(line); }};
  RestService rest_{store_, [this] { return host_.now; }};
};

TEST_F(EmulatorHostileTest, ChatFramesThatAreNoMessageAreIgnoredWithTheirReason) {
  const struct {
    std::string text;
    std::string reason;
  } ignored[] = {
      {userMessage("deep", "hi", "\"x\":" + nested(100000)), "nested deeper than 256 levels"},
      {"{\"messages\":" + nested(300) + "}", "nested deeper than 256 levels"},
      {std::string(100000, '{'), "nested deeper than 256 levels"},
      {"\xff\xfe garbage", "parse error"},
      {"{\"messages\":\"\xff\"}", "parse error"},  // not UTF-8
      {"[1,2,3]", "no message in it"},
      {R"({"messages":[]})", "no message in it"},
      {R"({"messages":[5]})", "no message in it"},
  };
  for (const auto& c : ignored) {
    log_.clear();
    chat_.onText(1, c.text);
    EXPECT_EQ(logged("chat: ignored a frame that is not a user message ("), 1u) << c.reason;
    EXPECT_EQ(logged(c.reason), 1u) << c.reason;
  }
  host_.runAll();
  EXPECT_TRUE(host_.sent.empty());

  // Messages with members of the wrong type, or deep but within the limit,
  // are answered.
  chat_.onText(1, R"({"local_conversation_id":7,"messages":[{"local_message_id":"typed",)"
                  R"("content":{"payload":5},"tool_result":"x","status":"done"}],"action":[]})");
  chat_.onText(1, userMessage("within", "hi", "\"x\":" + nested(250)));
  host_.runAll();
  EXPECT_TRUE(acknowledged("typed"));
  EXPECT_TRUE(acknowledged("within"));
}

TEST_F(EmulatorHostileTest, LargeFramesAreAnsweredWithinBounds) {
  // Many keys: read in linear time (an ordered parse compared every key with
  // all before it) and answered.
  chat_.onText(1, manyKeys(150000));
  // A huge prompt is quoted up to 4 KiB: one delta per word, it would
  // otherwise stream for days.
  std::string huge;
  for (int i = 0; i < 1000000; ++i) huge += "w ";
  chat_.onText(1, userMessage("huge", huge));
  host_.runAll();
  EXPECT_TRUE(acknowledged("keys"));
  EXPECT_TRUE(acknowledged("huge"));
  size_t deltas = 0;
  for (const auto& sent : host_.sent) deltas += Json::parse(sent.second)["event"] == "delta";
  EXPECT_LT(deltas, 2 * 2048 + 100u);
  EXPECT_GT(deltas, 2048u);
  const std::string answer = ChatService::answerFor(huge);
  EXPECT_EQ(answer.compare(0, 14, "You said: w w "), 0);
  EXPECT_LT(answer.size(), 4096u + 200u);
}

TEST_F(EmulatorHostileTest, RestAndSyncRefuseWhatIsNotTheirJson) {
  const std::string bodies[] = {nested(300), std::string(50000, '['), "\xff",
                                "{\"cursor\":" + nested(300) + "}"};
  const char* paths[] = {"/api/recover_section", "/api/recover_sections", "/api/conversation_list",
                         "/api/delete_messages", "/api/delete_conversations"};
  for (const auto& body : bodies) {
    for (const char* path : paths) {
      const RestReply reply = rest_.handle(path, body);
      EXPECT_EQ(reply.status, 200) << path;
      EXPECT_EQ(Json::parse(reply.body).at("ret"), "400") << path;
    }
    log_.clear();
    sync_.onText(2, body);
    EXPECT_EQ(logged("sync: ignored a frame that is not an envelope ("), 1u);
  }
  EXPECT_TRUE(host_.sent.empty());
}

TEST(EmulatorListenTest, APortInUseIsReportedWithItsRealReason) {
  Emulator first{EmulatorOptions()};
  ASSERT_TRUE(first.start());
  EmulatorOptions options;
  options.port = first.port();
  Emulator second(options);
  std::string error;
  EXPECT_FALSE(second.start(&error));
  EXPECT_EQ(error, "cannot listen on 127.0.0.1:" + std::to_string(first.port()) +
                       ": Address already in use");
  first.stop();
}

}  // namespace
}  // namespace emulator
}  // namespace orvi
