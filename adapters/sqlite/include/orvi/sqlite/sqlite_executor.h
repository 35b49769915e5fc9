// A ready-made ISqlExecutor for hosts: the local history in one SQLite file,
// with the row semantics described in docs/history.md.
//
// The host creates it with open() and hands it to ConversationHub::config.
// Threading: writes (from the library's I/O worker) and reads (from host
// threads) may run at the same time; they use two connections to the file,
// each behind its own mutex, and the file is in WAL mode so that a read never
// waits for a write. The library's worker groups its writes into one
// transaction each (ISqlWriteGroups); a write from any other thread waits
// until the open group has ended and runs in a transaction of its own. The
// error sink is called with no lock held. The executor owns both connections
// and closes them when destroyed.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvi/sql_executor.h"

namespace orvi {
namespace sqlite {

class SqliteExecutor : public ISqlExecutor, public ISqlWriteGroups {
 public:
  using ErrorSink = std::function<void(const std::string& message)>;

  // The schema version this build writes; open() upgrades a file with an
  // older one and refuses a file with a newer one.
  static constexpr int kSchemaVersion = 2;

  // Opens the database at `path`, creating the file and the schema when
  // missing. Returns nullptr, and the reason in *error when `error` is not
  // null, when the file cannot be opened or written, is not a database, or
  // has a newer schema. Never throws.
  static std::shared_ptr<SqliteExecutor> open(const std::string& path,
                                              std::string* error = nullptr);

  ~SqliteExecutor() override;
  SqliteExecutor(const SqliteExecutor&) = delete;
  SqliteExecutor& operator=(const SqliteExecutor&) = delete;

  // Receives every failure at run time (the operations themselves only
  // return false). Defaults to a line on stderr prefixed "orvi_sqlite: ";
  // an empty sink restores that default.
  void setErrorSink(ErrorSink sink);

  bool queryConversations(ConversationListQueryResult& result, int32_t mode,
                          std::optional<int32_t> offset, std::optional<int32_t> limit) override;
  bool saveConversations(const std::vector<ConversationInfo>& conversations) override;
  bool deleteConversations(const std::vector<std::string>& local_conversation_ids) override;
  bool updateConversations(const std::vector<ConversationInfo>& conversations) override;
  bool queryMessages(MessageQueryResult& result, const std::string& local_conversation_id,
                     int32_t mode, std::optional<int32_t> cursor,
                     std::optional<int32_t> count) override;
  bool insertMessage(const MessageRecord& record) override;
  bool removeMessages(const std::string& local_conversation_id, const std::string& message_id,
                      const std::string& local_message_id,
                      const std::string& local_section_id) override;
  bool updateMessage(const MessageRecord& record) override;
  bool isMigrated() override;
  bool setMigrated(bool migrated) override;

  // One transaction around the writes in between, made by the calling thread
  // (each write in it is atomic on its own: a failed one leaves the others).
  // endWriteGroup commits; false when the group could not be committed, or
  // when a failure ended its transaction early (the writes of the group are
  // then all rolled back, and the ones after the failure were refused).
  bool beginWriteGroup() override;
  bool endWriteGroup() override;

 private:
  struct Impl;
  explicit SqliteExecutor(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace sqlite
}  // namespace orvi
