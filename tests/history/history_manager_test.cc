#include "orvi/history/manager/history_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/conversation/conversation_hub.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "orvi/sqlite/sqlite_executor.h"
#include "support/memory_sql_executor.h"
#include "support/recording_log_handler.h"
#include "support/temp_dir.h"

namespace orvi {
namespace {

using nlohmann::json;
using sqlite::SqliteExecutor;

std::shared_ptr<UserMessageWrapper> userMessage(const std::string& conversation,
                                                const std::string& text) {
  InputMessage input;
  input.content = MessageContent(text, 0);
  auto wrapper = UserMessageWrapper::fromInput(input, conversation, "srv-" + conversation);
  wrapper->setSectionIds("s", "ls");
  wrapper->sync();
  return wrapper;
}

MessagePtr assistantMessage(const std::string& conversation, const std::string& id,
                            const std::string& text) {
  const json content = {{"message_id", id},
                        {"role", "assistant"},
                        {"content", {{"payload", json({{"text", text}}).dump()}}},
                        {"status", 2}};
  return MessageProcessor::parse(json({{"conversation_id", "srv-" + conversation},
                                       {"local_conversation_id", conversation},
                                       {"section_id", "s"},
                                       {"local_section_id", "ls"},
                                       {"event", "message"},
                                       {"content", content.dump()}})
                                     .dump());
}

// The text a stored frame shows: a prompt's content, an answer's "text".
std::string textOf(const std::string& frame) {
  const MessagePtr message = MessageProcessor::parse(frame);
  if (const auto* user = dynamic_cast<const UserMessageWrapper*>(message.get())) {
    return user->message()->content->content;
  }
  if (const auto* answer = dynamic_cast<const AssistantMessageWrapper*>(message.get())) {
    return json::parse(answer->message()->content->content).value("text", "");
  }
  return "?";
}

std::vector<std::string> textsOf(const std::vector<std::string>& frames) {
  std::vector<std::string> out;
  for (const auto& frame : frames) out.push_back(textOf(frame));
  return out;
}

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

class HistoryManagerTest : public ::testing::Test {
 protected:
  std::shared_ptr<SqliteExecutor> openDatabase() {
    std::string error;
    auto sql = SqliteExecutor::open(dir_.file("history.db"), &error);
    EXPECT_TRUE(sql) << error;
    return sql;
  }

