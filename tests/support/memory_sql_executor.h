// An ISqlExecutor that keeps its rows in memory, with the row semantics that
// docs/history.md fixes for every executor (orvi_sqlite has the same), for
// tests that need no database.
//
// Thread-safe: rows_mutex_ guards the rows, gate_mutex_ the write gate; no
// lock is held while a write waits at the gate. Fault switches make an
// operation return false without changing anything; counters say how often
// each operation was called (counted on entry, before the gate). While the
// gate is held, every write blocks on entry until it is released, which lets
// a test keep the cacher's worker busy and its queue provably non-empty.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
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
  enum class Op {
    QueryConversations,
    SaveConversations,
    DeleteConversations,
    UpdateConversations,
    QueryMessages,
    InsertMessage,
    RemoveMessages,
    UpdateMessage,
    IsMigrated,
    SetMigrated,
    Count
  };

  void setFailing(Op op, bool failing) { failing_[index(op)].store(failing); }
  int calls(Op op) const { return calls_[index(op)].load(); }

  void holdWrites() {
    std::lock_guard<std::mutex> lock(gate_mutex_);
    gate_closed_ = true;
  }
  void releaseWrites() {
    {
      std::lock_guard<std::mutex> lock(gate_mutex_);
      gate_closed_ = false;
    }
    gate_cv_.notify_all();
  }
  // True once a write is blocked at the held gate.
  bool waitForHeldWrite(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(gate_mutex_);
    return gate_cv_.wait_for(lock, timeout, [&] { return waiting_ > 0; });
  }

  // Snapshots for assertions: conversations by local id, messages in
  // insertion order (of one conversation, or all when the id is empty).
  std::vector<ConversationInfo> conversations() const {
    std::lock_guard<std::mutex> lock(rows_mutex_);
    std::vector<ConversationInfo> out;
    for (const auto& entry : conversations_) out.push_back(entry.second);
    return out;
  }
  std::vector<MessageRecord> messages(const std::string& local_conversation_id = "") const {
    std::lock_guard<std::mutex> lock(rows_mutex_);
    std::vector<MessageRecord> out;
    for (const auto& row : messages_) {
      if (local_conversation_id.empty() ||
          row.record.local_conversation_id == local_conversation_id) {
        out.push_back(row.record);
      }
    }
    return out;
  }

  bool queryConversations(ConversationListQueryResult& result, int32_t,
                          std::optional<int32_t> offset, std::optional<int32_t> limit) override {
    result = ConversationListQueryResult();
    if (!enter(Op::QueryConversations)) return false;
    std::lock_guard<std::mutex> lock(rows_mutex_);
    std::vector<ConversationInfo> all;
    for (const auto& entry : conversations_) all.push_back(entry.second);
    std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
      return a.create_time > b.create_time;  // map order breaks ties by local id
    });
    const size_t first = std::min(all.size(), static_cast<size_t>(std::max(0, offset.value_or(0))));
    size_t end = all.size();
    if (limit && *limit >= 0) end = std::min(end, first + static_cast<size_t>(*limit));
    result.conversations.assign(all.begin() + first, all.begin() + end);
    result.count = static_cast<int32_t>(result.conversations.size());
    result.has_more = end < all.size();
    return true;
  }

  bool saveConversations(const std::vector<ConversationInfo>& conversations) override {
    if (!enterWrite(Op::SaveConversations)) return false;
    std::lock_guard<std::mutex> lock(rows_mutex_);
    for (const auto& c : conversations) conversations_[c.local_conversation_id] = c;
    return true;
  }

  bool deleteConversations(const std::vector<std::string>& ids) override {
    if (!enterWrite(Op::DeleteConversations)) return false;
    std::lock_guard<std::mutex> lock(rows_mutex_);
    for (const auto& id : ids) conversations_.erase(id);
    return true;
  }

  bool updateConversations(const std::vector<ConversationInfo>& conversations) override {
    if (!enterWrite(Op::UpdateConversations)) return false;
    std::lock_guard<std::mutex> lock(rows_mutex_);
    for (const auto& c : conversations) {
      auto found = conversations_.find(c.local_conversation_id);
      if (found != conversations_.end()) found->second = c;
    }
    return true;
  }

  bool queryMessages(MessageQueryResult& result, const std::string& local_conversation_id,
                     int32_t mode, std::optional<int32_t> cursor,
                     std::optional<int32_t> count) override {
    result = MessageQueryResult();
    if (!enter(Op::QueryMessages)) return false;
    std::lock_guard<std::mutex> lock(rows_mutex_);
    std::vector<const Row*> rows;  // the conversation's rows, oldest first
    for (const auto& row : messages_) {
      if (row.record.local_conversation_id == local_conversation_id) rows.push_back(&row);
    }
    if (mode == 1) {
      for (const Row* row : rows) result.messages.push_back(row->record);
      result.count = static_cast<int32_t>(rows.size());
      return true;
    }
    const int64_t below = cursor.value_or(0) > 0 ? *cursor : std::numeric_limits<int64_t>::max();
    auto end =
        std::find_if(rows.begin(), rows.end(), [&](const Row* r) { return r->seq >= below; });
    const size_t wanted = static_cast<size_t>(std::max(0, count.value_or(0)));
    if (wanted == 0 || end == rows.begin()) return true;
    const auto available = end - rows.begin();
    const auto take = std::min<std::ptrdiff_t>(available, static_cast<std::ptrdiff_t>(wanted));
    const auto begin = end - take;
    for (auto it = begin; it != end; ++it) result.messages.push_back((*it)->record);
    result.count = static_cast<int32_t>((*begin)->seq);
    result.has_more = begin != rows.begin();
    return true;
  }

  bool insertMessage(const MessageRecord& record) override {
    if (!enterWrite(Op::InsertMessage)) return false;
    std::lock_guard<std::mutex> lock(rows_mutex_);
    messages_.push_back({next_seq_++, record});
    return true;
  }

  bool removeMessages(const std::string& local_conversation_id, const std::string& message_id,
                      const std::string& local_message_id,
                      const std::string& local_section_id) override {
    if (!enterWrite(Op::RemoveMessages)) return false;
    if (local_conversation_id.empty() && message_id.empty() && local_message_id.empty() &&
        local_section_id.empty()) {
      return false;  // no criteria: refused rather than deleting everything
    }
    auto matches = [&](const Row& row) {
      const MessageRecord& r = row.record;
      return (local_conversation_id.empty() || r.local_conversation_id == local_conversation_id) &&
             (message_id.empty() || r.message_id == message_id) &&
             (local_message_id.empty() || r.local_message_id == local_message_id) &&
             (local_section_id.empty() || r.local_section_id == local_section_id);
    };
    std::lock_guard<std::mutex> lock(rows_mutex_);
    messages_.erase(std::remove_if(messages_.begin(), messages_.end(), matches), messages_.end());
    return true;
  }

  bool updateMessage(const MessageRecord& record) override {
    if (!enterWrite(Op::UpdateMessage)) return false;
    const bool by_local_id = !record.local_message_id.empty();
    if (!by_local_id && record.message_id.empty()) return false;  // would match every id-less row
    std::lock_guard<std::mutex> lock(rows_mutex_);
    for (auto& row : messages_) {
      const MessageRecord& r = row.record;
      if (r.local_conversation_id != record.local_conversation_id) continue;
      if (by_local_id ? r.local_message_id == record.local_message_id
                      : r.message_id == record.message_id) {
        row.record = record;
      }
    }
    return true;
  }

  bool isMigrated() override {
    if (!enter(Op::IsMigrated)) return false;
    return migrated_.load();
  }
  bool setMigrated(bool migrated) override {
    if (!enterWrite(Op::SetMigrated)) return false;
    migrated_.store(migrated);
    return true;
  }

 private:
  struct Row {
    int64_t seq;
    MessageRecord record;
  };

  static size_t index(Op op) { return static_cast<size_t>(op); }

  // Counts the call; false when the operation is switched to fail.
  bool enter(Op op) {
    ++calls_[index(op)];
    return !failing_[index(op)].load();
  }
  bool enterWrite(Op op) {
    const bool proceed = enter(op);
    std::unique_lock<std::mutex> lock(gate_mutex_);
    if (gate_closed_) {
      ++waiting_;
      gate_cv_.notify_all();
      gate_cv_.wait(lock, [&] { return !gate_closed_; });
      --waiting_;
    }
    return proceed;
  }

  static constexpr size_t kOps = static_cast<size_t>(Op::Count);
  std::array<std::atomic<int>, kOps> calls_{};
  std::array<std::atomic<bool>, kOps> failing_{};
  std::atomic<bool> migrated_{false};

  mutable std::mutex rows_mutex_;
  std::map<std::string, ConversationInfo> conversations_;  // guarded by rows_mutex_
  std::vector<Row> messages_;                              // guarded by rows_mutex_, seq order
  int64_t next_seq_ = 1;                                   // guarded by rows_mutex_

  std::mutex gate_mutex_;
  std::condition_variable gate_cv_;
  bool gate_closed_ = false;  // guarded by gate_mutex_
  int waiting_ = 0;           // guarded by gate_mutex_
};

}  // namespace test
}  // namespace orvi
