#include "orvi/history/cacher/cacher.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <optional>
#include <utility>

#include "orvi/history/cacher/guarded_call.h"
#include "orvi/utils/file_utils.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

constexpr int64_t kTicksPerDay = 864000000000;  // 100-nanosecond ticks
constexpr int64_t kTicksPerMs = 10000;
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

// Saturating helpers: a retention of millions of years (or a corrupt
// create_time) must not overflow, and within range they are plain * and -.
int64_t saturatingMul(int64_t value, int64_t positive_factor) {
  if (value > kMax / positive_factor) return kMax;
  if (value < kMin / positive_factor) return kMin;
  return value * positive_factor;
}

int64_t saturatingSub(int64_t a, int64_t b) {
  if (b < 0 && a > kMax + b) return kMax;
  if (b > 0 && a < kMin + b) return kMin;
  return a - b;
}

}  // namespace

Cacher::Cacher(std::string cache_dir, int64_t retention_days)
    : cache_dir_(std::move(cache_dir)),
      retention_days_(retention_days),
      queue_(std::make_shared<WorkQueue>()),
      worker_(&Cacher::ioWorker, queue_) {}

Cacher::~Cacher() {
  size_t dropped = 0;
  {
    std::lock_guard<std::mutex> lock(queue_->mutex);
    queue_->stop = true;
    dropped = queue_->tasks.size();
  }
  queue_->wake.notify_all();
  ORVI_LOGI("cacher stopping, %zu queued task(s) dropped", dropped);

  if (worker_.get_id() == std::this_thread::get_id()) {
    // Destroyed from one of its own tasks: joining would deadlock. The worker
    // holds the queue itself and ends once that task returns.
    worker_.detach();
  } else if (worker_.joinable()) {
    worker_.join();
  }

  // Discarded tasks and the executor may run host destructors: no lock held.
  std::deque<Task> discarded;
  {
    std::lock_guard<std::mutex> lock(queue_->mutex);
    discarded.swap(queue_->tasks);
  }
  discarded.clear();
  std::shared_ptr<ISqlExecutor> released;
  {
    std::lock_guard<std::mutex> lock(executor_mutex_);
    released.swap(executor_);
  }
}

void Cacher::registerSqlExecutor(std::shared_ptr<ISqlExecutor> executor) {
  if (!executor) ORVI_LOGE("sql executor is null");
  std::lock_guard<std::mutex> lock(executor_mutex_);
  executor_.swap(executor);
}

bool Cacher::init() {
  if (!file_utils::mkdir(cache_dir_)) {
    ORVI_LOGE("create cache dir(%s) failed", cache_dir_.c_str());
    return false;
  }
  inited_.store(true);
  ORVI_LOGI("cacher init success, cache dir: %s", cache_dir_.c_str());
  return true;
}

std::shared_ptr<ISqlExecutor> Cacher::executor() const {
  std::lock_guard<std::mutex> lock(executor_mutex_);
  return executor_;
}

std::vector<ConversationInfo> Cacher::queryConversations() {
  std::vector<ConversationInfo> conversations;
  queryConversations(conversations);
  return conversations;
}

bool Cacher::queryConversations(std::vector<ConversationInfo>& out) {
  out.clear();
  waitBeforeRead();
  auto target = executor();
  if (!target) {
    ORVI_LOGE("query conversations failed, sql executor is null");
    return false;
  }
  ConversationListQueryResult result;
  if (!guardedCall("query conversations", [&] {
        return target->queryConversations(result, 1, std::nullopt, std::nullopt);
      })) {
    ORVI_LOGE("query conversations failed");
    return false;
  }
  out = std::move(result.conversations);
  return true;
}

std::vector<MessageRecord> Cacher::queryMessages(const std::string& local_conversation_id) {
  waitBeforeRead();
  auto target = executor();
  if (!target) {
    ORVI_LOGE("query messages of conversation(%s) failed, sql executor is null",
              local_conversation_id.c_str());
    return {};
  }
  MessageQueryResult result;
  if (!guardedCall("query messages", [&] {
        return target->queryMessages(result, local_conversation_id, 1, std::nullopt, std::nullopt);
      })) {
    ORVI_LOGE("query messages of conversation(%s) failed", local_conversation_id.c_str());
    return {};
  }
  return std::move(result.messages);
}

MessageQueryResult Cacher::queryMessages(const std::string& local_conversation_id, int32_t cursor,
                                         int32_t count) {
  waitBeforeRead();
  auto target = executor();
  if (!target) {
    ORVI_LOGE("query message page of conversation(%s) failed, sql executor is null",
              local_conversation_id.c_str());
    return {};
  }
  MessageQueryResult result;
  if (!guardedCall("query message page", [&] {
        return target->queryMessages(result, local_conversation_id, 0, cursor, count);
      })) {
    ORVI_LOGE("query message page of conversation(%s) failed", local_conversation_id.c_str());
    return {};
  }
  return result;
}