  test::ScopedLogCapture log_;
  test::TempDir dir_{"orvi-history"};
};

TEST_F(HistoryManagerTest, MessagesSurviveARestartInOrder) {
  std::vector<std::string> expected_ids;
  {
    HistoryManager history;
    ASSERT_TRUE(history.init(dir_.path(), openDatabase(), 30, false));
    history.addConversation("lc1", "srv-lc1", "first");
    for (int i = 0; i < 20; ++i) {
      auto user = userMessage("lc1", "question " + std::to_string(i));
      expected_ids.push_back(user->message()->local_message_id);
      history.recordMessage(user);
      history.recordMessage(assistantMessage("lc1", "a" + std::to_string(i), "answer"));
      expected_ids.push_back("a" + std::to_string(i));
    }
    history.recordMessage(assistantMessage("other", "x", "not mine"));
    ASSERT_TRUE(history.flush());
  }

  HistoryManager reopened;
  ASSERT_TRUE(reopened.init(dir_.path(), openDatabase(), 30, false));
  EXPECT_EQ(reopened.getConversationId("lc1"), "srv-lc1");
  const auto frames = reopened.getMessages("lc1");
  ASSERT_EQ(frames.size(), expected_ids.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    const MessagePtr message = MessageProcessor::parse(frames[i]);
    ASSERT_TRUE(message);
    const MessageEnvelope& ids = message->envelope();
    EXPECT_EQ(message->type() == MessageKind::User ? ids.local_message_id : ids.message_id,
              expected_ids[i]);
    EXPECT_EQ(ids.local_conversation_id, "lc1");
  }
}

TEST_F(HistoryManagerTest, PagingBackVisitsEveryMessageOnce) {
  HistoryManager history;
  ASSERT_TRUE(history.init(dir_.path(), openDatabase(), 30, false));
  for (int i = 0; i < 1000; ++i) {
    history.recordMessage(assistantMessage("lc1", "m" + std::to_string(i), ""));
  }
  ASSERT_TRUE(history.flush());

  std::vector<std::string> seen;
  int32_t cursor = 0;
  for (int page = 0; page < 100; ++page) {
    const MessageQueryResult result = history.getMessages("lc1", cursor, 64);
    std::vector<std::string> ids;
    for (const auto& record : result.messages) ids.push_back(record.message_id);
    seen.insert(seen.begin(), ids.begin(), ids.end());  // pages go back in time
    if (!result.has_more) break;
    cursor = result.count;
  }
  ASSERT_EQ(seen.size(), 1000u);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(seen[i], "m" + std::to_string(i));
}

TEST_F(HistoryManagerTest, ExpiryRemovesExactlyTheOldConversationsWithTheirMessages) {
  const int64_t day = 86400000;
  {
    auto sql = openDatabase();
    sql->saveConversations({ConversationInfo("old", "", "", nowMs() - 10 * day, {}, {}, ""),
                            ConversationInfo("edge", "", "", nowMs() - 2 * day - 60000, {}, {}, ""),
                            ConversationInfo("young", "", "", nowMs() - day / 2, {}, {}, "")});
    for (const char* id : {"old", "edge", "young"}) {
      sql->insertMessage(MessageRecord(id, "", "", "", "l", "", "user", 0, 0, "2", "{}"));
    }
  }
  {
    HistoryManager history;
    ASSERT_TRUE(history.init(dir_.path(), openDatabase(), 2, false));
    std::set<std::string> left;
    for (const auto& info : history.conversations()) left.insert(info.local_conversation_id);
    EXPECT_EQ(left, std::set<std::string>{"young"});
    EXPECT_TRUE(history.getMessages("old").empty());
    EXPECT_TRUE(history.getMessages("edge").empty());
    EXPECT_EQ(history.getMessages("young").size(), 1u);
  }
  // A retention of 0 expires everything created before now.
  HistoryManager strict;
  ASSERT_TRUE(strict.init(dir_.path(), openDatabase(), 0, false));
  EXPECT_TRUE(strict.conversations().empty());
  EXPECT_TRUE(strict.getMessages("young").empty());
}

TEST_F(HistoryManagerTest, LegacyFilesAreMigratedOnceAndNeverAgain) {
  const int64_t now = nowMs();
  dir_.write("orvi_history.json",
             json({{"conversations",
                    {{{"local_conversation_id", "kept"},
                      {"conversation_id", "srv-kept"},
                      {"name", "Kept"},
                      {"create_time", now},
                      {"update_time", now},
                      {"message_count", 2},
                      {"extra", {{"pinned", true}}}},
                     {{"local_conversation_id", "no-file"}, {"create_time", now}},
                     {{"local_conversation_id", "corrupt"}, {"create_time", now}}}}})
                 .dump());
  const std::string user_frame = userMessage("", "legacy question")->marshal();
  dir_.write("kept.json", json({{"messages", {json::parse(user_frame), "not a frame"}}}).dump());
  dir_.write("corrupt.json", "{\"messages\": [");

  {
    HistoryManager history;
    ASSERT_TRUE(history.init(dir_.path(), openDatabase(), 30, false));
    ConversationInfo kept;
    ASSERT_TRUE(history.findConversation("kept", kept));
    EXPECT_EQ(kept.conversation_id, "srv-kept");
    EXPECT_EQ(kept.extra, R"({"pinned":true})");
    EXPECT_EQ(*kept.message_count, 2);
    EXPECT_EQ(history.conversations().size(), 3u);
    const auto frames = history.getMessages("kept");
    ASSERT_EQ(frames.size(), 1u);  // the unparsable entry is skipped
    auto restored =
        std::dynamic_pointer_cast<UserMessageWrapper>(MessageProcessor::parse(frames[0]));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->message()->content->content, "legacy question");
    EXPECT_TRUE(log_->has("message history file(" + dir_.file("no-file.json") +
                          ") not exists, skip loading history.."));
    EXPECT_EQ(log_->countContaining("load conversation file(" + dir_.file("corrupt.json")), 1u);
  }

