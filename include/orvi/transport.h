// The host's side of the network. The host owns the connection: the library
// hands it frames and HTTP requests through ITransportSender, and the host
// pushes every frame it receives into the ITransport that `connect` returned.
#pragma once

#include <memory>
#include <string>

#include "orvi/transport_types.h"

namespace orvi {

// Implemented by the host; receives the answer to one HttpRequest. The host
// may call it on any thread, once.
class HttpCallback {
 public:
  virtual ~HttpCallback() = default;
  virtual void onResponse(const HttpResponse& response) = 0;
};

// Implemented by the host and shared with the library, which calls it from
// host threads and library workers (the sync sender thread among them).
class ITransportSender {
 public:
  virtual ~ITransportSender() = default;

  // Sends one text frame. Returns false when the frame could not be handed to
  // the network; the library then treats it as not sent.
  virtual bool sendMessage(const std::string& message) = 0;

  // Performs `request` and answers through `callback`, on any thread. The
  // callback holds no strong reference to library objects.
  virtual void httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) = 0;
};

// Implemented by the library. The host passes each received text frame to it;
// the frame is processed synchronously on the calling thread.
class ITransport {
 public:
  virtual ~ITransport() = default;
  virtual void onMessageReceived(const std::string& message) = 0;
};

}  // namespace orvi
