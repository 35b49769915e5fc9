// An ISqlExecutor that keeps its rows in memory, with the row semantics that
// docs/history.md fixes for every executor (orvi_sqlite has the same), for
// tests that need no database.
//
// Thread-safe: rows_mutex_ guards the rows. While a test holds writeGate(),
// every write blocks on entry, which lets it keep the cacher's worker busy
// and its queue provably non-empty.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
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

  bool insertMessage(const MessageRecord& record) override {
    return write([&] { messages_.push_back({next_seq_++, record}); });
  }

  bool removeMessages(const std::string& local_conversation_id, const std::string& message_id,
                      const std::string& local_message_id,
                      const std::string& local_section_id) override {
    if ((local_conversation_id + message_id + local_message_id + local_section_id).empty()) {
      return false;  // no criteria: refused rather than deleting everything
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

  // By local message id, or by message id when the record has none.
  bool updateMessage(const MessageRecord& record) override {
    const bool by_local_id = !record.local_message_id.empty();
    if (!by_local_id && record.message_id.empty()) return false;  // would match every id-less row
    return write([&] {
      for (auto& row : messages_) {
        const MessageRecord& r = row.record;
        if (r.local_conversation_id == record.local_conversation_id &&
            (by_local_id ? r.local_message_id == record.local_message_id
                         : r.message_id == record.message_id)) {
          row.record = record;
        }
      }
    });
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

}  // namespace test
}  // namespace orvi
