// Test doubles for the sync channel's host side: a listener that records
// every event, a file uploader that answers from its own thread by a script,
// a settable clock, and a polling wait for conditions that other threads
// make true. Frames go through RecordingSender (recording_sender.h).
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
#include <utility>
#include <vector>

#include "orvi/sync_channel.h"

namespace orvi {
namespace test {

// Polls `done` until it holds; false after `timeout`. Meant for conditions
// that another thread makes true, not for waiting out time.
template <typename Done>
bool waitUntil(Done done, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

class RecordingSyncListener : public SyncChannelListener {
 public:
  struct SendResult {
    bool success;
    SentResults results;
  };
  struct Query {
    SyncDownlinkMessage message;
    std::string query;
  };

  void onAck(const std::string& id, int64_t index) override {
    std::lock_guard<std::mutex> lock(mutex_);
    acks_.emplace_back(id, index);
  }
  void onNack(const std::string& id, int64_t index) override {
    std::lock_guard<std::mutex> lock(mutex_);
    nacks_.emplace_back(id, index);
  }
  void onQuery(const SyncDownlinkMessage& message, const std::string& query) override {
    std::lock_guard<std::mutex> lock(mutex_);
    queries_.push_back({message, query});
  }
  void onCollect(const SyncDownlinkMessage& message) override {
    std::lock_guard<std::mutex> lock(mutex_);
    collects_.push_back(message);
  }
  void onSendResult(bool success, const SentResults& results) override {
    std::function<void(bool, const SentResults&)> hook;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      send_results_.push_back({success, results});
      hook = on_send_result_;
    }
    if (hook) hook(success, results);
  }

  // Runs on the thread that reports, after the result is recorded.
  void setOnSendResult(std::function<void(bool, const SentResults&)> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    on_send_result_ = std::move(hook);
  }

  std::vector<std::pair<std::string, int64_t>> acks() const { return locked(acks_); }
  std::vector<std::pair<std::string, int64_t>> nacks() const { return locked(nacks_); }
  std::vector<Query> queries() const { return locked(queries_); }
  std::vector<SyncDownlinkMessage> collects() const { return locked(collects_); }
  std::vector<SendResult> sendResults() const { return locked(send_results_); }

  // How many results of the given outcome named record `id`.
  size_t resultsFor(const std::string& id, bool success) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& r : send_results_) {
      if (r.success != success) continue;
      for (const auto& one : r.results.results) n += one.id == id ? one.indexes.size() : 0;
    }
    return n;
  }

 private:
  template <typename T>
  T locked(const T& value) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value;
  }

  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, int64_t>> acks_;
  std::vector<std::pair<std::string, int64_t>> nacks_;
  std::vector<Query> queries_;
  std::vector<SyncDownlinkMessage> collects_;
  std::vector<SendResult> send_results_;
  std::function<void(bool, const SentResults&)> on_send_result_;
};

// A steady clock that moves only when the test says so.
class ManualClock {
 public:
  explicit ManualClock(int64_t start_ms) : now_(start_ms) {}
  int64_t now() const { return now_.load(); }
  void set(int64_t ms) { now_.store(ms); }
  std::function<int64_t()> fn() const {
    return [this] { return now_.load(); };
  }

 private:
  std::atomic<int64_t> now_;
};

// An IFileUploader that records each call at once and answers it later from
// its own worker thread, as a host's network stack would. `script` picks the
// answer for the n-th call (counted from 0). The worker is joined on
// destruction; answers still queued then are dropped.
class FakeUploader : public IFileUploader {
 public:
  enum class Answer { Fail, Succeed, Cancel, Hold };
  struct Call {
    SyncInfo info;
    int64_t at_ms;
    std::shared_ptr<FileUploadStatusCallback> callback;
  };

  FakeUploader(std::function<Answer(size_t)> script, std::function<int64_t()> clock)
      : script_(std::move(script)), clock_(std::move(clock)), worker_([this] { run(); }) {}

  ~FakeUploader() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    cv_.notify_all();
    worker_.join();
  }

  static std::string uriFor(const SyncInfo& info) { return "https://files.test/" + info.id; }

  void upload(const SyncInfo& info, std::shared_ptr<FileUploadStatusCallback> callback) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const Answer answer = script_(calls_.size());
    calls_.push_back({info, clock_(), callback});
    if (answer != Answer::Hold) pending_.push_back({answer, info, callback});
    cv_.notify_all();
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  size_t callCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_.size();
  }
  // Answers delivered (the callback returned), Hold calls excluded.
  size_t answered() const { return answered_.load(); }

 private:
  struct Pending {
    Answer answer;
    SyncInfo info;
    std::shared_ptr<FileUploadStatusCallback> callback;
  };

  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      cv_.wait(lock, [this] { return stop_ || !pending_.empty(); });
      if (stop_) return;
      Pending next = std::move(pending_.front());
      pending_.pop_front();
      lock.unlock();
      next.callback->onUploadProgress(50);
      switch (next.answer) {
        case Answer::Fail: next.callback->onUploadFailed(503, "unavailable"); break;
        case Answer::Succeed: next.callback->onUploadSuccess(200, "ok", uriFor(next.info)); break;
        case Answer::Cancel: next.callback->onUploadCanceled(); break;
        case Answer::Hold: break;
      }
      ++answered_;
      lock.lock();
    }
  }

  const std::function<Answer(size_t)> script_;
  const std::function<int64_t()> clock_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Call> calls_;      // guarded by mutex_
  std::deque<Pending> pending_;  // guarded by mutex_
  bool stop_ = false;            // guarded by mutex_
  std::atomic<size_t> answered_{0};
  std::thread worker_;  // last: starts after everything it reads
};

}  // namespace test
}  // namespace orvi
