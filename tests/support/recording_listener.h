// A ConversationListener that records every call of its seven operations,
// with the calling thread, and lets a test wait until what it saw satisfies
// a condition. A hook, run before each call is recorded and outside the
// lock, lets a test block or act inside a delivery (for example hold the
// reporter's thread on a latch). Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "orvi/conversation.h"

namespace orvi {
namespace test {

class RecordingListener : public ConversationListener {
 public:
  enum class Operation { Ack, Assistant, User, System, SectionStatus, RecoverStatus, Trace };

  struct TraceEvent {
    std::string name;
    std::string json;
  };

  // Everything seen so far, per operation; `sequence` holds every call of
  // any kind in arrival order with the thread it came on.
  struct Calls {
    std::vector<std::pair<std::string, AckStatus>> acks;  // local message id, status
    std::vector<AssistantMessage> assistant_messages;
    std::vector<UserMessage> user_messages;
    std::vector<SystemMessage> system_messages;
    std::vector<std::tuple<SectionStatus, bool, SectionInfo>> section_statuses;
    std::vector<std::pair<RecoverStatus, std::optional<RecoverExtra>>> recover_statuses;
    std::vector<TraceEvent> trace_events;
    std::vector<std::pair<Operation, std::thread::id>> sequence;
  };

  void onAck(const std::string& id, AckStatus status) override {
    record(Operation::Ack, [&](Calls& c) { c.acks.emplace_back(id, status); });
  }
  void onAssistantMessage(const AssistantMessage& m) override {
    record(Operation::Assistant, [&](Calls& c) { c.assistant_messages.push_back(m); });
  }
  void onUserMessage(const UserMessage& m) override {
    record(Operation::User, [&](Calls& c) { c.user_messages.push_back(m); });
  }
  void onSystemMessage(const SystemMessage& m) override {
    record(Operation::System, [&](Calls& c) { c.system_messages.push_back(m); });
  }
  void onSectionStatus(SectionStatus status, bool from_history, const SectionInfo& s) override {
    record(Operation::SectionStatus,
           [&](Calls& c) { c.section_statuses.emplace_back(status, from_history, s); });
  }
  void onRecoverStatus(RecoverStatus status, const std::optional<RecoverExtra>& extra) override {
    record(Operation::RecoverStatus,
           [&](Calls& c) { c.recover_statuses.emplace_back(status, extra); });
  }
  void onTraceEvent(const std::string& name, const std::string& json) override {
    record(Operation::Trace, [&](Calls& c) { c.trace_events.push_back({name, json}); });
  }

  Calls calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

  // Waits until `done(calls)` holds; false when `timeout` passes first. The
  // predicate runs under the listener's lock and must not call back into it.
  bool waitFor(const std::function<bool(const Calls&)>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(calls_); });
  }

  void setHook(std::function<void(Operation)> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
  }

 private:
  template <typename Add>
  void record(Operation operation, Add add) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto hook = hook_;
    lock.unlock();
    if (hook) hook(operation);
    // Notified under the lock, so a test that wakes and drops the listener
    // cannot pull the condition variable from under this thread.
    lock.lock();
    add(calls_);
    calls_.sequence.emplace_back(operation, std::this_thread::get_id());
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Calls calls_;                          // guarded by mutex_
  std::function<void(Operation)> hook_;  // guarded by mutex_
};

}  // namespace test
}  // namespace orvi
