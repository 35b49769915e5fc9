// A log handler that keeps every line, for tests that assert on log text.
// ScopedLogCapture installs one for the life of a test and restores the
// default (standard output, threshold Debug) afterwards.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "orvi/logger.h"

namespace orvi {
namespace test {

class RecordingLogHandler : public ILogHandler {
 public:
  void log(LogLevel level, const std::string& line) override {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(level, line);
  }

  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    for (const auto& entry : lines_) out.push_back(entry.second);
    return out;
  }

  // Lines whose message part (after the "[Orvi] " tag) equals `message`.
  size_t count(const std::string& message) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& e) {
      return messageOf(e.second) == message;
    }));
  }

  // Lines whose message part contains `fragment`.
  size_t countContaining(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& e) {
      return messageOf(e.second).find(fragment) != std::string::npos;
    }));
  }

  bool has(const std::string& message) const { return count(message) > 0; }

  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

  static std::string messageOf(const std::string& line) {
    static const std::string tag = "[Orvi] ";
    const auto at = line.find(tag);
    return at == std::string::npos ? line : line.substr(at + tag.size());
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<LogLevel, std::string>> lines_;
};

class ScopedLogCapture {
 public:
  ScopedLogCapture() : handler_(std::make_shared<RecordingLogHandler>()) {
    ILogger::registerHandler(nullptr);
    ILogger::setLogLevel(LogLevel::Debug);
    ILogger::registerHandler(handler_);
    handler_->clear();
  }
  ~ScopedLogCapture() {
    ILogger::registerHandler(nullptr);
    ILogger::setLogLevel(LogLevel::Debug);
  }
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  RecordingLogHandler& operator*() const { return *handler_; }
  RecordingLogHandler* operator->() const { return handler_.get(); }
  const std::shared_ptr<RecordingLogHandler>& handler() const { return handler_; }

 private:
  std::shared_ptr<RecordingLogHandler> handler_;
};

}  // namespace test
}  // namespace orvi
