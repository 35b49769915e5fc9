#include "log_file.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace orvi_chat {
namespace {

// "2026-11-23 15:40:02.123"
std::string timestamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
  std::tm parts{};
  localtime_r(&seconds, &parts);
  char text[32];
  const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
  std::snprintf(text + length, sizeof(text) - length, ".%03d", static_cast<int>(ms.count()));
  return text;
}

}  // namespace

bool LogFile::open(const std::string& path, std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  opened_ = true;
  file_.open(path, std::ios::app);
  if (!file_) {
    if (error) *error = "cannot open the log " + path + ": " + std::strerror(errno);
    early_.clear();
    return false;
  }
  for (const auto& line : early_) file_ << line << '\n';
  early_.clear();
  file_.flush();
  return true;
}

void LogFile::write(const std::string& source, const std::string& line) {
  std::string entry = timestamp() + " " + source + ": " + line;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!opened_) {
    if (early_.size() == kKeptBeforeOpen) early_.pop_front();
    early_.push_back(std::move(entry));
    return;
  }
  if (!file_) return;
  file_ << entry << '\n';
  file_.flush();
}

}  // namespace orvi_chat
