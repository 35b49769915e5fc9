// orvi-chat's log file: the diagnostics of the library, the network
// adapter, SQLite and the emulator, each line with the time it was written,
// so that none of them mixes with the conversation on the screen.
//
// One per process, shared by whoever logs; write() may be called from any
// thread, also before open() (the newest lines are then kept in memory and
// written first) and after a failed open (they are dropped).
#pragma once

#include <deque>
#include <fstream>
#include <mutex>
#include <string>

namespace orvi_chat {

class LogFile {
 public:
  // Appends to `path` from now on; false, with the reason, when it cannot.
  bool open(const std::string& path, std::string* error);
  // One line from `source` ("orvi", "net", "sqlite", "emulator").
  void write(const std::string& source, const std::string& line);

 private:
  static constexpr size_t kKeptBeforeOpen = 200;

  std::mutex mutex_;  // guards the members below
  std::ofstream file_;
  bool opened_ = false;  // open() was called, whether or not it worked
  std::deque<std::string> early_;
};

}  // namespace orvi_chat
