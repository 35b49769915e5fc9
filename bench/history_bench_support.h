// Helpers for the history benchmarks: a scratch directory, sample message
// records of a realistic size, and the floor that the library's path is
// measured against (the same rows inserted directly with sqlite3, one
// prepared statement in one transaction).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "orvi/conversation_types.h"

namespace orvi {
namespace bench {

class ScratchDir {
 public:
  ScratchDir()
      : path_(std::filesystem::temp_directory_path() /
              ("orvi-bench-" + std::to_string(std::random_device()()))) {
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() { std::filesystem::remove_all(path_); }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  std::string path() const { return path_.string(); }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// `count` assistant messages of one conversation, about 400 bytes of content
// each, as a streamed answer leaves them.
inline std::vector<MessageRecord> sampleMessages(const std::string& conversation, size_t count) {
  std::vector<MessageRecord> out;
  out.reserve(count);
  const std::string text(320, 'w');
  for (size_t i = 0; i < count; ++i) {
    const std::string n = std::to_string(i);
    out.emplace_back(conversation, "srv-" + conversation, "section-" + std::to_string(i / 2),
                     "srv-section-" + std::to_string(i / 2), "local-" + n, "srv-" + n, "assistant",
                     1700000000000 + static_cast<int64_t>(i),
                     1700000000000 + static_cast<int64_t>(i), "completed",
                     R"({"content":")" + text + R"(","index":)" + n + "}");
  }
  return out;
}

// The floor: a connection of its own to an existing history file, inserting
// records into its messages table with one prepared statement in one
// transaction. Opening and closing (which checkpoints the write-ahead log)
// stay outside insert(), so that only the writing is timed.
class FloorWriter {
 public:
  explicit FloorWriter(const std::string& path) {
    ok_ = sqlite3_open(path.c_str(), &db_) == SQLITE_OK &&
          sqlite3_exec(db_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr) == SQLITE_OK &&
          sqlite3_prepare_v2(db_,
                             "INSERT INTO messages(local_conversation_id, conversation_id, "
                             "local_section_id, section_id, local_message_id, message_id, type, "
                             "create_time, update_time, status, content) "
                             "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                             -1, &insert_, nullptr) == SQLITE_OK;
  }
  ~FloorWriter() {
    sqlite3_finalize(insert_);
    sqlite3_close(db_);
  }
  FloorWriter(const FloorWriter&) = delete;
  FloorWriter& operator=(const FloorWriter&) = delete;

  // False on any error.
  bool insert(const std::vector<MessageRecord>& records) {
    bool ok = ok_ && sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (size_t i = 0; ok && i < records.size(); ++i) {
      const MessageRecord& r = records[i];
      int column = 0;
      for (const std::string* text :
           {&r.local_conversation_id, &r.conversation_id, &r.local_section_id, &r.section_id,
            &r.local_message_id, &r.message_id, &r.type}) {
        sqlite3_bind_text(insert_, ++column, text->data(), static_cast<int>(text->size()),
                          SQLITE_STATIC);
      }
      sqlite3_bind_int64(insert_, ++column, r.create_time);
      sqlite3_bind_int64(insert_, ++column, r.update_time);
      sqlite3_bind_text(insert_, ++column, r.status.data(), static_cast<int>(r.status.size()),
                        SQLITE_STATIC);
      sqlite3_bind_text(insert_, ++column, r.content.data(), static_cast<int>(r.content.size()),
                        SQLITE_STATIC);
      ok = sqlite3_step(insert_) == SQLITE_DONE;
      sqlite3_reset(insert_);
    }
    return ok && sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  bool ok_ = false;
};

// Rows in the messages table of a history file, or -1 on error.
inline int64_t countMessages(const std::string& path) {
  sqlite3* db = nullptr;
  sqlite3_stmt* count = nullptr;
  int64_t rows = -1;
  if (sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "SELECT count(*) FROM messages", -1, &count, nullptr) == SQLITE_OK &&
      sqlite3_step(count) == SQLITE_ROW) {
    rows = sqlite3_column_int64(count, 0);
  }
  sqlite3_finalize(count);
  sqlite3_close(db);
  return rows;
}

}  // namespace bench
}  // namespace orvi
