// Two connections push the deltas of two streaming answers while the
// conversation recovers the section they belong to; the recovery's answer
// arrives on a third thread in the middle. Whatever the interleaving, every
// delta lands exactly once and in order, and the host is never called from
// two threads at once. Meant to run under ThreadSanitizer as well.
#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "conversation_fixture.h"

namespace orvi {
namespace {

using test::ScriptedServer;
using Json = nlohmann::json;

// Records each answer's texts in delivery order and checks that no two
// calls overlap.
class SerialListener : public ConversationListener {
 public:
  void onAck(const std::string&, AckStatus) override {
    enter();
    leave();
  }
  void onAssistantMessage(const AssistantMessage& message) override {
    enter();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      texts_[message.message_id].push_back(Json::parse(message.content->content)["text"]);
      if (!recovered_) misplaced_ += 1;  // a frame delivered before the recovered section
    }
    leave();
  }
  void onUserMessage(const UserMessage&) override {
    enter();
    leave();
  }
  void onSystemMessage(const SystemMessage&) override {
    enter();
    leave();
  }
  void onSectionStatus(SectionStatus, bool, const SectionInfo&) override {
    enter();
    leave();
  }
  void onRecoverStatus(RecoverStatus status, const std::optional<RecoverExtra>&) override {
    enter();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      statuses_.push_back(status);
    }
    leave();
  }
  void onTraceEvent(const std::string&, const std::string&) override {}

  // The recovered section is about to be handed over (set by the test from
  // the answer it gives).
  void expectRecovered() {
    std::lock_guard<std::mutex> lock(mutex_);
    recovered_ = true;
  }

  std::map<std::string, std::vector<std::string>> texts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
  }
  std::vector<RecoverStatus> statuses() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return statuses_;
  }
  int overlaps() const { return overlaps_.load(); }
  int misplaced() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return misplaced_;
  }

 private:
  void enter() {
    if (inside_.fetch_add(1) != 0) overlaps_.fetch_add(1);
  }
  void leave() { inside_.fetch_sub(1); }

  std::atomic<int> inside_{0};
  std::atomic<int> overlaps_{0};
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<std::string>> texts_;
  std::vector<RecoverStatus> statuses_;
  bool recovered_ = false;
  int misplaced_ = 0;
};

class ConversationRecoveryStressTest : public test::ConversationFixture {};

TEST_F(ConversationRecoveryStressTest, DeltasFromTwoThreadsDuringARecoveryLandOnceAndInOrder) {
  ILogger::setLogLevel(LogLevel::Warn);
  constexpr int kRounds = 6;
  constexpr int kDeltas = 150;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    const std::string id = "stress-" + std::to_string(round);
    hub_->history()->addConversation(id, "c-1", "");
    // One stored prompt names the section to recover.
    server_ = std::make_shared<ScriptedServer>();
    server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
      s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-1"));
    });
    auto listener = std::make_shared<SerialListener>();
    auto conversation = hub_->open(id, {});
    ASSERT_TRUE(conversation);
    conversation->listen(listener);
    const auto transport = conversation->connect(server_);
    server_->attach(transport);
    conversation->sendMessage(prompt("q"));
    ASSERT_TRUE(server_->drain());
    ASSERT_TRUE(hub_->history()->flush());

    server_->setRestScript([listener](const HttpRequest&) {
      listener->expectRecovered();
      return std::string(
          R"({"ret":"0","errmsg":"","data":{"status":1,"message_list":[)"
          R"({"message_id":"am-A","conversation_id":"c-1","section_id":"s-1","local_section_id":"s-1","role":"assistant","content":{"payload":"{\"text\":\"\"}"}},)"
          R"({"message_id":"am-B","conversation_id":"c-1","section_id":"s-1","local_section_id":"s-1","role":"assistant","content":{"payload":"{\"text\":\"\"}"}}]}})");
    });
    server_->hold_requests = true;
    ASSERT_TRUE(conversation->recoverRemoteSection());

    idl::UplinkMessage section;
    section.local_conversation_id = id;
    section.local_section_id = "s-1";
    std::atomic<int> pushed{0};
    const auto pusher = [&](const std::string& target, const std::string& prefix) {
      for (int i = 0; i < kDeltas; ++i) {
        const Json operations = Json::array(
            {{{"op", "append"}, {"path", "/text"}, {"value", prefix + std::to_string(i) + ";"}}});
        transport->onMessageReceived(
            ScriptedServer::delta(section, "c-1", "s-1", target, operations));
        pushed.fetch_add(1);
      }
    };
    std::thread a(pusher, "am-A", "a");
    std::thread b(pusher, "am-B", "b");
    // The answer comes while both are pushing (at a different point each round).
    while (pushed.load() < (round + 1) * kDeltas / kRounds) std::this_thread::yield();
    server_->answerHeld();
    a.join();
    b.join();
    ASSERT_TRUE(server_->drain());

    EXPECT_EQ(listener->overlaps(), 0) << "the host was called from two threads at once";
    EXPECT_EQ(listener->misplaced(), 0) << "a delta overtook the recovered section";
    EXPECT_EQ(listener->statuses(), std::vector<RecoverStatus>{RecoverStatus::Started});
    const auto texts = listener->texts();
    for (const auto& [target, prefix] :
         {std::pair<std::string, std::string>{"am-A", "a"}, {"am-B", "b"}}) {
      const auto it = texts.find(target);
      ASSERT_NE(it, texts.end());
      const std::vector<std::string>& seen = it->second;
      // The recovered message, then one delivery per delta, each one piece longer.
      ASSERT_EQ(seen.size(), static_cast<size_t>(kDeltas + 1)) << target;
      std::string expected;
      EXPECT_EQ(seen[0], expected);
      for (int i = 0; i < kDeltas; ++i) {
        expected += prefix + std::to_string(i) + ";";
        if (seen[i + 1] != expected) {
          ADD_FAILURE() << target << " delivery " << i + 1 << " is " << seen[i + 1];
          break;
        }
      }
    }
    EXPECT_EQ(log_->countContaining("MessageEngine patch failed"), 0u);
  }
}

}  // namespace
}  // namespace orvi
