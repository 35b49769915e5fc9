// Thin RAII wrappers over the sqlite3 C API for the executor: a connection
// handle and a prepared statement that is prepared once and reused. Neither
// locks: the executor's per-connection mutex covers a connection and every
// statement prepared on it.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>

namespace orvi {
namespace sqlite {
namespace detail {

// "<sqlite's message> (code N)" for the last failure on `db`.
std::string lastError(sqlite3* db);

class Database {
 public:
  Database() = default;
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Opens `path` with `flags`. On failure the handle is closed and `error`
  // says why.
  bool open(const std::string& path, int flags, std::string& error);
  // Runs one or more statements that return no rows (pragmas, schema).
  bool exec(const char* sql, std::string& error);
  sqlite3* get() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

class Statement {
 public:
  Statement() = default;
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool prepare(sqlite3* db, const std::string& sql, std::string& error);

  // Parameters are 1-based. Text is bound without a copy: the string must
  // outlive the statement's next reset().
  void bind(int index, const std::string& text);
  void bind(int index, int64_t value);
  void bind(int index, std::optional<int64_t> value);

  // One step; SQLITE_ROW, SQLITE_DONE or an error code.
  int step() { return sqlite3_step(stmt_); }
  // Steps to the end of a statement that returns no rows. Resets it.
  bool run();
  // Clears the bindings and ends the statement's read, so that no snapshot
  // stays open between calls.
  void reset();

  std::string text(int column) const;
  int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
  std::optional<int64_t> optionalInteger(int column) const;

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// Resets a statement when the scope that uses it ends, however it ends.
class Using {
 public:
  explicit Using(Statement& statement) : statement_(statement) {}
  ~Using() { statement_.reset(); }
  Using(const Using&) = delete;
  Using& operator=(const Using&) = delete;

 private:
  Statement& statement_;
};

}  // namespace detail
}  // namespace sqlite
}  // namespace orvi
