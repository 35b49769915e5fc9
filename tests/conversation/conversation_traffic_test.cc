// Whole conversations played against the scripted server: what went over
// the wire, frame by frame, and what the host's listener saw.
#include <atomic>
#include <set>
#include <string>
#include <thread>

#include "conversation_fixture.h"

namespace orvi {
namespace {

using test::ScriptedServer;
using Event = idl::RemoteEventType;
using Json = nlohmann::json;

Json append(const std::string& text) {
  return Json::array({{{"op", "append"}, {"path", "/text"}, {"value", text}}});
}

// The service's answer to a prompt: ack (allocating c-1 and s-1), one
// assistant message, `deltas` appends (every third compressed), then the
// two completions.
void answerPrompt(ScriptedServer& s, const idl::UplinkMessage& up, int deltas) {
  s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-" + up.messages[0].local_message_id));
  s.deliver(ScriptedServer::assistant(up, "c-1", "s-1", "am-1", {{"text", ""}}));
  for (int i = 0; i < deltas; ++i) {
    s.deliver(ScriptedServer::delta(up, "c-1", "s-1", "am-1", append("t" + std::to_string(i) + " "),
                                    i % 3 == 0));
  }
  s.deliver(ScriptedServer::system(up, "c-1", "s-1", 0, "stream_complete"));
  s.deliver(ScriptedServer::system(up, "c-1", "s-1", 0, "section_complete"));
}

std::string expectedText(int deltas) {
  std::string text;
  for (int i = 0; i < deltas; ++i) text += "t" + std::to_string(i) + " ";
  return text;
}

class ConversationTrafficTest : public test::ConversationFixture {};

TEST_F(ConversationTrafficTest, FirstPromptOfANewConversationStreamsToCompletion) {
  server_->setScript(
      [](ScriptedServer& s, const idl::UplinkMessage& up) { answerPrompt(s, up, 60); });
  auto conversation = open("lc-1");
  const std::string local_id = conversation->sendMessage(prompt("What is the weather?"));
  ASSERT_FALSE(local_id.empty());
  // The section's start is announced before the frame leaves, so it always
  // precedes the completion.
  const bool completed = waitFor([](const Calls& c) {
    return !c.section_statuses.empty() &&
           c.section_statuses.back().status == SectionStatus::Completed;
  });
  ASSERT_TRUE(completed);

  // On the wire: one prompt of a new conversation in a new section.
  const auto frames = wire();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0]["conversation_id"], "");
  EXPECT_EQ(frames[0]["local_conversation_id"], "lc-1");
  EXPECT_EQ(frames[0]["local_section_id"].get<std::string>().size(), 36u);
  EXPECT_EQ(frames[0]["messages"][0]["local_message_id"], local_id);
  EXPECT_EQ(frames[0]["messages"][0]["content"]["payload"], "What is the weather?");
  EXPECT_EQ(frames[0]["messages"][0]["status"], 2);
  EXPECT_FALSE(frames[0].contains("action"));

  const Calls calls = listener_->calls();
  // User message at once, then again with the server's id after the ack.
  ASSERT_EQ(calls.user_messages.size(), 2u);
  EXPECT_EQ(calls.user_messages[0].local_message_id, local_id);
  EXPECT_TRUE(calls.user_messages[0].message_id.empty());
  EXPECT_EQ(calls.user_messages[1].message_id, "um-" + local_id);
  ASSERT_EQ(calls.acks.size(), 1u);
  EXPECT_EQ(calls.acks[0].status, AckStatus::Acked);
  // The first message, one per delta, and the completed one.
  ASSERT_EQ(calls.assistant_messages.size(), 62u);
  const AssistantMessage& last = calls.assistant_messages.back();
  EXPECT_EQ(last.status, MessageStatus::Completed);
  EXPECT_EQ(Json::parse(last.content->content)["text"], expectedText(60));
  EXPECT_EQ(last.section->section_id, "s-1");
  for (size_t i = 1; i + 1 < calls.assistant_messages.size(); ++i) {
    EXPECT_EQ(Json::parse(calls.assistant_messages[i].content->content)["text"],
              expectedText(static_cast<int>(i)));
  }
  ASSERT_EQ(calls.section_statuses.size(), 2u);
  EXPECT_EQ(calls.section_statuses[0].status, SectionStatus::Started);
  EXPECT_FALSE(calls.section_statuses[0].from_history);
  EXPECT_EQ(calls.section_statuses[1].section.section_id, "s-1");
  EXPECT_EQ(conversation->getDetail().conversation_id, "c-1");
  EXPECT_TRUE(log_->has("[OHHHHH] local conversation(lc-1) is allocated conversation_id: c-1"));
  EXPECT_TRUE(calls.system_messages.empty());
}

