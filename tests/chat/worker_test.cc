// The worker thread: jobs run in the order posted; after stop nothing runs.
#include "worker.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

namespace orvi_chat {
namespace {

TEST(WorkerTest, RunsJobsInOrderAndDropsThemAfterStop) {
  Worker runner;
  std::vector<int> order;  // written by the runner's thread only, read after the promise
  std::promise<void> done;
  for (int i = 0; i < 50; ++i) runner.post([&order, i] { order.push_back(i); });
  runner.post([&done] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  ASSERT_EQ(order.size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[i], i);

  runner.stop();
  bool ran = false;
  runner.post([&ran] { ran = true; });
  runner.stop();  // idempotent, and joins nothing twice
  EXPECT_FALSE(ran);
}

// Delayed jobs run after the jobs posted now, in the order they fall due,
// never before their time; stop drops the ones still waiting.
TEST(WorkerTest, DelayedJobsRunWhenDueAndStopDropsThem) {
  using std::chrono::milliseconds;
  const auto start = std::chrono::steady_clock::now();
  Worker worker;
  std::vector<std::string> order;  // written by the worker's thread only
  std::vector<milliseconds> waited;
  std::promise<void> done;
  const auto note = [&](const std::string& name) {
    order.push_back(name);
    waited.push_back(
        std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start));
  };
  worker.postAfter(milliseconds(60), [&] { note("late"); });
  worker.postAfter(milliseconds(20), [&] { note("early"); });
  worker.post([&] { note("now"); });
  worker.postAfter(milliseconds(80), [&] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(order, (std::vector<std::string>{"now", "early", "late"}));
  ASSERT_EQ(waited.size(), 3u);
  EXPECT_GE(waited[1], milliseconds(20));
  EXPECT_GE(waited[2], milliseconds(60));

  bool ran = false;
  worker.postAfter(std::chrono::hours(1), [&ran] { ran = true; });
  worker.stop();  // returns without waiting for the hour, and drops the job
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace orvi_chat
