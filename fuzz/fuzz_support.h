// What the fuzz targets share: a logger that formats error lines (so their
// quoting of hostile text is exercised) and throws them away, and the split
// of one input into the lines of a transcript.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "orvi/logger.h"

namespace orvi {
namespace fuzz {

class DiscardingLogHandler : public ILogHandler {
 public:
  void log(LogLevel, const std::string& line) override { bytes_ += line.size(); }

 private:
  size_t bytes_ = 0;  // written, so the formatted line is not optimised away
};

// Warnings and errors are formatted and dropped; debug and info lines,
// which print whole frames, are not formatted at all (speed).
inline void quietLogs() {
  static const bool once = [] {
    ILogger::registerHandler(std::make_shared<DiscardingLogHandler>());
    ILogger::setLogLevel(LogLevel::Warn);
    return true;
  }();
  (void)once;
}

inline std::string asText(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// The lines of `text`, without their newline; a final newline ends the
// last line rather than starting an empty one.
inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// Whether `line` starts with `word`; if so, `rest` is what follows it.
inline bool startsWith(const std::string& line, const std::string& word, std::string* rest) {
  if (line.compare(0, word.size(), word) != 0) return false;
  *rest = line.substr(word.size());
  return true;
}

}  // namespace fuzz
}  // namespace orvi