TEST_F(ConversationTrafficTest, HistoryAfterARestartShowsWhatWasShownLive) {
  server_->setScript(
      [](ScriptedServer& s, const idl::UplinkMessage& up) { answerPrompt(s, up, 10); });
  {
    auto conversation = open("lc-1");
    conversation->sendMessage(prompt("first"));
    ASSERT_TRUE(waitFor([](const Calls& c) { return c.section_statuses.size() == 2; }));
    ASSERT_TRUE(hub_->history()->flush());
  }
  const Calls live = listener_->calls();

  hub_.reset();      // release the database first
  hub_ = makeHub();  // a fresh hub over the same database
  auto restored = std::make_shared<test::RecordingListener>();
  auto conversation = open("lc-1", {}, restored);
  EXPECT_EQ(conversation->getDetail().conversation_id, "c-1");
  EXPECT_EQ(conversation->popupHistoryMessages(false, 0, 0), 2);
  const Calls popped = restored->calls();
  ASSERT_EQ(popped.user_messages.size(), 1u);
  ASSERT_EQ(popped.assistant_messages.size(), 1u);
  EXPECT_EQ(popped.user_messages[0].local_message_id, live.user_messages.back().local_message_id);
  EXPECT_EQ(popped.user_messages[0].message_id, live.user_messages.back().message_id);
  EXPECT_EQ(popped.user_messages[0].source, MessageSource::LocalHistory);
  EXPECT_EQ(popped.assistant_messages[0].content->content,
            live.assistant_messages.back().content->content);
  EXPECT_EQ(popped.assistant_messages[0].status, MessageStatus::Completed);
  ASSERT_EQ(popped.section_statuses.size(), 1u);
  EXPECT_TRUE(popped.section_statuses[0].from_history);
  EXPECT_EQ(popped.section_statuses[0].status, SectionStatus::Completed);
  ASSERT_FALSE(popped.recover_statuses.empty());
  EXPECT_EQ(popped.recover_statuses.back().status, RecoverStatus::Delivered);

  // With a limit, the popup hands over the newest messages and a cursor
  // that leads on to the older ones, never back to the same.
  conversation.reset();
  hub_->close("lc-1");
  ConversationOptions limited;
  limited.history_message_limited = 1;
  auto paged = std::make_shared<test::RecordingListener>();
  conversation = open("lc-1", limited, paged);
  EXPECT_EQ(conversation->popupHistoryMessages(false, 0, 0), 1);
  Calls first = paged->calls();
  ASSERT_EQ(first.assistant_messages.size(), 1u);
  EXPECT_TRUE(first.user_messages.empty());
  ASSERT_FALSE(first.recover_statuses.empty());
  const std::optional<RecoverExtra> extra = first.recover_statuses.back().extra;
  ASSERT_TRUE(extra);
  EXPECT_TRUE(extra->has_more);
  const int32_t cursor = std::stoi(extra->next_cursor);
  EXPECT_GT(cursor, 0);
  EXPECT_EQ(conversation->popupHistoryMessages(false, cursor, 5), 1);
  const Calls second = paged->calls();
  ASSERT_EQ(second.user_messages.size(), 1u);
  EXPECT_EQ(second.user_messages[0].local_message_id, live.user_messages.back().local_message_id);
  EXPECT_EQ(second.assistant_messages.size(), 1u);  // not handed over again
}

