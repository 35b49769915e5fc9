#include "orvi/sqlite/sqlite_executor.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include "schema.h"
#include "statement.h"

namespace orvi {
namespace sqlite {

using detail::Database;
using detail::lastError;
using detail::Statement;
using detail::Using;

namespace {

constexpr int kBusyTimeoutMs = 5000;

const std::string kConversationColumns =
    "local_conversation_id, conversation_id, name, create_time, update_time, message_count, "
    "extra";
const std::string kMessageColumns =
    "local_conversation_id, conversation_id, local_section_id, section_id, local_message_id, "
    "message_id, type, create_time, update_time, status, content";

// The keys of removeMessages in argument order, as the columns they match.
// A delete statement is prepared for each combination that includes the
// local conversation id (bit 0): one conversation's ids never reach
// another's rows. Its index has bit i set when key i is a criterion.
constexpr std::array<const char*, 4> kRemoveKeys = {"local_conversation_id", "message_id",
                                                    "local_message_id", "local_section_id"};
constexpr size_t kRemoveVariants = size_t{1} << kRemoveKeys.size();

// The two identities of a stored message (the partial unique indexes of the
// schema). The conditions repeat the indexes' own, which lets SQLite use them.
const std::string kByLocalMessageId =
    "local_conversation_id=?1 AND local_message_id=?5 AND local_message_id <> ''";
const std::string kByMessageId =
    "local_conversation_id=?1 AND local_section_id=?3 AND message_id=?6 AND local_message_id = '' "
    "AND message_id <> ''";
const std::string kReplaceMessageColumns =
    "conversation_id=excluded.conversation_id, local_section_id=excluded.local_section_id, "
    "section_id=excluded.section_id, message_id=excluded.message_id, type=excluded.type, "
    "create_time=excluded.create_time, update_time=excluded.update_time, status=excluded.status, "
    "content=excluded.content";

const std::string kMigratedKey = "migrated";

void bindConversation(Statement& s, const ConversationInfo& c) {
  s.bind(1, c.local_conversation_id);
  s.bind(2, c.conversation_id);
  s.bind(3, c.name);
  s.bind(4, c.create_time);
  s.bind(5, c.update_time);
  s.bind(6, c.message_count ? std::optional<int64_t>(*c.message_count) : std::nullopt);
  s.bind(7, c.extra);
}

ConversationInfo readConversation(const Statement& s) {
  const auto count = s.optionalInteger(5);
  return ConversationInfo(
      s.text(0), s.text(1), s.text(2), s.integer(3), s.optionalInteger(4),
      count ? std::optional<int32_t>(static_cast<int32_t>(*count)) : std::nullopt, s.text(6));
}

void bindMessage(Statement& s, const MessageRecord& r) {
  s.bind(1, r.local_conversation_id);
  s.bind(2, r.conversation_id);
  s.bind(3, r.local_section_id);
  s.bind(4, r.section_id);
  s.bind(5, r.local_message_id);
  s.bind(6, r.message_id);
  s.bind(7, r.type);
  s.bind(8, r.create_time);
  s.bind(9, r.update_time);
  s.bind(10, r.status);
  s.bind(11, r.content);
}

// Reads the eleven record columns that follow `seq` in column 0.
MessageRecord readMessage(const Statement& s) {
  return MessageRecord(s.text(1), s.text(2), s.text(3), s.text(4), s.text(5), s.text(6), s.text(7),
                       s.integer(8), s.integer(9), s.text(10), s.text(11));
}

// Steps through every row, calling `each` on it; false on an error.
template <typename Each>
bool forEachRow(Statement& s, Each&& each) {
  Using use(s);
  int rc;
  while ((rc = s.step()) == SQLITE_ROW) each();
  return rc == SQLITE_DONE;
}

void printToStderr(const std::string& message) {
  std::fprintf(stderr, "orvi_sqlite: %s\n", message.c_str());
}

// The write connection and its statements. The mutex serialises writers;
// the library has one, but a host may write too. While a write group is
// open, only the thread that opened it writes: the others wait on
// group_ended and then write in transactions of their own.
struct WriteSide {
  std::mutex mutex;  // guards db, every statement and the group state below
  std::condition_variable group_ended;
  Database db;
  Statement begin, commit, rollback, savepoint, release, rollback_to;
  Statement save_conversation, delete_conversation, update_conversation;
  Statement insert_message, upsert_by_local_message_id, upsert_by_message_id;
  Statement update_by_local_message_id, update_by_message_id;
  std::array<Statement, kRemoveVariants> remove_messages;  // even indexes stay unprepared
  Statement set_meta;