void Cacher::post(Task task) {
  {
    std::lock_guard<std::mutex> lock(queue_->mutex);
    queue_->tasks.push_back(std::move(task));
  }
  queue_->wake.notify_one();
}

void Cacher::postWrite(const char* operation, Write write) {
  auto target = executor();
  if (!target) {
    ORVI_LOGE("%s failed, sql executor is null", operation);
    return;
  }
  Task task;
  task.operation = operation;
  task.target = std::move(target);
  task.write = std::move(write);
  post(std::move(task));
}

void Cacher::saveConversations(std::vector<ConversationInfo> conversations) {
  postWrite("save conversations", [conversations = std::move(conversations)](ISqlExecutor& sql) {
    return sql.saveConversations(conversations);
  });
}

void Cacher::deleteConversations(std::vector<std::string> local_conversation_ids) {
  const auto empty = std::remove(local_conversation_ids.begin(), local_conversation_ids.end(), "");
  if (empty != local_conversation_ids.end()) {
    ORVI_LOGE("delete conversations: %zu empty local conversation id(s) left out",
              static_cast<size_t>(local_conversation_ids.end() - empty));
    local_conversation_ids.erase(empty, local_conversation_ids.end());
  }
  if (local_conversation_ids.empty()) return;
  postWrite("delete conversations", [ids = std::move(local_conversation_ids)](ISqlExecutor& sql) {
    return sql.deleteConversations(ids);
  });
}

void Cacher::updateConversations(std::vector<ConversationInfo> conversations) {
  postWrite("update conversations", [conversations = std::move(conversations)](ISqlExecutor& sql) {
    return sql.updateConversations(conversations);
  });
}

void Cacher::insertMessage(MessageRecord record) {
  if (record.local_conversation_id.empty()) {
    ORVI_LOGE("insert message refused, local_conversation_id is empty, type: %s",
              record.type.c_str());
    return;
  }
  postWrite("insert message",
            [record = std::move(record)](ISqlExecutor& sql) { return sql.insertMessage(record); });
}

void Cacher::removeMessages(const std::string& local_conversation_id) {
  if (local_conversation_id.empty()) {
    ORVI_LOGE("remove messages refused, local_conversation_id is empty");
    return;
  }
  postWrite("remove messages", [id = local_conversation_id](ISqlExecutor& sql) {
    const bool removed = sql.removeMessages(id, "", "", "");
    ORVI_LOGI("messages of conversation(%s) are removed", id.c_str());
    return removed;
  });
}

void Cacher::removeMessage(const std::string& local_conversation_id,
                           const std::string& local_message_id) {
  if (local_conversation_id.empty() || local_message_id.empty()) {
    ORVI_LOGE("remove message refused, local_conversation_id: %s, local_message_id: %s",
              local_conversation_id.c_str(), local_message_id.c_str());
    return;
  }
  postWrite("remove message",
            [id = local_conversation_id, message = local_message_id](ISqlExecutor& sql) {
              return sql.removeMessages(id, "", message, "");
            });
}

void Cacher::removeMessageById(const std::string& local_conversation_id,
                               const std::string& message_id, const std::string& local_section_id) {
  if (local_conversation_id.empty() || message_id.empty() || local_section_id.empty()) {
    ORVI_LOGE(
        "remove message refused, local_conversation_id: %s, message_id: %s, "
        "local_section_id: %s",
        local_conversation_id.c_str(), message_id.c_str(), local_section_id.c_str());
    return;
  }
  postWrite("remove message",
            [id = local_conversation_id, message = message_id, section = local_section_id](
                ISqlExecutor& sql) { return sql.removeMessages(id, message, "", section); });
}

void Cacher::updateMessage(MessageRecord record) {
  if (record.local_conversation_id.empty() ||
      (record.local_message_id.empty() && record.message_id.empty())) {
    ORVI_LOGE(
        "update message refused, local_conversation_id: %s, message_id: %s, "
        "local_message_id: %s",
        record.local_conversation_id.c_str(), record.message_id.c_str(),
        record.local_message_id.c_str());
    return;
  }
  postWrite("update message",
            [record = std::move(record)](ISqlExecutor& sql) { return sql.updateMessage(record); });
}

