// MessageEngine: one conversation's message queue and section tracker.
//
// The conversation hands it every outgoing user message and every incoming
// server message, acknowledgements included. The engine stamps each with the
// current section ids, keeps the live queue and the index of assistant
// messages of the turn in progress (both emptied by the next prompt, so a
// conversation's memory does not grow with its length), tracks the section
// pair (section_id_, local_section_id_) through its states (idle, prompt
// sent, section open, back to idle on "section_complete"), applies streamed
// deltas to their assistant messages, hands custom messages to the host's
// handler, and keeps two further lists: messages stashed during a recovery
// and messages restored from local history.
//
// Owned by its ConversationImpl; the sending thread and the receiving
// thread call it at the same time. Locking: state_mutex_ guards the section
// ids, run mode, babi params and handler, and is taken before queue_mutex_
// when both are needed; queue_mutex_ guards the live queue, the stash, the
// assistant index and every patch of an assistant payload; history_mutex_
// guards the history list and is never held with the others. The host's
// custom handler runs with no lock held.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvi/conversation.h"
#include "orvi/message/wrapper/message_base.h"

namespace orvi {

class AssistantMessageWrapper;
class CustomMessageWrapper;
class DeltaMessageWrapper;
class SystemMessageWrapper;
class UserMessageWrapper;

class MessageEngine {
 public:
  explicit MessageEngine(std::string local_conversation_id);
  ~MessageEngine();

  MessageEngine(const MessageEngine&) = delete;
  MessageEngine& operator=(const MessageEngine&) = delete;

  // Takes a message in and returns the one the conversation goes on with:
  // the same wrapper (also for an acknowledgement, which brings the server's
  // section id in), the patched assistant message for a delta, the completed
  // assistant message for "stream_complete", the handler's assistant message
  // for a custom one, or null when it is dropped.
  MessagePtr enqueue(const MessagePtr& message);

  // Holds a server message back while a recovery runs (user messages are
  // refused); popStashed returns them oldest first, null when none is left.
  void stash(const MessagePtr& message);
  MessagePtr popStashed();
  bool hasStashed();

  // Adds a message read back from local history; null when refused or
  // already there.
  MessagePtr recover(const MessagePtr& message);
  void clearHistory();
  // Moves the whole history out, or with `latest_only` the newest section.
  std::vector<MessagePtr> takeHistorySection(bool latest_only);

  // The newest live message of `type`; for user messages with a non-empty
  // `message_id`, the newest with that local message id.
  MessagePtr lastMessageByType(MessageKind type, const std::string& message_id);
  // A copy of the indexed assistant message, taken under the lock that
  // patches it; empty when unknown.
  std::optional<AssistantMessage> assistantSnapshot(const std::string& message_id);

  // A user message with content and no action opens a new section.
  bool isPrompt(const MessagePtr& message) const;
  // Fills the section ids that are empty, when a section is restored from
  // the server.
  void recoverSectionId(const std::string& section_id, const std::string& local_section_id);
  SectionInfo currentSection() const;

  // Applies a delta to its assistant message; every failure is logged and
  // leaves the payload exactly as it was.
  void patch(const MessagePtr& message);

  void registerCustomMessageHandler(std::shared_ptr<ICustomMessageHandler> handler);
  void setBabiParams(const std::string& babi_params);
  void setRunMode(RunMode mode);

 private:
  MessagePtr enqueueUser(const MessagePtr& message);
  MessagePtr enqueueAssistant(const MessagePtr& message);
  MessagePtr enqueueAcknowledgement(const AssistantMessageWrapper& ack, const MessagePtr& message);
  MessagePtr enqueueDelta(const MessagePtr& message);
  MessagePtr enqueueSystem(const MessagePtr& message);
  MessagePtr enqueueCustom(const MessagePtr& message);

  const std::string local_conversation_id_;

  mutable std::mutex state_mutex_;
  std::string section_id_;               // guarded by state_mutex_
  std::string local_section_id_;         // guarded by state_mutex_
  RunMode run_mode_ = RunMode::Default;  // guarded by state_mutex_
  std::string babi_params_;              // guarded by state_mutex_

  std::mutex queue_mutex_;
  std::list<MessagePtr> queue_;                                  // guarded by queue_mutex_
  std::list<MessagePtr> stash_;                                  // guarded by queue_mutex_
  std::unordered_map<std::string, MessagePtr> assistant_index_;  // guarded by queue_mutex_

  std::mutex history_mutex_;
  std::list<MessagePtr> history_;  // guarded by history_mutex_

  std::shared_ptr<ICustomMessageHandler> custom_handler_;  // guarded by state_mutex_
};

}  // namespace orvi
