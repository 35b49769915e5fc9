#include "orvi/sqlite/sqlite_executor.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/memory_sql_executor.h"
#include "support/temp_dir.h"

namespace orvi {
namespace {

using sqlite::SqliteExecutor;

MessageRecord message(const std::string& conversation, const std::string& content,
                      const std::string& local_id = "", const std::string& message_id = "") {
  return MessageRecord(conversation, "srv-" + conversation, "s-" + local_id, "srv-s", local_id,
                       message_id, "assistant", 11, 22, "done", content);
}

// Every field, so that a comparison shows any one lost or swapped.
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
template <typename Record = MessageRecord>
std::vector<std::string> describeAll(const std::vector<Record>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(describe(r));
  return out;
}

// The row semantics every executor shares: each case runs on orvi_sqlite,
// with real files in a scratch directory, and on the in-memory executor that
// the library's other tests rely on.
enum class Kind { Sqlite, Memory };

class SqlExecutorContract : public ::testing::TestWithParam<Kind> {
 protected:
  void SetUp() override { reopen(); }
  // Opens the file again after closing it, so that every later check sees
  // what reached the disk; the memory executor just stays.
  void reopen() {
    if (GetParam() == Kind::Memory && sql_) return;
    sql_.reset();
    sql_ = GetParam() == Kind::Memory
               ? std::shared_ptr<ISqlExecutor>(std::make_shared<test::MemorySqlExecutor>())
               : SqliteExecutor::open(dir_.file("history.db"));
    ASSERT_TRUE(sql_);
  }
  std::vector<MessageRecord> all(const std::string& conversation) {
    MessageQueryResult result;
    EXPECT_TRUE(sql_->queryMessages(result, conversation, 1, std::nullopt, std::nullopt));
    return result.messages;
  }
  MessageQueryResult page(std::optional<int32_t> cursor, std::optional<int32_t> count) {
    MessageQueryResult result;
    EXPECT_TRUE(sql_->queryMessages(result, "c", 0, cursor, count));
    return result;
  }

