#include "orvi/rest_api/rest_api.h"

#include <utility>

#include "orvi/message/processor/wire_records.h"
#include "orvi/transport/transport.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

constexpr int32_t kHttpOk = 200;

// Every request goes out the same way: lock the transport or give up, print
// the body record compactly, and hand it on with its callback.
template <typename Record>
void send(const std::weak_ptr<Transport>& weak_transport, HttpRequestScene scene,
          const Record& body, std::shared_ptr<HttpCallback> callback) {
  auto transport = weak_transport.lock();
  if (!transport) {
    ORVI_LOGE("transport is expired");
    return;
  }
  transport->httpRequest(HttpRequest(scene, HttpMethod::Post, idl::toText(body)),
                         std::move(callback));
}

}  // namespace

RestCallback::RestCallback(const char* failure_format, ReplyFunction reply)
    : failure_format_(failure_format), reply_(std::move(reply)) {}

void RestCallback::onResponse(const HttpResponse& response) {
  ReplyFunction reply;
  bool again = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    again = answered_;
    answered_ = true;
    reply.swap(reply_);
  }
  if (again) {
    ORVI_LOGW("http callback answered again, ignored, status_code: %d", response.status_code);
    return;
  }
  // A failed status is only logged: the body still goes to the parser, which
  // judges the reply by its own "ret".
  if (response.status_code != kHttpOk) ORVI_LOGE(failure_format_, response.status_code);
  if (reply) reply(response.body ? *response.body : std::string("{}"));
}

ConversationListCallback::ConversationListCallback(ReplyFunction reply)
    : RestCallback("conversation list failed, status_code: %d", std::move(reply)) {}

ConversationMsgDeleteCallback::ConversationMsgDeleteCallback(ReplyFunction reply)
    : RestCallback("conversation msg delete failed, status_code: %d", std::move(reply)) {}

RecoverSectionCallback::RecoverSectionCallback(ReplyFunction reply)
    : RestCallback("recover section failed, status_code: %d", std::move(reply)) {}

RestApiClient::RestApiClient(std::weak_ptr<Transport> transport)
    : transport_(std::move(transport)) {
  ORVI_LOGI("RestApiClient created, this = %p, transport = %p", static_cast<void*>(this),
            static_cast<void*>(transport_.lock().get()));
}

RestApiClient::~RestApiClient() {
  ORVI_LOGI("RestApiClient destroyed, this = %p", static_cast<void*>(this));
}

void RestApiClient::requestRecoverSection(const std::string& conversation_id,
                                          const std::string& section_id, ReplyFunction reply) {
  idl::RecoverSectionRequest body;
  body.conversation_id = conversation_id;
  body.section_id = section_id;
  send(transport_, HttpRequestScene::RecoverSection, body,
       std::make_shared<RecoverSectionCallback>(std::move(reply)));
}

void RestApiClient::requestRecoverSections(const std::string& conversation_id,
                                           const std::string& cursor, int32_t count,
                                           ReplyFunction reply) {
  idl::RecoverSectionsRequest body;
  body.conversation_id = conversation_id;
  body.cursor = cursor;
  body.count = count;
  send(transport_, HttpRequestScene::RecoverSections, body,
       std::make_shared<RecoverSectionCallback>(std::move(reply)));
}

void RestApiClient::requestConversationList(const std::string& cursor, int32_t count,
                                            bool create_time_desc, ReplyFunction reply) {
  idl::ConversationListRequest body;
  body.cursor = cursor;
  body.count = count;
  body.create_time_desc = create_time_desc;
  send(transport_, HttpRequestScene::ConversationList, body,
       std::make_shared<ConversationListCallback>(std::move(reply)));
}

void RestApiClient::requestMessageBatchDelete(const std::string& conversation_id,
                                              const std::vector<std::string>& message_ids,
                                              ReplyFunction reply) {
  idl::MessageBatchDeleteRequest body;
  body.conversation_id = conversation_id;
  body.message_ids = message_ids;
  send(transport_, HttpRequestScene::MessageBatchDelete, body,
       std::make_shared<ConversationMsgDeleteCallback>(std::move(reply)));
}

void RestApiClient::requestConversationBatchDelete(const std::vector<std::string>& conversation_ids,
                                                   ReplyFunction reply) {
  idl::ConversationBatchDeleteRequest body;
  body.conversation_ids = conversation_ids;
  send(transport_, HttpRequestScene::ConversationBatchDelete, body,
       std::make_shared<ConversationMsgDeleteCallback>(std::move(reply)));
}

}  // namespace orvi
