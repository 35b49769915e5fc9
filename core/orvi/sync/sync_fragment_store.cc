#include "orvi/sync/sync_fragment_store.h"

namespace orvi {

std::vector<SyncFragmentStore::Dropped> SyncFragmentStore::put(
    std::shared_ptr<const idl::SyncInfo> record, std::vector<FragmentSlice> slices,
    int64_t now_ms) {
  std::vector<Dropped> dropped = expire(now_ms);
  auto& by_index = by_id_[record->id];
  if (auto old = by_index.find(record->index); old != by_index.end()) remove(old->second);
  bytes_ += record->content.size();
  const int64_t index = record->index;
  kept_.push_back({std::move(record), std::move(slices), now_ms});
  by_id_[kept_.back().record->id][index] = std::prev(kept_.end());
  while (kept_.size() > 1 && (kept_.size() > limits_.max_records || bytes_ > limits_.max_bytes)) {
    dropFront("over the cap", dropped);
  }
  return dropped;
}

SyncFragmentStore::Lookup SyncFragmentStore::find(const std::string& id, int64_t index,
                                                  int32_t fragment, Fragment* out) const {
  const auto by_id = by_id_.find(id);
  if (by_id == by_id_.end()) return Lookup::NoId;
  const auto by_index = by_id->second.find(index);
  if (by_index == by_id->second.end()) return Lookup::NoIndex;
  const Kept& kept = *by_index->second;
  if (fragment < 0 || static_cast<size_t>(fragment) >= kept.slices.size()) {
    return Lookup::NoFragment;
  }
  *out = {kept.record, kept.slices[static_cast<size_t>(fragment)]};
  return Lookup::Found;
}

bool SyncFragmentStore::erase(const std::string& id, int64_t index) {
  const auto by_id = by_id_.find(id);
  if (by_id == by_id_.end()) return false;
  if (const auto it = by_id->second.find(index); it != by_id->second.end()) remove(it->second);
  return true;
}

std::vector<SyncFragmentStore::Dropped> SyncFragmentStore::expire(int64_t now_ms) {
  std::vector<Dropped> dropped;
  while (!kept_.empty() && now_ms - kept_.front().stored_ms >= limits_.max_age_ms) {
    dropFront("expired", dropped);
  }
  return dropped;
}

std::optional<int64_t> SyncFragmentStore::nextExpiryMs() const {
  if (kept_.empty()) return std::nullopt;
  return kept_.front().stored_ms + limits_.max_age_ms;
}

void SyncFragmentStore::remove(KeptList::iterator it) {
  const auto by_id = by_id_.find(it->record->id);
  by_id->second.erase(it->record->index);
  if (by_id->second.empty()) by_id_.erase(by_id);
  bytes_ -= it->record->content.size();
  kept_.erase(it);
}

void SyncFragmentStore::dropFront(const char* reason, std::vector<Dropped>& dropped) {
  const Kept& oldest = kept_.front();
  dropped.push_back({oldest.record->id, oldest.record->index, reason});
  remove(kept_.begin());
}

}  // namespace orvi
