// The one way a JSON failure is reported: where parsing of outside input
// starts, the exception is caught and logged with the offending text, and
// the caller returns an empty result.
#pragma once

#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

// Logs "Error: <what>, original json: <text>" at error level, with the
// caller's source location; `text` (anything a std::string_view takes) is
// quoted as textForLog cuts it, never re-serialised from a parsed tree.
#define ORVI_LOG_JSON_ERROR(exception, text) \
  ORVI_LOGE("Error: %s, original json: %s", (exception).what(), ::orvi::textForLog(text).c_str())
