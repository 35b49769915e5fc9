#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "engine_test_support.h"
#include "orvi/message/engine/checked_patch.h"
#include "orvi/utils/untrusted_json.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using nlohmann::json;
using test::assistantFrame;
using test::deltaFrame;
using test::payloadOf;

const char kExceptionLine[] = "MessageEngine patch failed, message id: a1, error: ";

// A delta frame whose json_patch is `patch_text` exactly as written.
MessagePtr rawDelta(const std::string& id, const std::string& patch_text) {
  const idl::OrderedJson content = {{"message_id", id}, {"json_patch", patch_text}};
  return MessageProcessor::parse(test::downlinkFrame("delta", json::parse(content.dump())));
}

// Streams one delta into an assistant message whose payload starts as
// `payload`; returns the payload after it.
std::string applyDelta(const std::string& payload, const std::string& patch_text) {
  MessageEngine engine("lc1");
  auto assistant = engine.enqueue(assistantFrame("a1", payload));
  EXPECT_TRUE(assistant);
  EXPECT_EQ(engine.enqueue(rawDelta("a1", patch_text)), assistant);
  return payloadOf(assistant);
}

// Every patch line is logged from a function named "patch".
void expectLinesFromPatch(const test::RecordingLogHandler& log) {
  for (const auto& line : log.lines()) {
    if (line.find("MessageEngine patch") != std::string::npos) {
      EXPECT_NE(line.find(":patch:"), std::string::npos) << line;
    }
  }
}

struct PatchCase {
  const char* name;
  const char* document;
  const char* patch;
  const char* expected;  // nullptr: refused, the payload stays byte for byte
  const char* error;     // for a refused one: part of the logged error
};

