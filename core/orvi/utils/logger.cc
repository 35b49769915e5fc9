#include "orvi/utils/logger.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "orvi/logger.h"

namespace orvi {
namespace {

constexpr size_t kLineCapacity = 4096;
constexpr const char* kColourReset = "\x1b[0m";

class Logger {
 public:
  static Logger& instance() {
    // Never destroyed: worker threads may still log while statics unwind.
    static Logger* logger = new Logger();
    return *logger;
  }

  std::atomic<int32_t> threshold{static_cast<int32_t>(LogLevel::Debug)};

  std::shared_ptr<ILogHandler> handler() const { return std::atomic_load(&handler_); }

  // Installs `handler` unless one is already there. Returns false when the
  // call was ignored.
  bool install(const std::shared_ptr<ILogHandler>& handler) {
    std::shared_ptr<ILogHandler> expected;
    return std::atomic_compare_exchange_strong(&handler_, &expected, handler);
  }

  void clear() { std::atomic_store(&handler_, std::shared_ptr<ILogHandler>()); }

 private:
  std::shared_ptr<ILogHandler> handler_;
};

const char* colourOf(LogLevel level) {
  switch (level) {
    case LogLevel::Debug: return "\x1b[36m";
    case LogLevel::Info: return "\x1b[32m";
    case LogLevel::Warn: return "\x1b[33m";
    case LogLevel::Error: return "\x1b[31m";
  }
  return "";
}

}  // namespace

namespace logging {

const char* levelName(LogLevel level) {
  switch (level) {
    case LogLevel::Debug: return "DEBUG";
    case LogLevel::Info: return "INFO";
    case LogLevel::Warn: return "WARN";
    case LogLevel::Error: return "ERROR";
  }
  return "";
}

bool enabled(LogLevel level) {
  return Logger::instance().threshold.load(std::memory_order_relaxed) <=
         static_cast<int32_t>(level);
}

void write(LogLevel level, int line, const char* file, const char* function, const char* format,
           ...) {
  if (!enabled(level)) return;

  char buffer[kLineCapacity];
  int prefix = std::snprintf(buffer, sizeof buffer, "[%s][%s:%s:%d][Orvi] ", levelName(level),
                             file, function, line);
  if (prefix < 0) return;
  size_t used = static_cast<size_t>(prefix);
  if (used < sizeof buffer - 1) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer + used, sizeof buffer - used, format, args);
    va_end(args);
  }
  std::string text(buffer);

  if (auto handler = Logger::instance().handler()) {
    handler->log(level, text);
    return;
  }
  std::cout << colourOf(level) << text << kColourReset << std::endl;
}

}  // namespace logging

ILogger::~ILogger() = default;

void ILogger::registerHandler(const std::shared_ptr<ILogHandler>& handler) {
  Logger& logger = Logger::instance();
  if (handler) {
    // The first registered handler stays until it is cleared explicitly.
    if (!logger.install(handler)) return;
  } else {
    logger.clear();
  }
  ORVI_LOGI("register logger handler success");
}

void ILogger::setLogLevel(LogLevel level) {
  Logger::instance().threshold.store(static_cast<int32_t>(level), std::memory_order_relaxed);
  ORVI_LOGI("update log level to %d", static_cast<int>(level));
}

}  // namespace orvi
