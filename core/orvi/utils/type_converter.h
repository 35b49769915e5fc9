// Conversions between public enums and their wire forms where the two
// differ: file source texts, and values the wire does not know, which fall
// back to a safe member instead of travelling as garbage.
#pragma once

#include <optional>
#include <string>

#include "orvi/enums.h"

namespace orvi {

// "vid", "uri", "url" (exact, case-sensitive); anything else is logged and
// read as Url.
FileSourceType toFileSourceType(const std::string& text);
// The text of a source type; "unknown" for values outside the enum.
std::string fileSourceTypeText(FileSourceType type);

// Node, Cluster and Draft map to themselves; anything else to Node.
ToolCallComposeType normalizeComposeType(ToolCallComposeType type);

// Succeed, Failed and Cancelled map to themselves; anything else to Failed,
// so a result the wire cannot express is never reported as a success.
ToolResultStatus normalizeToolResultStatus(ToolResultStatus status);

// The wire text of a run mode: "callee", "caller", or none.
std::optional<std::string> runModeText(RunMode mode);

}  // namespace orvi