// RFC 6902: the examples of its appendix A, and what it refuses that the
// JSON library would otherwise do (or assert on) by itself.
const PatchCase kStandardCases[] = {
    {"A.1 add object member", R"({"foo":"bar"})", R"([{"op":"add","path":"/baz","value":"qux"}])",
     R"({"baz":"qux","foo":"bar"})", nullptr},
    {"A.2 add array element", R"({"foo":["bar","baz"]})",
     R"([{"op":"add","path":"/foo/1","value":"qux"}])", R"({"foo":["bar","qux","baz"]})", nullptr},
    {"A.3 remove object member", R"({"baz":"qux","foo":"bar"})",
     R"([{"op":"remove","path":"/baz"}])", R"({"foo":"bar"})", nullptr},
    {"A.4 remove array element", R"({"foo":["bar","qux","baz"]})",
     R"([{"op":"remove","path":"/foo/1"}])", R"({"foo":["bar","baz"]})", nullptr},
    {"A.5 replace", R"({"baz":"qux","foo":"bar"})",
     R"([{"op":"replace","path":"/baz","value":"boo"}])", R"({"baz":"boo","foo":"bar"})", nullptr},
    {"A.6 move value", R"({"foo":{"bar":"baz","waldo":"fred"},"qux":{"corge":"grault"}})",
     R"([{"op":"move","from":"/foo/waldo","path":"/qux/thud"}])",
     R"({"foo":{"bar":"baz"},"qux":{"corge":"grault","thud":"fred"}})", nullptr},
    {"A.7 move array element", R"({"foo":["all","grass","cows","eat"]})",
     R"([{"op":"move","from":"/foo/1","path":"/foo/3"}])",
     R"({"foo":["all","cows","eat","grass"]})", nullptr},
    {"A.8 test success", R"({"baz":"qux","foo":["a",2,"c"]})",
     R"([{"op":"test","path":"/baz","value":"qux"},{"op":"test","path":"/foo/1","value":2}])",
     R"({"baz":"qux","foo":["a",2,"c"]})", nullptr},
    {"A.9 test failure", R"({"baz":"qux"})", R"([{"op":"test","path":"/baz","value":"bar"}])",
     nullptr, "test failed at path '/baz'"},
    {"A.10 add nested member", R"({"foo":"bar"})",
     R"([{"op":"add","path":"/child","value":{"grandchild":{}}}])",
     R"({"child":{"grandchild":{}},"foo":"bar"})", nullptr},
    {"A.11 unrecognized members ignored", R"({"foo":"bar"})",
     R"([{"op":"add","path":"/baz","value":"qux","xyz":123}])", R"({"baz":"qux","foo":"bar"})",
     nullptr},
    {"A.12 add to nonexistent target", R"({"foo":"bar"})",
     R"([{"op":"add","path":"/baz/bat","value":"qux"}])", nullptr, "the parent does not exist"},
    {"A.14 escape ordering", R"({"/":9,"~1":10})", R"([{"op":"test","path":"/~01","value":10}])",
     R"({"/":9,"~1":10})", nullptr},
    {"A.15 string is not number", R"({"/":9,"~1":10})",
     R"([{"op":"test","path":"/~01","value":"10"}])", nullptr, "test failed"},
    {"A.16 add array value", R"({"foo":["bar"]})",
     R"([{"op":"add","path":"/foo/-","value":["abc","def"]}])", R"({"foo":["bar",["abc","def"]]})",
     nullptr},
    {"copy", R"({"a":{"b":1}})", R"([{"op":"copy","from":"/a","path":"/c"}])",
     R"({"a":{"b":1},"c":{"b":1}})", nullptr},
    {"add at the end index", R"({"l":[1,2]})", R"([{"op":"add","path":"/l/2","value":3}])",
     R"({"l":[1,2,3]})", nullptr},
    {"replace the whole document", R"({"a":1})", R"([{"op":"replace","path":"","value":[7]}])",
     R"([7])", nullptr},
    {"move onto itself", R"({"a":[1]})", R"([{"op":"move","from":"/a","path":"/a"}])",
     R"({"a":[1]})", nullptr},
    {"add below a string", R"({"s":"text"})", R"([{"op":"add","path":"/s/x","value":1}])", nullptr,
     "the parent is string, not an object or array"},
    {"add below a number", R"({"n":5})", R"([{"op":"add","path":"/n/0","value":1}])", nullptr,
     "the parent is number"},
    {"add below null", R"({"z":null})", R"([{"op":"add","path":"/z/k","value":1}])", nullptr,
     "the parent is null"},
    {"remove below a string", R"({"s":"text"})", R"([{"op":"remove","path":"/s/0"}])", nullptr,
     "does not exist"},
    {"add past the end", R"({"l":[1,2]})", R"([{"op":"add","path":"/l/3","value":3}])", nullptr,
     "array index 3 is out of range (size 2)"},
    {"add at a huge index", R"({"l":[]})",
     R"([{"op":"add","path":"/l/99999999999999999999999","value":3}])", nullptr, "out of range"},
    {"index with a leading zero", R"({"l":[1,2]})", R"([{"op":"add","path":"/l/01","value":3}])",
     nullptr, "'01' is not an array index"},
    {"dash in remove", R"({"l":[1]})", R"([{"op":"remove","path":"/l/-"}])", nullptr,
     "does not exist"},
    {"dash in replace", R"({"l":[1]})", R"([{"op":"replace","path":"/l/-","value":2}])", nullptr,
     "does not exist"},
    {"dash in from", R"({"l":[1]})", R"([{"op":"copy","from":"/l/-","path":"/c"}])", nullptr,
     "path '/l/-' does not exist"},
    {"dash inside a path", R"({"l":[{"a":1}]})", R"([{"op":"add","path":"/l/-/b","value":2}])",
     nullptr, "the parent does not exist"},
    {"copy from missing", R"({"a":1})", R"([{"op":"copy","from":"/x","path":"/c"}])", nullptr,
     "path '/x' does not exist"},
    {"move into its own child", R"({"a":{"b":1}})", R"([{"op":"move","from":"/a","path":"/a/c"}])",
     nullptr, "into its own child"},
    // After the remove, /l/1 is the string: the add half must be checked
    // against the document as the remove left it.
    {"move whose place shifts", R"({"l":["s0",{},"s2"]})",
     R"([{"op":"move","from":"/l/0","path":"/l/1/x"}])", nullptr, "the parent is string"},
    {"remove the whole document", R"({"a":1})", R"([{"op":"remove","path":""}])", nullptr,
     "the whole document cannot be removed"},
    {"remove missing", R"({"a":1})", R"([{"op":"remove","path":"/x"}])", nullptr, "does not exist"},
    {"replace missing", R"({"a":1})", R"([{"op":"replace","path":"/x","value":2}])", nullptr,
     "does not exist"},
    {"add without value", R"({"a":1})", R"([{"op":"add","path":"/b"}])", nullptr,
     "operation 'add' must have member 'value'"},
    {"move without from", R"({"a":1})", R"([{"op":"move","path":"/b"}])", nullptr,
     "must have member 'from'"},
    {"path not a pointer", R"({"a":1})", R"([{"op":"remove","path":"a"}])", nullptr,
     "[json.exception.parse_error.107]"},
    {"unknown op", R"({"a":1})", R"([{"op":"frobnicate","path":"/a"}])", nullptr,
     "unknown operation 'frobnicate'"},
    {"second op fails, first undone", R"({"a":1})",
     R"([{"op":"add","path":"/b","value":2},{"op":"remove","path":"/zz"}])", nullptr,
     "path '/zz' does not exist"},
};

