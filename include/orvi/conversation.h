// One conversation with the assistant, and the host interfaces it reports to.
// A Conversation is made by ConversationHub::open and owned by the host
// through the returned shared_ptr; dropping it ends the conversation's
// helpers (transport, timers, tracing) quietly.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvi/conversation_types.h"
#include "orvi/export.h"
#include "orvi/message_types.h"
#include "orvi/transport.h"

namespace orvi {

// Implemented by the host. Message and status calls arrive on the thread
// that pushed the frame into the ITransport (or the host thread that sent,
// or the timer thread for time-outs); onTraceEvent arrives on the
// conversation's reporter thread only. No library lock is held during a call.
class ConversationListener {
 public:
  virtual ~ConversationListener() = default;

  // The server acknowledged an uplink message, or waiting for it ended.
  virtual void onAck(const std::string& local_message_id, AckStatus status) = 0;
  virtual void onAssistantMessage(const AssistantMessage& message) = 0;
  virtual void onUserMessage(const UserMessage& message) = 0;
  virtual void onSystemMessage(const SystemMessage& message) = 0;
  // `from_history` is true when the status comes from popupHistoryMessages.
  virtual void onSectionStatus(SectionStatus status, bool from_history,
                               const SectionInfo& section) = 0;
  virtual void onRecoverStatus(RecoverStatus status, const std::optional<RecoverExtra>& extra) = 0;
  // A trace event: its name and its fields as compact JSON.
  virtual void onTraceEvent(const std::string& name, const std::string& json) = 0;
};

// Implemented by the host; turns a custom message into a displayable one.
// Leaving `handled` empty drops the message.
class ICustomMessageHandler {
 public:
  virtual ~ICustomMessageHandler() = default;
  virtual void onCustomMessage(const CustomMessage& message,
                               std::optional<CustomMessage>& handled) = 0;
};

// Implemented by the host; receives one page of fetchHistoryMessages, on the
// calling thread (local) or on the thread that answers the HTTP request.
class IFetchMessageCallback {
 public:
  virtual ~IFetchMessageCallback() = default;
  virtual void onMessages(const std::vector<ComboMessage>& messages, bool has_more,
                          const std::string& next_cursor) = 0;
  virtual void onFailure(int32_t code, const std::string& message) = 0;
};

// Implemented by the host; told whether a remote deletion succeeded.
class IMessagesDeleted {
 public:
  virtual ~IMessagesDeleted() = default;
  virtual void onMessagesDeleted(bool success) = 0;
};

// Implemented by the library. All operations may be called from any host
// thread; none throws.
class ORVI_EXPORT Conversation {
 public:
  virtual ~Conversation();

  // The first non-null listener stays; later ones are refused.
  virtual void listen(std::shared_ptr<ConversationListener> listener) = 0;
  // Gives the conversation its own channel to the host's sender. The host
  // pushes this conversation's frames into the returned transport.
  virtual std::shared_ptr<ITransport> connect(std::shared_ptr<ITransportSender> sender) = 0;

  // Sends a user message. Returns its local message id, or an empty string
  // when nothing was sent (a recovery blocks sending, or no transport).
  virtual std::string sendMessage(const InputMessage& message) = 0;
  // Answer within the section in progress; 0 when sent, negative otherwise.
  virtual int32_t reply(const InputMessage& message) = 0;
  virtual int32_t retry(const InputMessage& message) = 0;
  // Cancels the turn in progress; 0 when the cancel was sent.
  virtual int32_t cancel(const InputMessage& message) = 0;

  // Hands stored messages to the listener; returns how many.
  virtual int32_t popupHistoryMessages(bool only_latest_section, int32_t cursor,
                                       int32_t count) = 0;

  virtual void setRunMode(RunMode mode) = 0;
  virtual void enableResend(bool enable) = 0;
  virtual void setBabiParams(const std::string& params) = 0;

  // Brings the latest section back from the server; false when not started.
  virtual bool recoverRemoteSection() = 0;
  virtual void cancelRecoverRemoteSection() = 0;
  virtual bool recoverRemoteSections(const std::string& cursor, int32_t count) = 0;
  virtual void cancelRecoverRemoteSections() = 0;

  virtual ConversationDetail getDetail() = 0;
  virtual void registerCustomMessageHandler(std::shared_ptr<ICustomMessageHandler> handler) = 0;

  // Deletes messages locally and, for those with a server id in
  // `message_ids`, on the server; `callback` hears the server's answer.
  virtual void removeMessageBatch(const std::vector<std::string>& local_message_ids,
                                  const std::vector<std::string>& message_ids,
                                  std::shared_ptr<IMessagesDeleted> callback) = 0;
  virtual void updateAssistantMessageRecord(const AssistantMessage& message) = 0;
  virtual void updateUserMessageRecord(const UserMessage& message) = 0;
  virtual void fetchHistoryMessages(bool from_remote, const std::string& cursor, int32_t count,
                                    std::shared_ptr<IFetchMessageCallback> callback) = 0;
};

}  // namespace orvi
