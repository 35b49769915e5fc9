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

using test::RecordingSender;

// The bodies a reply function received, with the thread it ran on.
class Replies {
 public:
  ReplyFunction function() {
    return [this](const std::string& body) {
      std::lock_guard<std::mutex> lock(mutex_);
      bodies_.push_back(body);
      threads_.push_back(std::this_thread::get_id());
    };
  }
  std::vector<std::string> bodies() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return bodies_;
  }
  std::vector<std::thread::id> threads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> bodies_;
  std::vector<std::thread::id> threads_;
};

// A client over a transport whose sender records every request.
struct Connected {
  Connected() {
    transport->setSender(sender);
    client = std::make_unique<RestApiClient>(transport);
  }
  std::shared_ptr<RecordingSender> sender = std::make_shared<RecordingSender>();
  std::shared_ptr<Transport> transport = std::make_shared<Transport>();
  std::unique_ptr<RestApiClient> client;
};

using Issue = std::function<void(RestApiClient&, ReplyFunction)>;

struct RequestCase {
  const char* name;
  Issue issue;
  HttpRequestScene scene;
  const char* body;
  const char* failure;  // the callback's log line for a status of 500
};

const std::vector<RequestCase>& requestCases() {
  static const std::vector<RequestCase> cases = {
      {"recover section",
       [](RestApiClient& c, ReplyFunction r) {
         c.requestRecoverSection("c\"1", "s1", std::move(r));
       },
       HttpRequestScene::RecoverSection, R"({"conversation_id":"c\"1","section_id":"s1"})",
       "recover section failed, status_code: 500"},
      {"recover sections",
       [](RestApiClient& c, ReplyFunction r) {
         c.requestRecoverSections("c1", "cur", 20, std::move(r));
       },
       HttpRequestScene::RecoverSections, R"({"conversation_id":"c1","cursor":"cur","count":20})",
       "recover section failed, status_code: 500"},
      {"conversation list",
       [](RestApiClient& c, ReplyFunction r) {
         c.requestConversationList("", 10, true, std::move(r));
       },
       HttpRequestScene::ConversationList, R"({"cursor":"","count":10,"create_time_desc":true})",
       "conversation list failed, status_code: 500"},
      {"message batch delete",
       [](RestApiClient& c, ReplyFunction r) {
         c.requestMessageBatchDelete("c1", {"m1", "m2"}, std::move(r));
       },
       HttpRequestScene::MessageBatchDelete,
       R"({"conversation_id":"c1","message_ids":["m1","m2"]})",
       "conversation msg delete failed, status_code: 500"},
      {"message batch delete, no ids",
       [](RestApiClient& c, ReplyFunction r) {
         c.requestMessageBatchDelete("c1", {}, std::move(r));
       },
       HttpRequestScene::MessageBatchDelete, R"({"conversation_id":"c1"})",
       "conversation msg delete failed, status_code: 500"},
      {"conversation batch delete",
       [](RestApiClient& c, ReplyFunction r) {
         c.requestConversationBatchDelete({"a", "b"}, std::move(r));
       },
       HttpRequestScene::ConversationBatchDelete, R"({"conversation_ids":["a","b"]})",
       "conversation msg delete failed, status_code: 500"},
      {"conversation batch delete, no ids",
       [](RestApiClient& c, ReplyFunction r) {
         c.requestConversationBatchDelete({}, std::move(r));
       },
       HttpRequestScene::ConversationBatchDelete, R"({"conversation_ids":[]})",
       "conversation msg delete failed, status_code: 500"},
  };
  return cases;
}

TEST(RestApiClientTest, EachRequestSendsItsSceneAndBodyAndHandsEveryReplyOn) {
  for (const RequestCase& c : requestCases()) {
    SCOPED_TRACE(c.name);
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

    // A failed status is only logged; the parser still gets the body.
    requests[0].callback->onResponse(HttpResponse(500, R"({"ret":"0"})"));
    EXPECT_EQ(log->count(c.failure), 1u);
    // No body at all reaches the parser as an empty object.
    requests[1].callback->onResponse(HttpResponse(200, std::nullopt));
    EXPECT_EQ(log->countContaining("failed, status_code"), 1u);
    EXPECT_EQ(replies.bodies(), (std::vector<std::string>{R"({"ret":"0"})", "{}"}));
  }
}

TEST(RestApiClientTest, WithoutTransportOrSenderNothingIsSentAndNoReplyComes) {
  test::ScopedLogCapture log;
  Replies replies;
  {
    Connected connected;
    connected.transport.reset();  // the client held it weakly
    for (const RequestCase& c : requestCases()) c.issue(*connected.client, replies.function());
    EXPECT_EQ(log->count("transport is expired"), requestCases().size());
    EXPECT_TRUE(connected.sender->requests().empty());
  }
  EXPECT_EQ(log->countContaining("RestApiClient created, this = "), 1u);
  EXPECT_EQ(log->countContaining("RestApiClient destroyed, this = "), 1u);

  auto unconnected = std::make_shared<Transport>();
  RestApiClient client(unconnected);
  client.requestConversationList("", 1, false, replies.function());
  EXPECT_EQ(log->count("Transport httpRequest: sender not set"), 1u);
  EXPECT_TRUE(replies.bodies().empty());
}

TEST(RestApiClientTest, ReplyMayComeOnAnotherThreadAfterClientAndTransportAreGone) {
  Replies replies;
  Connected connected;
  connected.client->requestRecoverSections("c1", "", 5, replies.function());
  const auto pending = connected.sender->requests();
  ASSERT_EQ(pending.size(), 1u);
  connected.client.reset();
  connected.transport.reset();

  std::thread::id answering;
  std::thread host([&] {
    answering = std::this_thread::get_id();
    pending[0].callback->onResponse(HttpResponse(200, R"({"ret":"0","data":{}})"));
  });
  host.join();
  EXPECT_EQ(replies.bodies(), std::vector<std::string>{R"({"ret":"0","data":{}})"});
  EXPECT_EQ(replies.threads(), std::vector<std::thread::id>{answering});
}

}  // namespace
}  // namespace orvi
