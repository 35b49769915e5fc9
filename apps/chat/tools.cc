#include "tools.h"

#include <functional>

#include <nlohmann/json.hpp>

namespace orvi_chat {
namespace {

using nlohmann::json;

orvi::ToolCallResult failed(const orvi::ToolCall& call, const std::string& reason) {
  return orvi::ToolCallResult(call.name, std::string(), call.id, orvi::ToolResultStatus::Failed,
                              reason, 1);
}

// Same city, same forecast: the demo's transcript stays stable run to run.
json fakeForecast(const std::string& city) {
  static const char* const kSkies[] = {"sunny", "cloudy", "light rain", "windy", "clear"};
  const size_t seed = std::hash<std::string>()(city);
  return {{"city", city},
          {"sky", kSkies[seed % (sizeof(kSkies) / sizeof(kSkies[0]))]},
          {"temperature_c", static_cast<int>(8 + seed % 20)}};
}

}  // namespace

orvi::ToolCallResult runTool(const orvi::ToolCall& call) {
  if (call.name != "get_weather") return failed(call, "unknown tool '" + call.name + "'");
  const json arguments = json::parse(call.properties, nullptr, false);
  if (!arguments.is_object()) return failed(call, "arguments are not a JSON object");
  const auto city = arguments.find("city");
  if (city == arguments.end() || !city->is_string() || city->get<std::string>().empty()) {
    return failed(call, "get_weather needs a \"city\"");
  }
  return orvi::ToolCallResult(call.name, fakeForecast(city->get<std::string>()).dump(), call.id,
                              orvi::ToolResultStatus::Succeed, std::nullopt, 0);
}

orvi::InputMessage toolReply(const std::string& assistant_message_id,
                             const std::vector<orvi::ToolCallResult>& results) {
  bool all_succeeded = true;
  for (const auto& result : results) {
    all_succeeded = all_succeeded && result.status == orvi::ToolResultStatus::Succeed;
  }
  orvi::InputMessage reply;
  reply.tool_result = orvi::ToolResult(
      {}, results, all_succeeded ? orvi::ToolResultStatus::Succeed : orvi::ToolResultStatus::Failed,
      std::nullopt, all_succeeded ? 0 : 1);
  reply.reply_message_id = assistant_message_id;
  return reply;
}

}  // namespace orvi_chat
