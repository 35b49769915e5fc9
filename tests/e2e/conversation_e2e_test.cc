// A host on the public API, the network transport and SQLite history, held
// against the emulator over real loopback sockets.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>

#include "e2e_support.h"
#include "orvi/orvi.h"
#include "support/recording_listener.h"

namespace orvi {
namespace test {
namespace {

using nlohmann::json;
using Calls = RecordingListener::Calls;

std::string textOf(const AssistantMessage& message) {
  if (!message.content) return "";
  const json payload = json::parse(message.content->content, nullptr, false);
  return payload.is_object() ? payload.value("text", "") : "";
}

InputMessage prompt(const std::string& text) {
  InputMessage message;
  message.content = MessageContent(text, 0);
  return message;
}

// Collects one page of fetchHistoryMessages.
class FetchedPage : public IFetchMessageCallback {
 public:
  void onMessages(const std::vector<ComboMessage>& messages, bool, const std::string&) override {
    std::lock_guard<std::mutex> lock(mutex_);
    messages_ = messages;
    done_ = true;
    changed_.notify_all();
  }
  void onFailure(int32_t, const std::string&) override {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    changed_.notify_all();
  }
  std::vector<ComboMessage> wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [this] { return done_; });
    return messages_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  std::vector<ComboMessage> messages_;
};

// One conversation of a host connected to an emulator.
struct Host {
  std::shared_ptr<WireTap> tap;
  std::shared_ptr<Conversation> conversation;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
  std::shared_ptr<ITransport> inbound;

  Host(const EmulatorProcess& emulator, const ConversationOptions& options) {
    configureHubOnce();
    tap = WireTap::connect(emulator.chatUrl(), emulator.httpUrl());
    conversation = ConversationHub::instance()->open("", options);
    conversation->listen(listener);
    inbound = conversation->connect(tap);
    tap->addReceiver(inbound);
  }
  ~Host() {
    const std::string id = conversation->getDetail().local_conversation_id;
    conversation.reset();
    ConversationHub::instance()->close(id);
  }

