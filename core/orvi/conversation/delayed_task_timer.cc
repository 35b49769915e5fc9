#include "orvi/conversation/delayed_task_timer.h"

#include <chrono>
#include <exception>
#include <limits>
#include <utility>

#include "orvi/utils/logger.h"

namespace orvi {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int64_t kNsPerMs = 1000000;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// The steady clock counts from boot, so `now` is never negative and the
// headroom below is exact. A delay beyond it saturates instead of wrapping
// into the past, where the task would run at once.
int64_t deadlineAfter(uint64_t delay_ms) {
  const int64_t now = nowNs();
  const uint64_t headroom_ms =
      static_cast<uint64_t>(std::numeric_limits<int64_t>::max() - now) / kNsPerMs;
  if (delay_ms > headroom_ms) return std::numeric_limits<int64_t>::max();
  return now + static_cast<int64_t>(delay_ms) * kNsPerMs;
}

Clock::time_point timePointOf(int64_t deadline_ns) {
  return Clock::time_point(
      std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(deadline_ns)));
}

// A failing task must not end the worker, which every conversation shares.
void runSafely(const DelayedTaskTimer::Task& task) {
  try {
    task();
  } catch (const std::exception& e) {
    ORVI_LOGW("DelayedTaskTimer task threw: %s", e.what());
  } catch (...) {
    ORVI_LOGW("DelayedTaskTimer task threw an unknown exception");
  }
}

}  // namespace

DelayedTaskTimer& DelayedTaskTimer::instance() {
  static DelayedTaskTimer timer;
  return timer;
}

DelayedTaskTimer::DelayedTaskTimer()
    : state_(std::make_shared<State>()), worker_(&DelayedTaskTimer::workerLoop, state_) {}

DelayedTaskTimer::~DelayedTaskTimer() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->stop = true;
  }
  state_->wake.notify_one();
  if (worker_.get_id() == std::this_thread::get_id()) {
    // Destroyed by one of its own tasks: joining would deadlock. The worker
    // holds the state itself and drains the rest once that task returns.
    worker_.detach();
  } else if (worker_.joinable()) {
    worker_.join();
  }
}

void DelayedTaskTimer::post(Task task, uint64_t delay_ms) {
  if (!task) return;
  State& state = *state_;
  std::lock_guard<std::mutex> lock(state.mutex);
  state.queue.push(Entry{deadlineAfter(delay_ms), std::move(task)});
  // Notified under the lock: once it is released the task may already have
  // run, and a task may destroy this timer.
  state.wake.notify_one();
}

void DelayedTaskTimer::workerLoop(std::shared_ptr<State> state) {
  std::unique_lock<std::mutex> lock(state->mutex);
  for (;;) {
    if (state->queue.empty()) {
      // Stopping drains: the worker ends only once nothing is left.
      if (state->stop) return;
      state->wake.wait(lock, [&] { return state->stop || !state->queue.empty(); });
      continue;
    }
    // Stopping runs what is left at once, in deadline order: a process
    // should not linger at exit for time-outs nobody waits for any more.
    const int64_t deadline = state->queue.top().deadline_ns;
    if (!state->stop && deadline > nowNs()) {
      // A post of an earlier task notifies and ends this wait early.
      state->wake.wait_until(lock, timePointOf(deadline));
      continue;
    }
    Task task = std::move(state->queue.top().task);
    state->queue.pop();
    lock.unlock();
    runSafely(task);
    task = nullptr;  // release what the task captured before taking the lock
    lock.lock();
  }
}

}  // namespace orvi
