// Several host threads send, reply, cancel, drop and reopen conversations
// while a flaky server acknowledges late, twice, with a refusal or never,
// and the sender sometimes refuses a frame. Whatever the interleaving: every
// message gets at most one outcome, every message of a conversation still
// open gets exactly one, nothing is reported once the host has dropped a
// conversation, and the run ends (a watchdog turns a deadlock into a
// failure). Meant to run under ThreadSanitizer as well.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "conversation_fixture.h"
#include "orvi/utils/clock.h"

namespace orvi {
namespace {

using test::ScriptedServer;
using Clock = std::chrono::steady_clock;

// Runs jobs at their due time on one thread: the server's side of every
// connection.
class Scheduler {
 public:
  Scheduler() : worker_([this] { run(); }) {}
  ~Scheduler() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    worker_.join();
  }

  void at(Clock::duration delay, std::function<void()> job) {
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.emplace(Clock::now() + delay, std::move(job));
    wake_.notify_all();
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
      if (jobs_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const auto due = jobs_.begin()->first;
      if (Clock::now() < due) {
        wake_.wait_until(lock, due);
        continue;
      }
      auto job = std::move(jobs_.begin()->second);
      jobs_.erase(jobs_.begin());
      lock.unlock();
      job();
      job = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::multimap<Clock::time_point, std::function<void()>> jobs_;  // guarded by mutex_
  bool stop_ = false;                                             // guarded by mutex_
  std::thread worker_;
};

// What the host learned about messages, across every conversation.
class Ledger {
 public:
  void sent(const std::string& local_message_id, int owner) {
    std::lock_guard<std::mutex> lock(mutex_);
    owners_.emplace(local_message_id, owner);
  }
  void outcome(const std::string& local_message_id) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (++outcomes_[local_message_id] > 1) duplicates_.insert(local_message_id);
  }
  std::set<std::string> duplicates() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return duplicates_;
  }
  // Messages of `owner` that have no outcome yet.
  std::vector<std::string> unsettled(int owner) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> ids;
    for (const auto& [id, who] : owners_) {
      if (who == owner && outcomes_.count(id) == 0) ids.push_back(id);
    }
    return ids;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, int> owners_;
  std::map<std::string, int> outcomes_;
  std::set<std::string> duplicates_;
};

// Counts what comes after the host let go of its conversation, and may let
// go of it itself from inside a call on the host's thread.
class StressListener : public ConversationListener {
 public:
  StressListener(Ledger& ledger, int owner, std::thread::id host_thread, uint32_t seed)
      : ledger_(ledger), owner_(owner), host_thread_(host_thread), random_(seed) {}

  void onAck(const std::string& local_message_id, AckStatus status) override {
    call();
    if (status == AckStatus::Acked || status == AckStatus::Rejected ||
        status == AckStatus::GivenUp || status == AckStatus::Timeout) {
      ledger_.outcome(local_message_id);
    }
  }
  void onAssistantMessage(const AssistantMessage&) override { call(); }
  void onUserMessage(const UserMessage& message) override {
    call();
    if (message.status != MessageStatus::Failed) ledger_.sent(message.local_message_id, owner_);
    maybeDrop();
  }
  void onSystemMessage(const SystemMessage&) override { call(); }
  void onSectionStatus(SectionStatus, bool, const SectionInfo&) override {
    call();
    maybeDrop();
  }
  void onRecoverStatus(RecoverStatus, const std::optional<RecoverExtra>&) override { call(); }
  void onTraceEvent(const std::string&, const std::string&) override {
    call();
    // Tracing calls back into the conversation it traces.
    if (const auto conversation = traced_.lock()) conversation->getDetail();
  }

  // The host's reference, which the listener may drop from inside a call on
  // the host's own thread (the only thread that touches it).
  std::shared_ptr<Conversation>* slot = nullptr;
  std::weak_ptr<Conversation> traced_;

  // From now on every call is a fault, once calls under way have ended.
  void dropped() { dropped_at_ms_.store(steadyMs()); }
  int lateCalls() const { return late_calls_.load(); }

 private:
  void call() {
    const int64_t dropped = dropped_at_ms_.load();
    // A call already under way when the host let go may still end; one
    // that starts well after that is a fault.
    if (dropped != 0 && steadyMs() - dropped > 1000) late_calls_.fetch_add(1);
  }
  void maybeDrop() {
    if (std::this_thread::get_id() != host_thread_ || !slot || !*slot) return;
    if (std::uniform_int_distribution<int>(0, 19)(random_) != 0) return;
    dropped();
    slot->reset();  // the last reference, during the library's call
  }