int64_t Cacher::nowTicks() {
  using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10000000>>;
  return std::chrono::duration_cast<Ticks>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool Cacher::isExpired(int64_t create_time_ms, int64_t retention_days, int64_t now_ticks) {
  const int64_t age = saturatingSub(now_ticks, saturatingMul(create_time_ms, kTicksPerMs));
  return saturatingMul(retention_days, kTicksPerDay) < age;
}

void Cacher::removeExpiredConversations() {
  const int64_t now = nowTicks();
  std::vector<std::string> expired;
  for (const auto& conversation : queryConversations()) {
    if (!isExpired(conversation.create_time, retention_days_, now)) continue;
    removeMessages(conversation.local_conversation_id);
    expired.push_back(conversation.local_conversation_id);
  }
  deleteConversations(std::move(expired));
}

bool Cacher::waitForWrites(std::chrono::milliseconds timeout) {
  return waitFor(timeout, false);
}

bool Cacher::waitWhileProgressing(std::chrono::milliseconds stall) {
  return waitFor(stall, true);
}

// A task that reads (the merge of a recovery, say) runs after the writes
// queued before it anyway.
void Cacher::waitBeforeRead() {
  if (std::this_thread::get_id() == worker_.get_id()) return;
  waitFor(kReadStall, true, false);
}

bool Cacher::waitFor(std::chrono::milliseconds patience, bool while_progressing,
                     bool reports_failures) {
  if (std::this_thread::get_id() == worker_.get_id()) {
    ORVI_LOGE("waitForWrites called on the io worker, which cannot wait for itself");
    return false;
  }
  auto barrier = std::make_shared<Barrier>();
  barrier->reports_failures = reports_failures;
  Task task;
  task.operation = "wait for writes";
  task.barrier = barrier;
  post(std::move(task));

  std::unique_lock<std::mutex> lock(barrier->mutex);
  uint64_t finished = queue_->finished.load();
  for (;;) {
    if (barrier->reached_cv.wait_for(lock, patience, [&] { return barrier->reached; })) {
      return barrier->written;
    }
    const uint64_t now = queue_->finished.load();
    if (!while_progressing || now == finished) break;
    finished = now;
  }
  // The worker will pass the barrier later without reporting to anyone, so
  // a failure before it stays for the next waiter.
  barrier->abandoned = true;
  return false;
}

// The group the worker has open, if any. Consecutive writes to an executor
// that groups run inside one group; a write to another executor, a full
// group, an empty queue, a barrier and the stop end it.
class Cacher::WriteGroup {
 public:
  explicit WriteGroup(size_t& failures) : failures_(failures) {}
  WriteGroup(const WriteGroup&) = delete;
  WriteGroup& operator=(const WriteGroup&) = delete;

  bool isOpen() const { return groups_ != nullptr; }
  bool full() const { return writes_ >= kMaxGroupWrites; }

  void run(const Task& task) {
    if (isOpen() && target_ != task.target) close();
    if (!isOpen()) open(task.target);
    ++writes_;
    if (!guardedCall("ioWorker task", [&] { return task.write(*task.target); })) {
      ORVI_LOGE("%s failed in the sql executor", task.operation);
      ++failures_;
    }
  }

  void close() {
    if (!isOpen()) return;
    ISqlWriteGroups* groups = std::exchange(groups_, nullptr);
    const auto target = std::move(target_);
    if (!guardedCall("ioWorker task", [&] { return groups->endWriteGroup(); })) {
      ORVI_LOGE("a group of %zu write(s) was not committed", writes_);
      ++failures_;
    }
    writes_ = 0;
  }

 private:
  void open(const std::shared_ptr<ISqlExecutor>& target) {
    writes_ = 0;
    auto* groups = dynamic_cast<ISqlWriteGroups*>(target.get());
    if (!groups || !guardedCall("ioWorker task", [&] { return groups->beginWriteGroup(); })) return;
    groups_ = groups;
    target_ = target;
  }

  size_t& failures_;
  std::shared_ptr<ISqlExecutor> target_;  // kept alive while its group is open
  ISqlWriteGroups* groups_ = nullptr;     // target_ as ISqlWriteGroups, while a group is open
  size_t writes_ = 0;                     // writes run since the group opened
};

void Cacher::ioWorker(std::shared_ptr<WorkQueue> queue) {
  size_t failures = 0;  // failed writes no waiter has been told of yet
  WriteGroup group(failures);
  std::unique_lock<std::mutex> lock(queue->mutex);
  while (!queue->stop) {
    if (group.isOpen() && (queue->tasks.empty() || group.full())) {
      lock.unlock();
      group.close();
      lock.lock();
      continue;
    }
    if (queue->tasks.empty()) {
      queue->wake.wait(lock);
      continue;
    }
    Task task = std::move(queue->tasks.front());
    queue->tasks.pop_front();
    lock.unlock();
    if (task.barrier) {
      group.close();
      Barrier& barrier = *task.barrier;
      {
        std::lock_guard<std::mutex> reached(barrier.mutex);
        if (!barrier.abandoned) {
          barrier.reached = true;
          barrier.written = failures == 0;
          if (barrier.reports_failures) failures = 0;
        }
      }
      barrier.reached_cv.notify_all();
    } else if (!task.write || !task.target) {
      ORVI_LOGW("ioWorker get empty task..");
    } else {
      group.run(task);
    }
    task = Task();  // release the task's data before taking the lock again
    queue->finished.fetch_add(1);
    lock.lock();
  }
  lock.unlock();
  // Stopping at once: what already ran is committed, the rest is dropped.
  group.close();
  ORVI_LOGW("ioWorker stop..");
}

}  // namespace orvi
