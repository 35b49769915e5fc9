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
#include <utility>
#include <vector>

#include "orvi/conversation.h"

namespace orvi {
namespace test {

class RecordingListener : public ConversationListener {
 public:
  enum class Operation {
    Ack,
    AssistantMessage,
    UserMessage,
    SystemMessage,
    SectionStatus,
    RecoverStatus,
    TraceEvent,
  };

  struct Ack {
    std::string local_message_id;
    AckStatus status;
  };
  struct SectionStatusCall {
    SectionStatus status;
    bool from_history;
    SectionInfo section;
  };
  struct RecoverStatusCall {
    RecoverStatus status;
    std::optional<RecoverExtra> extra;
  };
  struct TraceEvent {
    std::string name;
    std::string json;
  };
  struct Call {
    Operation operation;
    std::thread::id thread;
  };

  // Everything seen so far; `sequence` holds every call of any kind in
  // arrival order.
  struct Calls {
    std::vector<Ack> acks;
    std::vector<AssistantMessage> assistant_messages;
    std::vector<UserMessage> user_messages;
    std::vector<SystemMessage> system_messages;
    std::vector<SectionStatusCall> section_statuses;
    std::vector<RecoverStatusCall> recover_statuses;
    std::vector<TraceEvent> trace_events;
    std::vector<Call> sequence;
  };

  using Hook = std::function<void(Operation)>;

  void onAck(const std::string& local_message_id, AckStatus status) override {
    record(Operation::Ack, [&](Calls& c) { c.acks.push_back({local_message_id, status}); });
  }
  void onAssistantMessage(const AssistantMessage& message) override {
    record(Operation::AssistantMessage, [&](Calls& c) { c.assistant_messages.push_back(message); });
  }
  void onUserMessage(const UserMessage& message) override {
    record(Operation::UserMessage, [&](Calls& c) { c.user_messages.push_back(message); });
  }
  void onSystemMessage(const SystemMessage& message) override {
    record(Operation::SystemMessage, [&](Calls& c) { c.system_messages.push_back(message); });
  }
  void onSectionStatus(SectionStatus status, bool from_history,
                       const SectionInfo& section) override {
    record(Operation::SectionStatus, [&](Calls& c) {
      c.section_statuses.push_back({status, from_history, section});
    });
  }
  void onRecoverStatus(RecoverStatus status, const std::optional<RecoverExtra>& extra) override {
    record(Operation::RecoverStatus, [&](Calls& c) {
      c.recover_statuses.push_back({status, extra});
    });
  }
  void onTraceEvent(const std::string& name, const std::string& json) override {
    record(Operation::TraceEvent, [&](Calls& c) { c.trace_events.push_back({name, json}); });
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

  void setHook(Hook hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
  }

 private:
  template <typename Add>
  void record(Operation operation, Add add) {
    Hook hook;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      hook = hook_;
    }
    if (hook) hook(operation);
    // Notified under the lock, so a test that wakes and drops the listener
    // cannot pull the condition variable from under this thread.
    std::lock_guard<std::mutex> lock(mutex_);
    add(calls_);
    calls_.sequence.push_back({operation, std::this_thread::get_id()});
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Calls calls_;  // guarded by mutex_
  Hook hook_;    // guarded by mutex_
};

}  // namespace test
}  // namespace orvi
