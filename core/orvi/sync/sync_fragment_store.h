// SyncFragmentStore keeps the fragments of records that went out in pieces
// until the server acknowledges them, so that a nack can have one piece
// sent again. It holds each record once (shared with any resend waiting
// for it) and where its pieces lie; a piece's frame is rebuilt when needed.
//
// Bounded: at most `max_records` records and `max_bytes` bytes of content,
// none kept longer than `max_age_ms`; the oldest go first, and a record just
// stored is never the one dropped for it. What it drops it returns, for the
// caller to report to the host.
//
// Not thread-safe: SyncQos guards it with its own mutex.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvi/sync/sync_message_processor.h"

namespace orvi {

class SyncFragmentStore {
 public:
  struct Limits {
    size_t max_records;
    size_t max_bytes;
    int64_t max_age_ms;
  };

  struct Dropped {
    std::string id;
    int64_t index;
    const char* reason;  // "expired" or "over the cap"
  };

  struct Fragment {
    std::shared_ptr<const idl::SyncInfo> record;
    FragmentSlice slice;
  };

  enum class Lookup { Found, NoId, NoIndex, NoFragment };

  explicit SyncFragmentStore(const Limits& limits) : limits_(limits) {}

  // Keeps the record's pieces under its id and index, replacing any kept
  // there before.
  std::vector<Dropped> put(std::shared_ptr<const idl::SyncInfo> record,
                           std::vector<FragmentSlice> slices, int64_t now_ms);

  Lookup find(const std::string& id, int64_t index, int32_t fragment, Fragment* out) const;

  // Forgets the record (id, index); false when the id is not kept at all.
  bool erase(const std::string& id, int64_t index);

  // Drops the records kept longer than the age limit.
  std::vector<Dropped> expire(int64_t now_ms);

  // When the oldest record expires; empty when nothing is kept.
  std::optional<int64_t> nextExpiryMs() const;

  size_t idCount() const { return by_id_.size(); }
  size_t recordCount() const { return kept_.size(); }
  size_t bytes() const { return bytes_; }

 private:
  struct Kept {
    std::shared_ptr<const idl::SyncInfo> record;
    std::vector<FragmentSlice> slices;
    int64_t stored_ms;
  };
  using KeptList = std::list<Kept>;  // oldest first

  void remove(KeptList::iterator it);
  void dropFront(const char* reason, std::vector<Dropped>& dropped);

  const Limits limits_;
  KeptList kept_;
  std::unordered_map<std::string, std::map<int64_t, KeptList::iterator>> by_id_;
  size_t bytes_ = 0;  // content bytes of the kept records
};

}  // namespace orvi
