#include "orvi/history/cacher/cacher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/memory_sql_executor.h"
#include "support/recording_log_handler.h"
#include "support/temp_dir.h"

namespace orvi {
namespace {

using test::MemorySqlExecutor;

constexpr std::chrono::seconds kPatience(10);  // only reached when a test fails
constexpr int64_t kDayMs = 86400000;

MessageRecord message(std::string conversation, std::string content, std::string local_id = "") {
  return MessageRecord(conversation, "", "", "", local_id, "", "user", 0, 0, "", content);
}

std::vector<std::string> contents(const std::vector<MessageRecord>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(r.content);
  return out;
}

template <typename Predicate>
bool eventually(Predicate done) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return done();
}

class CacherTest : public ::testing::Test {
 protected:
  std::unique_ptr<Cacher> makeCacher(int64_t retention_days = 30) {
    auto cacher = std::make_unique<Cacher>(dir_.path(), retention_days);
    cacher->registerSqlExecutor(sql_);
    return cacher;
  }

  test::ScopedLogCapture log_;
  test::TempDir dir_{"orvi-cacher"};
  std::shared_ptr<MemorySqlExecutor> sql_ = std::make_shared<MemorySqlExecutor>();
};

TEST_F(CacherTest, WritesRunInPostingOrderAndSurviveAThrowingExecutor) {
  struct Throwing : MemorySqlExecutor {
    bool insertMessage(const MessageRecord& record) override {
      if (record.content == "boom") throw std::runtime_error("disk on fire");
      return MemorySqlExecutor::insertMessage(record);
    }
  };
  sql_ = std::make_shared<Throwing>();
  auto cacher = makeCacher();
  MessageRecord record = message("c", "v1", "l1");
  cacher->insertMessage(record);
  cacher->insertMessage(message("c", "first", "l2"));
  record.content = "v2";  // the queued insert keeps its own copy
  cacher->updateMessage(record);
  cacher->removeMessage("c", "l2");
  cacher->insertMessage(message("c", "boom"));
  cacher->insertMessage(message("c", "second", "l2"));
  // The throw is contained, counted, and reported by the first wait only.
  EXPECT_FALSE(cacher->waitForWrites(kPatience));
  EXPECT_EQ(contents(sql_->messages("c")), (std::vector<std::string>{"v2", "second"}));
  EXPECT_TRUE(log_->has("ioWorker task failed: disk on fire"));
  EXPECT_TRUE(log_->has("insert message failed in the sql executor"));
  EXPECT_TRUE(cacher->waitForWrites(kPatience));
}

// A host that stores a message and then reads its history finds it: a read
// waits for the writes queued before it. It leaves a failure among them to
// be reported by the next wait for writes, as if it had not looked.
TEST_F(CacherTest, AReadSeesTheWritesQueuedBeforeItAndLeavesFailuresToTheNextFlush) {
  struct Refusing : MemorySqlExecutor {
    bool insertMessage(const MessageRecord& record) override {
      return record.content != "refused" && MemorySqlExecutor::insertMessage(record);
    }
  };
  sql_ = std::make_shared<Refusing>();
  auto cacher = makeCacher();
  std::vector<std::string> written;
  std::unique_lock<std::mutex> gate(sql_->writeGate());
  for (int i = 0; i < 5; ++i) {
    written.push_back(std::to_string(i));
    cacher->insertMessage(message("c", written.back()));
  }
  cacher->insertMessage(message("c", "refused"));
  ASSERT_TRUE(eventually([&] { return sql_->writesEntered() == 1; }));  // write 0 waits at the gate
  std::vector<std::string> seen;
  std::thread reader([&] { seen = contents(cacher->queryMessages("c")); });
  gate.unlock();
  reader.join();
  EXPECT_EQ(seen, written);
  EXPECT_EQ(cacher->queryMessages("c", 0, 3).messages.size(), 3u);
  EXPECT_FALSE(cacher->waitForWrites(kPatience));
  EXPECT_TRUE(cacher->waitForWrites(kPatience));
}

TEST_F(CacherTest, DestroyingDropsQueuedWritesAndReleasesTheExecutor) {
  auto cacher = makeCacher();
  std::unique_lock<std::mutex> gate(sql_->writeGate());
  for (int i = 0; i < 6; ++i) cacher->insertMessage(message("c", std::to_string(i)));
  ASSERT_TRUE(eventually([&] { return sql_->writesEntered() == 1; }));  // the worker is in write 0
  std::thread destroyer([&] { cacher.reset(); });
  // Stop is set before this line is logged; only then may write 0 return.
  EXPECT_TRUE(eventually([&] { return log_->has("cacher stopping, 5 queued task(s) dropped"); }));
  gate.unlock();
  destroyer.join();
  EXPECT_EQ(contents(sql_->messages("c")), std::vector<std::string>{"0"});
  EXPECT_EQ(log_->count("ioWorker stop.."), 1u);
  EXPECT_EQ(sql_.use_count(), 1);  // dropped tasks held copies of it too
}

TEST_F(CacherTest, ReadsRunBesideWritesAndAlwaysSeeAnOrderedPrefix) {
  auto cacher = makeCacher();
  std::atomic<bool> writing{true};
  std::atomic<int> bad_reads{0};
  auto read = [&] {
    while (writing) {
      const auto seen = contents(cacher->queryMessages("c"));
      for (size_t i = 0; i < seen.size(); ++i) bad_reads += seen[i] != std::to_string(i);
      bad_reads += cacher->queryMessages("c", 0, 5).messages.size() > 5;
    }
  };
  std::thread readers[] = {std::thread(read), std::thread(read), std::thread(read)};
  std::vector<std::string> written;
  for (int i = 0; i < 400; ++i) {
    written.push_back(std::to_string(i));
    cacher->insertMessage(message("c", written.back()));
    if (i == 200) cacher->registerSqlExecutor(sql_);  // swapped while the worker writes
  }
  EXPECT_TRUE(cacher->waitForWrites(kPatience));
  writing = false;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(bad_reads.load(), 0);
  EXPECT_EQ(contents(cacher->queryMessages("c")), written);
}

TEST_F(CacherTest, ExpiryRemovesExactlyTheConversationsPastTheRetention) {
  const int64_t now = static_cast<int64_t>(std::time(nullptr)) * 1000;
  // Created this many hours from now, oldest first. Hours of margin around
  // every boundary keep the wall clock out of it.
  const std::pair<std::string, int64_t> created[] = {
      {"40d-ago", -960}, {"2d-ago", -48}, {"1h-ago", -1}, {"1h-ahead", 1}, {"2d-ahead", 48}};
  // Retention in days, and how many of the oldest conversations it expires;
  // the extremes would wrap around if the arithmetic overflowed.
  const std::pair<int64_t, size_t> cases[] = {{30, 1}, {1, 2},         {0, 3},
                                              {-1, 4}, {INT64_MAX, 0}, {INT64_MIN, 5}};
  for (const auto& [retention, expired] : cases) {
    SCOPED_TRACE("retention " + std::to_string(retention));
    sql_ = std::make_shared<MemorySqlExecutor>();
    log_->clear();
    auto cacher = makeCacher(retention);
    for (const auto& [id, hours] : created) {
      cacher->saveConversations({ConversationInfo(id, "", "", now + hours * 3600000, {}, {}, "")});
      cacher->insertMessage(message(id, "a"));
    }
    ASSERT_TRUE(cacher->waitForWrites(kPatience));  // the pass reads at once
    cacher->removeExpiredConversations();
    ASSERT_TRUE(cacher->waitForWrites(kPatience));
    std::set<std::string> left;
    for (const auto& info : sql_->conversations()) left.insert(info.local_conversation_id);
    for (size_t i = 0; i < 5; ++i) {
      const std::string& id = created[i].first;
      const bool gone = i < expired;
      EXPECT_EQ(left.count(id), gone ? 0u : 1u) << id;
      EXPECT_EQ(sql_->messages(id).size(), gone ? 0u : 1u) << id;
      EXPECT_EQ(log_->count("messages of conversation(" + id + ") are removed"), gone ? 1u : 0u);
    }
    // One removal per expired conversation, then one deletion of them all.
    EXPECT_EQ(sql_->writesEntered(), static_cast<int>(2 * 5 + expired + (expired > 0 ? 1 : 0)));
  }
  // "More than the retention" is strict, to the millisecond.
  EXPECT_FALSE(Cacher::isExpired(now - kDayMs, 1, now * 10000));
  EXPECT_TRUE(Cacher::isExpired(now - kDayMs - 1, 1, now * 10000));
}

TEST_F(CacherTest, WritesAreGroupedAndAWaitReturnsOnlyOnceTheirGroupIsCommitted) {
  auto grouping = std::make_shared<test::GroupingMemorySqlExecutor>();
  sql_ = grouping;
  auto cacher = makeCacher();
  // The first write's commit blocks in the gate, so that the rest queue up.
  std::unique_lock<std::mutex> gate(sql_->writeGate());
  cacher->insertMessage(message("c", "0"));
  ASSERT_TRUE(eventually([&] { return sql_->writesEntered() == 1; }));
  std::vector<std::string> written = {"0"};
  for (int i = 1; i < 1200; ++i) {
    written.push_back(std::to_string(i));
    cacher->insertMessage(message("c", written.back()));
  }
  gate.unlock();
  ASSERT_TRUE(cacher->waitForWrites(kPatience));
  EXPECT_EQ(contents(sql_->messages("c")), written);  // committed, in order
  const size_t full = Cacher::kMaxGroupWrites;
  EXPECT_EQ(grouping->groupSizes(), (std::vector<size_t>{1, full, full, 1200 - 1 - 2 * full}));

  // A group that fails to commit fails the wait that follows it, once.
  grouping->failCommits() = true;
  for (int i = 0; i < 3; ++i) cacher->insertMessage(message("lost", std::to_string(i)));
  EXPECT_FALSE(cacher->waitForWrites(kPatience));
  EXPECT_TRUE(sql_->messages("lost").empty());
  EXPECT_GE(log_->countContaining("write(s) was not committed"), 1u);
  grouping->failCommits() = false;
  cacher->insertMessage(message("c", "after"));
  EXPECT_TRUE(cacher->waitForWrites(kPatience));
  EXPECT_EQ(sql_->messages("c").back().content, "after");

  // A write to another executor ends the group of the first.
  auto plain = std::make_shared<MemorySqlExecutor>();
  cacher->insertMessage(message("c", "to the grouping one"));
  cacher->registerSqlExecutor(plain);
  cacher->insertMessage(message("c", "to the plain one"));
  ASSERT_TRUE(cacher->waitForWrites(kPatience));
  EXPECT_EQ(contents(plain->messages("c")), std::vector<std::string>{"to the plain one"});
  EXPECT_EQ(sql_->messages("c").back().content, "to the grouping one");
}

TEST_F(CacherTest, NoWriteReachesTheExecutorWithoutItsKeys) {
  auto cacher = makeCacher();
  MessageRecord no_ids = message("c", "x");
  MessageRecord no_conversation = message("", "x", "l1");
  const std::pair<std::function<void()>, std::string> refused[] = {
      {[&] { cacher->removeMessages(""); },
       "remove messages refused, local_conversation_id is empty"},
      {[&] { cacher->removeMessage("c", ""); },
       "remove message refused, local_conversation_id: c, local_message_id: "},
      {[&] { cacher->removeMessage("", "l1"); },
       "remove message refused, local_conversation_id: , local_message_id: l1"},
      {[&] { cacher->removeMessageById("c", "m1", ""); },
       "remove message refused, local_conversation_id: c, message_id: m1, local_section_id: "},
      {[&] { cacher->removeMessageById("c", "", "s1"); },
       "remove message refused, local_conversation_id: c, message_id: , local_section_id: s1"},
      {[&] { cacher->updateMessage(no_ids); },
       "update message refused, local_conversation_id: c, message_id: , local_message_id: "},
      {[&] { cacher->updateMessage(no_conversation); },
       "update message refused, local_conversation_id: , message_id: , local_message_id: l1"},
      {[&] { cacher->insertMessage(no_conversation); },
       "insert message refused, local_conversation_id is empty, type: user"},
      {[&] {
         cacher->deleteConversations({"", ""});
       },
       "delete conversations: 2 empty local conversation id(s) left out"},
  };
  for (const auto& [call, line] : refused) {
    call();
    EXPECT_TRUE(log_->has(line)) << line;
  }
  ASSERT_TRUE(cacher->waitForWrites(kPatience));
  EXPECT_EQ(sql_->writesEntered(), 0);

  // The keyed forms go through, and touch only what they name.
  cacher->insertMessage(message("c", "a", "l1"));
  cacher->insertMessage(MessageRecord("c", "", "s1", "", "", "m1", "assistant", 0, 0, "", "b"));
  cacher->insertMessage(MessageRecord("c", "", "s2", "", "", "m1", "assistant", 0, 0, "", "c"));
  cacher->removeMessageById("c", "m1", "s1");
  cacher->deleteConversations({"", "gone"});
  ASSERT_TRUE(cacher->waitForWrites(kPatience));
  EXPECT_EQ(contents(sql_->messages("c")), (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(sql_->writesEntered(), 5);
}

TEST_F(CacherTest, WhatTheStoreThrowsStaysInTheCacher) {
  struct Throwing : MemorySqlExecutor {
    bool queryConversations(ConversationListQueryResult&, int32_t, std::optional<int32_t>,
                            std::optional<int32_t>) override {
      throw std::runtime_error("conversations unreadable");
    }
    bool queryMessages(MessageQueryResult&, const std::string&, int32_t, std::optional<int32_t>,
                       std::optional<int32_t>) override {
      throw 42;  // not even an exception class
    }
    bool isMigrated() override { throw std::runtime_error("flag unreadable"); }
  };
  sql_ = std::make_shared<Throwing>();
  auto cacher = makeCacher();
  ASSERT_TRUE(cacher->init());
  std::vector<ConversationInfo> conversations;
  EXPECT_FALSE(cacher->queryConversations(conversations));
  EXPECT_TRUE(cacher->queryMessages("c").empty());
  EXPECT_TRUE(cacher->queryMessages("c", 0, 10).messages.empty());
  dir_.write("orvi_history.json", R"({"conversations": [{"local_conversation_id": "x"}]})");
  EXPECT_FALSE(cacher->firstMigrationToDb());  // not known to be done: not imported
  cacher->removeExpiredConversations();
  ASSERT_TRUE(cacher->waitForWrites(kPatience));
  EXPECT_EQ(sql_->writesEntered(), 0);
  EXPECT_TRUE(log_->has("query conversations failed: conversations unreadable"));
  EXPECT_EQ(log_->count("query messages failed with an unknown exception"), 1u);
  EXPECT_EQ(log_->count("query message page failed with an unknown exception"), 1u);
  EXPECT_TRUE(log_->has("query of the migration flag failed: flag unreadable"));
}

}  // namespace
}  // namespace orvi