// A prompt is in history from the moment it is sent, also the first one of
// a conversation the server has not named yet: after a crash before any
// acknowledgement the app finds the conversation and the prompt, without a
// server id. Acknowledged later, each prompt stays one row.
TEST_F(ConversationTrafficTest, APromptIsStoredFromTheMomentItIsSent) {
  const auto storedPrompts = [this] {
    EXPECT_TRUE(hub_->history()->flush());
    std::vector<Json> prompts;
    for (const auto& record : hub_->history()->getMessages("new-1")) {
      const Json json = Json::parse(record);
      if (json.contains("messages")) prompts.push_back(json);
    }
    return prompts;
  };
  {
    auto conversation = open("new-1");  // the server never answers
    conversation->sendMessage(prompt("first"));
    const auto prompts = storedPrompts();
    ASSERT_EQ(prompts.size(), 1u);
    EXPECT_EQ(prompts[0]["messages"][0]["message_id"], "");
    ASSERT_EQ(hub_->list().size(), 1u);
    EXPECT_EQ(hub_->list()[0].local_conversation_id, "new-1");
    EXPECT_EQ(hub_->list()[0].conversation_id, "");
  }

  hub_.reset();  // the app restarts
  hub_ = makeHub();
  auto restored = std::make_shared<test::RecordingListener>();
  auto conversation = open("new-1", {}, restored);
  EXPECT_EQ(conversation->popupHistoryMessages(false, 0, 0), 1);
  const Calls popped = restored->calls();
  ASSERT_EQ(popped.user_messages.size(), 1u);
  EXPECT_EQ(popped.user_messages[0].content->content, "first");
  EXPECT_TRUE(popped.user_messages[0].message_id.empty());  // never acknowledged

  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-9", "s-9", "um-" + up.messages[0].local_message_id));
  });
  const std::string second = conversation->sendMessage(prompt("second"));
  ASSERT_TRUE(restored->waitFor([](const Calls& c) { return !c.acks.empty(); }));
  const auto prompts = storedPrompts();
  ASSERT_EQ(prompts.size(), 2u);
  EXPECT_EQ(prompts[0]["messages"][0]["message_id"], "");
  EXPECT_EQ(prompts[1]["messages"][0]["message_id"], "um-" + second);
  EXPECT_EQ(prompts[1]["conversation_id"], "c-9");
  ASSERT_EQ(hub_->list().size(), 1u);
  EXPECT_EQ(hub_->list()[0].conversation_id, "c-9");
}

