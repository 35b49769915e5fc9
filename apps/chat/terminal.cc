#include "terminal.h"

#include "printable.h"

#include <string_view>

namespace orvi_chat {
namespace {

const char kAnswerTag[] = "bot";

std::string padded(const std::string& tag) {
  constexpr size_t kWidth = 9;
  return tag.size() >= kWidth ? tag + ' ' : tag + std::string(kWidth - tag.size(), ' ');
}

}  // namespace

void Terminal::line(const std::string& tag, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  endOpenLineLocked();
  out_ << padded(tag) << printableText(text) << '\n' << std::flush;
}

void Terminal::diagnostic(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  endOpenLineLocked();
  err_ << printableText(text) << '\n' << std::flush;
}

void Terminal::stream(const std::string& message_id, const std::string& whole_text, bool extends,
                      bool complete) {
  // A character cut at the end of an unfinished answer waits for its rest.
  const std::string_view text(whole_text.data(),
                              complete ? whole_text.size() : completePrefixLength(whole_text));
  std::lock_guard<std::mutex> lock(mutex_);
  size_t& shown = shown_[message_id];
  if (open_id_ == message_id && extends && text.size() >= shown) {
    out_ << printableText(text.substr(shown));
  } else {
    // A new answer, one interrupted by another line, or a rewrite that is
    // not an append: start over on a line of its own.
    endOpenLineLocked();
    out_ << padded(kAnswerTag) << printableText(text);
    open_id_ = message_id;
  }
  shown = text.size();
  if (complete) {
    out_ << '\n';
    open_id_.clear();
    shown_.erase(message_id);
  }
  out_ << std::flush;
}

void Terminal::endOpenLineLocked() {
  if (open_id_.empty()) return;
  out_ << '\n';
  open_id_.clear();
}

}  // namespace orvi_chat