TEST(DeltaPatchTest, StandardOperationsFollowRfc6902) {
  for (const auto& c : kStandardCases) {
    SCOPED_TRACE(c.name);
    test::ScopedLogCapture log;
    const std::string payload = applyDelta(c.document, c.patch);
    if (c.expected) {
      EXPECT_EQ(payload, json::parse(c.expected).dump());
      EXPECT_EQ(log->countContaining("MessageEngine patch"), 0u);
    } else {
      EXPECT_EQ(payload, c.document);
      EXPECT_EQ(log->countContaining(std::string(kExceptionLine)), 1u);
      EXPECT_EQ(log->countContaining(c.error), 1u) << c.error;
    }
    expectLinesFromPatch(*log);
  }
}

TEST(DeltaPatchTest, AppendExtendsOrCreatesStringsWithoutPaddingArrays) {
  const PatchCase cases[] = {
      {"extends", R"({"text":"Hel"})", R"([{"op":"append","path":"/text","value":"lo"}])",
       R"({"text":"Hello"})", nullptr},
      {"creates members and a first element", "{}",
       R"([{"op":"append","path":"/cards/0/title","value":"T"}])", R"({"cards":[{"title":"T"}]})",
       nullptr},
      {"creates below null", R"({"z":null})", R"([{"op":"append","path":"/z/k","value":"v"}])",
       R"({"z":{"k":"v"}})", nullptr},
      {"a new last element", R"({"l":["a"]})", R"([{"op":"append","path":"/l/1","value":"b"}])",
       R"({"l":["a","b"]})", nullptr},
      {"appends run before the replace", R"({"text":"a"})",
       R"([{"op":"replace","path":"/text","value":"final"},)"
       R"({"op":"append","path":"/text","value":"b"}])",
       R"({"text":"final"})", nullptr},
      {"multi-byte text", "{\"text\":\"\xe4\xbd\xa0\"}",
       R"([{"op":"append","path":"/text","value":"\u597d"},{"op":"append","path":"/text","value":"!"}])",
       "{\"text\":\"\xe4\xbd\xa0\xe5\xa5\xbd!\"}", nullptr},
      {"pads no array", R"({"list":["a","b","c"]})",
       R"([{"op":"append","path":"/list/3000000","value":"x"}])", nullptr,
       "array index 3000000 is out of range (size 3)"},
      {"dash", R"({"list":["a"]})", R"([{"op":"append","path":"/list/-","value":"x"}])", nullptr,
       "'-' names no element here"},
      {"below a string", R"({"s":"t"})", R"([{"op":"append","path":"/s/x","value":"x"}])", nullptr,
       "cannot create a value below string"},
      {"to a number", R"({"n":1})", R"([{"op":"append","path":"/n","value":"x"}])", nullptr,
       "[json.exception.type_error.303]"},
      {"path not a pointer", R"({"text":"k"})", R"([{"op":"append","path":"text","value":"x"}])",
       nullptr, "[json.exception.parse_error.107]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::ScopedLogCapture log;
    const std::string payload = applyDelta(c.document, c.patch);
    if (c.expected) {
      EXPECT_EQ(payload, json::parse(c.expected).dump());
      EXPECT_EQ(log->countContaining("MessageEngine patch"), 0u);
    } else {
      EXPECT_EQ(payload, c.document);
      EXPECT_EQ(log->countContaining(c.error), 1u) << c.error;
    }
    expectLinesFromPatch(*log);
  }
}

// A small delta must not make a deep tree or a huge one.
TEST(DeltaPatchTest, DeltasCannotDeepenOrBalloonTheDocument) {
  test::ScopedLogCapture log;
  ILogger::setLogLevel(LogLevel::Error);
  MessageEngine engine("lc1");
  auto assistant = engine.enqueue(assistantFrame("a1", R"({"d":{}})"));

  // Each delta adds 100 levels at the deepest point, until the next would
  // pass the limit.
  json nested = json::object();
  for (int i = 0; i < 99; ++i) nested = json{{"k", nested}};
  std::string path = "/d";
  size_t refused = 0;
  for (int round = 0; round < 5; ++round) {
    const std::string before = payloadOf(assistant);
    engine.enqueue(
        deltaFrame("a1", json::array({{{"op", "add"}, {"path", path + "/n"}, {"value", nested}}})));
    if (payloadOf(assistant) == before) {
      ++refused;
    } else {
      path += "/n";
      for (int i = 0; i < 99; ++i) path += "/k";
    }
    EXPECT_LE(jsonNestingDepth(payloadOf(assistant)), kMaxJsonDepth);
  }
  EXPECT_EQ(refused, 3u);  // 2 + 100 + 100 levels fit, a third 100 does not
  EXPECT_EQ(log->countContaining("deeper than 256 levels"), 3u);

  // An append may not create a path deeper than the limit either.
  std::string deep_path;
  for (size_t i = 0; i <= kMaxJsonDepth; ++i) deep_path += "/k";
  const std::string before = payloadOf(assistant);
  engine.enqueue(
      deltaFrame("a1", json::array({{{"op", "append"}, {"path", deep_path}, {"value", "x"}}})));
  EXPECT_EQ(payloadOf(assistant), before);
  EXPECT_EQ(log->countContaining("deeper than 256 levels"), 4u);

  // Copying the whole document into itself doubles it each time: within one
  // delta the placement budget stops the chain; across deltas the payload
  // limit does. Either way a refused delta leaves the payload as it was.
  auto big = engine.enqueue(assistantFrame("b1", json{{"x", std::string(1 << 20, 'x')}}.dump()));
  json doubling = json::array();
  for (int i = 0; i < 30; ++i) {
    doubling.push_back({{"op", "copy"}, {"from", ""}, {"path", "/c" + std::to_string(i)}});
  }
  const std::string big_before = payloadOf(big);
  engine.enqueue(deltaFrame("b1", doubling));
  EXPECT_EQ(payloadOf(big), big_before);
  EXPECT_EQ(log->countContaining("bytes of values"), 1u);

  // Across deltas each copy goes to a new member, so the payload doubles
  // (plus `,"cN":`) until the next one would pass the limit.
  size_t limited = 0;
  for (int i = 0; i < 6; ++i) {
    const std::string previous = payloadOf(big);
    const std::string path = "/c" + std::to_string(i);
    engine.enqueue(deltaFrame("b1", json::array({{{"op", "copy"}, {"from", ""}, {"path", path}}})));
    if (payloadOf(big) == previous) {
      ++limited;
    } else {
      EXPECT_EQ(payloadOf(big).size(), 2 * previous.size() + 6);
    }
    EXPECT_LE(payloadOf(big).size(), kMaxPatchedPayloadBytes);
  }
  EXPECT_EQ(limited, 3u);  // 2, 4 and 8 MiB fit; 16 MiB and a little does not
  EXPECT_EQ(log->countContaining("over the limit of 16777216"), 3u);
  expectLinesFromPatch(*log);
}

TEST(DeltaPatchTest, MalformedDeltasAreLoggedWithTheirOwnTextAndChangeNothing) {
  const std::string document = R"({"n":1,"text":"keep"})";
  const struct {
    const char* patch;
    const char* line;
  } cases[] = {
      {R"({"op":"append","path":"/text","value":"x"})",
       R"(msg(a1) failed, json_patch is not array, json_patch_str: {"op":"append","path":"/text","value":"x"})"},
      // The offending element is quoted as written, spacing and all.
      {R"([{"op":"append","path":"/text","value":"a,]}"} , {"op" : 7, "s":"x,]"}])",
       R"(json_patch op is not string, patch: {"op" : 7, "s":"x,]"})"},
      {R"([{"op":"append","path":"/text","value":"x"},"plain"])",
       R"(json_patch op is not string, patch: "plain")"},
      {R"([{"op":"append","path":3,  "value":"x"}])",
       R"(json_patch path is not string, patch: {"op":"append","path":3,  "value":"x"})"},
      {R"([{"op":"append","path":"/text","value":[ 5 ]}])",
       R"((op=append) value is not string, patch: {"op":"append","path":"/text","value":[ 5 ]})"},
      {R"(not json)", "error: [json.exception.parse_error.101]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.patch);
    test::ScopedLogCapture log;
    MessageEngine engine("lc1");
    auto assistant = engine.enqueue(assistantFrame("a1", document));
    engine.enqueue(rawDelta("a1", c.patch));
    EXPECT_EQ(payloadOf(assistant), document);
    EXPECT_EQ(log->countContaining(c.line), 1u) << c.line;
    expectLinesFromPatch(*log);

    // The kept document was not touched either: a good delta still applies.
    engine.enqueue(
        deltaFrame("a1", json::parse(R"([{"op":"append","path":"/text","value":"!"}])")));
    EXPECT_EQ(payloadOf(assistant), R"({"n":1,"text":"keep!"})");
  }

  // Long texts are quoted cut, not whole.
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  const std::string long_payload = json{{"n", 1}, {"text", std::string(3000, 'p')}}.dump();
  auto assistant = engine.enqueue(assistantFrame("a1", long_payload));
  engine.enqueue(rawDelta("a1", R"([{"op":"append","path":"/n","value":"x"}])"));
  EXPECT_EQ(payloadOf(assistant), long_payload);
  EXPECT_EQ(log->countContaining("more bytes)"), 1u);
}

