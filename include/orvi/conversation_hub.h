// The library's entry point: one process-wide hub that takes the global
// configuration, opens conversations and lists or removes them locally and
// on the server.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "orvi/conversation.h"
#include "orvi/conversation_types.h"
#include "orvi/export.h"
#include "orvi/sql_executor.h"
#include "orvi/transport.h"

namespace orvi {

// Implemented by the host; hears the result of ConversationHub::remove once
// the server has answered, on the thread that answered.
class ConversationHubListener {
 public:
  virtual ~ConversationHubListener() = default;
  virtual void onConversationRemoved(bool success) = 0;
};

// Implemented by the host; receives one page of ConversationHub::listRemote.
class IConversations {
 public:
  virtual ~IConversations() = default;
  virtual void onConversations(const ConversationListInfo& page) = 0;
};

class ORVI_EXPORT ConversationHub {
 public:
  virtual ~ConversationHub();

  // The one hub of the process; it lives until the library is unloaded.
  static std::shared_ptr<ConversationHub> instance();

  // Initialises the local history over `executor`. Only the first successful
  // call counts; after a failure a later call tries again.
  virtual void config(const OrviConfig& config, std::shared_ptr<ISqlExecutor> executor) = 0;
  // Empty when a live conversation with that id is already open. An empty
  // id makes the library generate one.
  virtual std::shared_ptr<Conversation> open(const std::string& local_conversation_id,
                                             const ConversationOptions& options) = 0;
  // Forgets the conversation; the host must not use that object afterwards.
  virtual void close(const std::string& local_conversation_id) = 0;
  virtual std::vector<ConversationInfo> list() = 0;
  // Asks the server for one page of conversations; false without a sender.
  virtual bool listRemote(const std::string& cursor, int32_t count, bool create_time_desc,
                          std::shared_ptr<IConversations> callback) = 0;
  virtual void saveConversationInfos(const ConversationListInfo& page) = 0;
  // Deletes the conversation on the server, then locally. False when it is
  // open or no sender is connected.
  virtual bool remove(const std::string& local_conversation_id) = 0;
  // Deletes the conversation from the local history only, without asking
  // the server: for one the server no longer knows, which remove() can never
  // delete. False when it is open, unknown, or config has not succeeded.
  virtual bool removeLocal(const std::string& local_conversation_id) = 0;
  virtual void listen(std::shared_ptr<ConversationHubListener> listener) = 0;
  // The hub's own channel, used for listing and removing conversations.
  virtual std::shared_ptr<ITransport> connect(std::shared_ptr<ITransportSender> sender) = 0;

  // Waits until every local-history write queued before the call has
  // reached the store (the ISqlExecutor given to config), for at most
  // `timeout_ms` (0 or less: no wait). True when all of them were written
  // and the store reported no failure; false on time-out, after a failed or
  // throwing write, or when config has not succeeded. History writes still
  // queued when the process ends are dropped: call it before exit.
  virtual bool flush(int64_t timeout_ms) = 0;
};

}  // namespace orvi
