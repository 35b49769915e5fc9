#include "orvi/message/engine/checked_patch.h"

#include <limits>
#include <utility>

#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

using Json = nlohmann::json;
using Tokens = std::vector<std::string>;

// Roughly what one JSON value takes in memory beside its text.
constexpr std::size_t kValueCost = 32;

[[noreturn]] void refuse(const std::string& why) {
  throw PatchRefused(why);
}

std::string quoted(const std::string& path) {
  return "'" + textForLog(path) + "'";
}

// The value `count` tokens down, or null.
const Json* walk(const Json& document, const Tokens& tokens, std::size_t count) {
  const Json* node = &document;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string& token = tokens[i];
    if (node->is_object()) {
      const auto member = node->find(token);
      if (member == node->end()) return nullptr;
      node = &*member;
    } else if (node->is_array()) {
      std::size_t index = 0;
      if (!arrayIndex(token, index) || index >= node->size()) return nullptr;
      node = &(*node)[index];
    } else {
      return nullptr;
    }
  }
  return node;
}

const Json& existing(const Json& document, const Tokens& tokens, const std::string& path) {
  const Json* value = walk(document, tokens, tokens.size());
  if (!value) refuse("path " + quoted(path) + " does not exist");
  return *value;
}

// The index `token` names in an array of `size` elements when something is
// placed there: "-" or an index up to `size` itself (the end).
void checkArrayPlace(const std::string& token, std::size_t size, const std::string& path,
                     bool dash_allowed) {
  if (token == "-") {
    if (dash_allowed) return;
    refuse("path " + quoted(path) + ": '-' names no element here");
  }
  std::size_t index = 0;
  if (!arrayIndex(token, index)) {
    refuse("path " + quoted(path) + ": '" + textForLog(token) + "' is not an array index");
  }
  if (index > size) {
    refuse("path " + quoted(path) + ": array index " + textForLog(token) +
           " is out of range (size " + std::to_string(size) + ")");
  }
}

// Where "add" (and the add half of "move" and "copy") may place a value:
// the whole document, or a member or element of an existing container.
void checkPlace(const Json& document, const Tokens& tokens, const std::string& path) {
  if (tokens.empty()) return;
  const Json* parent = walk(document, tokens, tokens.size() - 1);
  if (!parent) refuse("path " + quoted(path) + ": the parent does not exist");
  if (parent->is_object()) return;
  if (!parent->is_array()) {
    refuse("path " + quoted(path) + ": the parent is " + parent->type_name() +
           ", not an object or array");
  }
  checkArrayPlace(tokens.back(), parent->size(), path, /*dash_allowed=*/true);
}

void checkDepth(const Json& value, const Tokens& tokens, const std::string& path) {
  if (!jsonDepthWithin(value, tokens.size())) {
    refuse("path " + quoted(path) + ": the value would nest the document deeper than " +
           std::to_string(kMaxJsonDepth) + " levels");
  }
}

const Json& member(const Json& operation, const std::string& op, const char* name) {
  const auto it = operation.find(name);
  if (it == operation.end()) refuse("operation '" + op + "' must have member '" + name + "'");
  return *it;
}

const std::string& stringMember(const Json& operation, const std::string& op, const char* name) {
  const Json& value = member(operation, op, name);
  if (!value.is_string()) {
    refuse("operation '" + op + "' must have string member '" + name + "'");
  }
  return value.get_ref<const std::string&>();
}

bool isProperPrefix(const Tokens& prefix, const Tokens& tokens) {
  if (prefix.size() >= tokens.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (prefix[i] != tokens[i]) return false;
  }
  return true;
}

// Hands one checked operation to the JSON library's patch facility.
void execute(Json& document, Json operation) {
  document.patch_inplace(Json::array({std::move(operation)}));
}

void applyMove(Json& document, const Json& operation, const std::string& path,
               const Tokens& tokens) {
  const std::string& from = stringMember(operation, "move", "from");
  const Tokens from_tokens = pointerTokens(from);
  const Json& source = existing(document, from_tokens, from);
  if (from_tokens == tokens) return;  // moving a value onto itself changes nothing
  if (isProperPrefix(from_tokens, tokens)) {
    refuse("move from " + quoted(from) + " into its own child " + quoted(path));
  }
  Json value = source;
  // A move is a remove followed by an add, and the add is checked against
  // the document as the remove left it: removing an array element shifts
  // the ones after it.
  execute(document, {{"op", "remove"}, {"path", from}});
  checkPlace(document, tokens, path);
  checkDepth(value, tokens, path);
  execute(document, {{"op", "add"}, {"path", path}, {"value", std::move(value)}});
}

}  // namespace

bool arrayIndex(const std::string& token, std::size_t& index) {
  if (token.empty() || (token.size() > 1 && token[0] == '0')) return false;
  index = 0;
  for (const char c : token) {
    if (c < '0' || c > '9') return false;
    const auto digit = static_cast<std::size_t>(c - '0');
    // Saturates: an index too large to represent is out of every range.
    index = index > (std::numeric_limits<std::size_t>::max() - digit) / 10
                ? std::numeric_limits<std::size_t>::max()
                : index * 10 + digit;
  }
  return true;
}

