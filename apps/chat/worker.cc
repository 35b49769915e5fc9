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

void Worker::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    jobs_.clear();
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void Worker::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopped_ || !jobs_.empty(); });
    if (stopped_) return;
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace orvi_chat
