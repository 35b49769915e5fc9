// What one orvi-chat process sets up: the history database in the cache
// directory with the hub configured over it, the network transport shared
// by the open conversation and the hub's REST calls, and the open
// conversation (one at a time).
//
// Used from the main thread only. Owns the transport and the session; the
// hub is the process's and outlives both. The hub connects to a sender once
// per process, so it is given a relay that forwards to whichever transport
// is current; a relay without one answers HTTP with status 0.
// Shutdown (the destructor): the transport stops first, so no frame or HTTP
// answer arrives while the session closes.
#pragma once

#include <orvi/net/net_transport.h>
#include <orvi/orvi.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "chat_session.h"
#include "terminal.h"

namespace orvi_chat {

struct HostSettings {
  std::string websocket_url;
  std::string http_url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string cache_dir;
  bool verbose = false;
  // How long a sent message waits for its acknowledgement; empty: the
  // library's default. The library's timer keeps the process alive until
  // the last wait has run out, so a short script wants it short.
  std::optional<int32_t> ack_timeout_ms;
};

class ChatHost {
 public:
  ChatHost(HostSettings settings, std::shared_ptr<Terminal> terminal);
  ~ChatHost();
  ChatHost(const ChatHost&) = delete;
  ChatHost& operator=(const ChatHost&) = delete;

  // Opens the history, configures the hub and starts the transport; false
  // with the reason in *error (not null) when one of them fails.
  bool start(std::string* error);
  bool waitConnected(std::chrono::milliseconds timeout) const;

  // Closes the open conversation, if any, and opens `local_id` (empty: a
  // new one). Null, with a line printed, when the hub refuses.
  ChatSession* open(const std::string& local_id);
  void closeSession();
  ChatSession* session() const { return session_.get(); }

  // Closes the session, stops and drops the transport, and starts a new one,
  // as a host restarting its network would.
  bool restartTransport(std::string* error);

  // Prints the conversations the local history knows.
  void listLocal();
  // Asks the server for its newest conversations and prints them when they
  // arrive; with `wait`, blocks until then and returns the page.
  std::optional<orvi::ConversationListInfo> listRemote(
      std::optional<std::chrono::milliseconds> wait);
  // Deletes a closed conversation on the server, then locally; the outcome
  // is printed when the server answers.
  bool remove(const std::string& local_id);

 private:
  class Relay;
  class HubEvents;

  bool startTransport(std::string* error);
  void stopTransport();

  const HostSettings settings_;
  const std::shared_ptr<Terminal> terminal_;
  std::shared_ptr<Relay> relay_;
  std::shared_ptr<orvi::net::NetTransport> net_;
  std::unique_ptr<ChatSession> session_;
  bool configured_ = false;  // the hub was configured over this host's history
};

}  // namespace orvi_chat
