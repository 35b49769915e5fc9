#include "orvi/conversation/delayed_task_timer.h"

#include <gtest/gtest.h>

#include <algorithm>
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
class Journal {
 public:
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(entry);
    changed_.notify_all();
  }
  bool waitForSize(size_t size, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return entries_.size() >= size; });
  }
  std::vector<std::string> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> entries_;
};

TEST(DelayedTaskTimerTest, RunsTasksInDeadlineOrderAndNeverEarly) {
  DelayedTaskTimer timer;
  Journal journal;
  for (uint64_t delay : {200, 100, 0, 20}) {
    const auto earliest = Clock::now() + std::chrono::milliseconds(delay);
    timer.post(
        [&, delay, earliest] {
          journal.add(std::to_string(delay) + (Clock::now() < earliest ? " early" : ""));
        },
        delay);
  }
  ASSERT_TRUE(journal.waitForSize(4));
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{"0", "20", "100", "200"}));
}

TEST(DelayedTaskTimerTest, ImmediateTaskOvertakesTheWaitAndDestructionDrainsTheRest) {
  auto timer = std::make_unique<DelayedTaskTimer>();
  Journal journal;
  timer->post([&] { journal.add("started"); }, 0);
  ASSERT_TRUE(journal.waitForSize(1));
  timer->post([&] { journal.add("late"); }, 2000);
  // Lets the worker settle into its timed wait for the late task; the test
  // holds without this, only less sharply.
  std::this_thread::sleep_for(20ms);
  timer->post([&] { journal.add("now"); }, 0);
  // Without a wake-up on post the worker would sleep past this wait.
  ASSERT_TRUE(journal.waitForSize(2, 1500ms));
  timer.reset();
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{"started", "now", "late"}));
}

TEST(DelayedTaskTimerTest, ThrowingAndEmptyTasksDoNotStopTheWorker) {
  test::ScopedLogCapture log;
  Journal journal;
  {
    DelayedTaskTimer timer;
    timer.post(DelayedTaskTimer::Task(), 0);
    timer.post([] { throw std::runtime_error("boom"); }, 1);
    timer.post([] { throw 42; }, 2);
    timer.post([&] { journal.add("after"); }, 3);
    ASSERT_TRUE(journal.waitForSize(1));
  }
  EXPECT_EQ(log->count("DelayedTaskTimer task threw: boom"), 1u);
  EXPECT_EQ(log->count("DelayedTaskTimer task threw an unknown exception"), 1u);
  // A queued empty task would have thrown bad_function_call when run.
  EXPECT_EQ(log->countContaining("DelayedTaskTimer task threw"), 2u);
}

TEST(DelayedTaskTimerTest, TaskMayPostATaskAndDestroyItsOwnTimer) {
  Journal journal;
  auto timer = std::make_unique<DelayedTaskTimer>();
  timer->post(
      [&] {
        timer->post([&] { journal.add("posted by a task"); }, 5);
        timer.reset();  // cannot join its own thread: the worker detaches and drains
        journal.add("destroyed");
      },
      0);
  ASSERT_TRUE(journal.waitForSize(2));
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{"destroyed", "posted by a task"}));
}

TEST(DelayedTaskTimerTest, TasksPostedFromManyThreadsRunExactlyOnce) {
  Journal journal;
  std::vector<std::string> expected;
  {
    DelayedTaskTimer timer;
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
      for (int i = 0; i < 50; ++i) expected.push_back(std::to_string(t * 100 + i));
      posters.emplace_back([&, t] {
        for (int i = 0; i < 50; ++i) {
          const std::string name = std::to_string(t * 100 + i);
          timer.post([&journal, name] { journal.add(name); }, static_cast<uint64_t>(i % 3));
        }
      });
    }
    for (auto& poster : posters) poster.join();
  }  // destruction drained the queue
  auto ran = journal.entries();
  std::sort(ran.begin(), ran.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(ran, expected);

  Journal shared;
  EXPECT_EQ(&DelayedTaskTimer::instance(), &DelayedTaskTimer::instance());
  DelayedTaskTimer::instance().post([&] { shared.add("ran"); }, 0);
  EXPECT_TRUE(shared.waitForSize(1));
}

}  // namespace
}  // namespace orvi
