#include "answer_text.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace orvi_chat {
namespace {

using nlohmann::json;

// How many bytes before the end of the text must be unchanged for an update
// to count as an append.
constexpr size_t kWindow = 64;

// A whole payload: the "text" string of a JSON object, if any.
bool textField(const std::string& payload, std::string* text) {
  const auto parsed = json::parse(payload, nullptr, false);
  if (!parsed.is_object()) return false;
  const auto field = parsed.find("text");
  if (field == parsed.end() || !field->is_string()) return false;
  *text = field->get<std::string>();
  return true;
}

// The offset of the first unescaped '"' at or after `from`, or npos.
size_t closingQuote(const std::string& payload, size_t from) {
  for (size_t at = from; at < payload.size(); ++at) {
    if (payload[at] == '\\') {
      ++at;
    } else if (payload[at] == '"') {
      return at;
    }
  }
  return std::string::npos;
}

// The JSON string body `escaped` (no quotes) decoded, or false.
bool decodeStringBody(const std::string& escaped, std::string* out) {
  const auto parsed = json::parse("\"" + escaped + "\"", nullptr, false);
  if (!parsed.is_string()) return false;
  *out = parsed.get<std::string>();
  return true;
}

}  // namespace

std::string answerTextOf(const std::string& payload) {
  std::string text;
  return textField(payload, &text) ? text : payload;
}

bool AnswerText::update(const std::string& payload, bool final) {
  if (!final && payload_size_ > 0 && appendFrom(payload)) return true;
  const std::string previous = std::move(text_);
  readWhole(payload);
  return text_.compare(0, previous.size(), previous) == 0;
}

bool AnswerText::unchangedAroundEnd(const std::string& payload) const {
  return payload.size() >= payload_size_ &&
         payload.compare(end_ - before_end_.size(), before_end_.size(), before_end_) == 0;
}

bool AnswerText::appendFrom(const std::string& payload) {
  if (!unchangedAroundEnd(payload)) return false;
  const size_t growth = payload.size() - payload_size_;
  std::string added;
  if (in_text_field_) {
    // The new bytes of the string sit between the old end and the unchanged
    // close of the field.
    const size_t new_end = closingQuote(payload, end_);
    if (new_end != end_ + growth || payload.compare(new_end, from_end_.size(), from_end_) != 0 ||
        !decodeStringBody(payload.substr(end_, growth), &added)) {
      return false;
    }
  } else {
    added = payload.substr(end_);
  }
  text_ += added;
  end_ += growth;
  payload_size_ = payload.size();
  before_end_ = payload.substr(end_ - std::min(end_, kWindow), std::min(end_, kWindow));
  return true;
}

void AnswerText::readWhole(const std::string& payload) {
  payload_size_ = payload.size();
  in_text_field_ = textField(payload, &text_);
  end_ = payload.size();
  if (in_text_field_) {
    // The field as the payload spells it; without it, the next update reads
    // the payload whole again.
    const std::string field = "\"text\":" + json(text_).dump();
    const size_t at = payload.rfind(field);
    if (at == std::string::npos) {
      payload_size_ = 0;
    } else {
      end_ = at + field.size() - 1;
    }
  } else {
    text_ = payload;
  }
  from_end_ = payload.substr(end_);
  before_end_ = payload.substr(end_ - std::min(end_, kWindow), std::min(end_, kWindow));
}

}  // namespace orvi_chat
