#include "orvi/rest_api/rest_api.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orvi/transport/transport.h"
#include "support/recording_log_handler.h"
#include "support/recording_sender.h"

namespace orvi {
namespace {

struct RequestCase {
  std::function<void(RestApiClient&, ReplyFunction)> issue;
  HttpRequestScene scene;
  const char* body;
  const char* failure;  // logged for a status of 500
};

const char* const kRecoverFailed = "recover section failed, status_code: 500";
const char* const kDeleteFailed = "conversation msg delete failed, status_code: 500";

const std::vector<std::string> kIds = {"m1", "m2"};
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
    {[](auto& c, auto r) { c.requestMessageBatchDelete("c1", kIds, r); },
     HttpRequestScene::MessageBatchDelete, R"({"conversation_id":"c1","message_ids":["m1","m2"]})",
     kDeleteFailed},
    {[](auto& c, auto r) { c.requestMessageBatchDelete("c1", {}, r); },
     HttpRequestScene::MessageBatchDelete, R"({"conversation_id":"c1"})", kDeleteFailed},
    {[](auto& c, auto r) { c.requestConversationBatchDelete(kIds, r); },
     HttpRequestScene::ConversationBatchDelete, R"({"conversation_ids":["m1","m2"]})",
     kDeleteFailed},
    {[](auto& c, auto r) { c.requestConversationBatchDelete({}, r); },
     HttpRequestScene::ConversationBatchDelete, R"({"conversation_ids":[]})", kDeleteFailed},
};

// The host answers one request with a failed status and one without a body,
// after the client and the transport are gone: both replies are handed on.
TEST(RestApiClientTest, EachRequestSendsItsSceneAndBodyAndHandsEveryReplyOn) {
  for (const RequestCase& c : kRequests) {
    SCOPED_TRACE(c.body);
    test::ScopedLogCapture log;
    auto sender = std::make_shared<test::RecordingSender>();
    auto transport = std::make_shared<Transport>();
    transport->setSender(sender);
    auto client = std::make_unique<RestApiClient>(transport);
    std::vector<std::string> bodies;
    const ReplyFunction reply = [&](const std::string& body) { bodies.push_back(body); };
    c.issue(*client, reply);
    c.issue(*client, reply);
    client.reset();
    transport.reset();
    const auto requests = sender->requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].request.scene, c.scene);
    EXPECT_EQ(requests[0].request.method, HttpMethod::Post);
    EXPECT_EQ(requests[0].request.body, std::optional<std::string>(c.body));

    requests[0].callback->onResponse(HttpResponse(500, R"({"ret":"0"})"));
    requests[1].callback->onResponse(HttpResponse(200, std::nullopt));
    EXPECT_EQ(log->count(c.failure), 1u);
    EXPECT_EQ(log->countContaining("failed, status_code"), 1u);
    EXPECT_EQ(bodies, (std::vector<std::string>{R"({"ret":"0"})", "{}"}));
  }
}

TEST(RestApiClientTest, ExpiredTransportIsLoggedAndNeverReplies) {
  test::ScopedLogCapture log;
  auto transport = std::make_shared<Transport>();
  RestApiClient client(transport);
  transport.reset();  // the client held it weakly, so there is nothing to send through
  int replies = 0;
  for (const RequestCase& c : kRequests) c.issue(client, [&](const std::string&) { ++replies; });
  EXPECT_EQ(log->count("transport is expired"), kRequests.size());
  EXPECT_EQ(replies, 0);
}

}  // namespace
}  // namespace orvi
