// Reporter turns the life of one conversation into trace events and hands
// them to the host's ConversationListener::onTraceEvent on a report thread of
// its own, so neither sending nor receiving waits for the host.
//
// Owned by its conversation (made when tracing is on and the host listens).
// The listener is held weakly: once the host drops it, events are dropped
// with a warning. Posting methods may be called from any thread; events are
// built and delivered on the report thread only, never under the queue
// mutex. On destruction the queued events are drained, then the thread is
// joined; a reporter destroyed on its own report thread (the host released
// the conversation inside onTraceEvent) detaches it instead, and the thread
// drains the rest on its own. Field sources are listed in docs/tracing.md.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "orvi/conversation.h"

namespace orvi {

// What the conversation knows about one user message it sent.
struct UserMessageReport {
  std::string conversation_id;
  std::string local_conversation_id;
  UserMessage message;
  bool opens_section = false;  // a new prompt: starts the section's accounting
  int64_t build_start_ms = 0;  // steady-clock milliseconds
  int64_t build_end_ms = 0;
  int64_t send_end_ms = 0;
  bool sent = false;
  int64_t send_end_wall_ms = 0;  // the end of sending on the wall clock: a new section's start
};

// What the conversation knows about one assistant message it delivered.
struct AssistantMessageReport {
  std::string conversation_id;
  std::string local_conversation_id;
  AssistantMessage message;
  int64_t receive_time_ms = 0;               // wall clock, when it was delivered
  int64_t receive_complete_timecost_ms = 0;  // first frame to completion, never negative
  int64_t receive_steady_ms = 0;             // receive_time_ms on the steady clock
};

// The section (one prompt and its answers) in progress, as the report thread
// counts it. Timestamps are wall-clock milliseconds, stamped where the facts
// happen (not when the report thread gets to them); the cost is measured
// between the same moments on the steady clock, so a wall clock that jumps
// never makes it negative. end_ts is the moment of the latest fact counted.
struct SectionState {
  enum class Action : int32_t { Init = 0, Finish = 1 };
  Action action = Action::Init;
  std::string section_id;
  std::string local_section_id;
  std::string conversation_id;
  std::string local_conversation_id;
  int32_t user_message_count = 0;
  int32_t assistant_message_count = 0;
  int32_t tool_call_count = 0;  // tool calls the assistant asked for
  int64_t start_ts = 0;
  int64_t end_ts = 0;
  int64_t start_steady_ms = 0;
  int64_t end_steady_ms = 0;
};

class Reporter {
 public:
  explicit Reporter(std::weak_ptr<ConversationListener> tracer);
  ~Reporter();
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  void onConversationOpen(const std::string& conversation_id,
                          const std::string& local_conversation_id, int32_t section_count,
                          int32_t tool_call_count, int32_t err_code, const std::string& err_msg);
  void onConversationClose(const std::string& conversation_id,
                           const std::string& local_conversation_id, int32_t section_count,
                           int32_t tool_call_count, int32_t err_code, const std::string& err_msg);
  void report(UserMessageReport report);
  void report(AssistantMessageReport report);
  // The section in progress ended: posts its "finish" event, once per
  // section (nothing when no section was started here).
  void onSectionCompleted();
  // Posts the section's state as it stands.
  void onSectionEvent();

 private:
  using Task = std::function<void()>;

  // Everything the report thread touches. Shared with that thread so that a
  // reporter destroyed on it can detach while the thread drains the queue.
  struct Core {
    explicit Core(std::weak_ptr<ConversationListener> tracer) : tracer(std::move(tracer)) {}

    void post(Task task);
    // Report thread only: queues the "section_event" of the section as it
    // stands now.
    void postSectionEvent();
    // Report thread only: hands one event to the tracer, or warns with
    // `expired_warning` and drops it when the host has released the tracer.
    void deliver(const char* name, const std::string& json, const char* expired_warning,
                 bool log_json);

    const std::weak_ptr<ConversationListener> tracer;
    std::mutex mutex;
    std::condition_variable wake;
    bool stop = false;       // guarded by mutex; set once, by ~Reporter
    std::deque<Task> tasks;  // guarded by mutex; first in, first out
    SectionState section;    // report thread only, so no lock
  };

  static void reportWorker(std::shared_ptr<Core> core);
  // Open and close differ only in the action and the warning.
  void postConversationEvent(const char* action, const char* expired_warning,
                             const std::string& conversation_id,
                             const std::string& local_conversation_id, int32_t section_count,
                             int32_t tool_call_count, int32_t err_code, const std::string& err_msg);
  void post(Task task) { core_->post(std::move(task)); }

  std::shared_ptr<Core> core_;
  std::thread report_thread_;
};

}  // namespace orvi