TEST_F(ConversationTrafficTest, ReplyRetryAndCancelStayInTheSectionInProgress) {
  std::atomic<int> late_deltas{0};
  server_->setScript([&](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-" + up.messages[0].local_message_id));
    if (!up.action && !up.messages[0].tool_result) {
      s.deliver(ScriptedServer::assistant(up, "c-1", "s-1", "am-1", {{"text", ""}}));
      s.deliver(ScriptedServer::delta(up, "c-1", "s-1", "am-1", append("a")));
    }
    if (up.action && *up.action == "cancel") {
      // Output the service had already produced still arrives.
      for (int i = 0; i < 5; ++i, ++late_deltas) {
        s.deliver(ScriptedServer::delta(up, "c-1", "s-1", "am-1", append("late")));
      }
    }
  });
  auto conversation = open("lc-1");
  EXPECT_EQ(conversation->reply(prompt("too early")), -2);  // no section yet
  conversation->sendMessage(prompt("q"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.assistant_messages.size() == 2; }));

  InputMessage tool_answer;
  tool_answer.tool_result = ToolResult(
      {}, {ToolCallResult("weather", "sunny", "", ToolResultStatus::Succeed, std::nullopt, 0)},
      ToolResultStatus::Succeed, std::nullopt, 0);
  EXPECT_EQ(conversation->reply(tool_answer), 0);
  EXPECT_EQ(conversation->retry(InputMessage()), 0);
  EXPECT_EQ(conversation->cancel(InputMessage()), 0);
  ASSERT_TRUE(waitFor([](const Calls& c) {
    return !c.section_statuses.empty() &&
           c.section_statuses.back().status == SectionStatus::Cancelled;
  }));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(late_deltas.load(), 5);

  const auto frames = wire();
  ASSERT_EQ(frames.size(), 4u);
  const std::string section = frames[0]["local_section_id"];
  for (size_t i = 1; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i]["local_section_id"], section) << i;
    EXPECT_EQ(frames[i]["section_id"], "s-1") << i;
    EXPECT_EQ(frames[i]["conversation_id"], "c-1") << i;
  }
  EXPECT_EQ(frames[1]["messages"][0]["tool_result"]["tool_call_result"][0]["result"], "sunny");
  EXPECT_EQ(frames[2]["action"], "retry");
  EXPECT_EQ(frames[3]["action"], "cancel");
  EXPECT_EQ(frames[3]["messages"][0]["status"], 3);

  // The late output of the cancelled section never reached the host.
  const Calls calls = listener_->calls();
  EXPECT_EQ(calls.assistant_messages.size(), 2u);
  EXPECT_EQ(log_->countContaining("recv message after cancel"), 5u);
  EXPECT_EQ(calls.acks.size(), 4u);
  // After a cancel, replies and retries are refused and nothing is sent.
  EXPECT_EQ(conversation->retry(InputMessage()), -1);
  EXPECT_EQ(server_->uplinks().size(), 4u);
}

struct AckCase {
  const char* name;
  ConversationOptions options;
  size_t frames_on_wire;
  AckStatus reported;
};

TEST_F(ConversationTrafficTest, MissingAcknowledgementsTimeOutAndAreResentWithinTheLimit) {
  const auto options = [](std::optional<bool> resend, std::optional<int32_t> max) {
    ConversationOptions o;
    o.uplink_message_ack_timeout_ms = 20;
    o.enable_resend = resend;
    o.max_resend_uplink_message_count = max;
    return o;
  };
  const AckCase cases[] = {
      {"defaults never resend", options(std::nullopt, std::nullopt), 1, AckStatus::Timeout},
      {"two resends", options(std::nullopt, 2), 3, AckStatus::GivenUp},
      {"resend disabled", options(false, 5), 1, AckStatus::GivenUp},
      {"zero resends", options(true, 0), 1, AckStatus::GivenUp},
  };
  int index = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server_ = std::make_shared<ScriptedServer>();  // never answers
    auto listener = std::make_shared<test::RecordingListener>();
    auto conversation = open("ack-" + std::to_string(index++), c.options, listener);
    const std::string id = conversation->sendMessage(prompt("anyone there?"));
    ASSERT_TRUE(listener->waitFor([](const Calls& calls) { return !calls.acks.empty(); }));
    // Give a wrong extra resend the time to show up on the wire.
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    const auto frames = server_->uplinks();
    ASSERT_EQ(frames.size(), c.frames_on_wire);
    for (const auto& frame : frames) EXPECT_EQ(frame, frames[0]);  // resent byte for byte
    const Calls calls = listener->calls();
    ASSERT_EQ(calls.acks.size(), 1u);
    EXPECT_EQ(calls.acks[0].local_message_id, id);
    EXPECT_EQ(calls.acks[0].status, c.reported);
  }
}

