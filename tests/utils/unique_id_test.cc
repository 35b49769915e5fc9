#include "orvi/utils/unique_id.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace orvi {
namespace {

// 8-4-4-4-12 lower-case hexadecimal digits, version nibble 4, variant 8..b.
bool isVersionFourUuid(const std::string& id) {
  if (id.size() != 36) return false;
  for (size_t i = 0; i < id.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = id[i];
    if (dash != (c == '-')) return false;
    if (!dash && !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return id[14] == '4' && std::string("89ab").find(id[19]) != std::string::npos;
}

TEST(UniqueIdTest, IsAVersionFourUuidText) {
  EXPECT_FALSE(isVersionFourUuid("0123abcd-0123-3123-8123-0123456789ab"));
  EXPECT_FALSE(isVersionFourUuid("0123abcd-0123-4123-c123-0123456789ab"));
  EXPECT_FALSE(isVersionFourUuid("0123ABCD-0123-4123-8123-0123456789ab"));
  for (int i = 0; i < 1000; ++i) {
    const std::string id = generateUniqueId();
    ASSERT_TRUE(isVersionFourUuid(id)) << id;
  }
}

TEST(UniqueIdTest, IdsDrawnOnManyThreadsNeverRepeat) {
  std::mutex mutex;
  std::set<std::string> ids;
  std::vector<std::thread> threads;
  constexpr int kThreads = 4;
  constexpr int kPerThread = 5000;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      std::vector<std::string> mine;
      for (int i = 0; i < kPerThread; ++i) mine.push_back(generateUniqueId());
      std::lock_guard<std::mutex> lock(mutex);
      ids.insert(mine.begin(), mine.end());
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(ids.size(), static_cast<size_t>(kThreads * kPerThread));
}

}  // namespace
}  // namespace orvi