  test::TempDir dir_{"orvi-sqlite"};
  std::shared_ptr<ISqlExecutor> sql_;
};

TEST_P(SqlExecutorContract, EveryOperationRoundTripsThroughReopening) {
  ConversationInfo a("a", "", "A", 10, {}, {}, ""), b("b", "srv-b", "B", 30, 35, 7, R"({"k":1})");
  ConversationInfo c("c", "srv-c", "C", 20, 21, 0, ""), d("d", "", "D", 20, {}, 3, "");
  ASSERT_TRUE(sql_->saveConversations({a, b, c}));
  ASSERT_TRUE(sql_->saveConversations({d}));
  c.name = "C2";
  c.message_count = std::nullopt;
  d.name = "D2";  // saved again, replacing the row
  ASSERT_TRUE(sql_->saveConversations({d}));
  ASSERT_TRUE(sql_->updateConversations({c, ConversationInfo("z", "", "Z", 1, {}, {}, "")}));
  ASSERT_TRUE(sql_->deleteConversations({"missing", "a"}));
  EXPECT_FALSE(sql_->isMigrated());
  ASSERT_TRUE(sql_->setMigrated(true));

  const char odd_chars[] = "nul\0inside, \xc3\xa9t\xc3\xa9, \xff";
  const std::string odd(odd_chars, sizeof odd_chars - 1), big(1 << 20, 'x');
  std::vector<MessageRecord> rows = {message("c", "one", "l1", "m1"),
                                     message("c", "delta"),
                                     message("c", "delta"),
                                     message("c", odd, "l2", "m2"),
                                     message("c", "three", "", "m3"),
                                     message("c", big, "l9", "m9"),
                                     message("other", "elsewhere", "l1", "m1")};
  for (const auto& r : rows) ASSERT_TRUE(sql_->insertMessage(r));
  // Found by local id, or else by message id; replaced in place.
  rows[0] = message("c", "one, edited", "l1", "m1-now-known");
  rows[4].content = "three, edited";
  ASSERT_TRUE(sql_->updateMessage(rows[0]));
  ASSERT_TRUE(sql_->updateMessage(rows[4]));
  ASSERT_TRUE(sql_->updateMessage(message("c", "nothing matches", "unknown")));
  EXPECT_FALSE(sql_->updateMessage(message("c", "no key at all")));

  ASSERT_NO_FATAL_FAILURE(reopen());
  EXPECT_TRUE(sql_->isMigrated());
  ConversationListQueryResult result;
  ASSERT_TRUE(sql_->queryConversations(result, 1, std::nullopt, std::nullopt));
  // Newest first, equal create times by local id.
  EXPECT_EQ(describeAll(result.conversations), describeAll<ConversationInfo>({b, c, d}));
  EXPECT_TRUE(result.count == 3 && !result.has_more);
  EXPECT_EQ(describeAll(all("c")), describeAll(std::vector<MessageRecord>(&rows[0], &rows[6])));
  EXPECT_EQ(describeAll(all("other")), describeAll({rows[6]}));

  // Every non-empty key must match; without the conversation's id nothing
  // is removed, not even with other keys.
  ASSERT_TRUE(sql_->removeMessages("c", "m9", "l2", ""));
  ASSERT_TRUE(sql_->removeMessages("c", "", "l2", ""));
  EXPECT_FALSE(sql_->removeMessages("", "m3", "", ""));
  ASSERT_TRUE(sql_->removeMessages("c", "m3", "", ""));
  ASSERT_TRUE(sql_->removeMessages("c", "", "", "s-l1"));
  EXPECT_FALSE(sql_->removeMessages("", "", "", ""));
  EXPECT_FALSE(sql_->removeMessages("", "", "l1", ""));
  ASSERT_NO_FATAL_FAILURE(reopen());
  EXPECT_EQ(describeAll(all("c")), describeAll({rows[1], rows[2], rows[5]}));
  EXPECT_EQ(describeAll(all("other")), describeAll({rows[6]}));
}

TEST_P(SqlExecutorContract, PagingBackwardsVisitsEveryMessageOnceWhileNewOnesArrive) {
  std::vector<MessageRecord> expected, seen;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back(message("c", std::to_string(i)));
    ASSERT_TRUE(sql_->insertMessage(expected.back()));
    ASSERT_TRUE(i % 2 == 0 || sql_->insertMessage(message("noise", "n")));
  }
  ASSERT_NO_FATAL_FAILURE(reopen());
  // Pages come newest first, each oldest-first; the cursor of the next is the
  // sequence of the oldest row returned. Rows arriving meanwhile sit above.
  std::optional<int32_t> cursor;
  for (MessageQueryResult p; !cursor || p.has_more; cursor = p.count) {
    p = page(cursor, 37);
    ASSERT_TRUE(p.messages.size() <= 37 && p.count > 0 && (!cursor || p.count < *cursor));
    seen.insert(seen.begin(), p.messages.begin(), p.messages.end());
    ASSERT_TRUE(sql_->insertMessage(message("c", "late")));
  }
  EXPECT_EQ(describeAll(seen), describeAll(expected));
  EXPECT_EQ(describeAll(page(2, 10).messages), describeAll({expected[0]}));  // seq 1
  for (const auto& p : {page({}, 0), page({}, -5), page({}, {}), page(1, 10)}) {
    EXPECT_TRUE(p.messages.empty() && p.count == 0 && !p.has_more);  // empty pages
  }

