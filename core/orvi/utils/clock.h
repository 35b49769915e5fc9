// The library's two clocks in milliseconds: the steady clock for durations
// and deadlines, the wall clock for times that are stored or shown.
#pragma once

#include <chrono>
#include <cstdint>

namespace orvi {

inline int64_t steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline int64_t wallMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace orvi