  Ledger& ledger_;
  const int owner_;
  const std::thread::id host_thread_;
  std::mt19937 random_;  // host thread only
  std::atomic<int64_t> dropped_at_ms_{0};
  std::atomic<int> late_calls_{0};
};

// The server side of one connection: acknowledges each uplink after a while
// (or twice, or with a refusal, or never) and sometimes answers and ends the
// section; the sender itself refuses some frames.
class FlakySender : public ITransportSender {
 public:
  FlakySender(Scheduler& scheduler, uint32_t seed) : scheduler_(scheduler), random_(seed) {}

  void attach(const std::shared_ptr<ITransport>& inbound) { inbound_ = inbound; }

  bool sendMessage(const std::string& text) override {
    std::unique_lock<std::mutex> lock(mutex_);
    if (roll(20) == 0) return false;
    const auto up = idl::fromText<idl::UplinkMessage>(text);
    const std::string conversation_id = "c-" + up.local_conversation_id;
    const std::string section_id = "s-" + up.local_section_id;
    const std::string server_id = "um-" + up.messages.at(0).local_message_id;
    const auto later = [this](int most_ms) { return std::chrono::milliseconds(roll(most_ms + 1)); };
    std::vector<std::pair<Clock::duration, std::string>> frames;
    switch (roll(10)) {
      case 0: break;  // never acknowledged
      case 1:         // twice
        frames.emplace_back(later(20),
                            ScriptedServer::ack(up, conversation_id, section_id, server_id));
        frames.emplace_back(later(60),
                            ScriptedServer::ack(up, conversation_id, section_id, server_id));
        break;
      case 2:  // refused by the server
        frames.emplace_back(later(20),
                            ScriptedServer::ack(up, conversation_id, section_id, server_id, 4));
        break;
      case 3:  // after the acknowledgement time-out
        frames.emplace_back(std::chrono::milliseconds(60) + later(60),
                            ScriptedServer::ack(up, conversation_id, section_id, server_id));
        break;
      default:
        frames.emplace_back(later(30),
                            ScriptedServer::ack(up, conversation_id, section_id, server_id));
    }
    if (roll(3) == 0) {
      const std::string answer_id = "am-" + up.messages.at(0).local_message_id;
      frames.emplace_back(later(40), ScriptedServer::assistant(up, conversation_id, section_id,
                                                               answer_id, {{"text", "hi"}}));
      frames.emplace_back(
          later(40), ScriptedServer::system(up, conversation_id, section_id, 0, "stream_complete"));
      frames.emplace_back(later(40), ScriptedServer::system(up, conversation_id, section_id, 0,
                                                            "section_complete"));
    }
    lock.unlock();
    for (auto& [delay, frame] : frames) {
      std::weak_ptr<ITransport> inbound = inbound_;
      scheduler_.at(delay, [inbound, frame = std::move(frame)] {
        if (const auto transport = inbound.lock()) transport->onMessageReceived(frame);
      });
    }
    return true;
  }

  void httpRequest(const HttpRequest&, std::shared_ptr<HttpCallback> callback) override {
    scheduler_.at(std::chrono::milliseconds(5), [callback] {
      callback->onResponse(HttpResponse(200, R"({"ret":"1"})"));
      callback->onResponse(HttpResponse(200, R"({"ret":"1"})"));  // a faulty host
    });
  }

 private:
  int roll(int sides) { return std::uniform_int_distribution<int>(0, sides - 1)(random_); }

