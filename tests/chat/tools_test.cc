// The fake get_weather tool and the reply that carries tool results.
#include "tools.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace orvi_chat {
namespace {

orvi::ToolCall call(const std::string& name, const std::string& properties) {
  return orvi::ToolCall(name, properties, "call-1", orvi::ToolCallComposeType::Node, std::nullopt,
                        std::nullopt);
}

TEST(ChatToolsTest, WeatherNeedsACityAndAnswersTheSameForTheSameCity) {
  const orvi::ToolCallResult paris = runTool(call("get_weather", R"({"city":"Paris"})"));
  ASSERT_EQ(paris.status, orvi::ToolResultStatus::Succeed) << paris.err_msg.value_or("");
  EXPECT_EQ(paris.name, "get_weather");
  EXPECT_EQ(paris.id, "call-1");
  const auto forecast = nlohmann::json::parse(paris.result);
  EXPECT_EQ(forecast.at("city"), "Paris");
  EXPECT_TRUE(forecast.at("sky").is_string());
  EXPECT_TRUE(forecast.at("temperature_c").is_number_integer());
  EXPECT_EQ(runTool(call("get_weather", R"({"city":"Paris"})")).result, paris.result);

  struct Case {
    std::string name, properties, reason;
  };
  const Case refused[] = {
      {"get_weather", "Paris", "not a JSON object"},
      {"get_weather", R"(["Paris"])", "not a JSON object"},
      {"get_weather", R"({"town":"Paris"})", "needs a \"city\""},
      {"get_weather", R"({"city":""})", "needs a \"city\""},
      {"get_weather", R"({"city":7})", "needs a \"city\""},
      {"book_flight", R"({"city":"Paris"})", "unknown tool 'book_flight'"},
  };
  for (const auto& test : refused) {
    const orvi::ToolCallResult result = runTool(call(test.name, test.properties));
    EXPECT_EQ(result.status, orvi::ToolResultStatus::Failed) << test.properties;
    EXPECT_EQ(result.name, test.name);
    ASSERT_TRUE(result.err_msg.has_value()) << test.properties;
    EXPECT_NE(result.err_msg->find(test.reason), std::string::npos) << *result.err_msg;
  }
}

TEST(ChatToolsTest, ReplyCarriesEveryResultAndFailsWhenOneFailed) {
  const auto good = runTool(call("get_weather", R"({"city":"Oslo"})"));
  const auto bad = runTool(call("get_weather", "{}"));

  const orvi::InputMessage ok = toolReply("am-1", {good});
  ASSERT_TRUE(ok.tool_result.has_value());
  EXPECT_EQ(ok.reply_message_id, "am-1");
  EXPECT_EQ(ok.tool_result->status, orvi::ToolResultStatus::Succeed);
  ASSERT_EQ(ok.tool_result->tool_call_result.size(), 1u);
  EXPECT_EQ(ok.tool_result->tool_call_result[0].result, good.result);
  EXPECT_FALSE(ok.content.has_value());  // a reply is not a prompt

  const orvi::InputMessage mixed = toolReply("am-2", {good, bad});
  EXPECT_EQ(mixed.tool_result->status, orvi::ToolResultStatus::Failed);
  EXPECT_EQ(mixed.tool_result->tool_call_result.size(), 2u);
}

}  // namespace
}  // namespace orvi_chat
