// DeliveryQueue: the one thread of control of a conversation's receiving
// side. Received frames, the handling of recovery answers and the replay of
// frames held during a recovery are submitted to it as tasks; it runs them
// one at a time, in the order they were submitted, on whichever thread is
// delivering for the conversation at the time: the thread that submits runs
// the queue unless another thread is already running it, in which case the
// task is left to that thread and submit returns at once. So no two tasks
// ever run side by side, and no task overtakes an earlier one.
//
// A hold lets a sending thread keep tasks submitted after a point (the
// answer to the frame it is about to send) waiting until it has finished
// what must come first (storing the message, announcing its section); tasks
// submitted before the hold are not held back. Releasing the hold runs what
// waited.
//
// Nothing here blocks: a thread never waits for another to finish a task, so
// a task may call host code, and host code may call back into the
// conversation (and submit or hold again) without deadlock. The mutex guards
// the queue, the holds and the running flag only, and is never held while a
// task runs. An exception thrown by a task (a throwing host callback) is
// logged and swallowed so the queue never stays stuck. Tasks still queued
// when the queue is destroyed are dropped.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <utility>

namespace orvi {

class DeliveryQueue {
 public:
  using Task = std::function<void()>;

  // Releases its hold (and runs what waited) when it goes out of scope.
  class Hold {
   public:
    Hold(Hold&& other) noexcept : queue_(std::exchange(other.queue_, nullptr)), at_(other.at_) {}
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    Hold& operator=(Hold&&) = delete;
    ~Hold() {
      if (queue_) queue_->release(at_);
    }

   private:
    friend class DeliveryQueue;
    Hold(DeliveryQueue* queue, uint64_t at) : queue_(queue), at_(at) {}
    DeliveryQueue* queue_;
    uint64_t at_;
  };

  DeliveryQueue() = default;
  DeliveryQueue(const DeliveryQueue&) = delete;
  DeliveryQueue& operator=(const DeliveryQueue&) = delete;

  // Queues `task` behind everything submitted before, then runs the queue
  // on this thread if no other thread is running it.
  void submit(Task task);

  // Tasks submitted from now on wait until the hold is released.
  Hold hold();

  // Tasks submitted and not yet run (tests and log lines).
  size_t pending() const;

 private:
  void release(uint64_t at);
  void run();

  mutable std::mutex mutex_;
  std::deque<std::pair<uint64_t, Task>> tasks_;  // guarded by mutex_; by submission order
  std::multiset<uint64_t> holds_;                // guarded by mutex_; positions held back
  uint64_t next_position_ = 0;                   // guarded by mutex_
  bool running_ = false;                         // guarded by mutex_; a thread is in run()
};

}  // namespace orvi
