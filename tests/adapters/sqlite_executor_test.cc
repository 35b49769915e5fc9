#include "orvi/sqlite/sqlite_executor.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/memory_sql_executor.h"

namespace orvi {
namespace {

namespace fs = std::filesystem;
using sqlite::SqliteExecutor;

MessageRecord message(const std::string& conversation, const std::string& local_id,
                      const std::string& content, const std::string& message_id = "",
                      const std::string& section = "") {
  return MessageRecord(conversation, "srv-" + conversation, section, "srv-" + section, local_id,
                       message_id, "assistant", 11, 22, "done", content);
}

std::string describe(const MessageRecord& r) {
  return r.local_conversation_id + "|" + r.conversation_id + "|" + r.local_section_id + "|" +
         r.section_id + "|" + r.local_message_id + "|" + r.message_id + "|" + r.type + "|" +
         std::to_string(r.create_time) + "|" + std::to_string(r.update_time) + "|" + r.status +
         "|" + r.content;
}

std::string describe(const ConversationInfo& c) {
  return c.local_conversation_id + "|" + c.conversation_id + "|" + c.name + "|" +
         std::to_string(c.create_time) + "|" +
         (c.update_time ? std::to_string(*c.update_time) : "null") + "|" +
         (c.message_count ? std::to_string(*c.message_count) : "null") + "|" + c.extra;
}

template <typename Records>
std::vector<std::string> describeAll(const Records& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(describe(r));
  return out;
}

std::vector<std::string> contentsOf(const std::vector<MessageRecord>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(r.content);
  return out;
}

class ScratchDir {
 public:
  ScratchDir()
      : path_(fs::temp_directory_path() /
              ("orvi-sqlite-" + std::to_string(std::random_device()()))) {
    fs::create_directories(path_);
  }
  ~ScratchDir() { fs::remove_all(path_); }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  fs::path path_;
};

// Runs SQL on the file through a connection of its own, as another program would.
void execOn(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

// The row semantics every executor shares: each case runs on orvi_sqlite and
// on the in-memory executor that the library's other tests rely on.
enum class Kind { Sqlite, Memory };
const char* nameOf(Kind kind) {
  return kind == Kind::Sqlite ? "Sqlite" : "Memory";
}
void PrintTo(Kind kind, std::ostream* out) {
  *out << nameOf(kind);
}

class SqlExecutorContract : public ::testing::TestWithParam<Kind> {
 protected:
  std::shared_ptr<ISqlExecutor> fresh() {
    if (GetParam() == Kind::Memory) return std::make_shared<test::MemorySqlExecutor>();
    std::string error;
    auto executor = SqliteExecutor::open(dir_.file("db" + std::to_string(files_++)), &error);
    EXPECT_TRUE(executor) << error;
    if (executor) executor->setErrorSink([this](const std::string& m) { addError(m); });
    return executor;
  }
  void addError(const std::string& message) {
    std::lock_guard<std::mutex> lock(errors_mutex_);
    errors_.push_back(message);
  }

  std::vector<ConversationInfo> list(ISqlExecutor& sql, std::optional<int32_t> offset = {},
                                     std::optional<int32_t> limit = {}, bool* has_more = nullptr) {
    ConversationListQueryResult result;
    EXPECT_TRUE(sql.queryConversations(result, 1, offset, limit));
    EXPECT_EQ(result.count, static_cast<int32_t>(result.conversations.size()));
    if (has_more) *has_more = result.has_more;
    return result.conversations;
  }
  std::vector<MessageRecord> all(ISqlExecutor& sql, const std::string& conversation) {
    MessageQueryResult result;
    EXPECT_TRUE(sql.queryMessages(result, conversation, 1, std::nullopt, std::nullopt));
    EXPECT_EQ(result.count, static_cast<int32_t>(result.messages.size()));
    EXPECT_FALSE(result.has_more);
    return result.messages;
  }
  MessageQueryResult page(ISqlExecutor& sql, const std::string& conversation,
                          std::optional<int32_t> cursor, std::optional<int32_t> count) {
    MessageQueryResult result;
    EXPECT_TRUE(sql.queryMessages(result, conversation, 0, cursor, count));
    return result;
  }

  ScratchDir dir_;
  int files_ = 0;
  std::mutex errors_mutex_;
  std::vector<std::string> errors_;  // guarded by errors_mutex_
};

TEST_P(SqlExecutorContract, ConversationsAndTheMigrationFlagAreStored) {
  auto sql = fresh();
  ASSERT_TRUE(sql);
  const ConversationInfo a("a", "", "A", 10, std::nullopt, std::nullopt, "");
  const ConversationInfo b("b", "srv-b", "B", 30, 35, 7, R"({"k":1})");
  const ConversationInfo c("c", "srv-c", "C", 20, 21, 0, "");
  const ConversationInfo d("d", "", "D", 20, std::nullopt, 3, "");
  ASSERT_TRUE(sql->saveConversations({a, b, c}));
  ASSERT_TRUE(sql->saveConversations({d}));
  // Newest first; equal create times by local id.
  EXPECT_EQ(describeAll(list(*sql)), describeAll(std::vector<ConversationInfo>{b, c, d, a}));

  ConversationInfo a2 = a;
  a2.name = "A2";
  a2.update_time = 99;
  ConversationInfo unknown("z", "", "Z", 1, std::nullopt, std::nullopt, "");
  ASSERT_TRUE(sql->saveConversations({a2}));
  ConversationInfo c2 = c;
  c2.name = "C2";
  c2.message_count = std::nullopt;
  ASSERT_TRUE(sql->updateConversations({c2, unknown}));
  EXPECT_EQ(describeAll(list(*sql)), describeAll(std::vector<ConversationInfo>{b, c2, d, a2}));

  const struct {
    std::optional<int32_t> offset, limit;
    std::vector<std::string> ids;
    bool has_more;
  } windows[] = {
      {1, 2, {"c", "d"}, true},
      {3, 5, {"a"}, false},
      {0, 0, {}, true},
      {std::nullopt, 4, {"b", "c", "d", "a"}, false},
      {2, std::nullopt, {"d", "a"}, false},
      {9, 1, {}, false},
      {-3, 1, {"b"}, true},
  };
  for (const auto& w : windows) {
    bool has_more = !w.has_more;
    std::vector<std::string> ids;
    for (const auto& info : list(*sql, w.offset, w.limit, &has_more)) {
      ids.push_back(info.local_conversation_id);
    }
    EXPECT_EQ(ids, w.ids) << w.offset.value_or(-99) << "/" << w.limit.value_or(-99);
    EXPECT_EQ(has_more, w.has_more) << w.offset.value_or(-99) << "/" << w.limit.value_or(-99);
  }

  EXPECT_FALSE(sql->isMigrated());
  ASSERT_TRUE(sql->setMigrated(true));
  EXPECT_TRUE(sql->isMigrated());

  ASSERT_TRUE(sql->deleteConversations({"b", "missing", "a"}));
  EXPECT_EQ(describeAll(list(*sql)), describeAll(std::vector<ConversationInfo>{c2, d}));
  EXPECT_TRUE(sql->deleteConversations({}));
}

TEST_P(SqlExecutorContract, MessagesRoundTripAndUpdateByLocalIdOrElseMessageId) {
  auto sql = fresh();
  ASSERT_TRUE(sql);
  const char odd[] = "nul\0inside, \xc3\xa9t\xc3\xa9, \xff";
  const std::string odd_bytes(odd, sizeof odd - 1);
  const std::vector<MessageRecord> stored = {
      message("c", "l1", "one", "m1", "s1"), message("c", "", "delta", "", "s1"),
      message("c", "", "delta", "", "s1"),   message("c", "l2", odd_bytes, "m2", "s2"),
      message("c", "", "no local id", "m3"), message("other", "l1", "elsewhere", "m1")};
  for (const auto& r : stored) ASSERT_TRUE(sql->insertMessage(r));
  ASSERT_TRUE(sql->insertMessage(message("big", "", std::string(1 << 20, 'x'))));
  EXPECT_EQ(describeAll(all(*sql, "c")),
            describeAll(std::vector<MessageRecord>(stored.begin(), stored.begin() + 5)));
  EXPECT_EQ(all(*sql, "big").at(0).content.size(), size_t{1} << 20);
  EXPECT_TRUE(all(*sql, "nobody").empty());

  MessageRecord by_local = message("c", "l1", "one, edited", "m1-now-known", "s1");
  by_local.status = "edited";
  by_local.update_time = 33;
  MessageRecord by_id = message("c", "", "three, edited", "m3");
  ASSERT_TRUE(sql->updateMessage(by_local));
  ASSERT_TRUE(sql->updateMessage(by_id));
  ASSERT_TRUE(sql->updateMessage(message("c", "unknown", "nothing matches")));
  EXPECT_FALSE(sql->updateMessage(message("c", "", "no key at all")));
  const auto after = all(*sql, "c");
  ASSERT_EQ(after.size(), 5u);
  EXPECT_EQ(describe(after[0]), describe(by_local));  // replaced in place, order kept
  EXPECT_EQ(describe(after[4]), describe(by_id));
  EXPECT_EQ(contentsOf(after), (std::vector<std::string>{"one, edited", "delta", "delta", odd_bytes,
                                                         "three, edited"}));
  EXPECT_EQ(all(*sql, "other").at(0).content, "elsewhere");
}

TEST_P(SqlExecutorContract, RemoveMessagesMatchesEveryNonEmptyKey) {
  const std::vector<MessageRecord> rows = {
      message("c1", "l1", "r1", "m1", "s1"), message("c1", "l2", "r2", "m2", "s1"),
      message("c1", "", "r3", "", "s2"), message("c2", "l1", "r4", "m1", "s1")};
  const struct {
    const char *conversation, *message_id, *local_id, *section;
    bool accepted;
    std::vector<std::string> left;
  } cases[] = {
      {"c1", "", "", "", true, {"r4"}},
      {"c1", "", "l1", "", true, {"r2", "r3", "r4"}},
      {"", "m1", "", "", true, {"r2", "r3"}},
      {"c1", "", "", "s1", true, {"r3", "r4"}},
      {"", "", "", "s2", true, {"r1", "r2", "r4"}},
      {"c1", "m1", "l2", "", true, {"r1", "r2", "r3", "r4"}},
      {"c2", "m2", "", "", true, {"r1", "r2", "r3", "r4"}},
      {"", "", "", "", false, {"r1", "r2", "r3", "r4"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.conversation) + "/" + c.message_id + "/" + c.local_id + "/" +
                 c.section);
    auto sql = fresh();
    ASSERT_TRUE(sql);
    for (const auto& r : rows) ASSERT_TRUE(sql->insertMessage(r));
    EXPECT_EQ(sql->removeMessages(c.conversation, c.message_id, c.local_id, c.section), c.accepted);
    auto left = contentsOf(all(*sql, "c1"));
    const auto other = contentsOf(all(*sql, "c2"));
    left.insert(left.end(), other.begin(), other.end());
    EXPECT_EQ(left, c.left);
  }
}

TEST_P(SqlExecutorContract, PagingBackwardsVisitsEveryMessageOnceWhileNewOnesArrive) {
  auto sql = fresh();
  ASSERT_TRUE(sql);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(sql->insertMessage(message("c", "", std::to_string(i))));
    if (i % 2) {
      ASSERT_TRUE(sql->insertMessage(message("noise", "", "n")));
    }
  }
  // Pages come newest first, each oldest-first; the cursor of the next is
  // the sequence of the oldest row returned.
  auto walk = [&](int32_t count, const std::function<void()>& between_pages) {
    std::vector<std::string> seen;
    std::optional<int32_t> cursor;
    for (bool more = true; more;) {
      const auto p = page(*sql, "c", cursor, count);
      EXPECT_LE(p.messages.size(), static_cast<size_t>(count));
      EXPECT_GT(p.count, 0);
      if (cursor) {
        EXPECT_LT(p.count, *cursor);
      }
      seen.insert(seen.begin(), p.messages.size(), "");
      std::transform(p.messages.begin(), p.messages.end(), seen.begin(),
                     [](const MessageRecord& r) { return r.content; });
      cursor = p.count;
      more = p.has_more;
      between_pages();
    }
    return seen;
  };
  std::vector<std::string> expected;
  for (int i = 0; i < 1000; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(walk(37, [] {}), expected);
  EXPECT_EQ(walk(1000, [] {}), expected);

  int arrived = 0;
  const auto newest_before = page(*sql, "c", std::nullopt, 1);
  std::vector<std::string> with_arrivals =
      walk(50, [&] { sql->insertMessage(message("c", "", "late" + std::to_string(arrived++))); });
  EXPECT_EQ(with_arrivals, expected);  // the late ones sit above the first page
  const auto newest_after = page(*sql, "c", std::nullopt, arrived);
  EXPECT_EQ(newest_after.messages.front().content, "late0");
  EXPECT_GT(newest_after.count, newest_before.count);

  const struct {
    std::optional<int32_t> cursor, count;
  } empty_pages[] = {{std::nullopt, 0}, {std::nullopt, -5}, {std::nullopt, std::nullopt}, {1, 10}};
  for (const auto& e : empty_pages) {
    const auto p = page(*sql, "c", e.cursor, e.count);
    EXPECT_TRUE(p.messages.empty());
    EXPECT_EQ(p.count, 0);
    EXPECT_FALSE(p.has_more);
  }
  const auto oldest = page(*sql, "c", 2, 10);  // seq 1 holds "0"
  EXPECT_EQ(contentsOf(oldest.messages), std::vector<std::string>{"0"});
  EXPECT_FALSE(oldest.has_more);
  EXPECT_TRUE(page(*sql, "nobody", std::nullopt, 10).messages.empty());
}

INSTANTIATE_TEST_SUITE_P(BothExecutors, SqlExecutorContract,
                         ::testing::Values(Kind::Sqlite, Kind::Memory),
                         [](const auto& info) { return std::string(nameOf(info.param)); });

TEST(SqliteExecutorTest, DataSurvivesClosingAndReopening) {
  ScratchDir dir;
  const std::string path = dir.file("history.db");
  int32_t newest = 0;
  {
    auto sql = SqliteExecutor::open(path);
    ASSERT_TRUE(sql);
    ASSERT_TRUE(sql->saveConversations({ConversationInfo("c", "s", "n", 5, 6, 7, "x")}));
    for (int i = 0; i < 3; ++i)
      ASSERT_TRUE(sql->insertMessage(message("c", "", std::to_string(i))));
    ASSERT_TRUE(sql->setMigrated(true));
    MessageQueryResult last;
    ASSERT_TRUE(sql->queryMessages(last, "c", 0, std::nullopt, 1));
    newest = last.count;
    ASSERT_TRUE(sql->removeMessages("c", "", "", ""));
  }
  auto sql = SqliteExecutor::open(path);
  ASSERT_TRUE(sql);
  ConversationListQueryResult conversations;
  ASSERT_TRUE(sql->queryConversations(conversations, 1, std::nullopt, std::nullopt));
  ASSERT_EQ(conversations.conversations.size(), 1u);
  EXPECT_EQ(describe(conversations.conversations[0]), "c|s|n|5|6|7|x");
  EXPECT_TRUE(sql->isMigrated());
  // Sequences are never reused, even after the newest rows were deleted.
  ASSERT_TRUE(sql->insertMessage(message("c", "", "after")));
  MessageQueryResult page;
  ASSERT_TRUE(sql->queryMessages(page, "c", 0, std::nullopt, 10));
  EXPECT_EQ(contentsOf(page.messages), std::vector<std::string>{"after"});
  EXPECT_GT(page.count, newest);
}

TEST(SqliteExecutorTest, OpenRefusesUnusableFilesWithAReason) {
  ScratchDir dir;
  const std::string garbage = dir.file("garbage.db");
  std::ofstream(garbage, std::ios::binary) << std::string(8192, '\x5a');
  std::ofstream(dir.file("plain")) << "x";
  const std::string newer = dir.file("newer.db");
  ASSERT_TRUE(SqliteExecutor::open(newer));
  execOn(newer, "UPDATE meta SET value = 2 WHERE key = 'schema_version'");

  const struct {
    std::string path, reason;
  } cases[] = {
      {garbage, "file is not a database"},
      {dir.file("plain/history.db"), "unable to open database file"},
      {dir.file("missing-dir/history.db"), "unable to open database file"},
      {newer, "schema version 2 is newer than the supported 1"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(SqliteExecutor::open(c.path, &error)) << c.path;
    EXPECT_EQ(error.rfind("cannot open " + c.path + ": ", 0), 0u) << error;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_FALSE(SqliteExecutor::open(c.path));  // no error text wanted
  }
}

TEST(SqliteExecutorTest, RunTimeFailuresReachTheSinkAndRollBack) {
  ScratchDir dir;
  const std::string path = dir.file("history.db");
  auto sql = SqliteExecutor::open(path);
  ASSERT_TRUE(sql);

  testing::internal::CaptureStderr();
  EXPECT_FALSE(sql->removeMessages("", "", "", ""));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "orvi_sqlite: removeMessages refused: every key is empty\n");

  std::vector<std::string> errors;
  sql->setErrorSink([&](const std::string& message) { errors.push_back(message); });
  EXPECT_FALSE(sql->updateMessage(message("c", "", "x")));
  execOn(path, "DROP TABLE messages");
  EXPECT_FALSE(sql->insertMessage(message("c", "", "x")));
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0],
            "updateMessage refused: the record has neither a local message id nor a message id");
  EXPECT_EQ(errors[1].rfind("insertMessage failed: no such table: messages", 0), 0u) << errors[1];
  // The failed write left no transaction open behind it.
  EXPECT_TRUE(sql->saveConversations({ConversationInfo("c", "", "", 1, {}, {}, "")}));
  EXPECT_EQ(errors.size(), 2u);
}

TEST(SqliteExecutorTest, OneWriterAndSeveralReadersAtOnce) {
  ScratchDir dir;
  auto sql = SqliteExecutor::open(dir.file("history.db"));
  ASSERT_TRUE(sql);
  std::atomic<int> errors{0};
  sql->setErrorSink([&](const std::string&) { ++errors; });
  constexpr int kMessages = 600;
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int i = 0; i < kMessages; ++i) {
      sql->insertMessage(message("c", "l" + std::to_string(i), std::to_string(i)));
      if (i % 50 == 0) {
        sql->saveConversations({ConversationInfo("c", "", "", i, {}, i, "")});
        sql->updateMessage(message("c", "l0", "0"));
      }
    }
    writing = false;
  });
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (writing) {
        MessageQueryResult result;
        sql->queryMessages(result, "c", 1, std::nullopt, std::nullopt);
        for (size_t i = 0; i < result.messages.size(); ++i) {
          if (result.messages[i].content != std::to_string(i)) ++bad;
        }
        sql->queryMessages(result, "c", 0, std::nullopt, 20);
        if (result.messages.size() > 20) ++bad;
        ConversationListQueryResult conversations;
        sql->queryConversations(conversations, 1, std::nullopt, std::nullopt);
        if (conversations.conversations.size() > 1) ++bad;
      }
    });
  }
  writer.join();
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(errors.load(), 0);
  MessageQueryResult result;
  ASSERT_TRUE(sql->queryMessages(result, "c", 1, std::nullopt, std::nullopt));
  EXPECT_EQ(result.messages.size(), static_cast<size_t>(kMessages));
}

}  // namespace
}  // namespace orvi
