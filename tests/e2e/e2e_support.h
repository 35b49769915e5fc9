// Support for the end-to-end tests: the emulator as a child process on a
// free loopback port, a wire tap that records what a host really sends and
// receives through the network transport, and a bounded wait on conditions.
#pragma once

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/net/net_transport.h"
#include "orvi/transport.h"

namespace orvi {
namespace test {

// Polls `done` every few milliseconds until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

// One orvi-emulator process. It binds port 0 and prints the port it got;
// the destructor asks it to stop (SIGTERM) and waits a bounded time.
class EmulatorProcess {
 public:
  explicit EmulatorProcess(const std::vector<std::string>& flags = {});
  ~EmulatorProcess();
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  uint16_t port() const { return port_; }
  std::string chatUrl() const { return "ws://127.0.0.1:" + std::to_string(port_) + "/chat"; }
  std::string syncUrl() const { return "ws://127.0.0.1:" + std::to_string(port_) + "/sync"; }
  std::string httpUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // SIGTERM, then waits up to 10 s. True when it exited by itself with 0.
  bool stop();

 private:
  pid_t pid_ = -1;
  int stdout_fd_ = -1;
  int stdin_fd_ = -1;  // the emulator's stdin; it exits when this closes
  uint16_t port_ = 0;
};

// A port on which nothing listens (bound once, then released).
uint16_t closedPort();

// Lines the transport logged, and the connection states it went through.
struct NetEvents {
  std::vector<std::string> lines;
  std::vector<net::ConnectionState> states;

  size_t countStates(net::ConnectionState state) const;
  bool hasLine(const std::string& fragment) const;
};

// The host's sender as the library sees it: forwards to a NetTransport and
// records every uplink frame; registered as a receiver too, it records every
// downlink frame before the library's receivers see it. Thread-safe. What it
// records lives in a block shared with the transport's callbacks: the
// library may drop the last reference to the tap on the transport's own
// thread, which then finishes its shutdown (and reports it) after the tap is
// gone. What it
// records lives in a block of its own, shared with the transport's
// callbacks: the library may drop the last reference to the tap on the
// transport's own thread, which then finishes its shutdown (and reports it)
// after the tap is gone.
class WireTap : public ITransportSender {
 public:
  // Starts a transport to `websocket_url` (and `http_url` for REST).
  static std::shared_ptr<WireTap> connect(const std::string& websocket_url,
                                          const std::string& http_url);
  ~WireTap() override;

  void addReceiver(const std::shared_ptr<ITransport>& receiver);
  net::NetTransport& transport() { return *transport_; }

  bool sendMessage(const std::string& frame) override;
  void httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) override;

  std::vector<std::string> uplinks() const;
  std::vector<nlohmann::json> downlinks() const;
  NetEvents events() const;

 private:
  class Recorder;
  struct Record {
    std::mutex mutex;
    std::vector<std::string> uplinks;       // guarded by mutex
    std::vector<nlohmann::json> downlinks;  // guarded by mutex
    NetEvents events;                       // guarded by mutex
  };
  WireTap() = default;

  std::shared_ptr<Record> record_ = std::make_shared<Record>();
  std::shared_ptr<Recorder> recorder_;
  std::shared_ptr<net::NetTransport> transport_;
};

// Configures the process's hub once, over SQLite history in a scratch
// directory that lives as long as the process.
void configureHubOnce();

}  // namespace test
}  // namespace orvi
