#include "orvi/message/engine/streaming_document.h"

#include <string_view>
#include <utility>

#include "orvi/message/engine/checked_patch.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kNone = std::string::npos;
// Streams append to one or two strings at a time; more are found again.
constexpr std::size_t kTrackedStrings = 8;

const char kAppend[] = "append";

// The text of element `index` of a JSON array text that has parsed, as it
// stands there.
std::string elementText(std::string_view text, std::size_t index) {
  std::size_t depth = 0;
  std::size_t element = 0;
  std::size_t start = kNone;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        in_string = false;
      }
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
    if (depth == 1 && (c == ',' || c == ']')) {
      if (element == index) {
        if (start == kNone) return {};
        std::size_t end = i;
        while (end > start && (text[end - 1] == ' ' || text[end - 1] == '\t' ||
                               text[end - 1] == '\n' || text[end - 1] == '\r')) {
          --end;
        }
        return std::string(text.substr(start, end - start));
      }
      ++element;
      continue;
    }
    if (depth == 1 && element == index && start == kNone) start = i;
    if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return {};
}

// Walking a compact dump. The JSON library printed it: no whitespace, and
// every key escaped exactly as the library escapes it.

// From an opening quote to just past the closing one; kNone if unclosed.
std::size_t skipString(const std::string& text, std::size_t at) {
  for (std::size_t i = at + 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      return i + 1;
    }
  }
  return kNone;
}

// From the first character of a value to just past it.
std::size_t skipValue(const std::string& text, std::size_t at) {
  if (at >= text.size()) return kNone;
  if (text[at] == '"') return skipString(text, at);
  if (text[at] != '{' && text[at] != '[') {
    while (at < text.size() && text[at] != ',' && text[at] != '}' && text[at] != ']') ++at;
    return at;
  }
  std::size_t depth = 0;
  for (std::size_t i = at; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      i = skipString(text, i);
      if (i == kNone) return kNone;
      --i;
    } else if (c == '{' || c == '[') {
      ++depth;
    } else if ((c == '}' || c == ']') && --depth == 0) {
      return i + 1;
    }
  }
  return kNone;
}

bool expect(const std::string& text, std::size_t at, char c) {
  return at < text.size() && text[at] == c;
}

// The offset of the closing quote of the string at `tokens`, or kNone.
std::size_t findStringEnd(const std::string& text, const std::vector<std::string>& tokens) {
  std::size_t at = 0;
  for (const std::string& token : tokens) {
    if (expect(text, at, '{')) {
      const std::string key = Json(token).dump();
      ++at;
      for (;;) {
        if (!expect(text, at, '"')) return kNone;
        const std::size_t key_end = skipString(text, at);
        if (!expect(text, key_end, ':')) return kNone;
        const bool match = key_end - at == key.size() && text.compare(at, key.size(), key) == 0;
        at = key_end + 1;
        if (match) break;
        at = skipValue(text, at);
        if (!expect(text, at, ',')) return kNone;
        ++at;
      }
    } else if (expect(text, at, '[')) {
      std::size_t index = 0;
      if (!arrayIndex(token, index)) return kNone;
      ++at;
      for (std::size_t skipped = 0; skipped < index; ++skipped) {
        at = skipValue(text, at);
        if (!expect(text, at, ',')) return kNone;
        ++at;
      }
    } else {
      return kNone;
    }
  }
  if (!expect(text, at, '"')) return kNone;
  const std::size_t end = skipString(text, at);
  return end == kNone ? kNone : end - 1;
}

// `value` as it appears between the quotes of a compact dump.
std::string escaped(const std::string& value) {
  std::string text = Json(value).dump();
  text.pop_back();
  text.erase(0, 1);
  return text;
}

}  // namespace

void StreamingDocument::apply(const std::string& patch_text, std::string& payload) {
  if (!loaded_) {
    document_ = parseUntrustedJson(payload);
    loaded_ = true;
    compact_ = false;  // the server's text may be spaced or escaped otherwise
    string_ends_.clear();
  }
  const Json operations = parseUntrustedJson(patch_text);
  if (!operations.is_array()) throw MalformedDelta(MalformedDelta::Fault::NotArray, {});
  if (compact_ && appendInPlace(operations, payload)) return;
  patchCopy(operations, patch_text, payload);
}

