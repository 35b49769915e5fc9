// The visible text of one streamed assistant answer, kept up to date from
// the payloads the library reports: the whole payload again after every
// delta. The text is the payload's "text" string, or the payload itself
// when it has none.
//
// Answers grow at the end, so an update reads only the bytes added since the
// last one: the end of the "text" string is remembered, and when the
// payload around it is unchanged and longer, the bytes before the new end
// are decoded and appended. The cost of an update then follows the size of
// the delta, not of the answer. Anything else (the text shrank, its end
// moved, the payload took another shape) is read whole. An edit earlier in
// the text that keeps both the length order and the bytes around the end
// can pass unseen while the answer streams; the final update always reads
// the payload whole, so the complete text is exact.
//
// Not thread-safe: one answer is updated by one thread at a time.
#pragma once

#include <cstddef>
#include <string>

namespace orvi_chat {

class AnswerText {
 public:
  // Takes the newest payload; `final` reads it whole. Returns true when the
  // new text begins with the previous one (the first update always does).
  bool update(const std::string& payload, bool final);
  const std::string& text() const { return text_; }

 private:
  bool appendFrom(const std::string& payload);
  void readWhole(const std::string& payload);
  bool unchangedAroundEnd(const std::string& payload) const;

  std::string text_;
  bool in_text_field_ = false;  // the text is a "text" string, not the whole payload
  size_t end_ = 0;              // in the last payload: where the text's bytes end
  size_t payload_size_ = 0;     // of the last payload; 0: read the next one whole
  std::string before_end_;      // the last payload's bytes just before end_
  std::string from_end_;        // the last payload from end_ on (a "text" field's close)
};

// The visible text of a whole payload, read at once.
std::string answerTextOf(const std::string& payload);

}  // namespace orvi_chat
