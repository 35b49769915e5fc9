// The history file's schema and its version. applySchema runs once, on the
// write connection, when the executor opens the file.
#pragma once

#include <string>

#include "statement.h"

namespace orvi {
namespace sqlite {
namespace detail {

// Switches the file to WAL, then creates the schema when the file has none
// and refuses a newer one. False with `error` set when the file is unusable
// (not a database, read-only, newer schema).
bool applySchema(Database& db, int supported_version, std::string& error);

}  // namespace detail
}  // namespace sqlite
}  // namespace orvi