  bool in_group = false;
  std::thread::id group_owner;
  bool group_broken = false;  // a failure ended the group's transaction early

  bool prepare(std::string& error) {
    sqlite3* handle = db.get();
    const std::string insert = "INSERT INTO messages(" + kMessageColumns +
                               ") VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)";
    const std::string update_message =
        "UPDATE messages SET conversation_id=?2, local_section_id=?3, section_id=?4, "
        "local_message_id=?5, message_id=?6, type=?7, create_time=?8, update_time=?9, "
        "status=?10, content=?11 WHERE ";
    bool ok =
        begin.prepare(handle, "BEGIN IMMEDIATE", error) &&
        commit.prepare(handle, "COMMIT", error) && rollback.prepare(handle, "ROLLBACK", error) &&
        savepoint.prepare(handle, "SAVEPOINT write_in_group", error) &&
        release.prepare(handle, "RELEASE write_in_group", error) &&
        rollback_to.prepare(handle, "ROLLBACK TO write_in_group", error) &&
        save_conversation.prepare(handle,
                                  "INSERT OR REPLACE INTO conversations(" + kConversationColumns +
                                      ") VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)",
                                  error) &&
        delete_conversation.prepare(
            handle, "DELETE FROM conversations WHERE local_conversation_id=?1", error) &&
        update_conversation.prepare(
            handle,
            "UPDATE conversations SET conversation_id=?2, name=?3, create_time=?4, "
            "update_time=?5, message_count=?6, extra=?7 WHERE local_conversation_id=?1",
            error) &&
        insert_message.prepare(handle, insert, error) &&
        upsert_by_local_message_id.prepare(
            handle,
            insert +
                " ON CONFLICT(local_conversation_id, local_message_id) WHERE "
                "local_message_id <> '' DO UPDATE SET " +
                kReplaceMessageColumns,
            error) &&
        upsert_by_message_id.prepare(
            handle,
            insert +
                " ON CONFLICT(local_conversation_id, local_section_id, message_id) WHERE "
                "local_message_id = '' AND message_id <> '' DO UPDATE SET " +
                kReplaceMessageColumns,
            error) &&
        update_by_local_message_id.prepare(handle, update_message + kByLocalMessageId, error) &&
        update_by_message_id.prepare(handle, update_message + kByMessageId, error) &&
        set_meta.prepare(handle, "INSERT OR REPLACE INTO meta(key, value) VALUES(?1, ?2)", error);
    for (size_t mask = 1; ok && mask < kRemoveVariants; mask += 2) {
      std::string sql = "DELETE FROM messages WHERE ";
      for (size_t key = 0; key < kRemoveKeys.size(); ++key) {
        if (!(mask & (size_t{1} << key))) continue;
        if (sql.back() != ' ') sql += " AND ";
        sql += std::string(kRemoveKeys[key]) + "=?" + std::to_string(key + 1);
      }
      // Lets SQLite use the local message id index (it is partial).
      if (mask & 4) sql += " AND local_message_id <> ''";
      ok = remove_messages[mask].prepare(handle, sql, error);
    }
    return ok;
  }

  // Whether this thread writes inside the open group.
  bool writesInGroup() const { return in_group && group_owner == std::this_thread::get_id(); }
};

// The read connection: query_only, so nothing written can come through it.
struct ReadSide {
  std::mutex mutex;  // guards db and every statement below
  Database db;
  Statement conversations, all_messages, message_page, get_meta;

