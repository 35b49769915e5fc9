#include "orvi/transport/transport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/recording_log_handler.h"
#include "support/recording_sender.h"

namespace orvi {
namespace {

// Keeps every frame that reaches it; may be read while hosts push.
struct FrameListener : Transport::Listener {
  void onMessageReceived(const std::string& message) override {
    std::lock_guard<std::mutex> lock(mutex);
    frames.push_back(message);
  }
  std::vector<std::string> received() {
    std::lock_guard<std::mutex> lock(mutex);
    return frames;
  }
  std::mutex mutex;
  std::vector<std::string> frames;  // guarded by mutex
};

struct CountingCallback : HttpCallback {
  void onResponse(const HttpResponse&) override { ++calls; }
  int calls = 0;
};

TEST(TransportTest, FirstSenderStaysAndWithoutOneNothingLeavesOrIsKept) {
  test::ScopedLogCapture log;
  auto transport = std::make_shared<Transport>();
  auto first = std::make_shared<test::RecordingSender>();
  auto second = std::make_shared<test::RecordingSender>();
  transport->setSender(first);
  transport->setSender(second);
  EXPECT_TRUE(log->has("Transport setSender: sender already set"));
  EXPECT_TRUE(transport->sendMessage("one"));
  first->fail_sends = true;
  EXPECT_FALSE(transport->sendMessage("two"));  // the sender's answer is passed on

  transport->setSender(nullptr);
  EXPECT_FALSE(transport->sendMessage("three"));
  EXPECT_EQ(first->attempts(), (std::vector<std::string>{"one", "two"}));
  auto callback = std::make_shared<CountingCallback>();
  const HttpRequest request(HttpRequestScene::RecoverSections, HttpMethod::Post, R"({"a":1})");
  transport->httpRequest(request, callback);
  EXPECT_TRUE(log->has("Transport send: sender not set"));
  EXPECT_TRUE(log->has("Transport httpRequest: sender not set"));
  EXPECT_EQ(callback->calls, 0);
  EXPECT_EQ(callback.use_count(), 1);  // the transport kept no reference

  transport->setSender(second);
  transport->httpRequest(request, callback);
  EXPECT_TRUE(transport->sendMessage("four"));
  EXPECT_EQ(second->frames(), std::vector<std::string>{"four"});
  ASSERT_EQ(second->requests().size(), 1u);
  EXPECT_EQ(second->requests()[0].request.body, request.body);
  EXPECT_EQ(second->requests()[0].callback, callback);
}

// Two host threads push frames while the receiver goes away: each frame
// reaches the first listener while it lives or is dropped, never a destroyed
// one (the sanitizers watch for that).
TEST(TransportTest, FramesReachTheFirstLiveListenerAndAreDroppedOnceItIsGone) {
  test::ScopedLogCapture log;
  auto transport = std::make_shared<Transport>();
  auto listener = std::make_shared<FrameListener>();
  auto intruder = std::make_shared<FrameListener>();
  transport->setListener(listener);
  transport->setListener(intruder);
  EXPECT_TRUE(log->has("Transport setListener: listener already set, skip!"));

  std::shared_ptr<ITransport> inbound = transport;
  std::atomic<int> pushed{0};
  const auto push = [&] {
    for (int i = 0; i < 3000; ++i, ++pushed) inbound->onMessageReceived("frame");
  };
  std::thread host_a(push), host_b(push);
  while (pushed.load() < 1000) std::this_thread::yield();
  EXPECT_GE(listener->received().size(), 1000u);
  listener.reset();  // the transport held it only weakly
  host_a.join();
  host_b.join();
  inbound->onMessageReceived("late");
  EXPECT_TRUE(log->has("Transport onRecv: late"));

  transport->setListener(intruder);  // an expired listener is replaced
  inbound->onMessageReceived("after");
  EXPECT_EQ(intruder->received(), std::vector<std::string>{"after"});
}

}  // namespace
}  // namespace orvi
