// File-system helpers for the persistence side of the library. Paths are
// UTF-8. None throws: errors are logged and returned.
#pragma once

#include <string>

namespace orvi {
namespace file_utils {

// Creates `path` and any missing parents. True also when it already exists.
bool mkdir(const std::string& path);

// Reads the whole file into `out`. False when it cannot be opened (or is a
// directory) or cannot be closed; `out` is then unspecified.
bool read(const std::string& path, std::string& out);

// Removes the directory with all its content. False on failure.
bool removeDir(const std::string& path);

}  // namespace file_utils
}  // namespace orvi