TEST(DeltaPatchTest, DeltasWithoutAUsableTarget) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  EXPECT_FALSE(engine.enqueue(deltaFrame("ghost", json::array())));
  EXPECT_TRUE(log->has("MessageEngine patch failed, message ghost is not found"));

  auto broken = engine.enqueue(assistantFrame("a2", "not json"));
  engine.enqueue(deltaFrame("a2", json::parse(R"([{"op":"append","path":"/t","value":"x"}])")));
  EXPECT_EQ(payloadOf(broken), "not json");
  EXPECT_EQ(log->countContaining("MessageEngine patch failed, message id: a2"), 1u);

  engine.patch(nullptr);
  EXPECT_TRUE(log->has("MessageEngine patch failed, message is null"));
  engine.patch(test::userMessage("hi"));
  EXPECT_TRUE(log->has("MessageEngine patch failed, message type is not delta"));

  // A new prompt drops the old turn's answers: a late delta finds nothing.
  auto early = engine.enqueue(assistantFrame("a3", R"({"t":""})"));
  engine.enqueue(test::userMessage("next question"));
  EXPECT_FALSE(engine.enqueue(
      deltaFrame("a3", json::parse(R"([{"op":"append","path":"/t","value":"late"}])"))));
  EXPECT_EQ(payloadOf(early), R"({"t":""})");
  EXPECT_TRUE(log->has("MessageEngine patch failed, message a3 is not found"));
  expectLinesFromPatch(*log);
}

}  // namespace
}  // namespace orvi
