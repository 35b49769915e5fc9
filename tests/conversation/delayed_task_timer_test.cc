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

// What the tasks of one test did, in the order they did it.
class Journal {
 public:
  // Notifies under the lock: a waiter may destroy the journal as soon as it
  // wakes, while the task's thread would still be inside notify_all.
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
  struct Case {
    const char* name;
    uint64_t delay_ms;
  };
  const std::vector<Case> posted = {{"200", 200}, {"100", 100}, {"0", 0}, {"20", 20}};
  DelayedTaskTimer timer;
  Journal journal;
  std::mutex mutex;
  std::vector<std::string> early;  // guarded by mutex
  for (const Case& c : posted) {
    const auto earliest = Clock::now() + std::chrono::milliseconds(c.delay_ms);
    timer.post(
        [&, c, earliest] {
          if (Clock::now() < earliest) {
            std::lock_guard<std::mutex> lock(mutex);
            early.push_back(c.name);
          }
          journal.add(c.name);
        },
        c.delay_ms);
  }
  ASSERT_TRUE(journal.waitForSize(posted.size()));
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{"0", "20", "100", "200"}));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_TRUE(early.empty()) << "ran before its deadline: " << early.front();
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
  // Without a wake-up on post the worker would sleep until the late
  // deadline, past this wait.
  ASSERT_TRUE(journal.waitForSize(2, 1500ms));
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{"started", "now"}));

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

TEST(DelayedTaskTimerTest, TasksMayPostTasksAndDestroyTheirOwnTimer) {
  Journal journal;
  {
    DelayedTaskTimer timer;
    std::function<void(int)> repost = [&](int round) {
      journal.add("round " + std::to_string(round));
      if (round < 3) timer.post([&repost, round] { repost(round + 1); }, 1);
    };
    timer.post([&] { repost(1); }, 0);
    ASSERT_TRUE(journal.waitForSize(3));
  }
  EXPECT_EQ(journal.entries(), (std::vector<std::string>{"round 1", "round 2", "round 3"}));

  // A task that destroys its timer cannot join its own thread; the worker
  // detaches and still runs what was queued.
  auto own = std::make_unique<DelayedTaskTimer>();
  own->post(
      [&] {
        own->post([&] { journal.add("after destruction"); }, 5);
        own.reset();
        journal.add("destroyed");
      },
      0);
  ASSERT_TRUE(journal.waitForSize(5));
  EXPECT_EQ(journal.entries().back(), "after destruction");
}

TEST(DelayedTaskTimerTest, TasksPostedFromManyThreadsRunExactlyOnce) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 50;
  Journal journal;
  std::vector<std::string> expected;
  {
    DelayedTaskTimer timer;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
      posters.emplace_back([&, t] {
        for (int i = 0; i < kPerThread; ++i) {
          const std::string name = std::to_string(t) + "/" + std::to_string(i);
          timer.post([&journal, name] { journal.add(name); }, static_cast<uint64_t>(i % 3));
        }
      });
      for (int i = 0; i < kPerThread; ++i) {
        expected.push_back(std::to_string(t) + "/" + std::to_string(i));
      }
    }
    for (auto& poster : posters) poster.join();
  }
  auto ran = journal.entries();  // complete: destruction drained the queue
  std::sort(ran.begin(), ran.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(ran, expected);
}

TEST(DelayedTaskTimerTest, InstanceIsOneRunningTimer) {
  DelayedTaskTimer& timer = DelayedTaskTimer::instance();
  EXPECT_EQ(&timer, &DelayedTaskTimer::instance());
  Journal journal;
  timer.post([&] { journal.add("ran"); }, 0);
  EXPECT_TRUE(journal.waitForSize(1));
}

}  // namespace
}  // namespace orvi
