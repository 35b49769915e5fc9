// Reading a wire record from JSON text inside a wrapper: JSON errors are
// caught here, logged with the offending text, and reported as false.
#pragma once

#include <exception>
#include <string>

#include "orvi/message/processor/wire_records.h"
#include "orvi/utils/json_error.h"

namespace orvi {

template <typename Record>
bool readWireText(const std::string& text, Record& record) {
  try {
    record = idl::fromText<Record>(text);
    return true;
  } catch (const std::exception& e) {
    ORVI_LOG_JSON_ERROR(e, text);
    return false;
  }
}

}  // namespace orvi
