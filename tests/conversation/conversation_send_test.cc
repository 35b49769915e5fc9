// Sending as hosts that misbehave meet it: hosts that let go of the
// conversation or call back into it from inside a callback, a sender that
// refuses a frame, a server that refuses a message, a slow listener, and
// requests answered twice.
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "conversation_fixture.h"

namespace orvi {
namespace {

using test::ScriptedServer;
using Calls = test::RecordingListener::Calls;
using Operation = test::RecordingListener::Operation;
using Json = nlohmann::json;

class ConversationSendTest : public test::ConversationFixture {
 protected:
  static void acknowledge(ScriptedServer& s, const idl::UplinkMessage& up, int32_t status = 2) {
    s.deliver(
        ScriptedServer::ack(up, "c-1", "s-1", "um-" + up.messages.at(0).local_message_id, status));
  }
};

// The host may drop its last reference from inside a callback that runs
// during the send, and may call into the conversation from its tracer
// while listen runs.
TEST_F(ConversationSendTest, HostCodeMayLetGoOrCallBackFromInsideCallbacks) {
  const auto test_thread = std::this_thread::get_id();
  for (const Operation where : {Operation::UserMessage, Operation::SectionStatus}) {
    SCOPED_TRACE(static_cast<int>(where));
    server_ = std::make_shared<ScriptedServer>();
    server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) { acknowledge(s, up); });
    auto listener = std::make_shared<test::RecordingListener>();
    ConversationOptions options;
    options.enable_tracing_event = true;
    std::shared_ptr<Conversation> conversation =
        open("drop-" + std::to_string(static_cast<int>(where)), options, listener);
    listener->setHook([&](Operation operation) {
      if (operation == where && std::this_thread::get_id() == test_thread) conversation.reset();
    });
    Conversation* raw = conversation.get();
    const std::string sent = raw->sendMessage(prompt("bye"));
    EXPECT_FALSE(sent.empty());
    EXPECT_FALSE(conversation);
    ASSERT_TRUE(server_->drain());
    EXPECT_EQ(server_->uplinkCount(), 1u);  // the frame still went out
  }

  // A tracer that reads the conversation while a second listen is refused:
  // no deadlock, and tracing stays with the first listener.
  server_ = std::make_shared<ScriptedServer>();
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) { acknowledge(s, up); });
  ConversationOptions options;
  options.enable_tracing_event = true;
  auto conversation = open("traced", options);
  std::weak_ptr<Conversation> weak = conversation;
  listener_->setHook([weak](Operation operation) {
    if (operation != Operation::TraceEvent) return;
    if (const auto traced = weak.lock()) traced->getDetail();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  });
  conversation->sendMessage(prompt("one"));
  auto second = std::make_shared<test::RecordingListener>();
  auto refused = std::async(std::launch::async, [&] { conversation->listen(second); });
  ASSERT_EQ(refused.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "deadlock";
  conversation->sendMessage(prompt("two"));
  const auto two_traced = [](const Calls& c) {
    int sends = 0;
    for (const auto& e : c.trace_events) sends += e.name == "user_message_event";
    return sends == 2;
  };
  EXPECT_TRUE(waitFor(two_traced));
  EXPECT_TRUE(second->calls().sequence.empty());
  listener_->setHook(nullptr);
}