  // New legacy data after the migration is never imported.
  dir_.write("kept.json",
             json({{"messages", {json::parse(user_frame), json::parse(user_frame)}}}).dump());
  HistoryManager again;
  ASSERT_TRUE(again.init(dir_.path(), openDatabase(), 30, false));
  EXPECT_EQ(again.getMessages("kept").size(), 1u);
}

TEST_F(HistoryManagerTest, CorruptIndexIsGivenUpOnceAndMissingIndexOnlyWarns) {
  {
    auto sql = std::make_shared<test::MemorySqlExecutor>();
    HistoryManager history;
    ASSERT_TRUE(history.init(dir_.path(), sql, 30, false));
    EXPECT_TRUE(log_->countContaining("not exists, skip migration.."));
    EXPECT_TRUE(sql->isMigrated());
  }
  auto sql = std::make_shared<test::MemorySqlExecutor>();
  dir_.write("orvi_history.json", R"({"conversations": {"not": "a list"}})");
  HistoryManager history;
  ASSERT_TRUE(history.init(dir_.path(), sql, 30, false));
  EXPECT_EQ(log_->countContaining("type must be array, but is object"), 1u);
  EXPECT_TRUE(sql->isMigrated());
  EXPECT_TRUE(history.conversations().empty());
}

TEST_F(HistoryManagerTest, MisuseAndFailuresAreRefusedQuietly) {
  HistoryManager history;
  history.recordMessage(assistantMessage("lc1", "a1", "x"));
  history.addConversation("lc1", "", "");
  EXPECT_TRUE(history.getMessages("lc1").empty());
  EXPECT_EQ(log_->countContaining("failed, cacher_ is null"), 3u);

  EXPECT_FALSE(history.init(dir_.path(), nullptr, 30, false));
  EXPECT_TRUE(log_->has("sql executor is null"));
  dir_.write("plain-file", "x");
  EXPECT_FALSE(history.init(dir_.file("plain-file") + "/cache", openDatabase(), 30, false));
  EXPECT_TRUE(log_->countContaining("create cache dir("));
  ASSERT_TRUE(history.init(dir_.path(), openDatabase(), 30, false));  // a retry works
  EXPECT_FALSE(history.init(dir_.path(), openDatabase(), 30, false));
  EXPECT_TRUE(log_->has("HistoryManager is already inited"));
}

TEST_F(HistoryManagerTest, ConversationsAndMerging) {
  auto sql = std::make_shared<test::MemorySqlExecutor>();
  HistoryManager history;
  ASSERT_TRUE(history.init(dir_.path(), sql, 30, true));
  history.addConversation("lc1", "", "mine");
  history.addConversation("lc1", "", "again");
  EXPECT_TRUE(log_->has(
      "SKIP to add conversation, local_conversation_id: lc1, name: mine is already record"));

  history.saveConversationInfos({ConversationInfo("lc1", "srv-1", "Renamed", 1, 5, 3, ""),
                                 ConversationInfo("lc2", "srv-2", "Remote", 2, {}, {}, "")});
  ConversationInfo info;
  ASSERT_TRUE(history.findConversation("lc1", info));
  EXPECT_EQ(info.conversation_id, "srv-1");
  EXPECT_EQ(info.name, "Renamed");
  EXPECT_NE(info.create_time, 1);  // the local create time stays
  EXPECT_EQ(history.conversations().size(), 2u);

  history.recordMessage(assistantMessage("lc2", "gone", ""));
  history.deleteConversation("lc2");
  history.deleteConversation("never-listed");
  ASSERT_TRUE(history.flush());
  EXPECT_TRUE(sql->messages("lc2").empty());
  EXPECT_EQ(sql->conversations().size(), 1u);

  // Merging updates what is stored and inserts what is new.
  history.recordMessage(assistantMessage("lc1", "a1", "old"));
  ASSERT_TRUE(history.flush());
  history.mergeMessage("lc1",
                       {assistantMessage("lc1", "a1", "new"), assistantMessage("lc1", "a2", "")});
  ASSERT_TRUE(history.flush());
  const auto records = sql->messages("lc1");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_NE(records[0].content.find("new"), std::string::npos);

  // With the merge switch off nothing is stored.
  HistoryManager plain;
  auto other = std::make_shared<test::MemorySqlExecutor>();
  ASSERT_TRUE(plain.init(dir_.path(), other, 30, false));
  plain.mergeMessage("lc1", {assistantMessage("lc1", "a3", "x")});
  ASSERT_TRUE(plain.flush());
  EXPECT_TRUE(other->messages("lc1").empty());

  history.setHistoryMessageLimited("lc1", 7);
  EXPECT_EQ(history.historyMessageLimited("lc1"), 7);
  history.deactivateConversation("lc1");
  EXPECT_EQ(history.historyMessageLimited("lc1"), 0);
}

TEST_F(HistoryManagerTest, LegacyImportSkipsOnlyTheBadEntriesAndDatesUndatedOnes) {
  const int64_t before = nowMs();
  dir_.write("orvi_history.json",
             json({{"conversations",
                    {{{"local_conversation_id", "good"}, {"create_time", before}},
                     {{"local_conversation_id", "bad-time"}, {"create_time", "yesterday"}},
                     42,
                     {{"local_conversation_id", "bad-count"}, {"message_count", "many"}},
                     {{"local_conversation_id", "undated"}, {"name", "No date"}},
                     {{"name", "no id"}, {"create_time", before}}}}})
                 .dump());
  dir_.write("undated.json",
             json({{"messages", {json::parse(userMessage("", "kept")->marshal())}}}).dump());
  auto sql = std::make_shared<test::MemorySqlExecutor>();
  HistoryManager history;
  ASSERT_TRUE(history.init(dir_.path(), sql, 30, false));

  std::set<std::string> imported;
  for (const auto& info : history.conversations()) imported.insert(info.local_conversation_id);
  EXPECT_EQ(imported, (std::set<std::string>{"good", "undated"}));
  ConversationInfo undated;
  ASSERT_TRUE(history.findConversation("undated", undated));
  EXPECT_GE(undated.create_time, before);  // not 1970, so the expiry pass kept it
  EXPECT_EQ(textsOf(history.getMessages("undated")), std::vector<std::string>{"kept"});
  const std::string type_error = "[json.exception.type_error.302] type must be ";
  const std::pair<int, std::string> skipped[] = {{1, type_error + "number, but is string"},
                                                 {2, type_error + "object, but is number"},
                                                 {3, type_error + "number, but is string"},
                                                 {5, "local_conversation_id is empty"}};
  for (const auto& [entry, reason] : skipped) {
    EXPECT_TRUE(
        log_->has("skip legacy conversation entry " + std::to_string(entry) + ": " + reason))
        << entry;
  }
  EXPECT_EQ(log_->countContaining("skip legacy conversation entry"), 4u);
  EXPECT_TRUE(sql->isMigrated());
}

TEST_F(HistoryManagerTest, ASlowStoreGetsTheWholeImportAndItsDoneMarkBeforeInitReturns) {
  struct Slow : test::MemorySqlExecutor {
    bool insertMessage(const MessageRecord& record) override {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      return MemorySqlExecutor::insertMessage(record);
    }
  };
  json messages = json::array();
  for (int i = 0; i < 300; ++i) {
    messages.push_back(json::parse(userMessage("", "q" + std::to_string(i))->marshal()));
  }
  dir_.write(
      "orvi_history.json",
      json({{"conversations", {{{"local_conversation_id", "old"}, {"create_time", nowMs()}}}}})
          .dump());
  dir_.write("old.json", json({{"messages", messages}}).dump());
  auto sql = std::make_shared<Slow>();
  {
    // The import takes longer than the stall limit in all, never between
    // two writes: init waits for all of it.
    HistoryManager history(std::chrono::milliseconds(300));
    ASSERT_TRUE(history.init(dir_.path(), sql, 30, false));
    EXPECT_TRUE(sql->isMigrated());
    EXPECT_EQ(sql->messages("old").size(), 300u);
  }  // gone without a flush, as at an exit
  HistoryManager again;
  ASSERT_TRUE(again.init(dir_.path(), sql, 30, false));
  EXPECT_EQ(sql->messages("old").size(), 300u);  // not imported twice
}

TEST_F(HistoryManagerTest, WhatTheStoreThrowsStaysInsideAndConfigCanBeRetried) {
  struct Flaky : test::MemorySqlExecutor {
    std::atomic<bool> broken{true};
    void check() {
      if (broken) throw std::runtime_error("store offline");
    }
    bool queryConversations(ConversationListQueryResult& r, int32_t m, std::optional<int32_t> o,
                            std::optional<int32_t> l) override {
      check();
      return MemorySqlExecutor::queryConversations(r, m, o, l);
    }
    bool queryMessages(MessageQueryResult& r, const std::string& id, int32_t m,
                       std::optional<int32_t> c, std::optional<int32_t> n) override {
      check();
      return MemorySqlExecutor::queryMessages(r, id, m, c, n);
    }
    bool insertMessage(const MessageRecord& record) override {
      check();
      return MemorySqlExecutor::insertMessage(record);
    }
  };
  auto sql = std::make_shared<Flaky>();
  ConversationHubImpl hub;
  const OrviConfig config(dir_.path(), 30, false);
  hub.config(config, nullptr);
  EXPECT_TRUE(log_->has("sql executor is null, u need register it before config."));
  hub.config(config, sql);  // throws while loading the list
  EXPECT_EQ(log_->count("init history manager failed, local history feature is unusable!!!"), 2u);
  EXPECT_TRUE(log_->has("query conversations failed: store offline"));
  EXPECT_FALSE(hub.flush(1000));  // nothing configured, nothing written

  sql->broken = false;
  hub.config(config, sql);
  EXPECT_TRUE(log_->has("config done, cache_path = " + dir_.path()));
  HistoryManager& history = *hub.history();
  sql->broken = true;
  history.recordMessage(assistantMessage("lc1", "a1", "lost"));
  EXPECT_FALSE(hub.flush(10000));  // the write threw
  EXPECT_TRUE(history.getMessages("lc1").empty());
  EXPECT_TRUE(history.getMessages("lc1", 0, 10).messages.empty());
  sql->broken = false;
  history.recordMessage(assistantMessage("lc1", "a2", "kept"));
  EXPECT_TRUE(hub.flush(10000));
  EXPECT_EQ(textsOf(history.getMessages("lc1")), std::vector<std::string>{"kept"});
}

TEST_F(HistoryManagerTest, HubFlushWaitsForQueuedWritesWithinItsTimeOut) {
  auto sql = std::make_shared<test::MemorySqlExecutor>();
  ConversationHubImpl hub;
  hub.config(OrviConfig(dir_.path(), 30, false), sql);
  std::unique_lock<std::mutex> gate(sql->writeGate());
  for (int i = 0; i < 2000; ++i) {
    hub.history()->recordMessage(assistantMessage("lc1", "m" + std::to_string(i), ""));
  }
  // The store is held, so these cannot be done; they report it.
  EXPECT_FALSE(hub.flush(20));
  EXPECT_FALSE(hub.flush(0));
  EXPECT_FALSE(hub.flush(-5));
  gate.unlock();
  EXPECT_TRUE(hub.flush(60000));
  EXPECT_EQ(sql->messages("lc1").size(), 2000u);
}

}  // namespace
}  // namespace orvi
