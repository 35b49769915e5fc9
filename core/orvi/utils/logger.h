// The library's internal logging entry point behind the public ILogger.
//
// One process-wide logger: a threshold and an optional host handler, both
// held in atomics so that logging on one thread while another changes the
// level or the handler is well defined. Lines are formatted into a fixed
// 4096-byte buffer and cut silently when longer. The host handler is called
// with no library lock held.
#pragma once

#include "orvi/enums.h"

namespace orvi {
namespace logging {

// True when a line of `level` would be emitted; the macros test it before
// evaluating their arguments.
bool enabled(LogLevel level);

// Formats "[LEVEL][file:function:line][Orvi] " followed by the message and
// hands it to the handler, or prints it in colour to standard output.
void write(LogLevel level, int line, const char* file, const char* function, const char* format,
           ...) __attribute__((format(printf, 5, 6)));

// The name printed for a level: "DEBUG", "INFO", "WARN", "ERROR"; empty for
// any other value.
const char* levelName(LogLevel level);

}  // namespace logging
}  // namespace orvi

#define ORVI_LOG(level, ...)                                                     \
  do {                                                                           \
    if (::orvi::logging::enabled(level)) {                                       \
      ::orvi::logging::write(level, __LINE__, __FILE__, __func__, __VA_ARGS__); \
    }                                                                            \
  } while (0)

#define ORVI_LOGD(...) ORVI_LOG(::orvi::LogLevel::Debug, __VA_ARGS__)
#define ORVI_LOGI(...) ORVI_LOG(::orvi::LogLevel::Info, __VA_ARGS__)
#define ORVI_LOGW(...) ORVI_LOG(::orvi::LogLevel::Warn, __VA_ARGS__)
#define ORVI_LOGE(...) ORVI_LOG(::orvi::LogLevel::Error, __VA_ARGS__)
