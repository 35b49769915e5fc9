#include "orvi/history/cacher/cacher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/memory_sql_executor.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

namespace fs = std::filesystem;
using test::MemorySqlExecutor;
using Op = MemorySqlExecutor::Op;

constexpr std::chrono::seconds kPatience(10);  // only reached when a test fails
constexpr int64_t kDayMs = 86400000;

MessageRecord message(const std::string& conversation, const std::string& local_id,
                      const std::string& content) {
  return MessageRecord(conversation, "", "", "", local_id, "", "user", 0, 0, "", content);
}

ConversationInfo conversation(const std::string& id, int64_t create_time) {
  return ConversationInfo(id, "", "name of " + id, create_time, std::nullopt, std::nullopt, "");
}

std::vector<std::string> contents(const std::vector<MessageRecord>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(r.content);
  return out;
}

template <typename Predicate>
bool eventually(Predicate done) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

class CacherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("orvi-cacher-" + std::to_string(std::random_device()()));
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::unique_ptr<Cacher> makeCacher(int64_t retention_days = 30) {
    auto cacher = std::make_unique<Cacher>(dir_.string(), retention_days);
    cacher->registerSqlExecutor(sql_);
    return cacher;
  }

  test::ScopedLogCapture log_;
  fs::path dir_;
  std::shared_ptr<MemorySqlExecutor> sql_ = std::make_shared<MemorySqlExecutor>();
};

TEST_F(CacherTest, InitCreatesTheCacheDirectoryOrReportsWhyNot) {
  const std::string nested = (dir_ / "a" / "b").string();
  Cacher cacher(nested, 1);
  EXPECT_FALSE(cacher.inited());
  EXPECT_FALSE(fs::exists(nested));
  ASSERT_TRUE(cacher.init());
  EXPECT_TRUE(cacher.inited());
  EXPECT_TRUE(fs::is_directory(nested));
  EXPECT_TRUE(log_->has("cacher init success, cache dir: " + nested));

  Cacher again(nested, 1);
  EXPECT_TRUE(again.init());

  std::ofstream((dir_ / "file").string()) << "x";
  const std::string below_file = (dir_ / "file" / "cache").string();
  Cacher refused(below_file, 1);
  EXPECT_FALSE(refused.init());
  EXPECT_FALSE(refused.inited());
  EXPECT_TRUE(log_->has("create cache dir(" + below_file + ") failed"));
}

TEST_F(CacherTest, WithoutAnExecutorEveryOperationLogsAndDoesNothing) {
  auto cacher = makeCacher();
  cacher->registerSqlExecutor(nullptr);  // replaces the registered one
  EXPECT_TRUE(log_->has("sql executor is null"));

  cacher->saveConversations({conversation("c", 0)});
  cacher->updateConversations({conversation("c", 0)});
  cacher->deleteConversations({"c"});
  cacher->insertMessage(message("c", "m", "x"));
  cacher->updateMessage(message("c", "m", "x"));
  cacher->removeMessage("c", "m");
  cacher->removeMessages("c");
  cacher->removeExpiredConversations();
  EXPECT_TRUE(cacher->queryConversations().empty());
  EXPECT_TRUE(cacher->queryMessages("c").empty());
  EXPECT_TRUE(cacher->queryMessages("c", 0, 10).messages.empty());
  EXPECT_TRUE(cacher->waitForWrites(kPatience));

  // Eight writes (the expiry pass posts its delete), one read from the pass,
  // three direct reads.
  EXPECT_EQ(log_->countContaining("failed, sql executor is null"), 12u);
  for (size_t op = 0; op < static_cast<size_t>(Op::Count); ++op) {
    EXPECT_EQ(sql_->calls(static_cast<Op>(op)), 0) << "operation " << op;
  }
}