void PlacementBudget::chargeBytes(std::size_t bytes) {
  if (bytes > remaining_) {
    remaining_ = 0;
    refuse("the delta places more than " + std::to_string(kMaxPatchedPayloadBytes) +
           " bytes of values");
  }
  remaining_ -= bytes;
}

void PlacementBudget::chargeValue(const Json& value) {
  chargeBytes(kValueCost);
  std::vector<const Json*> pending{&value};
  while (!pending.empty()) {
    const Json& node = *pending.back();
    pending.pop_back();
    if (node.is_string()) {
      chargeBytes(node.get_ref<const std::string&>().size());
    } else if (node.is_object()) {
      for (auto it = node.begin(); it != node.end(); ++it) {
        chargeBytes(kValueCost + it.key().size());
        pending.push_back(&it.value());
      }
    } else if (node.is_array()) {
      for (const auto& element : node) {
        chargeBytes(kValueCost);
        pending.push_back(&element);
      }
    }
  }
}

std::vector<std::string> pointerTokens(const std::string& pointer) {
  // The library's own errors for a malformed pointer; the split below then
  // only meets well-formed escapes.
  static_cast<void>(Json::json_pointer(pointer));
  Tokens tokens;
  if (pointer.empty()) return tokens;
  std::string token;
  for (std::size_t i = 1; i <= pointer.size(); ++i) {
    if (i == pointer.size() || pointer[i] == '/') {
      tokens.push_back(std::move(token));
      token.clear();
    } else if (pointer[i] == '~') {
      token += pointer[++i] == '0' ? '~' : '/';
    } else {
      token += pointer[i];
    }
  }
  return tokens;
}

const Json* findValue(const Json& document, const Tokens& tokens) {
  return walk(document, tokens, tokens.size());
}

void applyAppend(Json& document, const std::string& path, const std::string& value,
                 PlacementBudget& budget) {
  const Tokens tokens = pointerTokens(path);
  budget.chargeBytes(value.size());
  // Follow the path as far as it exists.
  Json* node = &document;
  std::size_t depth = 0;
  for (; depth < tokens.size(); ++depth) {
    const std::string& token = tokens[depth];
    if (node->is_object()) {
      const auto it = node->find(token);
      if (it == node->end()) break;
      node = &*it;
    } else if (node->is_array()) {
      checkArrayPlace(token, node->size(), path, /*dash_allowed=*/false);
      std::size_t index = 0;
      arrayIndex(token, index);
      if (index == node->size()) break;  // a new last element
      node = &(*node)[index];
    } else if (node->is_null()) {
      break;  // a placeholder the assignment below turns into a container
    } else {
      refuse("path " + quoted(path) + ": cannot create a value below " + node->type_name());
    }
  }
  if (depth == tokens.size()) {
    node->get_ref<std::string&>() += value;  // the library's type error for a non-string
    return;
  }
  if (tokens.size() > kMaxJsonDepth) {
    refuse("path " + quoted(path) + ": the value would nest the document deeper than " +
           std::to_string(kMaxJsonDepth) + " levels");
  }
  // Missing levels below `node` start out null: the assignment creates an
  // array for a "0" token and an object for any other, one element or
  // member each, so nothing is padded.
  document[Json::json_pointer(path)] = value;
}

void applyStandardOperation(Json& document, const Json& operation, PlacementBudget& budget) {
  const std::string& op = operation.at("op").get_ref<const std::string&>();
  const std::string& path = stringMember(operation, op, "path");
  const Tokens tokens = pointerTokens(path);
  if (op == "add") {
    const Json& value = member(operation, op, "value");
    checkPlace(document, tokens, path);
    checkDepth(value, tokens, path);
    budget.chargeValue(value);
    execute(document, operation);
  } else if (op == "remove") {
    if (tokens.empty()) refuse("path '': the whole document cannot be removed");
    existing(document, tokens, path);
    execute(document, operation);
  } else if (op == "replace") {
    const Json& value = member(operation, op, "value");
    existing(document, tokens, path);
    checkDepth(value, tokens, path);
    budget.chargeValue(value);
    execute(document, operation);
  } else if (op == "move") {
    applyMove(document, operation, path, tokens);
  } else if (op == "copy") {
    const std::string& from = stringMember(operation, op, "from");
    const Json& source = existing(document, pointerTokens(from), from);
    checkPlace(document, tokens, path);
    checkDepth(source, tokens, path);
    budget.chargeValue(source);
    execute(document, operation);
  } else if (op == "test") {
    // Decided here: the library's own failure text would print the operation.
    if (existing(document, tokens, path) != member(operation, op, "value")) {
      refuse("test failed at path " + quoted(path));
    }
  } else {
    refuse("unknown operation '" + textForLog(op) + "'");
  }
}

}  // namespace orvi
