#include "orvi/history/cacher/cacher.h"

#include <exception>
#include <limits>
#include <optional>
#include <utility>

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
  auto target = executor();
  if (!target) {
    ORVI_LOGE("query conversations failed, sql executor is null");
    return {};
  }
  ConversationListQueryResult result;
  if (!target->queryConversations(result, 1, std::nullopt, std::nullopt)) {
    ORVI_LOGE("query conversations failed");
    return {};
  }
  return std::move(result.conversations);
}

std::vector<MessageRecord> Cacher::queryMessages(const std::string& local_conversation_id) {
  auto target = executor();
  if (!target) {
    ORVI_LOGE("query messages of conversation(%s) failed, sql executor is null",
              local_conversation_id.c_str());
    return {};
  }
  MessageQueryResult result;
  if (!target->queryMessages(result, local_conversation_id, 1, std::nullopt, std::nullopt)) {
    ORVI_LOGE("query messages of conversation(%s) failed", local_conversation_id.c_str());
    return {};
  }
  return std::move(result.messages);
}

MessageQueryResult Cacher::queryMessages(const std::string& local_conversation_id, int32_t cursor,
                                         int32_t count) {
  auto target = executor();
  if (!target) {
    ORVI_LOGE("query message page of conversation(%s) failed, sql executor is null",
              local_conversation_id.c_str());
    return {};
  }
  MessageQueryResult result;
  if (!target->queryMessages(result, local_conversation_id, 0, cursor, count)) {
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

void Cacher::postWrite(const char* operation, std::function<void(ISqlExecutor&)> write) {
  auto target = executor();
  if (!target) {
    ORVI_LOGE("%s failed, sql executor is null", operation);
    return;
  }
  post([target = std::move(target), write = std::move(write)] { write(*target); });
}

void Cacher::saveConversations(std::vector<ConversationInfo> conversations) {
  postWrite("save conversations", [conversations = std::move(conversations)](ISqlExecutor& sql) {
    sql.saveConversations(conversations);
  });
}

void Cacher::deleteConversations(std::vector<std::string> local_conversation_ids) {
  postWrite("delete conversations", [ids = std::move(local_conversation_ids)](ISqlExecutor& sql) {
    sql.deleteConversations(ids);
  });
}

void Cacher::updateConversations(std::vector<ConversationInfo> conversations) {
  postWrite("update conversations", [conversations = std::move(conversations)](ISqlExecutor& sql) {
    sql.updateConversations(conversations);
  });
}

void Cacher::insertMessage(MessageRecord record) {
  postWrite("insert message",
            [record = std::move(record)](ISqlExecutor& sql) { sql.insertMessage(record); });
}

void Cacher::removeMessages(const std::string& local_conversation_id) {
  postWrite("remove messages", [id = local_conversation_id](ISqlExecutor& sql) {
    sql.removeMessages(id, "", "", "");
    ORVI_LOGI("messages of conversation(%s) are removed", id.c_str());
  });
}

void Cacher::removeMessage(const std::string& local_conversation_id,
                           const std::string& local_message_id) {
  postWrite("remove message", [id = local_conversation_id, message = local_message_id](
                                  ISqlExecutor& sql) { sql.removeMessages(id, "", message, ""); });
}

void Cacher::updateMessage(MessageRecord record) {
  postWrite("update message",
            [record = std::move(record)](ISqlExecutor& sql) { sql.updateMessage(record); });
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
  if (std::this_thread::get_id() == worker_.get_id()) {
    ORVI_LOGE("waitForWrites called on the io worker, which cannot wait for itself");
    return false;
  }
  struct Marker {
    std::mutex mutex;
    std::condition_variable reached_cv;
    bool reached = false;  // guarded by mutex
  };
  auto marker = std::make_shared<Marker>();
  post([marker] {
    {
      std::lock_guard<std::mutex> lock(marker->mutex);
      marker->reached = true;
    }
    marker->reached_cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(marker->mutex);
  return marker->reached_cv.wait_for(lock, timeout, [&] { return marker->reached; });
}

void Cacher::ioWorker(std::shared_ptr<WorkQueue> queue) {
  std::unique_lock<std::mutex> lock(queue->mutex);
  for (;;) {
    if (queue->stop) {
      ORVI_LOGW("ioWorker stop..");
      return;
    }
    if (queue->tasks.empty()) {
      queue->wake.wait(lock);
      continue;
    }
    Task task = std::move(queue->tasks.front());
    queue->tasks.pop_front();
    lock.unlock();
    if (!task) {
      ORVI_LOGW("ioWorker get empty task..");
    } else {
      // A throwing executor must not take the process down with the worker.
      try {
        task();
      } catch (const std::exception& e) {
        ORVI_LOGE("ioWorker task failed: %s", e.what());
      } catch (...) {
        ORVI_LOGE("ioWorker task failed with an unknown exception");
      }
    }
    task = nullptr;  // release the task's data before taking the lock again
    lock.lock();
  }
}

}  // namespace orvi
