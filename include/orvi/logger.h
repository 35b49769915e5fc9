// Process-wide logging. Lines go to standard output in colour until the host
// registers an ILogHandler; from then on every line goes to the handler only.
#pragma once

#include <memory>
#include <string>

#include "orvi/enums.h"
#include "orvi/export.h"

namespace orvi {

// Implemented by the host. Called on whichever library or host thread logs,
// possibly on several at once, so the implementation must be thread-safe.
// `line` is the finished line without a trailing newline.
class ILogHandler {
 public:
  virtual ~ILogHandler() = default;
  virtual void log(LogLevel level, const std::string& line) = 0;
};

class ORVI_EXPORT ILogger {
 public:
  virtual ~ILogger();

  // Installs `handler`. While a handler is installed, another non-empty one is
  // ignored; an empty pointer removes the current one. Meant for start-up:
  // replacing the handler while other threads log is safe but racy in which
  // handler sees the lines logged meanwhile.
  static void registerHandler(const std::shared_ptr<ILogHandler>& handler);

  // Lines below `level` are dropped. The initial threshold is Debug.
  static void setLogLevel(LogLevel level);
};

}  // namespace orvi