  Scheduler& scheduler_;
  std::mutex mutex_;
  std::mt19937 random_;                // guarded by mutex_
  std::weak_ptr<ITransport> inbound_;  // set before the first send
};

// One opening of a conversation by a host thread.
struct Opening {
  std::string id;
  std::shared_ptr<Conversation> conversation;
  std::shared_ptr<StressListener> listener;
  std::shared_ptr<FlakySender> sender;
  int owner = 0;
};

class ConversationLifecycleStressTest : public test::ConversationFixture {};

TEST_F(ConversationLifecycleStressTest, EveryMessageEndsOnceAndNothingOutlivesTheHost) {
  ILogger::setLogLevel(LogLevel::Error);
  constexpr int kThreads = 3;
  constexpr int kOperations = 250;
  constexpr int kAckTimeoutMs = 40;
  constexpr int kMaxResend = 2;

  // A deadlock must fail the run, not hang it.
  std::mutex watchdog_mutex;
  std::condition_variable watchdog_wake;
  bool finished = false;
  std::thread watchdog([&] {
    std::unique_lock<std::mutex> lock(watchdog_mutex);
    if (!watchdog_wake.wait_for(lock, std::chrono::seconds(240), [&] { return finished; })) {
      std::cerr << "lifecycle stress test: no progress for 240 s, deadlock\n";
      std::abort();
    }
  });

  Scheduler scheduler;
  Ledger ledger;
  std::mutex openings_mutex;
  std::vector<Opening> kept;  // still open at the end; guarded by openings_mutex
  std::vector<std::shared_ptr<StressListener>> let_go;  // guarded by openings_mutex
  std::atomic<int> next_owner{0};

  const auto host = [&](int index) {
    std::mt19937 rng(1000 + index);
    const auto roll = [&](int sides) {
      return std::uniform_int_distribution<int>(0, sides - 1)(rng);
    };
    const std::string id = "host-" + std::to_string(index);
    Opening current;
    const auto reopen = [&] {
      ConversationOptions options;
      options.uplink_message_ack_timeout_ms = kAckTimeoutMs;
      options.max_resend_uplink_message_count = kMaxResend;
      options.enable_tracing_event = roll(2) == 0;
      options.enable_resend = roll(4) != 0;
      current.id = id;
      current.owner = next_owner.fetch_add(1);
      current.conversation = hub_->open(id, options);
      current.listener = std::make_shared<StressListener>(ledger, current.owner,
                                                          std::this_thread::get_id(), rng());
      current.listener->slot = &current.conversation;
      current.listener->traced_ = current.conversation;
      current.sender = std::make_shared<FlakySender>(scheduler, rng());
      current.conversation->listen(current.listener);
      current.sender->attach(current.conversation->connect(current.sender));
    };
    // The listener of an opening let go of no longer touches the slot,
    // which the next opening reuses.
    const auto forget = [&] {
      hub_->close(id);
      current.listener->slot = nullptr;
      std::lock_guard<std::mutex> lock(openings_mutex);
      let_go.push_back(current.listener);
    };
    const auto letGo = [&] {
      current.listener->dropped();
      current.conversation.reset();
      forget();
    };
    reopen();
    for (int i = 0; i < kOperations; ++i) {
      if (!current.conversation) {  // the listener let go of it inside a call
        forget();
        reopen();
      }
      switch (roll(10)) {
        case 0:
          letGo();
          reopen();
          break;
        case 1: current.conversation->cancel(InputMessage()); break;
        case 2: {
          InputMessage answer;
          answer.tool_result = ToolResult({}, {}, ToolResultStatus::Succeed, std::nullopt, 0);
          current.conversation->reply(answer);
          break;
        }
        case 3: current.conversation->getDetail(); break;
        default: current.conversation->sendMessage(prompt("q" + std::to_string(i)));
      }
      if (roll(4) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(roll(10)));
    }
    if (!current.conversation) {
      forget();
      return;
    }
    current.listener->slot = nullptr;
    std::lock_guard<std::mutex> lock(openings_mutex);
    kept.push_back(current);
  };
  std::vector<std::thread> hosts;
  for (int i = 0; i < kThreads; ++i) hosts.emplace_back(host, i);
  for (auto& thread : hosts) thread.join();

  // Every message of a conversation still open ends: the longest path is
  // the time-out, each resend's time-out, and a late acknowledgement.
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  for (const auto& opening : kept) {
    while (!ledger.unsettled(opening.owner).empty() && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(ledger.unsettled(opening.owner), std::vector<std::string>{})
        << "messages without an outcome in a conversation still open";
  }
  EXPECT_EQ(ledger.duplicates(), std::set<std::string>{}) << "messages with two outcomes";

  // Let go of the rest; then nothing may reach any listener let go of.
  for (auto& opening : kept) {
    hub_->close(opening.id);
    opening.listener->dropped();
    let_go.push_back(opening.listener);
    opening.conversation.reset();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  int late = 0;
  for (const auto& listener : let_go) late += listener->lateCalls();
  EXPECT_EQ(late, 0) << "calls to a listener long after the host let go of its conversation";
  EXPECT_GT(let_go.size(), static_cast<size_t>(kThreads));  // drops and reopens did happen

  {
    std::lock_guard<std::mutex> lock(watchdog_mutex);
    finished = true;
  }
  watchdog_wake.notify_all();
  watchdog.join();
}

}  // namespace
}  // namespace orvi
