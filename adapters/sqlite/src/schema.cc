#include "schema.h"

namespace orvi {
namespace sqlite {
namespace detail {
namespace {

// Version 2. `seq` is AUTOINCREMENT so that a sequence is never handed out
// twice, even after the newest rows are deleted: hosts hold sequences as
// paging cursors. The (conversation, seq) index serves the full read, the
// paged read and the per-conversation delete. The two partial unique indexes
// are the identity of a message (docs/history.md): a local message id, or
// else a message id within its local section. They make a message stored
// twice one row, and keep an update of one turn off the rows of another
// (a server that restarts hands out its ids again).
constexpr const char* kMessageIdentityIndexes = R"sql(
CREATE UNIQUE INDEX messages_by_local_message_id ON messages(local_conversation_id, local_message_id)
  WHERE local_message_id <> '';
CREATE UNIQUE INDEX messages_by_message_id ON messages(local_conversation_id, local_section_id, message_id)
  WHERE local_message_id = '' AND message_id <> '';
)sql";

constexpr const char* kTables = R"sql(
CREATE TABLE conversations(
  local_conversation_id TEXT PRIMARY KEY NOT NULL,
  conversation_id TEXT NOT NULL,
  name TEXT NOT NULL,
  create_time INTEGER NOT NULL,
  update_time INTEGER,
  message_count INTEGER,
  extra TEXT NOT NULL);
CREATE INDEX conversations_by_create_time ON conversations(create_time DESC, local_conversation_id);
CREATE TABLE messages(
  seq INTEGER PRIMARY KEY AUTOINCREMENT,
  local_conversation_id TEXT NOT NULL,
  conversation_id TEXT NOT NULL,
  local_section_id TEXT NOT NULL,
  section_id TEXT NOT NULL,
  local_message_id TEXT NOT NULL,
  message_id TEXT NOT NULL,
  type TEXT NOT NULL,
  create_time INTEGER NOT NULL,
  update_time INTEGER NOT NULL,
  status TEXT NOT NULL,
  content TEXT NOT NULL);
CREATE INDEX messages_by_conversation ON messages(local_conversation_id, seq);
INSERT INTO meta(key, value) VALUES('schema_version', 2), ('migrated', 0);
)sql";

// Version 1 had no identity: a message stored twice left two rows. Each set
// of rows with one identity becomes its first row (its place in the
// conversation) holding the newest row's columns.
constexpr const char* kUpgradeFrom1 = R"sql(
CREATE TEMP TABLE identity_groups AS
  SELECT min(seq) AS first, max(seq) AS newest FROM messages WHERE local_message_id <> ''
    GROUP BY local_conversation_id, local_message_id HAVING count(*) > 1
  UNION ALL
  SELECT min(seq), max(seq) FROM messages WHERE local_message_id = '' AND message_id <> ''
    GROUP BY local_conversation_id, local_section_id, message_id HAVING count(*) > 1;
UPDATE messages SET (conversation_id, local_section_id, section_id, message_id, type, create_time,
                     update_time, status, content) =
  (SELECT n.conversation_id, n.local_section_id, n.section_id, n.message_id, n.type, n.create_time,
          n.update_time, n.status, n.content
     FROM identity_groups AS g JOIN messages AS n ON n.seq = g.newest WHERE g.first = messages.seq)
  WHERE seq IN (SELECT first FROM identity_groups);
DELETE FROM messages WHERE local_message_id <> '' AND seq NOT IN (
  SELECT min(seq) FROM messages WHERE local_message_id <> ''
    GROUP BY local_conversation_id, local_message_id);
DELETE FROM messages WHERE local_message_id = '' AND message_id <> '' AND seq NOT IN (
  SELECT min(seq) FROM messages WHERE local_message_id = '' AND message_id <> ''
    GROUP BY local_conversation_id, local_section_id, message_id);
DROP TABLE identity_groups;
DROP INDEX IF EXISTS messages_by_local_message_id;
UPDATE meta SET value = 2 WHERE key = 'schema_version';
)sql";

// The version stored in the file; 0 when the file has no schema yet.
bool readVersion(Database& db, int64_t& version, std::string& error) {
  Statement select;
  if (!select.prepare(db.get(), "SELECT value FROM meta WHERE key = 'schema_version'", error)) {
    return false;
  }
  Using use(select);
  const int rc = select.step();
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    error = lastError(db.get());
    return false;
  }
  version = rc == SQLITE_ROW ? select.integer(0) : 0;
  return true;
}

bool createOrUpgrade(Database& db, int supported_version, std::string& error) {
  if (!db.exec("CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY NOT NULL, value INTEGER "
               "NOT NULL) WITHOUT ROWID",
               error)) {
    return false;
  }
  int64_t version = 0;
  if (!readVersion(db, version, error)) return false;
  if (version > supported_version) {
    error = "schema version " + std::to_string(version) + " is newer than the supported " +
            std::to_string(supported_version);
    return false;
  }
  switch (version) {
    case 0: return db.exec(kTables, error) && db.exec(kMessageIdentityIndexes, error);
    case 1: return db.exec(kUpgradeFrom1, error) && db.exec(kMessageIdentityIndexes, error);
    default: return true;
  }
}

}  // namespace

bool applySchema(Database& db, int supported_version, std::string& error) {
  // SQLite falls back to read-only when the file is write-protected.
  if (sqlite3_db_readonly(db.get(), "main") == 1) {
    error = "the database file is read-only";
    return false;
  }
  // journal_mode is the first statement to read the file: a file that is not
  // a database fails here.
  Statement journal;
  if (!journal.prepare(db.get(), "PRAGMA journal_mode=WAL", error)) return false;
  {
    Using use(journal);
    if (journal.step() != SQLITE_ROW) {
      error = lastError(db.get());
      return false;
    }
    if (journal.text(0) != "wal") {
      error = "cannot switch the journal to WAL (it is " + journal.text(0) + ")";
      return false;
    }
  }
  // WAL with synchronous=NORMAL survives a crash of the process; a power
  // loss may lose the last writes, which suits a local cache of history.
  // Checkpoints (each with an fsync) are the dearest part of writing: let the
  // log grow to 16 MiB between them.
  if (!db.exec("PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=4000; "
               "PRAGMA journal_size_limit=16777216",
               error)) {
    return false;
  }

  if (!db.exec("BEGIN IMMEDIATE", error)) return false;
  if (createOrUpgrade(db, supported_version, error) && db.exec("COMMIT", error)) return true;
  std::string ignored;
  db.exec("ROLLBACK", ignored);
  return false;
}

}  // namespace detail
}  // namespace sqlite
}  // namespace orvi
