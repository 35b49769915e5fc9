// SyncSendQueue holds the records waiting to be sent, in arrival order, in
// two parts: `incoming` as the host pushed them, and `ready` at its front,
// compressed and checked by the send round and measured for batching.
// Taking from the front and adding at the back are O(1).
//
// It counts what it holds (content bytes plus a fixed allowance per record)
// against a cap, so that a channel that cannot send does not grow without
// end; the caller refuses records that would not fit.
//
// Not thread-safe: SyncQos guards it with its mutex.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "orvi/sync/sync_message_processor.h"

namespace orvi {

class SyncSendQueue {
 public:
  // Per-record allowance for the envelope and keys, both in batching and
  // in the memory count.
  static constexpr int64_t kRecordOverheadBytes = 300;

  struct Batch {
    std::vector<idl::SyncInfo> records;
    bool oversized = false;  // one record that alone reaches the budget
    int64_t reserved = 0;    // the running total the walk reached
  };

  explicit SyncSendQueue(int64_t max_bytes) : max_bytes_(max_bytes) {}

  static int64_t costOf(const idl::SyncInfo& record) {
    return static_cast<int64_t>(record.content.size()) + kRecordOverheadBytes;
  }

  // Moves the record in; false, with the record left as it was, when it
  // would take the queue over its cap.
  bool push(idl::SyncInfo& record, bool prepared);

  // A record taken out to be prepared; it still counts against the cap,
  // at `cost`, until it is back or forgotten.
  struct Taken {
    idl::SyncInfo record;
    bool prepared = false;  // nothing left to do before it can be batched
    int64_t cost = 0;
  };

  // Moves out the next record the round must prepare before it can batch:
  // only while the ready part is below `budget`.
  bool takeToPrepare(int64_t budget, Taken* taken);
  // Puts a prepared record at the back of the ready part, counted anew.
  void pushReady(idl::SyncInfo record, int64_t taken_cost);
  // Forgets a taken record that will not be sent.
  void forget(int64_t taken_cost);

  // Takes a batch from the front of the ready part: records while the sum
  // of (content + allowance) stays below `budget`; a first record that
  // alone reaches it goes by itself, marked oversized.
  Batch take(int64_t budget);

  // Everything still queued, ready part first; the queue is left empty.
  std::vector<idl::SyncInfo> drain();

  size_t size() const { return ready_.size() + incoming_.size() + out_; }
  bool empty() const { return size() == 0; }
  int64_t bytes() const { return bytes_; }
  int64_t maxBytes() const { return max_bytes_; }

 private:
  struct Incoming {
    idl::SyncInfo record;
    bool prepared;
  };

  const int64_t max_bytes_;
  std::deque<idl::SyncInfo> ready_;
  std::deque<Incoming> incoming_;
  size_t out_ = 0;           // records taken to prepare and not yet back
  int64_t ready_bytes_ = 0;  // cost of the ready part
  int64_t bytes_ = 0;        // cost of everything held, out_ included
};

}  // namespace orvi
