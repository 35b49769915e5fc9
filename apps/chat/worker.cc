#include "worker.h"

namespace orvi_chat {

Worker::Worker() : thread_([this] { run(); }) {}

Worker::~Worker() {
  stop();
}

void Worker::post(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return;
    jobs_.push_back(std::move(job));
  }
  wake_.notify_one();
}

void Worker::postAfter(std::chrono::milliseconds delay, std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return;
    delayed_.emplace(Clock::now() + delay, std::move(job));
  }
  wake_.notify_one();
}

void Worker::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    jobs_.clear();
    delayed_.clear();
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void Worker::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (stopped_) return;
    // Delayed jobs that are due join the queue, in the order they fell due.
    const auto now = Clock::now();
    while (!delayed_.empty() && delayed_.begin()->first <= now) {
      jobs_.push_back(std::move(delayed_.begin()->second));
      delayed_.erase(delayed_.begin());
    }
    if (jobs_.empty()) {
      if (delayed_.empty()) {
        wake_.wait(lock);
      } else {
        // A copy: the job may be dropped (stop) while this waits, and the
        // wait reads its deadline again when it wakes.
        const Clock::time_point due = delayed_.begin()->first;
        wake_.wait_until(lock, due);
      }
      continue;
    }
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace orvi_chat
