#include "orvi/sync/sync_fragment_store.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace orvi {
namespace {

struct Step {
  std::string op;  // "put id index bytes" at `now`, or "ack id index"
  int64_t now;
  std::vector<std::string> dropped;  // "id/index reason" dropped by this step
};

std::vector<std::string> run(SyncFragmentStore& store, const Step& step) {
  char op[8], id[16];
  long long index = 0, bytes = 0;
  std::sscanf(step.op.c_str(), "%7s %15s %lld %lld", op, id, &index, &bytes);
  std::vector<SyncFragmentStore::Dropped> dropped;
  if (std::string(op) == "put") {
    auto record = std::make_shared<idl::SyncInfo>();
    record->id = id;
    record->index = index;
    record->content.assign(static_cast<size_t>(bytes), 'x');
    const size_t half = static_cast<size_t>(bytes) / 2;
    dropped = store.put(record, {{0, half, 2, 0}, {half, record->content.size(), 2, 1}}, step.now);
  } else {
    store.erase(id, index);
    dropped = store.expire(step.now);
  }
  std::vector<std::string> out;
  for (const auto& d : dropped) {
    out.push_back(d.id + "/" + std::to_string(d.index) + " " + d.reason);
  }
  return out;
}

TEST(SyncFragmentStoreTest, KeepsAtMostTheCapsAndTheAgeDroppingTheOldestFirst) {
  // Limits: 3 records, 100 bytes, 1000 ms.
  const std::vector<Step> steps = {
      {"put a 1 30", 0, {}},
      {"put a 2 30", 10, {}},
      {"put b 1 30", 20, {}},
      {"put c 1 30", 30, {"a/1 over the cap"}},  // fourth record
      {"ack a 2", 40, {}},
      {"put d 1 50", 50, {"b/1 over the cap"}},                       // 30 + 30 + 50 bytes
      {"put d 1 20", 60, {}},                                         // replaces d/1, drops nothing
      {"put e 1 500", 70, {"c/1 over the cap", "d/1 over the cap"}},  // kept alone
      {"ack zz 1", 1069, {}},
      {"ack zz 1", 1070, {"e/1 expired"}},
      {"put f 1 10", 5000, {}},
      {"put g 1 10", 5999, {}},
      {"put h 1 10", 6000, {"f/1 expired"}},
  };
  SyncFragmentStore store({3, 100, 1000});
  for (const Step& step : steps) {
    EXPECT_EQ(run(store, step), step.dropped) << step.op << " at " << step.now;
  }
  EXPECT_EQ(store.recordCount(), 2u);
  EXPECT_EQ(store.bytes(), 20u);
  EXPECT_EQ(store.nextExpiryMs(), 6999);

  SyncFragmentStore::Fragment fragment;
  using L = SyncFragmentStore::Lookup;
  EXPECT_EQ(store.find("g", 1, 1, &fragment), L::Found);
  EXPECT_EQ(fragment.record->id, "g");
  EXPECT_EQ(fragment.slice.begin, 5u);
  EXPECT_EQ(store.find("f", 1, 0, &fragment), L::NoId);
  EXPECT_EQ(store.find("g", 2, 0, &fragment), L::NoIndex);
  EXPECT_EQ(store.find("g", 1, 2, &fragment), L::NoFragment);
  EXPECT_EQ(store.find("g", 1, -1, &fragment), L::NoFragment);
  EXPECT_TRUE(store.erase("g", 7));  // a known id: acknowledged, nothing under that index
  EXPECT_FALSE(store.erase("q", 1));
}

}  // namespace
}  // namespace orvi