TEST_F(CacherTest, WritesRunInPostingOrder) {
  auto cacher = makeCacher();
  MessageRecord record = message("c1", "l1", "v1");
  cacher->insertMessage(record);
  cacher->insertMessage(message("c1", "l2", "first"));
  record.content = "v2";  // the queued insert keeps its own copy
  cacher->updateMessage(record);
  cacher->removeMessage("c1", "l2");
  cacher->insertMessage(message("c1", "l2", "second"));
  cacher->insertMessage(message("c2", "l3", "gone"));
  cacher->saveConversations({conversation("c1", 1), conversation("c2", 2)});
  ConversationInfo renamed = conversation("c1", 1);
  renamed.name = "renamed";
  cacher->updateConversations({renamed});
  cacher->deleteConversations({"c2"});
  cacher->removeMessages("c2");
  for (int i = 0; i < 200; ++i) cacher->insertMessage(message("c3", "", std::to_string(i)));
  ASSERT_TRUE(cacher->waitForWrites(kPatience));

  EXPECT_EQ(contents(sql_->messages("c1")), (std::vector<std::string>{"v2", "second"}));
  EXPECT_TRUE(sql_->messages("c2").empty());
  const auto stored = sql_->conversations();
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored[0].name, "renamed");
  const auto many = contents(sql_->messages("c3"));
  ASSERT_EQ(many.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(many[static_cast<size_t>(i)], std::to_string(i));
  EXPECT_TRUE(log_->has("messages of conversation(c2) are removed"));

  // Reads hand back what the executor returns: all rows, or a page (mode 0)
  // whose count is the cursor of the next, older page.
  EXPECT_EQ(contents(cacher->queryMessages("c3")), many);
  const auto newest = cacher->queryMessages("c3", 0, 3);
  EXPECT_EQ(contents(newest.messages), (std::vector<std::string>{"197", "198", "199"}));
  EXPECT_TRUE(newest.has_more);
  const auto older = cacher->queryMessages("c3", newest.count, 2);
  EXPECT_EQ(contents(older.messages), (std::vector<std::string>{"195", "196"}));
  EXPECT_EQ(cacher->queryConversations().size(), 1u);
}

TEST_F(CacherTest, DestroyingDropsQueuedWritesAndReleasesTheExecutor) {
  auto cacher = makeCacher();
  sql_->holdWrites();
  for (int i = 0; i < 6; ++i) cacher->insertMessage(message("c", "", std::to_string(i)));
  ASSERT_TRUE(sql_->waitForHeldWrite(kPatience));  // the worker sits in write 0
  EXPECT_FALSE(cacher->waitForWrites(std::chrono::milliseconds(20)));

  std::thread destroyer([&] { cacher.reset(); });
  // Stop is set before this line is logged; only then may write 0 return.
  EXPECT_TRUE(eventually([&] { return log_->has("cacher stopping, 6 queued task(s) dropped"); }));
  sql_->releaseWrites();
  destroyer.join();

  EXPECT_EQ(sql_->calls(Op::InsertMessage), 1);
  EXPECT_EQ(contents(sql_->messages()), std::vector<std::string>{"0"});
  EXPECT_EQ(log_->count("ioWorker stop.."), 1u);
  EXPECT_EQ(sql_.use_count(), 1);  // dropped tasks held copies of it too
}

TEST_F(CacherTest, ReadsRunBesideWritesAndAlwaysSeeAnOrderedPrefix) {
  auto cacher = makeCacher();
  constexpr int kWrites = 400;
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int i = 0; i < kWrites; ++i) {
      cacher->insertMessage(message("c", "", std::to_string(i)));
      if (i == kWrites / 2) cacher->registerSqlExecutor(sql_);
    }
    EXPECT_TRUE(cacher->waitForWrites(kPatience));
    writing = false;
  });
  std::vector<std::thread> readers;
  std::atomic<int> bad_reads{0};
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (writing) {
        const auto all = contents(cacher->queryMessages("c"));
        for (size_t i = 0; i < all.size(); ++i) {
          if (all[i] != std::to_string(i)) ++bad_reads;
        }
        const auto page = cacher->queryMessages("c", 0, 5);
        if (page.messages.size() > 5) ++bad_reads;
        cacher->waitForWrites(kPatience);
      }
    });
  }
  writer.join();
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(bad_reads.load(), 0);
  EXPECT_EQ(cacher->queryMessages("c").size(), static_cast<size_t>(kWrites));
}

