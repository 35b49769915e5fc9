// The worker thread: jobs run in the order posted; after stop nothing runs.
#include "worker.h"

#include <gtest/gtest.h>

#include <future>
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

}  // namespace
}  // namespace orvi_chat
