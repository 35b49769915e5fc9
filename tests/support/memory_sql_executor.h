// An ISqlExecutor that keeps its rows in memory, with the row semantics that
// docs/history.md fixes for every executor (orvi_sqlite has the same), for
// tests that need no database.
//
// Thread-safe: rows_mutex_ guards the rows. While a test holds writeGate(),
// every write blocks on entry, which lets it keep the cacher's worker busy
// and its queue provably non-empty.
//
// GroupingMemorySqlExecutor adds write groups (ISqlWriteGroups): writes made
// inside a group stay invisible until endWriteGroup applies them all, the
// way a transaction behaves, so a flush that reports before its group is
// committed shows as missing rows. failCommits() makes every commit fail.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "orvi/sql_executor.h"

namespace orvi {
namespace test {

class MemorySqlExecutor : public ISqlExecutor {
 public:
  // Every write enters, counts itself and then passes through this mutex, so
  // a test holding it keeps writes waiting at entry.
  std::mutex& writeGate() { return gate_mutex_; }
  int writesEntered() const { return writes_entered_.load(); }

  // Snapshots for assertions: conversations by local id, the messages of one
  // conversation in insertion order.
  std::vector<ConversationInfo> conversations() const {
    std::lock_guard<std::mutex> lock(rows_mutex_);
    std::vector<ConversationInfo> out;
    for (const auto& entry : conversations_) out.push_back(entry.second);
    return out;
  }
  std::vector<MessageRecord> messages(const std::string& local_conversation_id) {
    MessageQueryResult result;
    queryMessages(result, local_conversation_id, 1, std::nullopt, std::nullopt);
    return result.messages;
  }

  bool queryConversations(ConversationListQueryResult& result, int32_t,
                          std::optional<int32_t> offset, std::optional<int32_t> limit) override {
    auto all = conversations();  // in local id order, which breaks create-time ties
    std::stable_sort(all.begin(), all.end(),
                     [](const auto& a, const auto& b) { return a.create_time > b.create_time; });
    const size_t first = std::min(all.size(), static_cast<size_t>(std::max(0, offset.value_or(0))));
    const size_t end = limit && *limit >= 0
                           ? std::min(all.size(), first + static_cast<size_t>(*limit))
                           : all.size();
    result = ConversationListQueryResult();
    result.conversations.assign(all.begin() + first, all.begin() + end);
    result.count = static_cast<int32_t>(result.conversations.size());
    result.has_more = end < all.size();
    return true;
  }

  bool saveConversations(const std::vector<ConversationInfo>& conversations) override {
    return write([&] {
      for (const auto& c : conversations) conversations_[c.local_conversation_id] = c;
    });
  }
  bool deleteConversations(const std::vector<std::string>& ids) override {
    return write([&] {
      for (const auto& id : ids) conversations_.erase(id);
    });
  }
  bool updateConversations(const std::vector<ConversationInfo>& conversations) override {
    return write([&] {
      for (const auto& c : conversations) {
        auto found = conversations_.find(c.local_conversation_id);
        if (found != conversations_.end()) found->second = c;
      }
    });
  }

  // Mode 1: every row. Otherwise the newest `count` rows below the cursor
  // sequence (none or <= 0: from the newest), oldest first; the result's
  // count is the sequence of the oldest row returned, the next page's cursor.
  bool queryMessages(MessageQueryResult& result, const std::string& local_conversation_id,
                     int32_t mode, std::optional<int32_t> cursor,
                     std::optional<int32_t> count) override {
    result = MessageQueryResult();
    const int64_t below =
        mode != 1 && cursor.value_or(0) > 0 ? *cursor : std::numeric_limits<int64_t>::max();
    std::lock_guard<std::mutex> lock(rows_mutex_);
    std::vector<const Row*> rows;
    for (const auto& row : messages_) {
      if (row.record.local_conversation_id == local_conversation_id && row.seq < below) {
        rows.push_back(&row);
      }
    }
    const size_t take =
        mode == 1 ? rows.size()
                  : std::min(rows.size(), static_cast<size_t>(std::max(0, count.value_or(0))));
    for (auto it = rows.end() - take; it != rows.end(); ++it)
      result.messages.push_back((*it)->record);
    if (mode == 1) {
      result.count = static_cast<int32_t>(rows.size());
    } else if (take > 0) {
      result.count = static_cast<int32_t>(rows[rows.size() - take]->seq);
      result.has_more = take < rows.size();
    }
    return true;
  }

  // A record with a stored identity replaces that row in place.
  bool insertMessage(const MessageRecord& record) override {
    return write([&] {
      for (auto& row : messages_) {
        if (sameIdentity(row.record, record)) {
          row.record = record;
          return;
        }
      }
      messages_.push_back({next_seq_++, record});
    });
  }

  bool removeMessages(const std::string& local_conversation_id, const std::string& message_id,
                      const std::string& local_message_id,
                      const std::string& local_section_id) override {
    if (local_conversation_id.empty()) {
      return false;  // refused: it would reach other conversations' rows
    }
    auto matches = [&](const Row& row) {
      const MessageRecord& r = row.record;
      return (local_conversation_id.empty() || r.local_conversation_id == local_conversation_id) &&
             (message_id.empty() || r.message_id == message_id) &&
             (local_message_id.empty() || r.local_message_id == local_message_id) &&
             (local_section_id.empty() || r.local_section_id == local_section_id);
    };
    return write([&] {
      messages_.erase(std::remove_if(messages_.begin(), messages_.end(), matches), messages_.end());
    });
  }

