#include "orvi/message/engine/streaming_document.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvi {
namespace {

using nlohmann::json;

// Text over what needs care in JSON: quotes, backslashes, control
// characters, multi-byte UTF-8 (and U+2028), brackets and separators that a
// scan of the text could mistake for structure, "/" and "~" of pointers.
std::string randomText(std::mt19937& rng, size_t max_pieces) {
  static const char* const kPieces[] = {"a",
                                        "Z",
                                        "0",
                                        " ",
                                        "\"",
                                        "\\",
                                        "/",
                                        "~",
                                        "~0",
                                        "~1",
                                        "{",
                                        "}",
                                        "[",
                                        "]",
                                        ",",
                                        ":",
                                        "\n",
                                        "\t",
                                        "\r",
                                        "\b",
                                        "\x01",
                                        "\x1f",
                                        "\x7f",
                                        "\xc3\xa9",
                                        "\xe4\xbd\xa0",
                                        "\xf0\x9f\x98\x80",
                                        "\xe2\x80\xa8",
                                        "\\u0041"};
  std::uniform_int_distribution<size_t> piece(0, std::size(kPieces) - 1);
  std::string text;
  const size_t count = std::uniform_int_distribution<size_t>(0, max_pieces)(rng);
  for (size_t i = 0; i < count; ++i) text += kPieces[piece(rng)];
  return text;
}

json randomValue(std::mt19937& rng, int depth) {
  switch (std::uniform_int_distribution<int>(0, depth > 0 ? 5 : 3)(rng)) {
    case 0: return randomText(rng, 6);
    case 1: return std::uniform_int_distribution<int>(-5, 500)(rng);
    case 2: return nullptr;
    case 3: return 0.25 * std::uniform_int_distribution<int>(0, 9)(rng);
    case 4: {
      json object = json::object();
      const int members = std::uniform_int_distribution<int>(0, 3)(rng);
      for (int i = 0; i < members; ++i) object[randomText(rng, 3)] = randomValue(rng, depth - 1);
      return object;
    }
    default: {
      json array = json::array();
      const int elements = std::uniform_int_distribution<int>(0, 3)(rng);
      for (int i = 0; i < elements; ++i) array.push_back(randomValue(rng, depth - 1));
      return array;
    }
  }
}

template <typename T>
const T& pick(std::mt19937& rng, const std::vector<T>& items) {
  return items[std::uniform_int_distribution<size_t>(0, items.size() - 1)(rng)];
}

// The pointers of the document's strings and of every value below the root.
void collectPaths(const json& document, std::vector<std::string>& strings,
                  std::vector<std::string>& values) {
  std::vector<std::pair<const json*, std::string>> pending{{&document, ""}};
  while (!pending.empty()) {
    const auto [node, path] = pending.back();
    pending.pop_back();
    if (!path.empty()) values.push_back(path);
    if (node->is_string()) strings.push_back(path);
    if (node->is_object()) {
      for (auto it = node->begin(); it != node->end(); ++it) {
        pending.emplace_back(&it.value(), (json::json_pointer(path) / it.key()).to_string());
      }
    } else if (node->is_array()) {
      for (size_t i = 0; i < node->size(); ++i) {
        pending.emplace_back(&(*node)[i], path + "/" + std::to_string(i));
      }
    }
  }
}

struct Delta {
  json operations = json::array();
  bool appends_only = true;  // every operation appends to a string that exists
};

// Mostly appends to existing strings, as a streamed answer sends them, mixed
// with every other operation, valid or not (a failing "test", a place below
// a string, a move into its own child, an op that is not a string).
Delta randomDelta(std::mt19937& rng, const json& document) {
  std::vector<std::string> strings;
  std::vector<std::string> values;
  collectPaths(document, strings, values);
  std::vector<std::string> places = values;
  places.push_back("");
  const auto fresh = [&rng](const std::string& base) {
    return (json::json_pointer(base) / (randomText(rng, 2) + "n")).to_string();
  };
  Delta delta;
  const int count = std::uniform_int_distribution<int>(1, 3)(rng);
  for (int i = 0; i < count; ++i) {
    const int kind = std::uniform_int_distribution<int>(0, 19)(rng);
    json operation;
    if (kind < 12 && !strings.empty()) {
      operation = {{"op", "append"}, {"path", pick(rng, strings)}, {"value", randomText(rng, 8)}};
    } else if (values.empty() || strings.empty()) {
      delta.appends_only = false;
      operation = {{"op", "append"}, {"path", fresh("")}, {"value", randomText(rng, 4)}};
    } else {
      delta.appends_only = false;
      switch (kind % 8) {
        case 0:  // creates, or is refused below a string or a number
          operation = {{"op", "append"}, {"path", fresh(pick(rng, places))}, {"value", "x"}};
          break;
        case 1:
          operation = {
              {"op", "add"}, {"path", fresh(pick(rng, places))}, {"value", randomValue(rng, 2)}};
          break;
        case 2:
          operation = {
              {"op", "replace"}, {"path", pick(rng, values)}, {"value", randomValue(rng, 1)}};
          break;
        case 3: operation = {{"op", "remove"}, {"path", pick(rng, values)}}; break;
        case 4:
          operation = {{"op", "copy"}, {"from", pick(rng, strings)}, {"path", fresh("")}};
          break;
        case 5:
          operation = {
              {"op", "move"}, {"from", pick(rng, values)}, {"path", fresh(pick(rng, places))}};
          break;
        case 6: operation = {{"op", "test"}, {"path", pick(rng, values)}, {"value", "x"}}; break;
        default: operation = {{"op", 7}}; break;
      }
    }
    delta.operations.push_back(operation);
  }
  return delta;
}

// Two documents take the same deltas: one keeps its state from delta to
// delta and splices appends into the text, the other is reset before each
// delta, so it parses the payload and dumps the whole document every time.
// Their payloads must stay byte for byte the same, and each must be the
// JSON library's own compact dump of what it holds.
TEST(StreamingDocumentTest, SplicedTextEqualsAFullDumpUnderRandomDeltas) {
  for (const unsigned seed : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    json initial = {{"text", randomText(rng, 10)},
                    {"cards", json::array({{{"title", randomText(rng, 4)}, {"body", ""}},
                                           {{"title", "t"}, {"n", 1}}})},
                    {randomText(rng, 3) + "k", {{"inner", randomText(rng, 4)}}}};
    // The server's text need not be compact.
    std::string incremental = initial.dump(2);
    std::string reference = incremental;
    StreamingDocument kept;
    StreamingDocument fresh;
    size_t spliced = 0;
    bool compact = false;  // the kept payload has been dumped once
    for (int round = 0; round < 1500; ++round) {
      const json current = json::parse(reference);
      const Delta delta = randomDelta(rng, current);
      const std::string patch_text = delta.operations.dump();
      SCOPED_TRACE(patch_text);

      // With room reserved, an edit in place keeps the buffer; a full dump
      // replaces it.
      incremental.reserve(incremental.size() + 4096);
      const char* buffer = incremental.data();
      const std::string before = incremental;
      bool kept_failed = false;
      bool fresh_failed = false;
      try {
        kept.apply(patch_text, incremental);
      } catch (const std::exception&) {
        kept_failed = true;
      }
      fresh.reset();
      try {
        fresh.apply(patch_text, reference);
      } catch (const std::exception&) {
        fresh_failed = true;
      }

      ASSERT_EQ(kept_failed, fresh_failed);
      ASSERT_EQ(incremental, reference);
      if (kept_failed) {
        ASSERT_EQ(incremental, before);
      } else {
        ASSERT_EQ(incremental, json::parse(incremental).dump());
      }
      if (compact && delta.appends_only && !kept_failed) {
        EXPECT_EQ(incremental.data(), buffer);
        ++spliced;
      }
      compact = compact || !kept_failed;
    }
    EXPECT_GT(spliced, 300u);
  }
}

}  // namespace
}  // namespace orvi
