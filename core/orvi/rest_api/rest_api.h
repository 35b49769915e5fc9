// RestApiClient issues the library's five HTTP requests through a Transport:
// it builds each JSON body, wraps it in an HttpRequest with its scene, and
// hands it with a callback to the host's sender. The host performs the
// exchange and answers through the callback, on any thread; the callback
// hands the body (or "{}" when there is none) to the reply function the
// caller gave, which parses it.
//
// The client holds the transport weakly and keeps no other state, so it may
// be shared and called from any thread. A callback object holds only its
// reply function and may outlive the client and the caller; reply functions
// must therefore capture only weak references.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvi/transport.h"

namespace orvi {

class Transport;

using ReplyFunction = std::function<void(const std::string& body)>;

// Base of the three callbacks: logs a non-200 status with the class's own
// message, then hands the body on all the same. The reply function runs at
// most once: a host that answers a request twice gets a warning, and the
// second answer goes nowhere. It is released once it has run.
class RestCallback : public HttpCallback {
 public:
  RestCallback(const char* failure_format, ReplyFunction reply);
  void onResponse(const HttpResponse& response) override;

 private:
  const char* failure_format_;
  std::mutex mutex_;
  bool answered_ = false;  // guarded by mutex_
  ReplyFunction reply_;    // guarded by mutex_
};

class ConversationListCallback : public RestCallback {
 public:
  explicit ConversationListCallback(ReplyFunction reply);
};

class ConversationMsgDeleteCallback : public RestCallback {
 public:
  explicit ConversationMsgDeleteCallback(ReplyFunction reply);
};

class RecoverSectionCallback : public RestCallback {
 public:
  explicit RecoverSectionCallback(ReplyFunction reply);
};

class RestApiClient {
 public:
  explicit RestApiClient(std::weak_ptr<Transport> transport);
  ~RestApiClient();
  RestApiClient(const RestApiClient&) = delete;
  RestApiClient& operator=(const RestApiClient&) = delete;

  // Each logs "transport is expired" and never calls `reply` when the
  // transport is gone.
  void requestRecoverSection(const std::string& conversation_id, const std::string& section_id,
                             ReplyFunction reply);
  void requestRecoverSections(const std::string& conversation_id, const std::string& cursor,
                              int32_t count, ReplyFunction reply);
  void requestConversationList(const std::string& cursor, int32_t count, bool create_time_desc,
                               ReplyFunction reply);
  void requestMessageBatchDelete(const std::string& conversation_id,
                                 const std::vector<std::string>& message_ids, ReplyFunction reply);
  void requestConversationBatchDelete(const std::vector<std::string>& conversation_ids,
                                      ReplyFunction reply);

 private:
  std::weak_ptr<Transport> transport_;
};

}  // namespace orvi