  // Sequences are never reused, even after the newest rows were deleted.
  const int32_t newest = page(std::nullopt, 1).count;
  ASSERT_TRUE(sql_->removeMessages("c", "", "", ""));
  ASSERT_NO_FATAL_FAILURE(reopen());
  ASSERT_TRUE(sql_->insertMessage(message("c", "after")));
  EXPECT_GT(page(std::nullopt, 10).count, newest);
}

TEST_P(SqlExecutorContract, OneWriterAndSeveralReadersAtOnce) {
  std::atomic<bool> writing{true};
  std::atomic<int> bad{0};
  auto read = [&] {
    for (MessageQueryResult r; writing;) {
      bad += !sql_->queryMessages(r, "c", 1, std::nullopt, std::nullopt);
      for (size_t i = 0; i < r.messages.size(); ++i)
        bad += r.messages[i].content != std::to_string(i);
      bad += !sql_->queryMessages(r, "c", 0, std::nullopt, 20) || r.messages.size() > 20;
    }
  };
  std::thread readers[] = {std::thread(read), std::thread(read), std::thread(read)};
  for (int i = 0; i < 600; ++i) bad += !sql_->insertMessage(message("c", std::to_string(i)));
  writing = false;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(all("c").size(), 600u);
}

// A message's identity: its local id, or else its server id within its local
// section. Each case writes through one executor and lists the contents left
// in conversation "c", in row order.
TEST_P(SqlExecutorContract, OneRowPerMessageAndTurnsNeverTouchEachOther) {
  // id: local message id, message id, local section id.
  auto row = [](const std::string& content, const std::string& local_id,
                const std::string& message_id, const std::string& section,
                const std::string& conversation = "c") {
    return MessageRecord(conversation, "srv", section, "srv-" + section, local_id, message_id,
                         local_id.empty() ? "assistant" : "user", 1, 2, "2", content);
  };
  using Step = std::function<bool(ISqlExecutor&)>;
  auto insert = [](MessageRecord r) {
    return Step([r](ISqlExecutor& x) { return x.insertMessage(r); });
  };
  auto update = [](MessageRecord r) {
    return Step([r](ISqlExecutor& x) { return x.updateMessage(r); });
  };
  auto remove = [](std::string m, std::string l, std::string s) {
    return Step([=](ISqlExecutor& x) { return x.removeMessages("c", m, l, s); });
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
    std::vector<std::string> left;
  };
  const Case cases[] = {
      {"a repeated frame replaces its row in place",
       {insert(row("prompt", "u1", "", "L1")), insert(row("first frame", "", "1", "L1")),
        insert(row("next", "u2", "", "L2")), insert(row("repeated frame", "", "1", "L1"))},
       {"prompt", "repeated frame", "next"}},
      {"a prompt stored at send and again when acknowledged is one row",
       {insert(row("sent", "u1", "", "L1")), insert(row("acknowledged", "u1", "7", "L1"))},
       {"acknowledged"}},
      {"a server that restarted reuses id 1 in a new turn",
       {insert(row("old answer", "", "1", "L1")), insert(row("new answer", "", "1", "L2")),
        update(row("new answer, complete", "", "1", "L2"))},
       {"old answer", "new answer, complete"}},
      {"an update reaches only its own turn and conversation",
       {insert(row("turn 1", "", "1", "L1")), insert(row("elsewhere", "", "1", "L2", "d")),
        update(row("turn 2 is not stored", "", "1", "L2")),
        update(row("elsewhere, updated", "", "1", "L1", "d"))},
       {"turn 1"}},
      {"a user message with the same server id is not an assistant message",
       {insert(row("prompt", "u1", "1", "L1")), insert(row("answer", "", "1", "L1")),
        update(row("answer, complete", "", "1", "L1"))},
       {"prompt", "answer, complete"}},
      {"records without ids are always new rows",
       {insert(row("system", "", "", "L1")), insert(row("system", "", "", "L1"))},
       {"system", "system"}},
      {"removing by server id keeps the other turn",
       {insert(row("turn 1", "", "1", "L1")), insert(row("turn 2", "", "1", "L2")),
        remove("1", "", "L2")},
       {"turn 1"}},
      {"removing by local id",
       {insert(row("prompt", "u1", "", "L1")), insert(row("answer", "", "1", "L1")),
        remove("", "u1", "")},
       {"answer"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(sql_->removeMessages("c", "", "", ""));
    for (const Step& step : c.steps) ASSERT_TRUE(step(*sql_));
    ASSERT_NO_FATAL_FAILURE(reopen());
    std::vector<std::string> left;
    for (const auto& r : all("c")) left.push_back(r.content);
    EXPECT_EQ(left, c.left);
  }
  // Only one case wrote to "d", and nothing after it reached that row.
  ASSERT_EQ(all("d").size(), 1u);
  EXPECT_EQ(all("d")[0].content, "elsewhere");
}

// The instance name keeps both executors under a filter on "Sqlite".
INSTANTIATE_TEST_SUITE_P(SqliteAndMemory, SqlExecutorContract,
                         ::testing::Values(Kind::Sqlite, Kind::Memory), [](const auto& info) {
                           return info.param == Kind::Sqlite ? "Sqlite" : "Memory";
                         });

// Runs SQL on the file through a connection of its own, as another program would.
void execOn(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

TEST(SqliteExecutorTest, UnusableFilesGiveAReasonAndFailedWritesRollBack) {
  test::TempDir dir("orvi-sqlite");
  dir.write("garbage.db", std::string(8192, '\x5a'));
  dir.write("plain", "x");
  ASSERT_TRUE(SqliteExecutor::open(dir.file("newer.db")));
  execOn(dir.file("newer.db"), "UPDATE meta SET value = 3 WHERE key = 'schema_version'");
  const std::pair<std::string, std::string> cases[] = {
      {"garbage.db", "file is not a database"},
      {"plain/history.db", "unable to open database file"},
      {"newer.db", "schema version 3 is newer than the supported 2"}};
  for (const auto& [name, reason] : cases) {
    std::string error;
    EXPECT_FALSE(SqliteExecutor::open(dir.file(name), &error)) << name;
    EXPECT_EQ(error.rfind("cannot open " + dir.file(name) + ": " + reason, 0), 0u) << error;
    EXPECT_FALSE(SqliteExecutor::open(dir.file(name)));  // no error text wanted
  }

  // A write that fails at run time reaches the sink and leaves no
  // transaction open behind it.
  auto sql = SqliteExecutor::open(dir.file("history.db"));
  ASSERT_TRUE(sql);
  std::vector<std::string> errors;
  sql->setErrorSink([&](const std::string& message) { errors.push_back(message); });
  execOn(dir.file("history.db"), "DROP TABLE messages");
  EXPECT_FALSE(sql->insertMessage(message("c", "x")));
  EXPECT_TRUE(sql->saveConversations({ConversationInfo("c", "", "", 1, {}, {}, "")}));
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].rfind("insertMessage failed: no such table: messages", 0), 0u) << errors[0];
}

std::vector<std::string> contentsOf(ISqlExecutor& sql, const std::string& conversation) {
  MessageQueryResult result;
  EXPECT_TRUE(sql.queryMessages(result, conversation, 1, std::nullopt, std::nullopt));
  std::vector<std::string> out;
  for (const auto& r : result.messages) out.push_back(r.content);
  return out;
}

TEST(SqliteExecutorTest, AWriteGroupIsOneTransactionThatOnlyItsThreadJoins) {
  test::TempDir dir("orvi-sqlite");
  const std::string path = dir.file("history.db");
  auto sql = SqliteExecutor::open(path);
  auto other_process = SqliteExecutor::open(path);
  ASSERT_TRUE(sql && other_process);
  std::vector<std::string> errors;
  sql->setErrorSink([&](const std::string& message) { errors.push_back(message); });
  execOn(path, "DROP TABLE conversations");  // makes one write of the group fail

  EXPECT_FALSE(sql->endWriteGroup());  // none open
  ASSERT_TRUE(sql->beginWriteGroup());
  EXPECT_FALSE(sql->beginWriteGroup());  // never nested
  ASSERT_TRUE(sql->insertMessage(message("c", "1")));
  EXPECT_FALSE(sql->saveConversations({ConversationInfo("c", "", "", 1, {}, {}, "")}));
  ASSERT_TRUE(sql->insertMessage(message("c", "2")));
  // Nothing shows before the commit, to this executor's reads or another's.
  EXPECT_TRUE(contentsOf(*sql, "c").empty());
  EXPECT_TRUE(contentsOf(*other_process, "c").empty());

  // A write from another thread waits for the group and is not part of it.
  std::thread host_thread([&] { EXPECT_TRUE(sql->insertMessage(message("c", "3"))); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // lets it try to cut in
  ASSERT_TRUE(sql->insertMessage(message("c", "2b")));
  ASSERT_TRUE(sql->endWriteGroup());
  host_thread.join();
  EXPECT_EQ(contentsOf(*other_process, "c"), (std::vector<std::string>{"1", "2", "2b", "3"}));
  ASSERT_EQ(errors.size(), 3u);
  EXPECT_EQ(errors[0], "endWriteGroup failed: no write group is open on this thread");
  EXPECT_EQ(errors[1], "beginWriteGroup failed: a write group is already open on this thread");
  EXPECT_EQ(errors[2].rfind("saveConversations failed: no such table: conversations", 0), 0u)
      << errors[2];
}

TEST(SqliteExecutorTest, AVersion1FileIsUpgradedToOneRowPerMessage) {
  test::TempDir dir("orvi-sqlite");
  const std::string path = dir.file("history.db");
  ASSERT_TRUE(SqliteExecutor::open(path));
  // Back to version 1, which had no identity, with the duplicates it allowed.
  execOn(path,
         "DROP INDEX messages_by_local_message_id; DROP INDEX messages_by_message_id;"
         "CREATE INDEX messages_by_local_message_id ON messages(local_conversation_id, "
         "local_message_id);"
         "UPDATE meta SET value = 1 WHERE key = 'schema_version'");
  // content, conversation, local section, local message id, message id
  const char* rows[][5] = {
      {"old turn", "c", "L0", "", "a1"},       {"prompt", "c", "L1", "u1", ""},
      {"answer", "c", "L1", "", "a1"},         {"answer, later", "c", "L1", "", "a1"},
      {"prompt, acked", "c", "L1", "u1", "7"}, {"system", "c", "L1", "", ""},
      {"system", "c", "L1", "", ""},           {"elsewhere", "d", "L1", "", "a1"}};
  for (const auto& r : rows) {
    execOn(path, ("INSERT INTO messages(local_conversation_id, conversation_id, local_section_id, "
                  "section_id, local_message_id, message_id, type, create_time, update_time, "
                  "status, content) VALUES('" +
                  std::string(r[1]) + "', '', '" + r[2] + "', '', '" + r[3] + "', '" + r[4] +
                  "', 't', 0, 0, '2', '" + r[0] + "')")
                     .c_str());
  }

  auto sql = SqliteExecutor::open(path);
  ASSERT_TRUE(sql);
  // Each message keeps its first place and its newest columns.
  EXPECT_EQ(contentsOf(*sql, "c"), (std::vector<std::string>{"old turn", "prompt, acked",
                                                             "answer, later", "system", "system"}));
  MessageQueryResult result;
  ASSERT_TRUE(sql->queryMessages(result, "c", 1, std::nullopt, std::nullopt));
  EXPECT_EQ(result.messages[1].message_id, "7");
  EXPECT_EQ(contentsOf(*sql, "d"), std::vector<std::string>{"elsewhere"});
  // From now on a message stored again replaces its row.
  ASSERT_TRUE(sql->insertMessage(
      MessageRecord("c", "", "L1", "", "", "a1", "t", 0, 0, "2", "answer, final")));
  EXPECT_EQ(contentsOf(*sql, "c")[2], "answer, final");
  EXPECT_EQ(contentsOf(*sql, "c").size(), 5u);
  sql.reset();
  ASSERT_TRUE(SqliteExecutor::open(path));  // a version 2 file opens as it is
}

}  // namespace
}  // namespace orvi
