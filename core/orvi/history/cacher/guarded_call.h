// How the history calls into the host's ISqlExecutor: whatever the host's
// code throws stays in the history layer, logged as "<what> failed:
// <reason>", and counts as a failure (false), like a false result.
#pragma once

#include <exception>

#include "orvi/utils/logger.h"

namespace orvi {

template <typename Call>
bool guardedCall(const char* what, Call&& call) {
  try {
    return call();
  } catch (const std::exception& e) {
    ORVI_LOGE("%s failed: %s", what, e.what());
  } catch (...) {
    ORVI_LOGE("%s failed with an unknown exception", what);
  }
  return false;
}

}  // namespace orvi
