// Reporter turns the life of one conversation into trace events and hands
// them to the host's ConversationListener::onTraceEvent on a report thread of
// its own, so neither sending nor receiving waits for the host.
//
// Owned by its conversation (made when tracing is on and the host listens).
// The listener is held weakly: once the host drops it, events are dropped
// with a warning. Posting methods may be called from any thread; events are
// built and delivered on the report thread only, never under the queue
// mutex. On destruction the queued events are drained, then the thread is
// joined.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

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
};

// What the conversation knows about one assistant message it delivered.
struct AssistantMessageReport {
  std::string conversation_id;
  std::string local_conversation_id;
  AssistantMessage message;
  int64_t receive_time_ms = 0;               // wall clock, when it was delivered
  int64_t receive_complete_timecost_ms = 0;  // first frame to completion; 0 while streaming
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
  // The section in progress ended: posts its "finish" event.
  void onSectionCompleted();
  // Posts the section's state as it stands.
  void onSectionEvent();

 private:
  using Task = std::function<void()>;
  void post(Task task);
  void reportWorker();
  int unused_placeholder_ = 0;
};

}  // namespace orvi
