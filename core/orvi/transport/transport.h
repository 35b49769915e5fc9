// Transport joins the host's ITransportSender to exactly one receiver inside
// the library. The conversation hub, each conversation and each sync channel
// make their own at connect time: frames and HTTP requests go out through it
// to the host, and frames the host pushes into it (as an ITransport) reach
// the registered Listener on the pushing thread.
//
// The transport never keeps its listener alive: it holds it weakly and drops
// frames (with a log line) once the listener is gone. Sender and listener are
// set once while connecting; a small mutex guards the two pointers only, and
// no lock is held while the sender or the listener runs.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "orvi/transport.h"
#include "orvi/utils/ref_contained.h"

namespace orvi {

class Transport : public RefContained, public ITransport {
 public:
  // The receiving side inside the library.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void onMessageReceived(const std::string& message) = 0;
  };

  Transport();
  ~Transport() override;

  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // The first sender stays; an empty pointer clears it so that another can
  // be set.
  void setSender(const std::shared_ptr<ITransportSender>& sender);
  // The first listener stays while it lives; an empty pointer clears it.
  void setListener(const std::shared_ptr<Listener>& listener);

  // False when no sender is set or the sender refuses the frame.
  bool sendMessage(const std::string& message);
  // Dropped, with the callback never called, when no sender is set.
  void httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback);

  // ITransport: the host delivers a received frame.
  void onMessageReceived(const std::string& message) override;

 private:
  std::shared_ptr<ITransportSender> sender() const;

  mutable std::mutex mutex_;
  std::shared_ptr<ITransportSender> sender_;  // guarded by mutex_
  std::weak_ptr<Listener> listener_;          // guarded by mutex_
};

}  // namespace orvi
