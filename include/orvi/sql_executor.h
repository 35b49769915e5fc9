// The host's record store for the local history. The library never sees a
// database: it reads and writes records through this interface. Writes come
// from the library's I/O worker thread, reads from host threads, possibly at
// the same time, so the implementation must be thread-safe. Write results are
// logged by the implementation and ignored by the library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orvi/conversation_types.h"

namespace orvi {

class ISqlExecutor {
 public:
  virtual ~ISqlExecutor() = default;

  // Fills `result` with stored conversations. The library passes mode 1 and
  // no limits, meaning all of them.
  virtual bool queryConversations(ConversationListQueryResult& result, int32_t mode,
                                  std::optional<int32_t> offset,
                                  std::optional<int32_t> limit) = 0;

  // Stores the whole conversation list (insert or replace by local id).
  virtual bool saveConversations(const std::vector<ConversationInfo>& conversations) = 0;

  virtual bool deleteConversations(const std::vector<std::string>& local_conversation_ids) = 0;

  // Updates the stored rows of the given conversations.
  virtual bool updateConversations(const std::vector<ConversationInfo>& conversations) = 0;

  // Mode 1 with both page values absent: every message of the conversation,
  // oldest first. Mode 0: one page (docs/history.md says what the two page
  // values mean), with `has_more` and `count` set.
  virtual bool queryMessages(MessageQueryResult& result, const std::string& local_conversation_id,
                             int32_t mode, std::optional<int32_t> cursor,
                             std::optional<int32_t> count) = 0;

  virtual bool insertMessage(const MessageRecord& record) = 0;

  // Removes the records matching every non-empty key; empty keys are no
  // criteria. The library sets only the local conversation id (all of its
  // messages) or that and the local message id (one message).
  virtual bool removeMessages(const std::string& local_conversation_id,
                              const std::string& message_id,
                              const std::string& local_message_id,
                              const std::string& local_section_id) = 0;

  // Replaces the stored record with the same local conversation id and local
  // message id (or, when that is empty, the same message id).
  virtual bool updateMessage(const MessageRecord& record) = 0;

  // Whether the one-time import of the legacy JSON history has run.
  virtual bool isMigrated() = 0;
  virtual bool setMigrated(bool migrated) = 0;
};

}  // namespace orvi
