#include "statement.h"

namespace orvi {
namespace sqlite {
namespace detail {

std::string lastError(sqlite3* db) {
  if (!db) return "out of memory";
  return std::string(sqlite3_errmsg(db)) + " (code " +
         std::to_string(sqlite3_extended_errcode(db)) + ")";
}

Database::~Database() {
  // close_v2 defers the close until every statement is finalized, so the
  // order in which the owner destroys its members does not matter.
  sqlite3_close_v2(db_);
}

bool Database::open(const std::string& path, int flags, std::string& error) {
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) == SQLITE_OK) return true;
  error = lastError(db_);
  sqlite3_close_v2(db_);
  db_ = nullptr;
  return false;
}

bool Database::exec(const char* sql, std::string& error) {
  if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
  error = lastError(db_);
  return false;
}

Statement::~Statement() {
  sqlite3_finalize(stmt_);
}

bool Statement::prepare(sqlite3* db, const std::string& sql, std::string& error) {
  sqlite3_finalize(stmt_);
  stmt_ = nullptr;
  if (sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size() + 1),
                         SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) == SQLITE_OK) {
    return true;
  }
  error = lastError(db) + " in: " + sql;
  return false;
}

void Statement::bind(int index, const std::string& text) {
  sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void Statement::bind(int index, int64_t value) {
  sqlite3_bind_int64(stmt_, index, value);
}

void Statement::bind(int index, std::optional<int64_t> value) {
  if (value) {
    sqlite3_bind_int64(stmt_, index, *value);
  } else {
    sqlite3_bind_null(stmt_, index);
  }
}

bool Statement::run() {
  const int rc = step();
  reset();
  return rc == SQLITE_DONE;
}

void Statement::reset() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

std::string Statement::text(int column) const {
  const auto* data = static_cast<const char*>(sqlite3_column_blob(stmt_, column));
  const int size = sqlite3_column_bytes(stmt_, column);
  return data ? std::string(data, static_cast<size_t>(size)) : std::string();
}

std::optional<int64_t> Statement::optionalInteger(int column) const {
  if (sqlite3_column_type(stmt_, column) == SQLITE_NULL) return std::nullopt;
  return sqlite3_column_int64(stmt_, column);
}

}  // namespace detail
}  // namespace sqlite
}  // namespace orvi
