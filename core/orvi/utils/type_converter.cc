#include "orvi/utils/type_converter.h"

#include "orvi/utils/logger.h"

namespace orvi {

FileSourceType toFileSourceType(const std::string& text) {
  if (text == "vid") return FileSourceType::Vid;
  if (text == "uri") return FileSourceType::Uri;
  if (text == "url") return FileSourceType::Url;
  ORVI_LOGE("unknown file source type: %s, default as FileSourceType::Url", text.c_str());
  return FileSourceType::Url;
}

std::string fileSourceTypeText(FileSourceType type) {
  switch (type) {
    case FileSourceType::Vid: return "vid";
    case FileSourceType::Uri: return "uri";
    case FileSourceType::Url: return "url";
  }
  return "unknown";
}

ToolCallComposeType normalizeComposeType(ToolCallComposeType type) {
  switch (type) {
    case ToolCallComposeType::Node:
    case ToolCallComposeType::Cluster:
    case ToolCallComposeType::Draft: return type;
  }
  return ToolCallComposeType::Node;
}

ToolResultStatus normalizeToolResultStatus(ToolResultStatus status) {
  switch (status) {
    case ToolResultStatus::Succeed:
    case ToolResultStatus::Failed:
    case ToolResultStatus::Cancelled: return status;
  }
  return ToolResultStatus::Failed;
}

std::optional<std::string> runModeText(RunMode mode) {
  switch (mode) {
    case RunMode::Callee: return std::string("callee");
    case RunMode::Caller: return std::string("caller");
    case RunMode::Default: break;
  }
  return std::nullopt;
}

}  // namespace orvi