  // Stored messages of the conversation, oldest first.
  std::vector<ComboMessage> history() {
    auto page = std::make_shared<FetchedPage>();
    conversation->fetchHistoryMessages(false, "0", 50, page);
    return page->wait();
  }
  bool waitForSection(SectionStatus status) {
    return listener->waitFor([status](const Calls& calls) {
      return std::any_of(calls.section_statuses.begin(), calls.section_statuses.end(),
                         [status](const auto& call) { return call.status == status; });
    });
  }
  // The remote copy of the latest section, as the recovery hands it over.
  std::vector<AssistantMessage> recoverLatest() {
    EXPECT_TRUE(conversation->recoverRemoteSection());
    listener->waitFor([](const Calls& calls) {
      return std::any_of(calls.recover_statuses.begin(), calls.recover_statuses.end(),
                         [](const auto& call) { return call.status != RecoverStatus::Started; });
    });
    std::vector<AssistantMessage> remote;
    for (const auto& message : listener->calls().assistant_messages)
      if (message.source == MessageSource::RemoteHistory) remote.push_back(message);
    return remote;
  }
};

size_t countRole(const std::vector<ComboMessage>& messages, MessageType type) {
  return static_cast<size_t>(std::count_if(messages.begin(), messages.end(),
                                           [type](const auto& m) { return m.type == type; }));
}

std::string storedAnswer(const std::vector<ComboMessage>& messages) {
  for (const auto& message : messages)
    if (message.assistant_message) return textOf(*message.assistant_message);
  return "";
}

TEST(ConversationEndToEnd, StreamedAnswerMatchesWhatTheServerAndTheHistoryKeep) {
  EmulatorProcess emulator({"--delta-interval-ms", "2", "--gzip-every", "3"});
  ASSERT_NE(emulator.port(), 0);
  {
    Host host(emulator, ConversationOptions());
    ASSERT_TRUE(host.tap->transport().waitConnected(std::chrono::seconds(5)));
    const std::string id = host.conversation->sendMessage(prompt("Hello there"));
    ASSERT_FALSE(id.empty());
    ASSERT_TRUE(host.waitForSection(SectionStatus::Completed));

    const Calls calls = host.listener->calls();
    ASSERT_EQ(calls.acks.size(), 1u);
    EXPECT_EQ(calls.acks[0].local_message_id, id);
    EXPECT_EQ(calls.acks[0].status, AckStatus::Acked);
    EXPECT_EQ(host.tap->uplinks().size(), 1u);

    // Every update extends the one before: no delta lost, doubled or reordered.
    std::string live;
    for (const auto& message : calls.assistant_messages) {
      const std::string text = textOf(message);
      EXPECT_EQ(text.compare(0, live.size(), live), 0) << live << " -> " << text;
      live = text;
    }
    EXPECT_EQ(calls.assistant_messages.back().status, MessageStatus::Completed);
    EXPECT_EQ(live.rfind("You said: Hello there", 0), 0u) << live;

    const auto downlinks = host.tap->downlinks();
    EXPECT_TRUE(std::any_of(downlinks.begin(), downlinks.end(),
                            [](const json& frame) { return frame.contains("compression"); }));
    EXPECT_GT(std::count_if(downlinks.begin(), downlinks.end(),
                            [](const json& frame) { return frame.value("event", "") == "delta"; }),
              3);

    const auto remote = host.recoverLatest();
    ASSERT_FALSE(remote.empty());
    EXPECT_EQ(textOf(remote.back()), live);

    const auto stored = host.history();
    EXPECT_EQ(countRole(stored, MessageType::User), 1u);
    EXPECT_EQ(countRole(stored, MessageType::Assistant), 1u);
    EXPECT_EQ(storedAnswer(stored), live);
  }
  EXPECT_TRUE(emulator.stop());
}

class CutMidStream : public ::testing::TestWithParam<bool> {};

TEST_P(CutMidStream, SectionIsRecoveredAfterReconnectingWithNothingLostOrDoubled) {
  std::vector<std::string> flags = {"--delta-interval-ms", "5", "--cut-after-deltas", "3"};
  if (GetParam()) flags.push_back("--cut-mid-frame");
  EmulatorProcess emulator(flags);
  ASSERT_NE(emulator.port(), 0);
  Host host(emulator, ConversationOptions());
  ASSERT_TRUE(host.tap->transport().waitConnected(std::chrono::seconds(5)));
  const std::string id = host.conversation->sendMessage(prompt("Tell me about rivers"));
  ASSERT_FALSE(id.empty());

  ASSERT_TRUE(eventually([&] {
    return host.tap->events().countStates(net::ConnectionState::Connected) >= 2;
  })) << "no reconnection";
  EXPECT_TRUE(host.tap->events().hasLine("ended (read:"));
  std::string partial;
  for (const auto& message : host.listener->calls().assistant_messages) partial = textOf(message);

  const auto remote = host.recoverLatest();
  ASSERT_FALSE(remote.empty());
  const std::string recovered = textOf(remote.back());
  EXPECT_EQ(recovered.rfind("You said: Tell me about rivers", 0), 0u) << recovered;
  EXPECT_EQ(recovered.compare(0, partial.size(), partial), 0) << partial << " / " << recovered;
  EXPECT_GT(recovered.size(), partial.size());

  // The recovered copy replaces the partial one in the history (the hub
  // merges); the write may still be queued when the recovery reports.
  EXPECT_TRUE(eventually([&] { return storedAnswer(host.history()) == recovered; }));
  const auto stored = host.history();
  ASSERT_EQ(countRole(stored, MessageType::User), 1u);
  for (const auto& message : stored) {
    if (message.user_message) {
      EXPECT_EQ(message.user_message->local_message_id, id);
    }
  }
  EXPECT_EQ(countRole(stored, MessageType::Assistant), 1u);
}

INSTANTIATE_TEST_SUITE_P(CloseBetweenFramesOrInsideOne, CutMidStream, ::testing::Bool());

TEST(ConversationEndToEnd, UnacknowledgedMessagesAreResentByteForByteWithinTheLimit) {
  // Three acknowledgements dropped: the first prompt's send and both its
  // resends go unanswered, so it is given up; the second prompt is acked.
  EmulatorProcess emulator({"--delta-interval-ms", "1", "--gzip-every", "0", "--drop-acks", "3"});
  ASSERT_NE(emulator.port(), 0);
  ConversationOptions options;
  options.uplink_message_ack_timeout_ms = 300;
  options.max_resend_uplink_message_count = 2;
  Host host(emulator, options);
  ASSERT_TRUE(host.tap->transport().waitConnected(std::chrono::seconds(5)));

  const std::string first = host.conversation->sendMessage(prompt("first"));
  ASSERT_TRUE(host.listener->waitFor([](const Calls& c) { return !c.acks.empty(); }));
  const std::string second = host.conversation->sendMessage(prompt("second"));
  ASSERT_TRUE(host.listener->waitFor([](const Calls& c) { return c.acks.size() >= 2; }));
  ASSERT_TRUE(host.listener->waitFor([](const Calls& calls) {
    return std::count_if(calls.section_statuses.begin(), calls.section_statuses.end(),
                         [](const auto& s) { return s.status == SectionStatus::Completed; }) >= 2;
  }));

  const Calls calls = host.listener->calls();
  ASSERT_EQ(calls.acks.size(), 2u);
  EXPECT_EQ(calls.acks[0].local_message_id, first);
  EXPECT_EQ(calls.acks[0].status, AckStatus::GivenUp);
  EXPECT_EQ(calls.acks[1].local_message_id, second);
  EXPECT_EQ(calls.acks[1].status, AckStatus::Acked);

  const auto uplinks = host.tap->uplinks();
  ASSERT_EQ(uplinks.size(), 4u);
  // The resends repeat the message; by then the answer to the first send
  // has named the conversation, and they carry its id.
  const json sent = json::parse(uplinks[0]);
  const json resent = json::parse(uplinks[1]);
  EXPECT_EQ(uplinks[1], uplinks[2]);
  EXPECT_EQ(sent["messages"], resent["messages"]);
  EXPECT_EQ(sent["local_section_id"], resent["local_section_id"]);
  EXPECT_EQ(sent["conversation_id"], "");
  EXPECT_EQ(resent["conversation_id"], host.conversation->getDetail().conversation_id);
  EXPECT_NE(uplinks[3].find(second), std::string::npos);

  // The server answered each prompt once, however often it arrived.
  size_t answers = 0;
  for (const json& frame : host.tap->downlinks()) {
    if (frame.value("event", "") != "message") continue;
    const json content = json::parse(frame.value("content", ""), nullptr, false);
    if (content.is_object() && content.value("role", "") == "assistant") ++answers;
  }
  EXPECT_EQ(answers, 2u);
}

}  // namespace
}  // namespace test
}  // namespace orvi
