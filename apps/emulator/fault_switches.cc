#include "fault_switches.h"

namespace orvi {
namespace emulator {

void FaultSwitches::set(const Faults& faults) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_ = faults;
}

Faults FaultSwitches::get() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return faults_;
}

bool FaultSwitches::takeDropAck() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (faults_.drop_acks <= 0) return false;
  --faults_.drop_acks;
  return true;
}

bool FaultSwitches::takeCut(int32_t deltas_sent, bool* mid_frame) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (faults_.cut_after_deltas < 0 || deltas_sent < faults_.cut_after_deltas) return false;
  faults_.cut_after_deltas = -1;
  *mid_frame = faults_.cut_mid_frame;
  return true;
}

int32_t FaultSwitches::takeSyncNackFragment() {
  std::lock_guard<std::mutex> lock(mutex_);
  const int32_t fragment = faults_.sync_nack_fragment;
  faults_.sync_nack_fragment = -1;
  return fragment;
}

}  // namespace emulator
}  // namespace orvi
