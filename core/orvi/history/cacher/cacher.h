// The persistence worker behind the history manager: owns the cache
// directory, holds the host's ISqlExecutor, performs writes in posting order
// on its own thread (`ioWorker`) and reads at once on the caller's thread.
//
// Threading: every public method may be called from any thread. Writes copy
// their data into a task; reads call the executor directly, so a read may
// overtake writes that are still queued. The executor is never called with a
// cacher lock held. Ownership: the cacher owns its worker and joins it on
// destruction; the worker stops at once and queued writes are dropped (call
// waitForWrites first to keep them). The executor is shared with the host and
// released when the cacher is destroyed.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvi/conversation_types.h"
#include "orvi/sql_executor.h"

namespace orvi {

class Cacher {
 public:
  using Task = std::function<void()>;

  // Starts the worker thread; nothing touches the disk until init().
  Cacher(std::string cache_dir, int64_t retention_days);
  ~Cacher();
  Cacher(const Cacher&) = delete;
  Cacher& operator=(const Cacher&) = delete;

  // Replaces the executor. An empty one is logged and stored all the same,
  // which leaves the cacher without an executor.
  void registerSqlExecutor(std::shared_ptr<ISqlExecutor> executor);

  // Creates the cache directory when it is missing. False when that fails.
  bool init();
  bool inited() const { return inited_.load(); }

  // Reads, run on the caller's thread. Without an executor, or when the
  // executor reports a failure, they log an error and return nothing.
  std::vector<ConversationInfo> queryConversations();
  // Every stored record of the conversation, in the executor's order.
  std::vector<MessageRecord> queryMessages(const std::string& local_conversation_id);
  // One page; the executor defines what the two page values mean and sets
  // has_more and count.
  MessageQueryResult queryMessages(const std::string& local_conversation_id, int32_t cursor,
                                   int32_t count);

  // Writes: each is queued as one task carrying a copy of its data. Without
  // an executor they log an error and queue nothing.
  void saveConversations(std::vector<ConversationInfo> conversations);
  void deleteConversations(std::vector<std::string> local_conversation_ids);
  void updateConversations(std::vector<ConversationInfo> conversations);
  void insertMessage(MessageRecord record);
  void removeMessages(const std::string& local_conversation_id);
  void removeMessage(const std::string& local_conversation_id, const std::string& local_message_id);
  void updateMessage(MessageRecord record);

  // Queues the removal of every conversation created more than the retention
  // before now, with its messages. A retention of 0 or less expires every
  // conversation created before now.
  void removeExpiredConversations();

  // The expiry rule: retention x 864000000000 < now_ticks - create_time x
  // 10000, with now_ticks in 100-nanosecond ticks since 1970 and create_time
  // in milliseconds. Exact for every pair whose products fit in int64;
  // beyond that each side saturates.
  static bool isExpired(int64_t create_time_ms, int64_t retention_days, int64_t now_ticks);
  static int64_t nowTicks();

  // Blocks until every task queued before the call has run, for orderly
  // shutdown, tests and benchmarks. Returns false when that takes longer
  // than `timeout` (as it does once the worker has stopped), or at once when
  // called from a task, since the worker cannot wait for itself.
  bool waitForWrites(std::chrono::milliseconds timeout);

  // Moves the legacy JSON history ("orvi_history.json" and one message file
  // per conversation in the cache directory) into the executor, once: the
  // executor remembers that it ran, and a failed read of the index is final
  // too. The writes are queued like any other. False without an executor or
  // when the index cannot be read.
  bool firstMigrationToDb();
  // The stored messages of one legacy conversation file; none when the file
  // is missing or unreadable.
  std::vector<MessageRecord> loadMessages(const ConversationInfo& conversation);

 private:
  // Queue, stop flag and wake-up shared with the worker thread, so that the
  // worker can finish safely even when the cacher is destroyed from a task.
  struct WorkQueue {
    std::mutex mutex;
    std::condition_variable wake;
    bool stop = false;       // guarded by mutex
    std::deque<Task> tasks;  // guarded by mutex
  };

  static void ioWorker(std::shared_ptr<WorkQueue> queue);

  std::shared_ptr<ISqlExecutor> executor() const;
  void post(Task task);
  // Queues `write` with the current executor, or logs that there is none.
  void postWrite(const char* operation, std::function<void(ISqlExecutor&)> write);

  const std::string cache_dir_;
  const int64_t retention_days_;
  std::atomic<bool> inited_{false};

  mutable std::mutex executor_mutex_;
  std::shared_ptr<ISqlExecutor> executor_;  // guarded by executor_mutex_

  std::shared_ptr<WorkQueue> queue_;
  std::thread worker_;
};

}  // namespace orvi
