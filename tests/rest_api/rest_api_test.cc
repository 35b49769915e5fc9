#include "orvi/rest_api/rest_api.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvi/transport/transport.h"
#include "support/recording_log_handler.h"
#include "support/recording_sender.h"

namespace orvi {
namespace {

// Every body a reply function received, with the thread it arrived on.
struct Replies {
  ReplyFunction function() {
    return [this](const std::string& body) {
      std::lock_guard<std::mutex> lock(mutex);
      bodies.push_back(body);
      threads.push_back(std::this_thread::get_id());
    };
  }
  std::mutex mutex;
  std::vector<std::string> bodies;       // guarded by mutex
  std::vector<std::thread::id> threads;  // guarded by mutex
};

// A client over a transport whose sender records every request.
struct Connected {
  Connected() { transport->setSender(sender); }
  std::shared_ptr<test::RecordingSender> sender = std::make_shared<test::RecordingSender>();
  std::shared_ptr<Transport> transport = std::make_shared<Transport>();
  std::unique_ptr<RestApiClient> client = std::make_unique<RestApiClient>(transport);
};

struct RequestCase {
  std::function<void(RestApiClient&, ReplyFunction)> issue;
  HttpRequestScene scene;
  const char* body;
  const char* failure;  // logged for a status of 500
};

const char* const kRecoverFailed = "recover section failed, status_code: 500";
const char* const kDeleteFailed = "conversation msg delete failed, status_code: 500";

const std::vector<RequestCase> kRequests = {
    {[](auto& c, auto r) { c.requestRecoverSection("c\"1", "s1", r); },
     HttpRequestScene::RecoverSection, R"({"conversation_id":"c\"1","section_id":"s1"})",
     kRecoverFailed},
    {[](auto& c, auto r) { c.requestRecoverSections("c1", "cur", 20, r); },
     HttpRequestScene::RecoverSections, R"({"conversation_id":"c1","cursor":"cur","count":20})",
     kRecoverFailed},
    {[](auto& c, auto r) { c.requestConversationList("", 10, true, r); },
     HttpRequestScene::ConversationList, R"({"cursor":"","count":10,"create_time_desc":true})",
     "conversation list failed, status_code: 500"},
    {[](auto& c, auto r) {
       c.requestMessageBatchDelete("c1", {"m1", "m2"}, r);
     },
     HttpRequestScene::MessageBatchDelete, R"({"conversation_id":"c1","message_ids":["m1","m2"]})",
     kDeleteFailed},
    {[](auto& c, auto r) { c.requestMessageBatchDelete("c1", {}, r); },
     HttpRequestScene::MessageBatchDelete, R"({"conversation_id":"c1"})", kDeleteFailed},
    {[](auto& c, auto r) {
       c.requestConversationBatchDelete({"a", "b"}, r);
     },
     HttpRequestScene::ConversationBatchDelete, R"({"conversation_ids":["a","b"]})", kDeleteFailed},
    {[](auto& c, auto r) { c.requestConversationBatchDelete({}, r); },
     HttpRequestScene::ConversationBatchDelete, R"({"conversation_ids":[]})", kDeleteFailed},
};

TEST(RestApiClientTest, EachRequestSendsItsSceneAndBodyAndHandsEveryReplyOn) {
  for (const RequestCase& c : kRequests) {
    SCOPED_TRACE(c.body);
    test::ScopedLogCapture log;
    Connected connected;
    Replies replies;
    c.issue(*connected.client, replies.function());
    c.issue(*connected.client, replies.function());
    const auto requests = connected.sender->requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].request.scene, c.scene);
    EXPECT_EQ(requests[0].request.method, HttpMethod::Post);
    EXPECT_EQ(requests[0].request.body, std::optional<std::string>(c.body));

    // A failed status is only logged; a missing body arrives as "{}".
    requests[0].callback->onResponse(HttpResponse(500, R"({"ret":"0"})"));
    requests[1].callback->onResponse(HttpResponse(200, std::nullopt));
    EXPECT_EQ(log->count(c.failure), 1u);
    EXPECT_EQ(log->countContaining("failed, status_code"), 1u);
    EXPECT_EQ(replies.bodies, (std::vector<std::string>{R"({"ret":"0"})", "{}"}));
  }
}

TEST(RestApiClientTest, WithoutTransportOrSenderNothingIsSentAndNoReplyComes) {
  test::ScopedLogCapture log;
  Replies replies;
  {
    Connected connected;
    connected.transport.reset();  // the client held it weakly
    for (const RequestCase& c : kRequests) c.issue(*connected.client, replies.function());
    EXPECT_EQ(log->count("transport is expired"), kRequests.size());
    EXPECT_TRUE(connected.sender->requests().empty());
  }
  EXPECT_EQ(log->countContaining("RestApiClient created, this = "), 1u);
  EXPECT_EQ(log->countContaining("RestApiClient destroyed, this = "), 1u);

  auto bare = std::make_shared<Transport>();
  RestApiClient unconnected(bare);
  unconnected.requestConversationList("", 1, false, replies.function());
  EXPECT_EQ(log->count("Transport httpRequest: sender not set"), 1u);
  EXPECT_TRUE(replies.bodies.empty());
}

TEST(RestApiClientTest, ReplyMayComeOnAnotherThreadAfterClientAndTransportAreGone) {
  Replies replies;
  Connected connected;
  connected.client->requestRecoverSections("c1", "", 5, replies.function());
  const auto pending = connected.sender->requests();
  ASSERT_EQ(pending.size(), 1u);
  connected.client.reset();
  connected.transport.reset();

  std::thread::id host_thread;
  std::thread host([&] {
    host_thread = std::this_thread::get_id();
    pending[0].callback->onResponse(HttpResponse(200, R"({"ret":"0"})"));
  });
  host.join();
  EXPECT_EQ(replies.bodies, std::vector<std::string>{R"({"ret":"0"})"});
  EXPECT_EQ(replies.threads, std::vector<std::thread::id>{host_thread});
}

}  // namespace
}  // namespace orvi