TEST_F(CacherTest, ExpiryRemovesExactlyTheConversationsPastTheRetention) {
  const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  // Hours of margin around every boundary keep the wall clock out of it.
  const std::vector<std::pair<std::string, int64_t>> created = {{"40d-ago", now - 40 * kDayMs},
                                                                {"2d-ago", now - 2 * kDayMs},
                                                                {"1h-ago", now - kDayMs / 24},
                                                                {"1h-ahead", now + kDayMs / 24},
                                                                {"2d-ahead", now + 2 * kDayMs}};
  const struct {
    int64_t retention;
    std::set<std::string> expired;
  } cases[] = {
      {30, {"40d-ago"}},
      {1, {"40d-ago", "2d-ago"}},
      {0, {"40d-ago", "2d-ago", "1h-ago"}},
      {-1, {"40d-ago", "2d-ago", "1h-ago", "1h-ahead"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("retention " + std::to_string(c.retention));
    sql_ = std::make_shared<MemorySqlExecutor>();
    log_->clear();
    auto cacher = makeCacher(c.retention);
    for (const auto& [id, time] : created) {
      cacher->saveConversations({conversation(id, time)});
      cacher->insertMessage(message(id, "a", id));
      cacher->insertMessage(message(id, "b", id));
    }
    ASSERT_TRUE(cacher->waitForWrites(kPatience));
    cacher->removeExpiredConversations();
    ASSERT_TRUE(cacher->waitForWrites(kPatience));

    std::set<std::string> left;
    for (const auto& info : sql_->conversations()) left.insert(info.local_conversation_id);
    for (const auto& [id, time] : created) {
      const bool expired = c.expired.count(id) > 0;
      EXPECT_EQ(left.count(id), expired ? 0u : 1u) << id;
      EXPECT_EQ(sql_->messages(id).size(), expired ? 0u : 2u) << id;
      EXPECT_EQ(log_->count("messages of conversation(" + id + ") are removed"), expired ? 1u : 0u);
    }
    EXPECT_EQ(sql_->calls(Op::DeleteConversations), 1);
  }
}

TEST(CacherExpiryTest, FollowsTheTickArithmeticExactly) {
  constexpr int64_t kNowMs = 1700000000000;
  constexpr int64_t kNow = kNowMs * 10000;
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr int64_t kLargestExactRetention = kMax / 864000000000;
  const struct {
    int64_t create_ms, retention, now;
    bool expired;
  } cases[] = {
      {kNowMs - kDayMs, 1, kNow, false},  // exactly one day old: not more than the retention
      {kNowMs - kDayMs - 1, 1, kNow, true},
      {kNowMs, 0, kNow, false},
      {kNowMs, 0, kNow + 5, true},  // half a microsecond old
      {kNowMs - 1, 0, kNow, true},
      {kNowMs + kDayMs, -1, kNow, false},
      {kNowMs + kDayMs - 1, -1, kNow, true},
      {0, kLargestExactRetention, kNow, false},
      {0, kLargestExactRetention + 1, kNow, false},
      {kMin, kMax, kNow, false},
      {kNowMs + 365 * kDayMs, kMin, kNow, true},
      {kMax, 0, kNow, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Cacher::isExpired(c.create_ms, c.retention, c.now), c.expired)
        << "create " << c.create_ms << " retention " << c.retention;
  }

  // Against exact 128-bit arithmetic: any retention, create times within
  // +-300 years of 1970.
  __extension__ typedef __int128 Wide;
  std::mt19937_64 random(7);
  std::uniform_int_distribution<int64_t> any;
  std::uniform_int_distribution<int64_t> plausible(-300 * 365 * kDayMs, 300 * 365 * kDayMs);
  for (int i = 0; i < 20000; ++i) {
    const int64_t create = plausible(random);
    const int64_t retention = i % 2 ? any(random) : any(random) % 100000;
    const int64_t now = kNow + plausible(random);
    const bool exact = Wide(retention) * 864000000000 < Wide(now) - Wide(create) * 10000;
    ASSERT_EQ(Cacher::isExpired(create, retention, now), exact)
        << create << " " << retention << " " << now;
  }
}

TEST_F(CacherTest, AThrowingExecutorDoesNotStopTheWorker) {
  class Throwing : public MemorySqlExecutor {
   public:
    bool insertMessage(const MessageRecord& record) override {
      if (record.content == "boom") throw std::runtime_error("disk on fire");
      return MemorySqlExecutor::insertMessage(record);
    }
  };
  auto throwing = std::make_shared<Throwing>();
  Cacher cacher(dir_.string(), 1);
  cacher.registerSqlExecutor(throwing);
  cacher.insertMessage(message("c", "", "boom"));
  cacher.insertMessage(message("c", "", "kept"));
  ASSERT_TRUE(cacher.waitForWrites(kPatience));
  EXPECT_EQ(contents(throwing->messages()), std::vector<std::string>{"kept"});
  EXPECT_TRUE(log_->has("ioWorker task failed: disk on fire"));
}

}  // namespace
}  // namespace orvi
