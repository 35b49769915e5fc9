#include "orvi/sync/sync_send_queue.h"

namespace orvi {

bool SyncSendQueue::push(idl::SyncInfo& record, bool prepared) {
  const int64_t cost = costOf(record);
  if (bytes_ + cost > max_bytes_) return false;
  bytes_ += cost;
  incoming_.push_back({std::move(record), prepared});
  return true;
}

bool SyncSendQueue::takeToPrepare(int64_t budget, Taken* taken) {
  if (ready_bytes_ >= budget || incoming_.empty()) return false;
  Incoming& front = incoming_.front();
  taken->cost = costOf(front.record);
  taken->prepared = front.prepared;
  taken->record = std::move(front.record);
  incoming_.pop_front();
  ++out_;
  return true;
}

void SyncSendQueue::pushReady(idl::SyncInfo record, int64_t taken_cost) {
  --out_;
  const int64_t cost = costOf(record);
  bytes_ += cost - taken_cost;
  ready_bytes_ += cost;
  ready_.push_back(std::move(record));
}

void SyncSendQueue::forget(int64_t taken_cost) {
  --out_;
  bytes_ -= taken_cost;
}

SyncSendQueue::Batch SyncSendQueue::take(int64_t budget) {
  Batch batch;
  while (!ready_.empty()) {
    const int64_t cost = costOf(ready_.front());
    batch.reserved += cost;
    if (batch.reserved >= budget) {
      if (!batch.records.empty()) break;
      batch.oversized = true;
    }
    ready_bytes_ -= cost;
    bytes_ -= cost;
    batch.records.push_back(std::move(ready_.front()));
    ready_.pop_front();
    if (batch.oversized) break;
  }
  return batch;
}

std::vector<idl::SyncInfo> SyncSendQueue::drain() {
  std::vector<idl::SyncInfo> all;
  all.reserve(ready_.size() + incoming_.size());
  for (auto& record : ready_) all.push_back(std::move(record));
  for (auto& entry : incoming_) all.push_back(std::move(entry.record));
  ready_.clear();
  incoming_.clear();
  ready_bytes_ = 0;
  bytes_ = 0;
  return all;
}

}  // namespace orvi
