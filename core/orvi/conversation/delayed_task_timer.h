// DelayedTaskTimer: one process-wide worker thread that runs small tasks
// after a delay, in deadline order, one at a time. Conversations use it for
// acknowledgement time-outs and automatic resends; tasks capture only weak
// references to their owners.
//
// post() may be called from any thread, also from a task on the worker (a
// task that reschedules itself). The mutex guards the heap and the stop
// flag and is never held while a task runs; an exception thrown by a task is
// swallowed. On destruction queued tasks are drained: the ones still waiting
// run at once, in deadline order, and the destructor returns after them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
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
  // task is ignored. A delay too large for the clock saturates: the task is
  // due at the end of time.
  void post(Task task, uint64_t delay_ms);

 private:
  struct Entry {
    int64_t deadline_ns;  // steady clock
    // mutable so the worker can move the task out of top() before pop();
    // the heap orders by deadline only.
    mutable Task task;
  };
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const { return a.deadline_ns > b.deadline_ns; }
  };

  // Shared with the worker thread, so that a timer destroyed by one of its
  // own tasks can detach and let the worker finish draining on its own.
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    bool stop = false;                                            // guarded by mutex
    std::priority_queue<Entry, std::vector<Entry>, Later> queue;  // guarded by mutex
  };

  static void workerLoop(std::shared_ptr<State> state);

  std::shared_ptr<State> state_;
  std::thread worker_;
};

}  // namespace orvi
