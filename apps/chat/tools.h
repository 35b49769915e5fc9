// The tools orvi-chat offers the assistant. There is one, "get_weather",
// a fake that answers from the city name alone, so that a tool-call turn
// can be shown without a weather service.
#pragma once

#include <orvi/orvi.h>

#include <vector>

namespace orvi_chat {

// Runs one call. An unknown tool or arguments that are not a JSON object
// give a result with status Failed and the reason in err_msg.
orvi::ToolCallResult runTool(const orvi::ToolCall& call);

// The reply that carries the results of all `calls` of one assistant message.
orvi::InputMessage toolReply(const std::string& assistant_message_id,
                             const std::vector<orvi::ToolCallResult>& results);

}  // namespace orvi_chat