  bool prepare(std::string& error) {
    sqlite3* handle = db.get();
    const std::string select_messages =
        "SELECT seq, " + kMessageColumns + " FROM messages WHERE local_conversation_id=?1 ";
    return conversations.prepare(handle,
                                 "SELECT " + kConversationColumns +
                                     " FROM conversations ORDER BY create_time DESC, "
                                     "local_conversation_id LIMIT ?1 OFFSET ?2",
                                 error) &&
           all_messages.prepare(handle, select_messages + "ORDER BY seq", error) &&
           message_page.prepare(handle, select_messages + "AND seq < ?2 ORDER BY seq DESC LIMIT ?3",
                                error) &&
           get_meta.prepare(handle, "SELECT value FROM meta WHERE key=?1", error);
  }
};

}  // namespace

struct SqliteExecutor::Impl {
  WriteSide writer;
  ReadSide reader;
  std::mutex sink_mutex;
  ErrorSink sink;  // guarded by sink_mutex; empty means stderr

  bool open(const std::string& path, std::string& error) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    if (!writer.db.open(path, flags | SQLITE_OPEN_CREATE, error) ||
        !detail::applySchema(writer.db, kSchemaVersion, error) ||
        !reader.db.open(path, flags, error) || !reader.db.exec("PRAGMA query_only=1", error)) {
      return false;
    }
    sqlite3_busy_timeout(writer.db.get(), kBusyTimeoutMs);
    sqlite3_busy_timeout(reader.db.get(), kBusyTimeoutMs);
    return writer.prepare(error) && reader.prepare(error);
  }

  // Called with no lock held: the sink is host code.
  void report(const std::string& message) {
    ErrorSink current;
    {
      std::lock_guard<std::mutex> lock(sink_mutex);
      current = sink;
    }
    if (current) {
      current(message);
    } else {
      printToStderr(message);
    }
  }

  // Runs `body` atomically on the write connection: in a transaction of its
  // own, or inside the calling thread's open group under a savepoint. On
  // failure rolls back what `body` did and reports.
  template <typename Body>
  bool write(const char* operation, Body&& body) {
    std::string error;
    {
      std::unique_lock<std::mutex> lock(writer.mutex);
      writer.group_ended.wait(lock, [&] { return !writer.in_group || writer.writesInGroup(); });
      if (!writer.in_group) {
        if (writer.begin.run() && body(writer) && writer.commit.run()) return true;
        error = lastError(writer.db.get());
        if (!sqlite3_get_autocommit(writer.db.get())) writer.rollback.run();
      } else if (writer.group_broken) {
        error = "an earlier failure ended the write group";
      } else {
        if (writer.savepoint.run() && body(writer) && writer.release.run()) return true;
        error = lastError(writer.db.get());
        if (sqlite3_get_autocommit(writer.db.get())) {
          // SQLite ended the whole transaction (disk full, I/O error): what
          // the group wrote is gone, and nothing more may join it, or the
          // file would keep later writes without earlier ones.
          writer.group_broken = true;
        } else {
          writer.rollback_to.run();
          writer.release.run();
        }
      }
    }
    report(std::string(operation) + " failed: " + error);
    return false;
  }

