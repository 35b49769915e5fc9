#include "orvi/message_utils.h"

#include <exception>

#include "orvi/message/processor/wire_conversion.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {

MessageUtils::~MessageUtils() = default;

std::string MessageUtils::toolCalls2JsonString(const std::vector<ToolCall>& tool_calls) {
  idl::OrderedJson root = idl::OrderedJson::object();
  idl::detail::writeValue(root["tool_calls"], toWireList<idl::ToolCall>(tool_calls));
  return root.dump(-1, ' ', false, idl::OrderedJson::error_handler_t::replace);
}

std::vector<ToolCall> MessageUtils::toolCallsFromJsonString(const std::string& json) {
  // Error lines quote the input cut to a log line's worth (textForLog).
  std::vector<ToolCall> calls;
  try {
    const idl::Json root = parseUntrustedJson(json);
    const auto list = root.is_object() ? root.find("tool_calls") : root.end();
    if (list == root.end() || !list->is_array()) {
      ORVI_LOGE("tool calls json string is not array, json_str = %s", textForLog(json).c_str());
      return {};
    }
    for (const auto& element : *list) {
      if (!element.is_object()) {
        ORVI_LOGE("tool call json string is not object, json_str = %s", textForLog(json).c_str());
        continue;
      }
      if (element.empty()) {
        ORVI_LOGE("tool call json string is empty, json_str = %s", textForLog(json).c_str());
        continue;
      }
      calls.push_back(fromWire(element.get<idl::ToolCall>()));
    }
  } catch (const std::exception& e) {
    ORVI_LOGE("parse tool calls json string failed, error: %s", e.what());
  }
  return calls;
}

}  // namespace orvi
