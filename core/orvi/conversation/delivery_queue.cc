#include "orvi/conversation/delivery_queue.h"

#include <exception>

#include "orvi/utils/logger.h"

namespace orvi {

void DeliveryQueue::submit(Task task) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tasks_.emplace_back(next_position_++, std::move(task));
  }
  run();
}

DeliveryQueue::Hold DeliveryQueue::hold() {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t at = next_position_;
  holds_.insert(at);
  return Hold(this, at);
}

size_t DeliveryQueue::pending() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return tasks_.size();
}

void DeliveryQueue::release(uint64_t at) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    holds_.erase(holds_.find(at));
  }
  run();
}

void DeliveryQueue::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  // A thread already running the queue (perhaps this one, further up the
  // stack: a host callback that sent or pushed a frame) takes the new task
  // in turn.
  if (running_) return;
  while (!tasks_.empty() && (holds_.empty() || tasks_.front().first < *holds_.begin())) {
    Task task = std::move(tasks_.front().second);
    tasks_.pop_front();
    running_ = true;
    lock.unlock();
    try {
      task();
    } catch (const std::exception& e) {
      ORVI_LOGE("delivery task failed: %s", e.what());
    } catch (...) {
      ORVI_LOGE("delivery task failed with an unknown exception");
    }
    task = nullptr;  // what it captured goes before the lock is taken again
    lock.lock();
    // Checked again under the same lock that clears the flag, so a task
    // submitted meanwhile by a thread that saw the flag set is never left
    // behind.
    running_ = false;
  }
}

}  // namespace orvi
