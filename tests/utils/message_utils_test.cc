#include "orvi/message_utils.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvi/utils/type_converter.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

TEST(MessageUtilsTest, ToolCallsAreWrittenInWireShape) {
  EXPECT_EQ(MessageUtils::toolCalls2JsonString({}), R"({"tool_calls":[]})");

  const std::vector<ToolCall> calls = {
      ToolCall("search", R"({"q":"x"})", "host-handle", ToolCallComposeType::Draft,
               std::vector<std::string>{"a", "b"}, std::string("e")),
      ToolCall("plain", "", "", static_cast<ToolCallComposeType>(7), std::nullopt, std::nullopt),
  };
  EXPECT_EQ(
      MessageUtils::toolCalls2JsonString(calls),
      R"({"tool_calls":[{"name":"search","properties":"{\"q\":\"x\"}","compose_type":"draft",)"
      R"("depends":["a","b"],"extra":"e"},)"
      R"({"name":"plain","properties":"","compose_type":"node"}]})");

  const auto back =
      MessageUtils::toolCallsFromJsonString(MessageUtils::toolCalls2JsonString(calls));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].name, "search");
  EXPECT_EQ(back[0].properties, R"({"q":"x"})");
  EXPECT_EQ(back[0].compose_type, ToolCallComposeType::Draft);
  EXPECT_EQ(*back[0].depends, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(*back[0].extra, "e");
  EXPECT_TRUE(back[0].id.empty());  // a host handle never travels
  EXPECT_EQ(back[1].compose_type, ToolCallComposeType::Node);
  EXPECT_FALSE(back[1].depends || back[1].extra);
}

TEST(MessageUtilsTest, BadToolCallTextGivesShortenedListsAndOneLinePerFault) {
  test::ScopedLogCapture log;
  EXPECT_TRUE(MessageUtils::toolCallsFromJsonString("").empty());
  EXPECT_EQ(log->countContaining("parse tool calls json string failed, error: "), 1u);

  const std::string object_list = R"({"tool_calls": {"name": "x"}})";
  EXPECT_TRUE(MessageUtils::toolCallsFromJsonString(object_list).empty());
  EXPECT_TRUE(log->has("tool calls json string is not array, json_str = " + object_list));
  EXPECT_TRUE(MessageUtils::toolCallsFromJsonString("[1]").empty());

  const std::string mixed = R"({"tool_calls": [3, {}, {"name": "only"}]})";
  const auto calls = MessageUtils::toolCallsFromJsonString(mixed);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].name, "only");
  EXPECT_EQ(log->count("tool call json string is not object, json_str = " + mixed), 1u);
  EXPECT_EQ(log->count("tool call json string is empty, json_str = " + mixed), 1u);

  // A wrong type inside an element ends the read; what was read stays.
  const auto partial = MessageUtils::toolCallsFromJsonString(
      R"({"tool_calls": [{"name": "a"}, {"name": 5}, {"name": "c"}]})");
  ASSERT_EQ(partial.size(), 1u);
  EXPECT_EQ(partial[0].name, "a");
}

// Tool-call text can come from the server: deep nesting is refused before
// parsing, and error lines quote long texts cut, with the length of the rest.
TEST(MessageUtilsTest, HostileToolCallTextIsRefusedAndQuotedCut) {
  test::ScopedLogCapture log;
  const std::string deep = R"({"tool_calls":)" + std::string(100000, '[') + "}";
  EXPECT_TRUE(MessageUtils::toolCallsFromJsonString(deep).empty());
  EXPECT_EQ(log->count("parse tool calls json string failed, error: JSON nested deeper than 256 "
                       "levels at byte 269, refused"),
            1u);

  const std::string padding(10000, 'p');
  const struct {
    std::string text;
    std::string line;
  } cases[] = {
      {R"({"pad":")" + padding + R"(","tool_calls":{}})", "tool calls json string is not array"},
      {R"({"pad":")" + padding + R"(","tool_calls":[1]})", "tool call json string is not object"},
      {R"({"pad":")" + padding + R"(","tool_calls":[{}]})", "tool call json string is empty"},
  };
  for (const auto& c : cases) {
    log->clear();
    EXPECT_TRUE(MessageUtils::toolCallsFromJsonString(c.text).empty());
    EXPECT_EQ(log->count(c.line + ", json_str = " + c.text.substr(0, 2048) + "...(" +
                         std::to_string(c.text.size() - 2048) + " more bytes)"),
              1u)
        << c.line;
  }
}

TEST(TypeConverterTest, FileSourceTextsAndFallbacks) {
  test::ScopedLogCapture log;
  EXPECT_EQ(toFileSourceType("vid"), FileSourceType::Vid);
  EXPECT_EQ(toFileSourceType("uri"), FileSourceType::Uri);
  EXPECT_EQ(toFileSourceType("url"), FileSourceType::Url);
  EXPECT_TRUE(log->lines().empty());
  EXPECT_EQ(toFileSourceType("URL"), FileSourceType::Url);
  EXPECT_TRUE(log->has("unknown file source type: URL, default as FileSourceType::Url"));
  EXPECT_EQ(fileSourceTypeText(FileSourceType::Uri), "uri");
  EXPECT_EQ(fileSourceTypeText(static_cast<FileSourceType>(9)), "unknown");
  EXPECT_EQ(normalizeToolResultStatus(static_cast<ToolResultStatus>(5)), ToolResultStatus::Failed);
  EXPECT_EQ(normalizeToolResultStatus(ToolResultStatus::Cancelled), ToolResultStatus::Cancelled);
  EXPECT_EQ(*runModeText(RunMode::Caller), "caller");
  EXPECT_FALSE(runModeText(RunMode::Default));
}

}  // namespace
}  // namespace orvi
