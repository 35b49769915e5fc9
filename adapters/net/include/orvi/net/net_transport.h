// A ready-made ITransportSender for hosts: text frames over one WebSocket
// connection, HttpRequests as HTTP/1.1 POSTs of their JSON body.
//
// The transport owns one I/O thread, started by start() and joined by stop()
// (or the destructor). It connects, and after any failure or close reconnects
// with a doubling back-off, until stopped. Every frame it receives goes, on
// the I/O thread, to each ITransport registered with addReceiver; HTTP
// answers reach their HttpCallback on the same thread. The receivers are
// held weakly: the library's ITransport keeps its sender alive, so a strong
// reference back would never be released. The host keeps what `connect`
// returned for as long as it wants frames.
//
// sendMessage and httpRequest may be called from any thread. A frame offered
// while the connection is down is refused (false), which the library treats
// as not sent. On stop, queued frames are dropped and every HTTP request
// still in flight is answered once with status 0.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orvi/enums.h"
#include "orvi/transport.h"

namespace orvi {
namespace net {

enum class ConnectionState : int32_t {
  Connecting = 0,
  Connected = 1,
  Disconnected = 2,  // lost or failed; a reconnection is scheduled
  Stopped = 3,
};

struct NetOptions {
  // "ws://host:port/path" or "wss://host:port/path".
  std::string websocket_url;
  // "http://host:port" or "https://host:port", optionally with a path
  // prefix; empty: every HttpRequest is answered with status 0.
  std::string http_base_url;
  // Path of each scene below http_base_url; a missing scene uses
  // defaultScenePath().
  std::vector<std::pair<HttpRequestScene, std::string>> scene_paths;
  // Sent with the WebSocket handshake and every POST (for example
  // "Authorization").
  std::vector<std::pair<std::string, std::string>> headers;

  int32_t connect_timeout_ms = 5000;
  int32_t http_timeout_ms = 10000;
  int32_t reconnect_min_ms = 200;
  int32_t reconnect_max_ms = 10000;

  // TLS: check the server's certificate against the system's trust store
  // (and ca_file, when set).
  bool verify_peer = true;
  std::string ca_file;

  // Log lines of the transport; empty: warnings and errors go to stderr.
  // Called on the I/O thread or the calling thread, with no lock held.
  std::function<void(LogLevel level, const std::string& line)> log;
  // Connection state changes, on the I/O thread, with no lock held.
  std::function<void(ConnectionState state, const std::string& detail)> on_state;
};

// "/api/recover_section", "/api/recover_sections", "/api/conversation_list",
// "/api/delete_messages", "/api/delete_conversations".
std::string defaultScenePath(HttpRequestScene scene);

// True when this build speaks wss:// and https://.
bool tlsSupported();

class NetTransport final : public ITransportSender {
 public:
  // Checks the URLs; returns nullptr and the reason in *error (when given)
  // for a URL it cannot use, such as wss:// in a build without TLS.
  static std::shared_ptr<NetTransport> create(NetOptions options, std::string* error = nullptr);

  ~NetTransport() override;
  NetTransport(const NetTransport&) = delete;
  NetTransport& operator=(const NetTransport&) = delete;

  void addReceiver(const std::shared_ptr<ITransport>& receiver);
  void removeReceiver(const std::shared_ptr<ITransport>& receiver);

  // Starts the I/O thread and the first connection attempt. Once only.
  void start();
  // Closes the connection and joins the I/O thread. Idempotent. Called on
  // the I/O thread itself (from a callback) it only asks the thread to end;
  // the last owner's destructor then joins it.
  void stop();

  bool connected() const;
  // Blocks until the connection is up, or `timeout` passes.
  bool waitConnected(std::chrono::milliseconds timeout) const;

  bool sendMessage(const std::string& message) override;
  void httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) override;

 private:
  class Impl;
  explicit NetTransport(std::shared_ptr<Impl> impl);

  std::shared_ptr<Impl> impl_;
};

}  // namespace net
}  // namespace orvi
