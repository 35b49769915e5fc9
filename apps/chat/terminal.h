// The one place orvi-chat writes to the terminal. Lines come from the main
// thread, the network I/O thread and the session's worker at once; one
// mutex serializes them, so a line is never torn. (Diagnostics go to the
// log file, not here.)
//
// An assistant answer streams "in place": each update prints only the text
// appended since the last one, on the same line, and the line ends when the
// answer completes. What an update costs follows the size of what it
// appended, not of the answer. Any other line printed meanwhile first ends
// the open stream line; a later update of that answer starts a fresh line
// with the whole text so far, so the reader never sees a fragment without
// context.
// Every text is shown through printableText: no control sequence from the
// server or a log line reaches the terminal.
//
// Thread-safe; never calls out while holding its lock.
#pragma once

#include <map>
#include <mutex>
#include <ostream>
#include <string>

namespace orvi_chat {

class Terminal {
 public:
  Terminal(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}

  // "tag      text" on standard output.
  void line(const std::string& tag, const std::string& text);
  // One of orvi-chat's own failures, on standard error.
  void diagnostic(const std::string& text);
  // The latest text of the answer `message_id`; `extends` tells that it
  // begins with the text of the previous update, `complete` ends its line.
  void stream(const std::string& message_id, const std::string& text, bool extends, bool complete);

 private:
  void endOpenLineLocked();

  std::mutex mutex_;  // guards out_, err_ and the members below
  std::ostream& out_;
  std::ostream& err_;
  std::string open_id_;                  // the answer whose text ends the current line
  std::map<std::string, size_t> shown_;  // bytes of text printed so far, by unfinished answer
};

}  // namespace orvi_chat
