// The network transport against servers that are missing, refuse, speak no
// TLS, answer HTTP with errors or stop half-way.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>

#include "e2e_support.h"
#include "orvi/orvi.h"
#include "support/recording_listener.h"

namespace orvi {
namespace test {
namespace {

using Calls = RecordingListener::Calls;

// Keeps the one answer an HttpCallback gets.
class Answer : public HttpCallback {
 public:
  void onResponse(const HttpResponse& response) override {
    std::lock_guard<std::mutex> lock(mutex_);
    responses_.push_back(response);
    changed_.notify_all();
  }
  std::vector<HttpResponse> wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [this] { return !responses_.empty(); });
    return responses_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<HttpResponse> responses_;
};

HttpRequest recoverRequest() {
  return HttpRequest(HttpRequestScene::RecoverSection, HttpMethod::Post,
                     std::string(R"({"conversation_id":"c-1","section_id":"s-1"})"));
}

TEST(NetTransport, RejectsAddressesItCannotUse) {
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"http://127.0.0.1:1/chat", ""},  // not a WebSocket scheme
      {"ws://:80/chat", ""},            // no host
      {"ws://127.0.0.1:99999/chat", ""},
      {"ws://127.0.0.1:1/chat", "ftp://127.0.0.1:1"},
      {"127.0.0.1:1/chat", ""},
  };
  for (const auto& urls : bad) {
    net::NetOptions options;
    options.websocket_url = urls.first;
    options.http_base_url = urls.second;
    std::string error;
    EXPECT_EQ(net::NetTransport::create(options, &error), nullptr) << urls.first;
    EXPECT_FALSE(error.empty()) << urls.first;
  }
}

TEST(NetTransport, RefusedConnectionIsRetriedWithBackOffAndStopsPromptly) {
  const uint16_t port = closedPort();
  const std::string address = "127.0.0.1:" + std::to_string(port);
  auto tap = WireTap::connect("ws://" + address + "/chat", "http://" + address);
  ASSERT_TRUE(eventually(
      [&] { return tap->events().countStates(net::ConnectionState::Disconnected) >= 3; }));
  EXPECT_TRUE(tap->events().hasLine("connect: Connection refused"));
  EXPECT_TRUE(tap->events().hasLine("reconnecting in"));
  EXPECT_FALSE(tap->sendMessage("{}"));
  EXPECT_TRUE(tap->uplinks().empty());

  auto answer = std::make_shared<Answer>();
  tap->httpRequest(recoverRequest(), answer);
  const auto responses = answer->wait();
  ASSERT_EQ(responses.size(), 1u);
  EXPECT_EQ(responses[0].status_code, 0);
  EXPECT_FALSE(responses[0].body.has_value());
  EXPECT_TRUE(tap->events().hasLine("failed: connect"));

  tap->transport().stop();
  EXPECT_EQ(tap->events().states.back(), net::ConnectionState::Stopped);
  // After the stop a request is answered at once, on the calling thread.
  auto late = std::make_shared<Answer>();
  tap->httpRequest(recoverRequest(), late);
  EXPECT_EQ(late->wait().size(), 1u);
}

TEST(NetTransport, TlsToAPlainServerFailsCleanly) {
  if (!net::tlsSupported()) GTEST_SKIP() << "built without OpenSSL";
  EmulatorProcess emulator;
  ASSERT_NE(emulator.port(), 0);
  const std::string address = "127.0.0.1:" + std::to_string(emulator.port());
  auto tap = WireTap::connect("wss://" + address + "/chat", "https://" + address);
  ASSERT_TRUE(eventually(
      [&] { return tap->events().countStates(net::ConnectionState::Disconnected) >= 1; }));
  EXPECT_TRUE(tap->events().hasLine("TLS handshake"));
  EXPECT_EQ(tap->events().countStates(net::ConnectionState::Connected), 0u);

  auto answer = std::make_shared<Answer>();
  tap->httpRequest(recoverRequest(), answer);
  ASSERT_EQ(answer->wait().size(), 1u);
  EXPECT_EQ(answer->wait()[0].status_code, 0);
}

// A hub listing callback that records the page it got.
class ListedPage : public IConversations {
 public:
  void onConversations(const ConversationListInfo& page) override {
    std::lock_guard<std::mutex> lock(mutex_);
    pages_.push_back(page);
  }
  std::vector<ConversationListInfo> pages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return pages_;
  }

 private:
  std::mutex mutex_;
  std::vector<ConversationListInfo> pages_;
};

struct RestFault {
  std::vector<std::string> flags;
  int status;
  const char* log_line;
};

void PrintTo(const RestFault& fault, std::ostream* out) {
  *out << fault.log_line;
}

class RestErrors : public ::testing::TestWithParam<RestFault> {};

// One process per case: the hub keeps the first sender it is connected to.
TEST_P(RestErrors, ReachTheHostAsFailures) {
  const RestFault& fault = GetParam();
  std::vector<std::string> flags = {"--delta-interval-ms", "1"};
  flags.insert(flags.end(), fault.flags.begin(), fault.flags.end());
  EmulatorProcess emulator(flags);
  ASSERT_NE(emulator.port(), 0);
  configureHubOnce();
  auto tap = WireTap::connect(emulator.chatUrl(), emulator.httpUrl());
  ASSERT_TRUE(tap->transport().waitConnected(std::chrono::seconds(5)));

  auto answer = std::make_shared<Answer>();
  tap->httpRequest(recoverRequest(), answer);
  ASSERT_EQ(answer->wait().size(), 1u);
  EXPECT_EQ(answer->wait()[0].status_code, fault.status);
  EXPECT_TRUE(tap->events().hasLine(fault.log_line));

  // The conversation itself works; its REST calls fail, and the listener
  // hears it.
  auto hub = ConversationHub::instance();
  auto conversation = hub->open("", ConversationOptions());
  auto listener = std::make_shared<RecordingListener>();
  conversation->listen(listener);
  const auto inbound = conversation->connect(tap);
  tap->addReceiver(inbound);
  InputMessage prompt;
  prompt.content = MessageContent("hello", 0);
  conversation->sendMessage(prompt);
  ASSERT_TRUE(listener->waitFor([](const Calls& calls) {
    return std::any_of(calls.section_statuses.begin(), calls.section_statuses.end(),
                       [](const auto& s) { return s.status == SectionStatus::Completed; });
  }));
  ASSERT_TRUE(conversation->recoverRemoteSections("0", 5));
  EXPECT_TRUE(listener->waitFor([](const Calls& calls) {
    return std::any_of(calls.recover_statuses.begin(), calls.recover_statuses.end(),
                       [](const auto& s) { return s.status == RecoverStatus::Failed; });
  }));

  hub->connect(tap);
  auto listed = std::make_shared<ListedPage>();
  ASSERT_TRUE(hub->listRemote("", 10, true, listed));
  ASSERT_TRUE(eventually([&] { return !listed->pages().empty(); }));
  EXPECT_TRUE(listed->pages()[0].error.has_value());
  EXPECT_TRUE(listed->pages()[0].conversations.empty());

  const std::string id = conversation->getDetail().local_conversation_id;
  conversation.reset();
  hub->close(id);
}

INSTANTIATE_TEST_SUITE_P(StatusOrTruncation, RestErrors,
                         ::testing::Values(RestFault{{"--rest-status", "500"}, 500, "answered 500"},
                                           RestFault{{"--rest-truncate"}, 0, "failed: read"}));

}  // namespace
}  // namespace test
}  // namespace orvi
