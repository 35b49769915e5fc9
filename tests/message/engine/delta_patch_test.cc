#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "engine_test_support.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using nlohmann::json;
using test::assistantFrame;
using test::deltaFrame;
using test::payloadOf;

// Streams `operations` as one delta into an assistant message whose payload
// starts as `document`; returns the payload after it, parsed.
json applyDelta(const json& document, const json& operations) {
  MessageEngine engine("lc1");
  auto assistant = engine.enqueue(assistantFrame("a1", document.dump()));
  EXPECT_TRUE(assistant);
  auto patched = engine.enqueue(deltaFrame("a1", operations));
  EXPECT_EQ(patched, assistant);
  return json::parse(payloadOf(assistant));
}

struct PatchCase {
  const char* name;
  const char* document;
  const char* patch;
  const char* expected;  // nullptr: the delta must fail and change nothing
};

// The examples of RFC 6902, appendix A, plus copy and unknown operations,
// each driven through a real delta frame.
const PatchCase kStandardCases[] = {
    {"A.1 add object member", R"({"foo":"bar"})", R"([{"op":"add","path":"/baz","value":"qux"}])",
     R"({"baz":"qux","foo":"bar"})"},
    {"A.2 add array element", R"({"foo":["bar","baz"]})",
     R"([{"op":"add","path":"/foo/1","value":"qux"}])", R"({"foo":["bar","qux","baz"]})"},
    {"A.3 remove object member", R"({"baz":"qux","foo":"bar"})",
     R"([{"op":"remove","path":"/baz"}])", R"({"foo":"bar"})"},
    {"A.4 remove array element", R"({"foo":["bar","qux","baz"]})",
     R"([{"op":"remove","path":"/foo/1"}])", R"({"foo":["bar","baz"]})"},
    {"A.5 replace", R"({"baz":"qux","foo":"bar"})",
     R"([{"op":"replace","path":"/baz","value":"boo"}])", R"({"baz":"boo","foo":"bar"})"},
    {"A.6 move value", R"({"foo":{"bar":"baz","waldo":"fred"},"qux":{"corge":"grault"}})",
     R"([{"op":"move","from":"/foo/waldo","path":"/qux/thud"}])",
     R"({"foo":{"bar":"baz"},"qux":{"corge":"grault","thud":"fred"}})"},
    {"A.7 move array element", R"({"foo":["all","grass","cows","eat"]})",
     R"([{"op":"move","from":"/foo/1","path":"/foo/3"}])",
     R"({"foo":["all","cows","eat","grass"]})"},
    {"A.8 test success", R"({"baz":"qux","foo":["a",2,"c"]})",
     R"([{"op":"test","path":"/baz","value":"qux"},{"op":"test","path":"/foo/1","value":2}])",
     R"({"baz":"qux","foo":["a",2,"c"]})"},
    {"A.9 test failure", R"({"baz":"qux"})", R"([{"op":"test","path":"/baz","value":"bar"}])",
     nullptr},
    {"A.10 add nested member", R"({"foo":"bar"})",
     R"([{"op":"add","path":"/child","value":{"grandchild":{}}}])",
     R"({"foo":"bar","child":{"grandchild":{}}})"},
    {"A.11 unrecognized members ignored", R"({"foo":"bar"})",
     R"([{"op":"add","path":"/baz","value":"qux","xyz":123}])", R"({"foo":"bar","baz":"qux"})"},
    {"A.12 add to nonexistent target", R"({"foo":"bar"})",
     R"([{"op":"add","path":"/baz/bat","value":"qux"}])", nullptr},
    {"A.14 escape ordering", R"({"/":9,"~1":10})", R"([{"op":"test","path":"/~01","value":10}])",
     R"({"/":9,"~1":10})"},
    {"A.15 string is not number", R"({"/":9,"~1":10})",
     R"([{"op":"test","path":"/~01","value":"10"}])", nullptr},
    {"A.16 add array value", R"({"foo":["bar"]})",
     R"([{"op":"add","path":"/foo/-","value":["abc","def"]}])", R"({"foo":["bar",["abc","def"]]})"},
    {"copy", R"({"a":{"b":1}})", R"([{"op":"copy","from":"/a","path":"/c"}])",
     R"({"a":{"b":1},"c":{"b":1}})"},
    {"copy from missing", R"({"a":1})", R"([{"op":"copy","from":"/x","path":"/c"}])", nullptr},
    {"remove missing", R"({"a":1})", R"([{"op":"remove","path":"/x"}])", nullptr},
    {"replace missing", R"({"a":1})", R"([{"op":"replace","path":"/x","value":2}])", nullptr},
    {"unknown op", R"({"a":1})", R"([{"op":"frobnicate","path":"/a"}])", nullptr},
    {"second op fails, first undone", R"({"a":1})",
     R"([{"op":"add","path":"/b","value":2},{"op":"remove","path":"/zz"}])", nullptr},
};