// Each message ends with one outcome, and the frame that finally reaches
// the server is the one first handed to the sender.
TEST_F(ConversationSendTest, EachMessageEndsWithOneOutcome) {
  ConversationOptions options;
  options.uplink_message_ack_timeout_ms = 30;
  options.max_resend_uplink_message_count = 3;

  // The sender refuses the frame; the resend goes out unchanged and the
  // server takes it: Acked once, and shown and stored as sent.
  {
    server_->refuse_frames = true;
    server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) { acknowledge(s, up); });
    auto conversation = open("refused-by-sender", options);
    const std::string first = conversation->sendMessage(prompt("try again"));
    EXPECT_TRUE(first.empty());  // not sent this time
    server_->refuse_frames = false;
    ASSERT_TRUE(waitFor([](const Calls& c) { return !c.acks.empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(120));  // time for a wrong second outcome
    const Calls calls = listener_->calls();
    ASSERT_EQ(calls.acks.size(), 1u);
    EXPECT_EQ(calls.acks[0].status, AckStatus::Acked);
    ASSERT_GE(calls.user_messages.size(), 3u);  // shown, failed, acknowledged
    EXPECT_EQ(calls.user_messages[1].status, MessageStatus::Failed);
    EXPECT_EQ(calls.user_messages.back().status, MessageStatus::Completed);
    const auto frames = wire();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0]["messages"][0]["status"], static_cast<int>(MessageStatus::Completed));
    ASSERT_TRUE(hub_->history()->flush());
    const auto stored = hub_->history()->getMessages("refused-by-sender");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(Json::parse(stored[0])["messages"][0]["status"],
              static_cast<int>(MessageStatus::Completed));
  }

  // The server refuses the message: Rejected once, and never resent.
  {
    server_ = std::make_shared<ScriptedServer>();
    server_->setScript(
        [](ScriptedServer& s, const idl::UplinkMessage& up) { acknowledge(s, up, 4); });
    auto listener = std::make_shared<test::RecordingListener>();
    auto conversation = open("refused-by-server", options, listener);
    conversation->sendMessage(prompt("not allowed"));
    ASSERT_TRUE(listener->waitFor([](const Calls& c) { return !c.acks.empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));  // past several time-outs
    const Calls calls = listener->calls();
    ASSERT_EQ(calls.acks.size(), 1u);
    EXPECT_EQ(calls.acks[0].status, AckStatus::Rejected);
    EXPECT_EQ(server_->uplinkCount(), 1u);
    EXPECT_EQ(calls.user_messages.back().status, MessageStatus::Failed);
  }

  // Two threads sending prompts at once: every prompt the server
  // acknowledged is reported Acked, once, also past its time-out.
  options.uplink_message_ack_timeout_ms = 1000;
  {
    server_ = std::make_shared<ScriptedServer>();
    server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) { acknowledge(s, up); });
    auto listener = std::make_shared<test::RecordingListener>();
    auto conversation = open("two-threads", options, listener);
    constexpr int kEach = 40;
    const auto sender = [&] {
      for (int i = 0; i < kEach; ++i) conversation->sendMessage(prompt("p"));
    };
    std::thread a(sender);
    std::thread b(sender);
    a.join();
    b.join();
    ASSERT_TRUE(listener->waitFor([](const Calls& c) { return c.acks.size() == 2 * kEach; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const Calls calls = listener->calls();
    EXPECT_EQ(calls.acks.size(), 2u * kEach);
    for (const auto& ack : calls.acks)
      EXPECT_EQ(ack.status, AckStatus::Acked) << ack.local_message_id;
  }
}

// The frame leaves before the section's start is announced; a slow
// listener cannot make a time-out be reported for a frame not yet sent.
TEST_F(ConversationSendTest, TheFrameLeavesBeforeTheSectionIsAnnounced) {
  ConversationOptions options;
  options.uplink_message_ack_timeout_ms = 20;
  auto conversation = open("order", options);
  std::atomic<size_t> on_wire_when_announced{0};
  std::atomic<size_t> on_wire_when_timed_out{0};
  listener_->setHook([&](Operation operation) {
    if (operation == Operation::Ack) on_wire_when_timed_out = server_->uplinkCount();
    if (operation != Operation::SectionStatus) return;
    on_wire_when_announced = server_->uplinkCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));  // a slow host
  });
  const std::string sent = conversation->sendMessage(prompt("q"));
  EXPECT_FALSE(sent.empty());
  ASSERT_TRUE(waitFor([](const Calls& c) { return !c.acks.empty(); }));
  listener_->setHook(nullptr);
  EXPECT_EQ(on_wire_when_announced.load(), 1u);
  EXPECT_EQ(on_wire_when_timed_out.load(), 1u);
  const Calls calls = listener_->calls();
  ASSERT_EQ(calls.acks.size(), 1u);
  EXPECT_EQ(calls.acks[0].status, AckStatus::Timeout);
}

}  // namespace
}  // namespace orvi
