// DelayedTaskTimer: one process-wide worker thread that runs small tasks
// after a delay, in deadline order, one at a time. Conversations use it for
// acknowledgement time-outs and automatic resends; tasks capture only weak
// references to their owners.
//
// post() may be called from any thread, also from a task on the worker (a
// task that reschedules itself). The mutex guards the heap and the stop
// flag and is never held while a task runs; an exception thrown by a task is
// swallowed. On destruction queued tasks are drained: each still runs at its
// deadline, and the destructor returns after the latest one.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

namespace orvi {

class DelayedTaskTimer {
 public:
  using Task = std::function<void()>;

  // The process's timer, started on first use and drained at exit.
  static DelayedTaskTimer& instance();

  DelayedTaskTimer();  // a timer of its own, for tests
  ~DelayedTaskTimer();
  DelayedTaskTimer(const DelayedTaskTimer&) = delete;
  DelayedTaskTimer& operator=(const DelayedTaskTimer&) = delete;

  // Runs `task` on the worker `delay_ms` from now (0: at once). An empty
  // task is ignored.
  void post(Task task, uint64_t delay_ms);

 private:
  struct Entry {
    int64_t deadline_ns;  // steady clock
    Task task;
  };
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const { return a.deadline_ns > b.deadline_ns; }
  };

  void workerLoop();

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;                                             // guarded by mutex_
  std::priority_queue<Entry, std::vector<Entry>, Later> queue_;   // guarded by mutex_
  std::thread worker_;
};

}  // namespace orvi