TEST(DeltaPatchTest, StandardOperationsFollowRfc6902) {
  for (const auto& c : kStandardCases) {
    SCOPED_TRACE(c.name);
    test::ScopedLogCapture log;
    const json document = json::parse(c.document);
    const json result = applyDelta(document, json::parse(c.patch));
    if (c.expected) {
      EXPECT_EQ(result, json::parse(c.expected));
      EXPECT_EQ(log->countContaining("MessageEngine patch failed"), 0u);
    } else {
      EXPECT_EQ(result, document);
      EXPECT_EQ(log->countContaining("MessageEngine patch failed, message id: a1, error: "), 1u);
    }
  }
}

TEST(DeltaPatchTest, AppendExtendsOrCreatesStringsAndRunsBeforeStandardOperations) {
  EXPECT_EQ(applyDelta({{"text", "Hel"}},
                       json::parse(R"([{"op":"append","path":"/text","value":"lo"}])")),
            json({{"text", "Hello"}}));
  EXPECT_EQ(applyDelta(json::object(),
                       json::parse(R"([{"op":"append","path":"/cards/0/title","value":"T"}])")),
            json::parse(R"({"cards":[{"title":"T"}]})"));  // as pointer assignment builds it
  // "replace" comes first in the array, but every append runs before it.
  EXPECT_EQ(
      applyDelta({{"text", "a"}}, json::parse(R"([{"op":"replace","path":"/text","value":"final"},)"
                                              R"({"op":"append","path":"/text","value":"b"}])")),
      json({{"text", "final"}}));
  // Multi-byte text survives the appends.
  EXPECT_EQ(applyDelta({{"text", "\xe4\xbd\xa0"}},
                       json::parse(R"([{"op":"append","path":"/text","value":"\u597d"},)"
                                   R"({"op":"append","path":"/text","value":"!"}])")),
            json({{"text", "\xe4\xbd\xa0\xe5\xa5\xbd!"}}));
}

TEST(DeltaPatchTest, BadDeltasAreLoggedAndChangeNothing) {
  const json document = {{"text", "keep"}, {"n", 1}};
  const struct {
    const char* patch;
    const char* line;
  } cases[] = {
      {R"({"op":"append","path":"/text","value":"x"})", "json_patch is not array"},
      {R"([{"op":"append","path":"/text","value":"x"},{"op":7}])", "json_patch op is not string"},
      {R"([{"op":"append","path":"/text","value":"x"},"plain"])", "json_patch op is not string"},
      {R"([{"op":"append","path":3,"value":"x"}])", "json_patch path is not string"},
      {R"([{"op":"append","path":"/text","value":5}])", "(op=append) value is not string"},
      {R"([{"op":"append","path":"/text","value":"x"},{"op":"append","path":"/n","value":"y"}])",
       "error: [json.exception.type_error.303]"},
      {R"([{"op":"append","path":"text","value":"x"}])", "error: [json.exception.parse_error.107]"},
      {R"([{"op":"append","path":"/text","value":"x"},{"op":"test","path":"/n","value":2}])",
       "error: "},
      {R"(not json)", "error: [json.exception.parse_error.101]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.patch);
    test::ScopedLogCapture log;
    MessageEngine engine("lc1");
    auto assistant = engine.enqueue(assistantFrame("a1", document.dump()));
    idl::OrderedJson content = {{"message_id", "a1"}, {"json_patch", c.patch}};
    engine.enqueue(
        MessageProcessor::parse(test::downlinkFrame("delta", json::parse(content.dump()))));
    EXPECT_EQ(json::parse(payloadOf(assistant)), document);
    EXPECT_EQ(log->countContaining(c.line), 1u) << c.line;

    // The kept document was not touched either: a good delta still applies.
    engine.enqueue(
        deltaFrame("a1", json::parse(R"([{"op":"append","path":"/text","value":"!"}])")));
    EXPECT_EQ(json::parse(payloadOf(assistant))["text"], "keep!");
  }
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
}

}  // namespace
}  // namespace orvi
