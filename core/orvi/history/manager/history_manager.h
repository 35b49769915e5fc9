// HistoryManager: the keeper of the local history. It holds the list of
// known conversations in memory and reads and writes stored messages through
// its Cacher (and, behind it, the host's ISqlExecutor).
//
// Owned by the conversation hub, which calls init from ConversationHub::config;
// conversations share it. Every method may be called from any thread: the
// manager mutex guards the conversation list and the per-conversation state,
// cacher_mutex_ the cacher, which appears only once init has succeeded;
// writes are queued on the cacher's worker, reads run on the caller's thread.
// Until init has succeeded every operation logs and does nothing. Nothing
// the host's store throws leaves the manager.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvi/conversation_types.h"
#include "orvi/message/wrapper/message_base.h"
#include "orvi/sql_executor.h"

namespace orvi {

class Cacher;

class HistoryManager {
 public:
  // `init_stall`: how long init waits for the store to finish one task of
  // its steps before it goes on without waiting (their writes stay queued).
  explicit HistoryManager(std::chrono::milliseconds init_stall = kInitStall);
  ~HistoryManager();
  HistoryManager(const HistoryManager&) = delete;
  HistoryManager& operator=(const HistoryManager&) = delete;

  static constexpr std::chrono::milliseconds kInitStall{30000};

  // Creates the cacher over `executor`, migrates the legacy JSON history,
  // expires conversations older than `retention_days` and loads the list.
  // False, with nothing kept, when any of that fails: a later init retries.
  bool init(const std::string& cache_path, std::shared_ptr<ISqlExecutor> executor,
            int64_t retention_days, bool enable_merge);

  // Conversations.
  void addConversation(const std::string& local_conversation_id, const std::string& conversation_id,
                       const std::string& name);
  std::string getConversationId(const std::string& local_conversation_id);
  std::vector<ConversationInfo> conversations();
  bool findConversation(const std::string& local_conversation_id, ConversationInfo& out);
  void updateConversation(const ConversationInfo& conversation);
  // Merges a page of the server's list into the local one.
  void saveConversationInfos(const std::vector<ConversationInfo>& conversations);
  void deleteConversation(const std::string& local_conversation_id);
  void deactivateConversation(const std::string& local_conversation_id);
  void setHistoryMessageLimited(const std::string& local_conversation_id, int32_t limited);
  // The conversation's limit; 0 when it has none.
  int32_t historyMessageLimited(const std::string& local_conversation_id);

  // Messages. getMessages gives every stored frame, oldest first; the paged
  // form pages back from the newest (see docs/history.md).
  std::vector<std::string> getMessages(const std::string& local_conversation_id);
  MessageQueryResult getMessages(const std::string& local_conversation_id, int32_t cursor,
                                 int32_t count);
  void recordMessage(const MessagePtr& message);
  void updateMessage(const MessagePtr& message);
  // Removes one message by its local id; an empty id is refused (it would
  // name no message, and an executor would take it for no criterion).
  void deleteMessage(const std::string& local_conversation_id, const std::string& local_message_id);
  // Removes one message that has no local id (an assistant message) by its
  // server id within its local section; both are needed, since a server
  // that restarts reuses its ids.
  void deleteMessageById(const std::string& local_conversation_id, const std::string& message_id,
                         const std::string& local_section_id);
  // Removes the messages that `ids` name. A local id names its message; an
  // id that is no stored local id names the newest stored message without
  // one (an assistant message) with that server id: the one the server,
  // which reuses its ids only after a restart, means by it now.
  void deleteNamedMessages(const std::string& local_conversation_id,
                           const std::vector<std::string>& ids);
  // The local section of a turn the server handed back, for a server that
  // does not echo it: that of the stored prompt among `messages` (by local
  // id), else that of the newest stored message of their server section.
  // Empty when neither is stored; without `by_server_section`, only the
  // prompt's counts.
  std::string findLocalSection(const std::string& local_conversation_id,
                               const std::vector<MessagePtr>& messages,
                               bool by_server_section = true);
  // With the merge switch on, stores user and assistant messages, updating
  // those already stored (same local id, or same server id in the same
  // local section); with `add_missing` false, only those.
  void mergeMessage(const std::string& local_conversation_id,
                    const std::vector<MessagePtr>& messages, bool add_missing = true);

  // Blocks until the writes queued before the call have reached the store,
  // at most `timeout`. True when all of them were written and none failed;
  // false on time-out, on a failure, or before a successful init.
  bool flush(std::chrono::milliseconds timeout = std::chrono::seconds(30));

 private:
  struct ConversationState {
    int32_t limited = 0;
  };

  // The cacher when it is ready, else null after logging why.
  std::shared_ptr<Cacher> readyCacher(const char* operation);
  bool initOnce(const std::string& cache_path, std::shared_ptr<ISqlExecutor> executor,
                int64_t retention_days, bool enable_merge);
  // Migration, expiry and loading of the list over a new cacher. False when
  // the list cannot be read.
  bool prepare(Cacher& cacher);
  std::vector<ConversationInfo>::iterator findLocked(const std::string& local_conversation_id);

  const std::chrono::milliseconds init_stall_;
  // Set while an init runs: a second one meanwhile is refused (no lock is
  // held while the store runs). The fields up to cacher_mutex_ are written
  // by init and read only once the cacher is published.
  std::atomic<bool> initialising_{false};
  std::string cache_path_;
  std::shared_ptr<ISqlExecutor> executor_;
  int64_t retention_days_ = 0;
  bool enable_merge_ = false;

  std::mutex cacher_mutex_;
  std::shared_ptr<Cacher> cacher_;  // guarded by cacher_mutex_; set by a successful init

  std::mutex mutex_;
  std::vector<ConversationInfo> conversations_;                // guarded by mutex_
  std::unordered_map<std::string, ConversationState> states_;  // guarded by mutex_
};

}  // namespace orvi