  // The row with the record's identity, if any; a record without identity
  // is refused.
  bool updateMessage(const MessageRecord& record) override {
    if (record.local_conversation_id.empty() ||
        (record.local_message_id.empty() && record.message_id.empty())) {
      return false;
    }
    return write([&] {
      for (auto& row : messages_) {
        if (sameIdentity(row.record, record)) row.record = record;
      }
    });
  }

  // Same local conversation, and the same local message id, or else (both
  // without one) the same message id in the same local section.
  static bool sameIdentity(const MessageRecord& a, const MessageRecord& b) {
    if (a.local_conversation_id != b.local_conversation_id) return false;
    if (!b.local_message_id.empty()) return a.local_message_id == b.local_message_id;
    return a.local_message_id.empty() && !b.message_id.empty() && a.message_id == b.message_id &&
           a.local_section_id == b.local_section_id;
  }

  bool isMigrated() override { return migrated_.load(); }
  bool setMigrated(bool migrated) override {
    return write([&] { migrated_ = migrated; });
  }

 private:
  struct Row {
    int64_t seq;
    MessageRecord record;
  };

  // Passes the gate (holding no other lock), then applies `change` to the rows.
  template <typename Change>
  bool write(Change change) {
    ++writes_entered_;
    { std::lock_guard<std::mutex> pass(gate_mutex_); }
    std::lock_guard<std::mutex> lock(rows_mutex_);
    change();
    return true;
  }

  mutable std::mutex rows_mutex_;
  std::map<std::string, ConversationInfo> conversations_;  // guarded by rows_mutex_
  std::vector<Row> messages_;                              // guarded by rows_mutex_, seq order
  int64_t next_seq_ = 1;                                   // guarded by rows_mutex_
  std::atomic<bool> migrated_{false};
  std::atomic<int> writes_entered_{0};
  std::mutex gate_mutex_;  // guards nothing; held only by a test to stop writes
};

class GroupingMemorySqlExecutor : public MemorySqlExecutor, public ISqlWriteGroups {
 public:
  std::atomic<bool>& failCommits() { return fail_commits_; }
  // Sizes of the groups committed (or failed) so far, in order.
  std::vector<size_t> groupSizes() const {
    std::lock_guard<std::mutex> lock(group_mutex_);
    return group_sizes_;
  }

  bool beginWriteGroup() override {
    std::lock_guard<std::mutex> lock(group_mutex_);
    if (open_) return false;
    open_ = true;
    owner_ = std::this_thread::get_id();
    return true;
  }
  bool endWriteGroup() override {
    std::vector<std::function<void()>> pending;
    {
      std::lock_guard<std::mutex> lock(group_mutex_);
      if (!open_ || owner_ != std::this_thread::get_id()) return false;
      open_ = false;
      pending.swap(pending_);
      group_sizes_.push_back(pending.size());
    }
    if (fail_commits_) return false;
    for (auto& apply : pending) apply();
    return true;
  }

  bool saveConversations(const std::vector<ConversationInfo>& c) override {
    return deferred([=] { return MemorySqlExecutor::saveConversations(c); });
  }
  bool deleteConversations(const std::vector<std::string>& ids) override {
    return deferred([=] { return MemorySqlExecutor::deleteConversations(ids); });
  }
  bool updateConversations(const std::vector<ConversationInfo>& c) override {
    return deferred([=] { return MemorySqlExecutor::updateConversations(c); });
  }
  bool insertMessage(const MessageRecord& r) override {
    return deferred([=] { return MemorySqlExecutor::insertMessage(r); });
  }
  bool removeMessages(const std::string& a, const std::string& b, const std::string& c,
                      const std::string& d) override {
    if (a.empty()) return false;
    return deferred([=] { return MemorySqlExecutor::removeMessages(a, b, c, d); });
  }
  bool updateMessage(const MessageRecord& r) override {
    if (r.local_conversation_id.empty() || (r.local_message_id.empty() && r.message_id.empty())) {
      return false;
    }
    return deferred([=] { return MemorySqlExecutor::updateMessage(r); });
  }
  bool setMigrated(bool migrated) override {
    return deferred([=] { return MemorySqlExecutor::setMigrated(migrated); });
  }

 private:
  // Inside the caller's group the write waits for the commit; otherwise it
  // is applied at once.
  bool deferred(std::function<bool()> apply) {
    {
      std::lock_guard<std::mutex> lock(group_mutex_);
      if (open_ && owner_ == std::this_thread::get_id()) {
        pending_.push_back([apply] { apply(); });
        return true;
      }
    }
    return apply();
  }

  mutable std::mutex group_mutex_;
  bool open_ = false;                           // guarded by group_mutex_
  std::thread::id owner_;                       // guarded by group_mutex_
  std::vector<std::function<void()>> pending_;  // guarded by group_mutex_
  std::vector<size_t> group_sizes_;             // guarded by group_mutex_
  std::atomic<bool> fail_commits_{false};
};

}  // namespace test
}  // namespace orvi