void StreamingDocument::reset() {
  loaded_ = false;
  compact_ = false;
  document_ = nullptr;
  string_ends_.clear();
}

bool StreamingDocument::appendInPlace(const Json& operations, std::string& payload) {
  struct Append {
    std::string* target;
    const std::string* value;
    std::string text;  // `value` escaped
    std::size_t slot;  // in string_ends_
  };
  std::vector<Append> appends;
  appends.reserve(operations.size());
  std::size_t size = payload.size();
  try {
    for (const Json& operation : operations) {
      if (!operation.is_object()) return false;
      const auto op = operation.find("op");
      const auto path = operation.find("path");
      const auto value = operation.find("value");
      if (op == operation.end() || *op != kAppend) return false;
      if (path == operation.end() || !path->is_string()) return false;
      if (value == operation.end() || !value->is_string()) return false;
      const std::string& where = path->get_ref<const std::string&>();
      const auto tokens = pointerTokens(where);
      Json* target = const_cast<Json*>(findValue(document_, tokens));
      if (!target || !target->is_string()) return false;
      std::string text = escaped(value->get_ref<const std::string&>());
      size += text.size();
      if (size > kMaxPatchedPayloadBytes) return false;
      const std::size_t slot = stringEnd(where, tokens, payload);
      if (slot == kNone) return false;
      appends.push_back({&target->get_ref<std::string&>(), &value->get_ref<const std::string&>(),
                         std::move(text), slot});
    }
  } catch (const std::exception&) {
    return false;  // the whole delta goes the general way, which reports it
  }

  // Nothing has changed so far, and nothing below can fail but allocation.
  for (const Append& append : appends) {
    const std::size_t at = string_ends_[append.slot].offset;
    append.target->append(*append.value);
    payload.insert(at, append.text);
    for (StringEnd& end : string_ends_) {
      if (end.offset >= at) end.offset += append.text.size();
    }
  }
  if (string_ends_.size() > kTrackedStrings) {
    string_ends_.erase(string_ends_.begin(),
                       string_ends_.begin() + (string_ends_.size() - kTrackedStrings));
  }
  return true;
}

std::size_t StreamingDocument::stringEnd(const std::string& path,
                                         const std::vector<std::string>& tokens,
                                         const std::string& payload) {
  for (std::size_t slot = 0; slot < string_ends_.size(); ++slot) {
    if (string_ends_[slot].path == path) return slot;
  }
  const std::size_t offset = findStringEnd(payload, tokens);
  if (offset == kNone) return kNone;
  string_ends_.push_back({path, offset});
  return string_ends_.size() - 1;
}

void StreamingDocument::patchCopy(const Json& operations, const std::string& patch_text,
                                  std::string& payload) {
  using Fault = MalformedDelta::Fault;
  Json document = document_;
  PlacementBudget budget;
  std::vector<const Json*> standard;
  // Appends take effect during the pass, standard operations after it, in
  // their order: a delta's appends all run before its other operations.
  for (std::size_t i = 0; i < operations.size(); ++i) {
    const Json& operation = operations[i];
    const auto op = operation.is_object() ? operation.find("op") : operation.end();
    if (op == operation.end() || !op->is_string()) {
      throw MalformedDelta(Fault::OpNotString, elementText(patch_text, i));
    }
    if (*op != kAppend) {
      standard.push_back(&operation);
      continue;
    }
    const auto path = operation.find("path");
    if (path == operation.end() || !path->is_string()) {
      throw MalformedDelta(Fault::PathNotString, elementText(patch_text, i));
    }
    const auto value = operation.find("value");
    if (value == operation.end() || !value->is_string()) {
      throw MalformedDelta(Fault::AppendValueNotString, elementText(patch_text, i));
    }
    applyAppend(document, path->get_ref<const std::string&>(), value->get_ref<const std::string&>(),
                budget);
  }
  for (const Json* operation : standard) applyStandardOperation(document, *operation, budget);

  std::string text = document.dump();
  if (text.size() > kMaxPatchedPayloadBytes) {
    throw PatchRefused("the patched payload would take " + std::to_string(text.size()) +
                       " bytes, over the limit of " + std::to_string(kMaxPatchedPayloadBytes));
  }
  payload.swap(text);
  document_ = std::move(document);
  compact_ = true;
  string_ends_.clear();
}

}  // namespace orvi
