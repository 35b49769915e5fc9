// What one orvi-chat process sets up: the history database in the cache
// directory with the hub configured over it, the network transport shared
// by the open conversation and the hub's REST calls, and the open
// conversation (one at a time).
//
// Used from the main thread only. Owns the transport and the session; the
// hub is the process's and outlives both. The hub connects to a sender once
// per process, so it is given a relay that forwards to whichever transport
// is current; a relay without one answers HTTP with status 0.
// The library's diagnostics, the transport's and SQLite's go to the log
// file, never to the screen.
// Shutdown: quit() first waits, bounded, for the acknowledgements of what
// was sent; then (the destructor) the transport stops, so no frame or HTTP
// answer arrives while the session closes, and the history writes still
// queued are flushed, bounded too.
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
#include "log_file.h"
#include "terminal.h"

namespace orvi_chat {

struct HostSettings {
  std::string websocket_url;
  std::string http_url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string cache_dir;
  std::string log_path;  // empty: orvi-chat.log in the cache directory
  std::shared_ptr<LogFile> log;
  bool verbose = false;
  // How long a sent message waits for its acknowledgement before it is sent
  // again; empty: the library's default.
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
  // new one). Null, with a line printed, when the id is not stored or the
  // hub refuses; the open conversation stays open then.
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
  // is printed when the server answers. With `local_only`, only the local
  // history forgets it (for one the server no longer knows).
  bool remove(const std::string& local_id, bool local_only);

  // Waits up to `timeout` for the outcome of every message sent, saying so
  // when there are any; the caller then lets the host go.
  void quit(std::chrono::milliseconds timeout);

 private:
  class Relay;
  class HubEvents;
  class SessionLink;

  bool startTransport(std::string* error);
  bool isStored(const std::string& local_id) const;

  void stopTransport();

  const HostSettings settings_;
  const std::shared_ptr<Terminal> terminal_;
  std::shared_ptr<Relay> relay_;
  const std::shared_ptr<SessionLink> link_;  // the transport's way to the open session
  std::shared_ptr<orvi::net::NetTransport> net_;
  std::unique_ptr<ChatSession> session_;
  bool configured_ = false;  // the hub was configured over this host's history
};

}  // namespace orvi_chat
