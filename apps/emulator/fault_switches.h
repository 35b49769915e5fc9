// The emulator's fault switches, shared between the thread that sets them
// (any host thread, through Emulator::setFaults) and the I/O thread that
// consumes them. Every "once" or counted switch is read and disarmed in one
// step, so a fault fires exactly as often as it was armed.
#pragma once

#include <mutex>

#include "emulator.h"

namespace orvi {
namespace emulator {

class FaultSwitches {
 public:
  explicit FaultSwitches(const Faults& faults) : faults_(faults) {}

  void set(const Faults& faults);
  Faults get() const;

  // True when this acknowledgement is to be dropped (one of drop_acks is used).
  bool takeDropAck();
  // True when an answer that has sent `deltas_sent` deltas is to be cut now;
  // *mid_frame tells how. Disarms the cut.
  bool takeCut(int32_t deltas_sent, bool* mid_frame);
  // The fragment to refuse of the first fragmented record, or -1; disarms it.
  int32_t takeSyncNackFragment();

 private:
  mutable std::mutex mutex_;
  Faults faults_;  // guarded by mutex_
};

}  // namespace emulator
}  // namespace orvi
