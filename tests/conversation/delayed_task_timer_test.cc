#include "orvi/conversation/delayed_task_timer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What the tasks of one test did, in order. Notifies under the lock: a
// waiter may destroy the journal as soon as it wakes.
struct Journal {
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(entry);
    changed.notify_all();
  }
  // The entries once there are `size` of them, or as they are at `timeout`.
  std::vector<std::string> waitFor(size_t size, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [&] { return entries.size() >= size; });
    return entries;
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> entries;  // guarded by mutex
};

TEST(DelayedTaskTimerTest, RunsTasksInDeadlineOrderNeverEarlyAndPastThrowingOnes) {
  test::ScopedLogCapture log;
  DelayedTaskTimer timer;
  Journal journal;
  timer.post(DelayedTaskTimer::Task(), 0);  // ignored: run, it would throw bad_function_call
  timer.post([] { throw std::runtime_error("boom"); }, 1);
  timer.post([] { throw 42; }, 2);
  for (uint64_t delay : {200, 100, 0, 20}) {
    const auto due = Clock::now() + std::chrono::milliseconds(delay);
    timer.post(
        [&, delay, due] { journal.add(Clock::now() < due ? "early" : std::to_string(delay)); },
        delay);
  }
  EXPECT_EQ(journal.waitFor(4), (std::vector<std::string>{"0", "20", "100", "200"}));
  EXPECT_EQ(log->count("DelayedTaskTimer task threw: boom"), 1u);
  EXPECT_EQ(log->count("DelayedTaskTimer task threw an unknown exception"), 1u);
  EXPECT_EQ(log->countContaining("DelayedTaskTimer task threw"), 2u);
}

TEST(DelayedTaskTimerTest, ImmediateTaskOvertakesTheWaitAndDestructionDrainsTheRest) {
  auto timer = std::make_unique<DelayedTaskTimer>();
  Journal journal;
  timer->post([&] { journal.add("late"); }, 3600000);  // drained at once, not waited for
  // Lets the worker settle into its timed wait for the late task; the test
  // holds without this, only less sharply.
  std::this_thread::sleep_for(20ms);
  timer->post([&] { journal.add("now"); }, 0);
  // Without a wake-up on post the worker would sleep past this wait.
  EXPECT_EQ(journal.waitFor(1, 1500ms), std::vector<std::string>{"now"});
  timer.reset();
  EXPECT_EQ(journal.waitFor(2, 0ms), (std::vector<std::string>{"now", "late"}));
}

TEST(DelayedTaskTimerTest, TaskMayPostATaskAndDestroyItsOwnTimer) {
  Journal journal;
  auto timer = std::make_unique<DelayedTaskTimer>();
  timer->post(
      [&] {
        journal.waitFor(1);  // until the post below has returned
        timer->post([&] { journal.add("posted by a task"); }, 5);
        timer.reset();  // cannot join its own thread: the worker detaches and drains
        journal.add("destroyed");
      },
      0);
  journal.add("posted");
  EXPECT_EQ(journal.waitFor(3),
            (std::vector<std::string>{"posted", "destroyed", "posted by a task"}));
}

}  // namespace
}  // namespace orvi