  template <typename Body>
  bool read(const char* operation, Body&& body) {
    std::string error;
    {
      std::lock_guard<std::mutex> lock(reader.mutex);
      if (body(reader)) return true;
      error = lastError(reader.db.get());
    }
    report(std::string(operation) + " failed: " + error);
    return false;
  }
};

std::shared_ptr<SqliteExecutor> SqliteExecutor::open(const std::string& path, std::string* error) {
  std::string reason;
  try {
    auto impl = std::make_unique<Impl>();
    if (impl->open(path, reason))
      return std::shared_ptr<SqliteExecutor>(new SqliteExecutor(std::move(impl)));
  } catch (const std::exception& e) {
    reason = e.what();
  }
  if (error) *error = "cannot open " + path + ": " + reason;
  return nullptr;
}

SqliteExecutor::SqliteExecutor(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

SqliteExecutor::~SqliteExecutor() = default;

void SqliteExecutor::setErrorSink(ErrorSink sink) {
  std::lock_guard<std::mutex> lock(impl_->sink_mutex);
  impl_->sink = std::move(sink);
}

bool SqliteExecutor::queryConversations(ConversationListQueryResult& result, int32_t,
                                        std::optional<int32_t> offset,
                                        std::optional<int32_t> limit) {
  result = ConversationListQueryResult();
  const bool bounded = limit && *limit >= 0;
  // One row past the window tells whether there is more.
  const int64_t fetch = bounded ? int64_t{*limit} + 1 : -1;
  const bool ok = impl_->read("queryConversations", [&](ReadSide& r) {
    Statement& s = r.conversations;
    s.bind(1, fetch);
    s.bind(2, int64_t{std::max(0, offset.value_or(0))});
    return forEachRow(s, [&] { result.conversations.push_back(readConversation(s)); });
  });
  if (!ok) {
    result = ConversationListQueryResult();
    return false;
  }
  if (bounded && static_cast<int64_t>(result.conversations.size()) > *limit) {
    result.conversations.pop_back();
    result.has_more = true;
  }
  result.count = static_cast<int32_t>(result.conversations.size());
  return true;
}

bool SqliteExecutor::saveConversations(const std::vector<ConversationInfo>& conversations) {
  return impl_->write("saveConversations", [&](WriteSide& w) {
    return std::all_of(conversations.begin(), conversations.end(), [&](const auto& c) {
      bindConversation(w.save_conversation, c);
      return w.save_conversation.run();
    });
  });
}

bool SqliteExecutor::deleteConversations(const std::vector<std::string>& local_conversation_ids) {
  return impl_->write("deleteConversations", [&](WriteSide& w) {
    return std::all_of(local_conversation_ids.begin(), local_conversation_ids.end(),
                       [&](const std::string& id) {
                         w.delete_conversation.bind(1, id);
                         return w.delete_conversation.run();
                       });
  });
}

bool SqliteExecutor::updateConversations(const std::vector<ConversationInfo>& conversations) {
  return impl_->write("updateConversations", [&](WriteSide& w) {
    return std::all_of(conversations.begin(), conversations.end(), [&](const auto& c) {
      bindConversation(w.update_conversation, c);
      return w.update_conversation.run();
    });
  });
}

bool SqliteExecutor::queryMessages(MessageQueryResult& result,
                                   const std::string& local_conversation_id, int32_t mode,
                                   std::optional<int32_t> cursor, std::optional<int32_t> count) {
  result = MessageQueryResult();
  if (mode == 1) {
    const bool ok = impl_->read("queryMessages", [&](ReadSide& r) {
      Statement& s = r.all_messages;
      s.bind(1, local_conversation_id);
      return forEachRow(s, [&] { result.messages.push_back(readMessage(s)); });
    });
    if (!ok) result = MessageQueryResult();
    result.count = static_cast<int32_t>(result.messages.size());
    return ok;
  }

  const int64_t wanted = std::max(0, count.value_or(0));
  if (wanted == 0) return true;
  const int64_t below =
      cursor.value_or(0) > 0 ? int64_t{*cursor} : std::numeric_limits<int64_t>::max();
  int64_t oldest_seq = 0;
  // Newest first, one row more than the page to learn whether older ones exist.
  const bool ok = impl_->read("queryMessages", [&](ReadSide& r) {
    Statement& s = r.message_page;
    s.bind(1, local_conversation_id);
    s.bind(2, below);
    s.bind(3, wanted + 1);
    return forEachRow(s, [&] {
      if (static_cast<int64_t>(result.messages.size()) == wanted) {
        result.has_more = true;
        return;
      }
      result.messages.push_back(readMessage(s));
      oldest_seq = s.integer(0);
    });
  });
  if (!ok) {
    result = MessageQueryResult();
    return false;
  }
  std::reverse(result.messages.begin(), result.messages.end());
  result.count = static_cast<int32_t>(oldest_seq);
  return true;
}

bool SqliteExecutor::insertMessage(const MessageRecord& record) {
  return impl_->write("insertMessage", [&](WriteSide& w) {
    Statement& s = !record.local_message_id.empty() ? w.upsert_by_local_message_id
                   : !record.message_id.empty()     ? w.upsert_by_message_id
                                                    : w.insert_message;
    bindMessage(s, record);
    return s.run();
  });
}

bool SqliteExecutor::removeMessages(const std::string& local_conversation_id,
                                    const std::string& message_id,
                                    const std::string& local_message_id,
                                    const std::string& local_section_id) {
  if (local_conversation_id.empty()) {
    impl_->report("removeMessages refused: the local conversation id is empty");
    return false;
  }
  const std::array<const std::string*, kRemoveKeys.size()> keys = {
      &local_conversation_id, &message_id, &local_message_id, &local_section_id};
  size_t mask = 0;
  for (size_t key = 0; key < keys.size(); ++key) {
    if (!keys[key]->empty()) mask |= size_t{1} << key;
  }
  return impl_->write("removeMessages", [&](WriteSide& w) {
    Statement& s = w.remove_messages[mask];
    for (size_t key = 0; key < keys.size(); ++key) {
      if (mask & (size_t{1} << key)) s.bind(static_cast<int>(key + 1), *keys[key]);
    }
    return s.run();
  });
}

bool SqliteExecutor::updateMessage(const MessageRecord& record) {
  const bool by_local_id = !record.local_message_id.empty();
  if (record.local_conversation_id.empty() || (!by_local_id && record.message_id.empty())) {
    impl_->report(
        "updateMessage refused: the record has no local conversation id, or neither a local "
        "message id nor a message id");
    return false;
  }
  return impl_->write("updateMessage", [&](WriteSide& w) {
    Statement& s = by_local_id ? w.update_by_local_message_id : w.update_by_message_id;
    bindMessage(s, record);
    return s.run();
  });
}

bool SqliteExecutor::isMigrated() {
  bool migrated = false;
  impl_->read("isMigrated", [&](ReadSide& r) {
    r.get_meta.bind(1, kMigratedKey);
    return forEachRow(r.get_meta, [&] { migrated = r.get_meta.integer(0) != 0; });
  });
  return migrated;
}

bool SqliteExecutor::setMigrated(bool migrated) {
  return impl_->write("setMigrated", [&](WriteSide& w) {
    w.set_meta.bind(1, kMigratedKey);
    w.set_meta.bind(2, int64_t{migrated ? 1 : 0});
    return w.set_meta.run();
  });
}

bool SqliteExecutor::beginWriteGroup() {
  std::string error;
  {
    std::unique_lock<std::mutex> lock(impl_->writer.mutex);
    WriteSide& w = impl_->writer;
    if (w.writesInGroup()) {
      error = "a write group is already open on this thread";
    } else {
      w.group_ended.wait(lock, [&] { return !w.in_group; });
      if (w.begin.run()) {
        w.in_group = true;
        w.group_owner = std::this_thread::get_id();
        w.group_broken = false;
        return true;
      }
      error = lastError(w.db.get());
    }
  }
  impl_->report("beginWriteGroup failed: " + error);
  return false;
}

bool SqliteExecutor::endWriteGroup() {
  std::string error;
  {
    std::lock_guard<std::mutex> lock(impl_->writer.mutex);
    WriteSide& w = impl_->writer;
    if (!w.writesInGroup()) {
      error = "no write group is open on this thread";
    } else {
      const bool committed = !w.group_broken && w.commit.run();
      if (!committed) {
        error = w.group_broken ? "an earlier failure ended the write group" : lastError(w.db.get());
        if (!sqlite3_get_autocommit(w.db.get())) w.rollback.run();
      }
      w.in_group = false;
      w.group_broken = false;
      w.group_owner = std::thread::id();
      w.group_ended.notify_all();
      if (committed) return true;
    }
  }
  impl_->report("endWriteGroup failed: " + error);
  return false;
}

}  // namespace sqlite
}  // namespace orvi
