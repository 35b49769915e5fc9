// Tool-call JSON, in nlohmann's style: whatever list arbitrary text reads
// as must write out and read back to the same list.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "orvi/message_utils.h"

namespace {

bool sameCalls(const std::vector<orvi::ToolCall>& a, const std::vector<orvi::ToolCall>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i].name != b[i].name || a[i].properties != b[i].properties ||
        a[i].compose_type != b[i].compose_type || a[i].depends != b[i].depends ||
        a[i].extra != b[i].extra) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvi::fuzz::quietLogs();
  const std::vector<orvi::ToolCall> calls =
      orvi::MessageUtils::toolCallsFromJsonString(orvi::fuzz::asText(data, size));
  const std::string written = orvi::MessageUtils::toolCalls2JsonString(calls);
  const std::vector<orvi::ToolCall> again = orvi::MessageUtils::toolCallsFromJsonString(written);
  if (!sameCalls(calls, again)) std::abort();
  if (orvi::MessageUtils::toolCalls2JsonString(again) != written) std::abort();
  return 0;
}
