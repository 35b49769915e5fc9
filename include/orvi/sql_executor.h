// The host's record store for the local history. The library never sees a
// database: it reads and writes records through this interface. Writes come
// from the library's I/O worker thread, reads from host threads, possibly at
// the same time, so the implementation must be thread-safe. Write results are
// logged by the implementation; the library counts a false one as a failed
// write, which the next ConversationHub::flush reports.
//
// Identity of a stored message, used by insertMessage and updateMessage (and
// described in docs/history.md): within one local conversation, a record with
// a local message id is the message with that local id; a record without one
// but with a message id is the message with that id in the same local
// section (servers may reuse their ids after a restart, sections never are);
// a record with neither has no identity and is always a new row.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orvi/conversation_types.h"
#include "orvi/export.h"

namespace orvi {

class ISqlExecutor {
 public:
  virtual ~ISqlExecutor() = default;

  // Fills `result` with stored conversations. The library passes mode 1 and
  // no limits, meaning all of them.
  virtual bool queryConversations(ConversationListQueryResult& result, int32_t mode,
                                  std::optional<int32_t> offset, std::optional<int32_t> limit) = 0;

  // Stores the whole conversation list (insert or replace by local id).
  virtual bool saveConversations(const std::vector<ConversationInfo>& conversations) = 0;

  // The library never passes an empty id.
  virtual bool deleteConversations(const std::vector<std::string>& local_conversation_ids) = 0;

  // Updates the stored rows of the given conversations.
  virtual bool updateConversations(const std::vector<ConversationInfo>& conversations) = 0;

  // Mode 1 with both page values absent: every message of the conversation,
  // oldest first. Mode 0: one page (docs/history.md says what the two page
  // values mean), with `has_more` and `count` set.
  virtual bool queryMessages(MessageQueryResult& result, const std::string& local_conversation_id,
                             int32_t mode, std::optional<int32_t> cursor,
                             std::optional<int32_t> count) = 0;

  // Stores one message. A record whose identity (above) is already stored
  // replaces that row in place, keeping its position: a message the library
  // stores again (a repeated frame, a prompt stored at send and again at its
  // acknowledgement) stays one row.
  virtual bool insertMessage(const MessageRecord& record) = 0;

  // Removes the records matching every non-empty key; empty keys are no
  // criteria. The library always sets the local conversation id, and with it
  // nothing else (all of the conversation's messages), the local message id
  // (one message), or the message id and the local section id (one message
  // known by its server id).
  virtual bool removeMessages(const std::string& local_conversation_id,
                              const std::string& message_id, const std::string& local_message_id,
                              const std::string& local_section_id) = 0;

  // Replaces the stored row with the record's identity (above); no such row
  // is not an error. The library never passes a record without identity.
  virtual bool updateMessage(const MessageRecord& record) = 0;

  // Whether the one-time import of the legacy JSON history has run.
  virtual bool isMigrated() = 0;
  virtual bool setMigrated(bool migrated) = 0;
};

// Optional, for an executor that can put several writes in one transaction.
// When the executor given to ConversationHub::config also derives from this
// class, the library's I/O worker runs its writes in groups: beginWriteGroup,
// one or more write operations, endWriteGroup, all on the worker thread and
// never nested. A group ends when the worker has nothing more queued, before
// a flush reports, or after a bounded number of writes.
//
// endWriteGroup makes the group's writes durable at once (commit) and
// returns true, or returns false when they are not (the writes of the group
// then count as failed). When beginWriteGroup returns false the writes run
// one by one, as they would without this class. Writes from other threads
// must not join the worker's group.
class ORVI_EXPORT ISqlWriteGroups {
 public:
  virtual ~ISqlWriteGroups() = default;
  virtual bool beginWriteGroup() = 0;
  virtual bool endWriteGroup() = 0;
};

}  // namespace orvi
