// The persistence worker behind the history manager: owns the cache
// directory, holds the host's ISqlExecutor, performs writes in posting order
// on its own thread (`ioWorker`) and reads at once on the caller's thread.
//
// Threading: every public method may be called from any thread. Writes copy
// their data into a task; reads call the executor directly, so a read may
// overtake writes that are still queued. The executor is never called with a
// cacher lock held, and whatever it throws is caught and logged here.
// Ownership: the cacher owns its worker and joins it on destruction; the
// worker stops at once and queued writes are dropped (waitForWrites first
// keeps them). The executor is shared with the host and released when the
// cacher is destroyed.
//
// Grouping: when the executor also implements ISqlWriteGroups, the worker
// runs consecutive writes to it inside one group (one transaction), which it
// ends when the queue runs dry, before a waiter is told that its writes are
// done, after kMaxGroupWrites writes, and when the worker stops.
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
  // A write: calls one executor operation and returns its result.
  using Write = std::function<bool(ISqlExecutor&)>;

  static constexpr size_t kMaxGroupWrites = 512;

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

  // Reads, run on the caller's thread once the writes queued before them
  // have run (so a caller reads what it wrote), unless the worker makes no
  // progress for kReadStall. Without an executor, when the executor
  // reports a failure or throws, they log an error and return nothing.
  std::vector<ConversationInfo> queryConversations();
  // The same, false (and `out` empty) when the read failed.
  bool queryConversations(std::vector<ConversationInfo>& out);
  // Every stored record of the conversation, in the executor's order.
  std::vector<MessageRecord> queryMessages(const std::string& local_conversation_id);
  // One page; the executor defines what the two page values mean and sets
  // has_more and count.
  MessageQueryResult queryMessages(const std::string& local_conversation_id, int32_t cursor,
                                   int32_t count);

  // Writes: each is queued as one task carrying a copy of its data. Without
  // an executor, or when a key they need is empty, they log an error and
  // queue nothing: no executor operation is ever asked to match all rows.
  void saveConversations(std::vector<ConversationInfo> conversations);
  // Empty ids are left out; nothing is queued when none is left.
  void deleteConversations(std::vector<std::string> local_conversation_ids);
  void updateConversations(std::vector<ConversationInfo> conversations);
  // The record needs its local conversation id.
  void insertMessage(MessageRecord record);
  // All messages of one conversation.
  void removeMessages(const std::string& local_conversation_id);
  // One message by its local id.
  void removeMessage(const std::string& local_conversation_id, const std::string& local_message_id);
  // One message by its server id within its local section (a message the
  // server made has no local id); both ids are needed, since servers reuse
  // their ids.
  void removeMessageById(const std::string& local_conversation_id, const std::string& message_id,
                         const std::string& local_section_id);
  // The record needs its local conversation id and a local or server id.
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

  // Blocks until every write queued before the call has run and its group
  // is committed. True when all of them reached the executor and none
  // failed (an executor result of false, an exception, a failed group); a
  // failure is reported by the first wait to get past it. False when that
  // takes longer than `timeout` (as it does once the worker has stopped), or
  // at once when called from a task, since the worker cannot wait for itself.
  bool waitForWrites(std::chrono::milliseconds timeout);
  // The same without a limit on the whole wait, for a long import: it gives
  // up only when `stall` passes without the worker finishing any task.
  bool waitWhileProgressing(std::chrono::milliseconds stall);

  // How long a read waits without the worker finishing any task before it
  // reads without the writes still queued.
  static constexpr std::chrono::milliseconds kReadStall{2000};

  // Moves the legacy JSON history ("orvi_history.json" and one message file
  // per conversation in the cache directory) into the executor, once: the
  // executor remembers that it ran, and a failed read of the index is final
  // too. The writes are queued like any other, the "done" mark after them.
  // False without an executor or when the index cannot be read.
  bool firstMigrationToDb();
  // The stored messages of one legacy conversation file; none when the file
  // is missing or unreadable.
  std::vector<MessageRecord> loadMessages(const ConversationInfo& conversation);

 private:
  // A point in the queue that a waiter waits for.
  struct Barrier {
    std::mutex mutex;
    std::condition_variable reached_cv;
    bool reached = false;    // guarded by mutex
    bool written = false;    // guarded by mutex: no failure before it
    bool abandoned = false;  // guarded by mutex: the waiter gave up
    // The failures before it are reported to this waiter (and cleared);
    // a read's barrier leaves them for the next flush.
    bool reports_failures = true;
  };

  // One queued task: a write to the executor registered when it was posted,
  // or a barrier.
  struct Task {
    const char* operation = "";
    std::shared_ptr<ISqlExecutor> target;
    Write write;
    std::shared_ptr<Barrier> barrier;
  };

  // Queue, stop flag and wake-up shared with the worker thread, so that the
  // worker can finish safely even when the cacher is destroyed from a task.
  struct WorkQueue {
    std::mutex mutex;
    std::condition_variable wake;
    std::atomic<bool> stop{false};      // set under mutex, read anywhere
    std::deque<Task> tasks;             // guarded by mutex
    std::atomic<uint64_t> finished{0};  // tasks the worker has finished, for stall checks
  };

  class WriteGroup;

  static void ioWorker(std::shared_ptr<WorkQueue> queue);

  std::shared_ptr<ISqlExecutor> executor() const;
  void post(Task task);
  // Queues `write` with the current executor, or logs that there is none.
  void postWrite(const char* operation, Write write);
  bool waitFor(std::chrono::milliseconds patience, bool while_progressing,
               bool reports_failures = true);
  void waitBeforeRead();

  const std::string cache_dir_;
  const int64_t retention_days_;
  std::atomic<bool> inited_{false};

  mutable std::mutex executor_mutex_;
  std::shared_ptr<ISqlExecutor> executor_;  // guarded by executor_mutex_

  std::shared_ptr<WorkQueue> queue_;
  std::thread worker_;
};

}  // namespace orvi
