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

using test::RecordingSender;

class RecordingListener : public Transport::Listener {
 public:
  void onMessageReceived(const std::string& message) override {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(message);
  }
  std::vector<std::string> received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> received_;
};

class CountingCallback : public HttpCallback {
 public:
  void onResponse(const HttpResponse&) override { ++calls; }
  int calls = 0;
};

TEST(TransportTest, WithoutSenderNothingLeavesAndCallbacksAreNeverCalled) {
  test::ScopedLogCapture log;
  auto transport = std::make_shared<Transport>();
  EXPECT_FALSE(transport->sendMessage("frame"));
  EXPECT_TRUE(log->has("Transport send: sender not set"));

  auto callback = std::make_shared<CountingCallback>();
  transport->httpRequest(HttpRequest(HttpRequestScene::ConversationList, HttpMethod::Post, "{}"),
                         callback);
  EXPECT_TRUE(log->has("Transport httpRequest: sender not set"));
  EXPECT_EQ(callback->calls, 0);
  EXPECT_EQ(callback.use_count(), 1);  // the transport kept no reference
}

TEST(TransportTest, FirstSenderStaysUntilClearedAndItsResultIsReturned) {
  test::ScopedLogCapture log;
  auto transport = std::make_shared<Transport>();
  auto first = std::make_shared<RecordingSender>();
  auto second = std::make_shared<RecordingSender>();
  transport->setSender(first);
  transport->setSender(second);
  EXPECT_TRUE(log->has("Transport setSender: sender already set"));

  EXPECT_TRUE(transport->sendMessage("one"));
  first->fail_sends = true;
  EXPECT_FALSE(transport->sendMessage("two"));
  EXPECT_EQ(first->attempts(), (std::vector<std::string>{"one", "two"}));
  EXPECT_TRUE(second->attempts().empty());
  EXPECT_TRUE(log->has("Transport send: one"));

  transport->setSender(nullptr);
  EXPECT_TRUE(log->has("Transport setSender: sender unset"));
  EXPECT_FALSE(transport->sendMessage("three"));
  transport->setSender(second);
  auto callback = std::make_shared<CountingCallback>();
  const HttpRequest request(HttpRequestScene::RecoverSections, HttpMethod::Post, R"({"a":1})");
  transport->httpRequest(request, callback);
  EXPECT_TRUE(transport->sendMessage("four"));
  EXPECT_EQ(second->frames(), std::vector<std::string>{"four"});
  ASSERT_EQ(second->requests().size(), 1u);
  EXPECT_EQ(second->requests()[0].request.scene, HttpRequestScene::RecoverSections);
  EXPECT_EQ(second->requests()[0].request.body, request.body);
  EXPECT_EQ(second->requests()[0].callback, callback);
}

TEST(TransportTest, FramesReachTheLiveListenerAndAreDroppedOnceItIsGone) {
  test::ScopedLogCapture log;
  auto transport = std::make_shared<Transport>();
  auto listener = std::make_shared<RecordingListener>();
  auto intruder = std::make_shared<RecordingListener>();
  transport->setListener(listener);
  transport->setListener(intruder);
  EXPECT_TRUE(log->has("Transport setListener: listener already set, skip!"));

  std::shared_ptr<ITransport> inbound = transport;
  inbound->onMessageReceived("downlink 1");
  EXPECT_EQ(listener->received(), std::vector<std::string>{"downlink 1"});
  EXPECT_TRUE(intruder->received().empty());

  listener.reset();  // the transport held it only weakly
  inbound->onMessageReceived("downlink 2");
  EXPECT_TRUE(log->has("Transport onRecv: downlink 2"));

  transport->setListener(intruder);  // an expired listener is replaced
  inbound->onMessageReceived("downlink 3");
  EXPECT_EQ(intruder->received(), std::vector<std::string>{"downlink 3"});
}

// The host may push frames on its own threads while the receiver goes away;
// each frame is either delivered to a live listener or dropped, never lost
// into a destroyed one.
TEST(TransportTest, ConcurrentDeliveryWhileTheListenerIsDestroyed) {
  test::ScopedLogCapture log;
  ILogger::setLogLevel(LogLevel::Warn);
  auto transport = std::make_shared<Transport>();
  auto listener = std::make_shared<RecordingListener>();
  std::weak_ptr<RecordingListener> weak = listener;
  transport->setListener(listener);

  std::atomic<int> pushed{0};
  std::vector<std::thread> hosts;
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        transport->onMessageReceived("frame");
        ++pushed;
      }
    });
  }
  while (pushed.load() < 1000) std::this_thread::yield();
  const size_t seen_before_drop = listener->received().size();
  listener.reset();
  for (auto& t : hosts) t.join();
  EXPECT_GE(seen_before_drop, 1u);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(pushed.load(), 6000);
}

}  // namespace
}  // namespace orvi
