#include "orvi/utils/untrusted_json.h"

#include <utility>
#include <vector>

namespace orvi {

JsonTooDeep::JsonTooDeep(std::size_t offset)
    : std::runtime_error("JSON nested deeper than " + std::to_string(kMaxJsonDepth) +
                         " levels at byte " + std::to_string(offset) + ", refused") {}

namespace {

// One flat pass over the text. Stops at the first bracket that takes the
// depth past `limit`, leaving its offset in `stop`.
std::size_t scanDepth(std::string_view text, std::size_t limit, std::size_t* stop) {
  std::size_t depth = 0;
  std::size_t deepest = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;  // the escaped character cannot end the string
      } else if (c == '"') {
        in_string = false;
      }
      continue;
    }
    switch (c) {
      case '"': in_string = true; break;
      case '[':
      case '{':
        if (++depth > deepest && (deepest = depth) > limit) {
          if (stop) *stop = i;
          return deepest;
        }
        break;
      case ']':
      case '}':
        // An unbalanced closer is the parser's error to report; never wrap.
        if (depth > 0) --depth;
        break;
      default: break;
    }
  }
  return deepest;
}

}  // namespace

std::size_t jsonNestingDepth(std::string_view text, std::size_t limit) {
  return scanDepth(text, limit, nullptr);
}

nlohmann::json parseUntrustedJson(std::string_view text) {
  std::size_t stop = 0;
  if (scanDepth(text, kMaxJsonDepth, &stop) > kMaxJsonDepth) throw JsonTooDeep(stop);
  return nlohmann::json::parse(text);
}

bool jsonDepthWithin(const nlohmann::json& value, std::size_t base_depth, std::size_t limit) {
  if (!value.is_structured()) return base_depth <= limit;
  std::vector<std::pair<const nlohmann::json*, std::size_t>> pending{{&value, base_depth + 1}};
  while (!pending.empty()) {
    const auto [node, depth] = pending.back();
    pending.pop_back();
    if (depth > limit) return false;
    for (const auto& child : *node) {
      if (child.is_structured()) pending.emplace_back(&child, depth + 1);
    }
  }
  return true;
}

std::string textForLog(std::string_view text) {
  if (text.size() <= kLoggedTextBytes) return std::string(text);
  std::string shown(text.substr(0, kLoggedTextBytes));
  shown += "...(" + std::to_string(text.size() - kLoggedTextBytes) + " more bytes)";
  return shown;
}

}  // namespace orvi
