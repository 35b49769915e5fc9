// Conversion of tool-call lists to and from the JSON text the wire uses:
// {"tool_calls":[{"name":...,"properties":...,"compose_type":"node"}]}.
#pragma once

#include <string>
#include <vector>

#include "orvi/export.h"
#include "orvi/message_types.h"

namespace orvi {

class ORVI_EXPORT MessageUtils {
 public:
  MessageUtils() = default;
  virtual ~MessageUtils();

  static std::string toolCalls2JsonString(const std::vector<ToolCall>& tool_calls);
  // Bad input gives an empty or shortened list and an error line per fault.
  static std::vector<ToolCall> toolCallsFromJsonString(const std::string& json);
};

}  // namespace orvi
