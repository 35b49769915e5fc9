// Test doubles for the sync channel's host side: a listener that records
// every event as a line of text, a file uploader that answers from its own
// thread by a script, and a polling wait for conditions that other threads
// make true. Frames go through RecordingSender (recording_sender.h).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvi/sync_channel.h"

namespace orvi {
namespace test {

// Polls `done` until it holds; false after `timeout`.
template <typename Done>
bool waitUntil(Done done, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Events read "ack doc 6", "nack doc -1", "query q1 state?", "collect c1",
// "sent doc[6] x[1]" or "failed doc[6]" (send results, records in order).
class RecordingSyncListener : public SyncChannelListener {
 public:
  void onAck(const std::string& id, int64_t index) override {
    add("ack " + id + " " + std::to_string(index));
  }
  void onNack(const std::string& id, int64_t index) override {
    add("nack " + id + " " + std::to_string(index));
  }
  void onQuery(const SyncDownlinkMessage& message, const std::string& query) override {
    add("query " + message.id + " " + query);
  }
  void onCollect(const SyncDownlinkMessage& message) override { add("collect " + message.id); }
  void onSendResult(bool success, const SentResults& results) override {
    std::string line = success ? "sent" : "failed";
    for (const auto& r : results.results) {
      for (int64_t i : r.indexes) line += " " + r.id + "[" + std::to_string(i) + "]";
    }
    add(line);
    std::function<void()> hook;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      hook = hook_;
    }
    if (hook) hook();  // on the reporting thread, after the event is recorded
  }

  void setSendResultHook(std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
  }
  std::vector<std::string> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  size_t count(const std::string& event) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& e : events_) n += e == event;
    return n;
  }
  // Send results of `outcome` ("sent" or "failed") that name `record`
  // ("doc[6]"), alone or batched with others.
  size_t results(const std::string& outcome, const std::string& record) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& e : events_) {
      n +=
          e.rfind(outcome + " ", 0) == 0 && (e + " ").find(" " + record + " ") != std::string::npos;
    }
    return n;
  }

 private:
  void add(std::string event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::function<void()> hook_;
};

// Records each upload at once, with the time on `clock`, and answers it from
// its own worker thread by `script` (given the call's number from 0). The
// worker is joined on destruction; unanswered calls are dropped.
class FakeUploader : public IFileUploader {
 public:
  enum class Answer { Fail, Succeed, Cancel };
  struct Call {
    SyncInfo info;
    int64_t at_ms;
    std::shared_ptr<FileUploadStatusCallback> callback;
  };

  FakeUploader(std::function<Answer(size_t)> script, const std::atomic<int64_t>& clock)
      : script_(std::move(script)), clock_(clock), worker_([this] { run(); }) {}
  ~FakeUploader() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    cv_.notify_all();
    worker_.join();
  }

  void upload(const SyncInfo& info, std::shared_ptr<FileUploadStatusCallback> callback) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({info, clock_.load(), std::move(callback)});
    cv_.notify_all();
  }
  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  // True once every call so far has been answered (its callback returned).
  bool settled() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return answered_ == calls_.size() && !answering_;
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      cv_.wait(lock, [this] { return stop_ || answered_ < calls_.size(); });
      if (stop_) return;
      const Call call = calls_[answered_];
      const Answer answer = script_(answered_++);
      answering_ = true;
      lock.unlock();
      call.callback->onUploadProgress(50);
      if (answer == Answer::Fail) call.callback->onUploadFailed(503, "unavailable");
      if (answer == Answer::Succeed) {
        call.callback->onUploadSuccess(200, "ok", "https://files.test/" + call.info.id);
      }
      if (answer == Answer::Cancel) call.callback->onUploadCanceled();
      lock.lock();
      answering_ = false;
    }
  }

  const std::function<Answer(size_t)> script_;
  const std::atomic<int64_t>& clock_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Call> calls_;  // guarded by mutex_
  size_t answered_ = 0;      // guarded by mutex_
  bool answering_ = false;   // guarded by mutex_
  bool stop_ = false;        // guarded by mutex_
  std::thread worker_;       // last: starts after everything it reads
};

}  // namespace test
}  // namespace orvi