// Only the latest prompt is waited for and resent; the one before it still
// ends with one outcome of its own: a time-out, without any resend.
TEST_F(ConversationTrafficTest, ANewPromptStopsWaitingForThePreviousOne) {
  ConversationOptions options;
  options.uplink_message_ack_timeout_ms = 30;
  options.max_resend_uplink_message_count = 3;
  auto conversation = open("lc-1", options);
  const std::string first = conversation->sendMessage(prompt("first"));
  const std::string second = conversation->sendMessage(prompt("second"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.acks.size() == 2; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  // The first prompt was sent once, then only the second was resent.
  const auto frames = wire();
  ASSERT_EQ(frames.size(), 5u);
  for (size_t i = 1; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i]["messages"][0]["local_message_id"], second);
  }
  const Calls calls = listener_->calls();
  ASSERT_EQ(calls.acks.size(), 2u);
  EXPECT_EQ(calls.acks[0].local_message_id, first);
  EXPECT_EQ(calls.acks[0].status, AckStatus::Timeout);
  EXPECT_EQ(calls.acks[1].local_message_id, second);
  EXPECT_EQ(calls.acks[1].status, AckStatus::GivenUp);
}

TEST_F(ConversationTrafficTest, BadAndStrayFramesChangeNothing) {
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    const std::string ack = ScriptedServer::ack(up, "c-1", "s-1", "um-1");
    s.deliver(ack);
    s.deliver(ack);  // duplicated
    idl::UplinkMessage stranger = up;
    stranger.local_conversation_id = "someone-else";
    s.deliver(ScriptedServer::assistant(stranger, "c-1", "s-1", "x", {{"text", "not yours"}}));
    s.deliver(ScriptedServer::delta(up, "c-1", "s-1", "unknown-id", append("?")));
    s.deliver("{not json");
    s.deliver(R"({"event":"delta","local_conversation_id":"lc-1","content":"{\"message_id\":5}"})");
    s.deliver(ScriptedServer::assistant(up, "c-2", "s-1", "am-1", {{"text", "ok"}}));
    s.deliver(ScriptedServer::system(up, "c-1", "s-1", 500, "overloaded"));
  });
  auto conversation = open("lc-1");
  conversation->sendMessage(prompt("q"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return !c.system_messages.empty(); }));
  ASSERT_TRUE(server_->drain());
  const Calls calls = listener_->calls();
  EXPECT_EQ(calls.acks.size(), 1u);
  EXPECT_EQ(calls.user_messages.size(), 2u);
  ASSERT_EQ(calls.assistant_messages.size(), 1u);
  EXPECT_EQ(calls.assistant_messages[0].message_id, "am-1");
  EXPECT_EQ(calls.system_messages[0].code, 500);
  EXPECT_EQ(calls.section_statuses.back().status, SectionStatus::Ended);
  EXPECT_EQ(conversation->getDetail().conversation_id, "c-1");
  EXPECT_TRUE(log_->has("local conversation(lc-1) recv inconsistent conversation_id: c-1 -> c-2"));
  EXPECT_TRUE(log_->has(
      "Skip a msg with different local conversation id, expect: lc-1, but: someone-else"));
  EXPECT_TRUE(log_->has("MessageEngine patch failed, message unknown-id is not found"));
  EXPECT_EQ(log_->countContaining("Skip a invalid msg, original json: "), 2u);
}

// The host sends from its thread while the server streams on its own. A
// prompt drops the previous turn, so only the acknowledgements the engine can
// still match are reported, and each of those exactly once.
TEST_F(ConversationTrafficTest, SendingWhileFramesArriveOnAnotherThread) {
  ILogger::setLogLevel(LogLevel::Warn);
  server_->setScript(
      [](ScriptedServer& s, const idl::UplinkMessage& up) { answerPrompt(s, up, 20); });
  auto conversation = open("lc-1");
  std::string last;
  for (int i = 0; i < 15; ++i) last = conversation->sendMessage(prompt("q" + std::to_string(i)));
  ASSERT_TRUE(waitFor(
      [&](const Calls& c) { return !c.acks.empty() && c.acks.back().local_message_id == last; }));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(server_->uplinks().size(), 15u);
  const Calls calls = listener_->calls();
  std::set<std::string> acked;
  for (const auto& ack : calls.acks) {
    EXPECT_EQ(ack.status, AckStatus::Acked);
    EXPECT_TRUE(acked.insert(ack.local_message_id).second) << "acknowledged twice";
  }
}

}  // namespace
}  // namespace orvi
