#include "chat_host.h"

#include <orvi/sqlite/sqlite_executor.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace orvi_chat {
namespace {

constexpr int32_t kResends = 2;

const char* stateText(orvi::net::ConnectionState state) {
  switch (state) {
    case orvi::net::ConnectionState::Connecting: return "connecting";
    case orvi::net::ConnectionState::Connected: return "connected";
    case orvi::net::ConnectionState::Disconnected: return "disconnected, will reconnect";
    case orvi::net::ConnectionState::Stopped: return "stopped";
  }
  return "?";
}

std::string describe(const orvi::ConversationInfo& info) {
  std::string text = info.local_conversation_id;
  text += info.conversation_id.empty() ? "  (not on the server yet)"
                                       : "  server " + info.conversation_id;
  if (!info.name.empty()) text += "  \"" + info.name + "\"";
  if (info.message_count) text += "  " + std::to_string(*info.message_count) + " messages";
  return text;
}

// Receives one page of listRemote on the I/O thread; prints it and hands it
// to a waiting caller, if any.
class RemoteList final : public orvi::IConversations {
 public:
  explicit RemoteList(std::shared_ptr<Terminal> terminal) : terminal_(std::move(terminal)) {}

  void onConversations(const orvi::ConversationListInfo& page) override {
    if (page.error) {
      terminal_->line("remote", "list failed: " + page.error->code + " " + page.error->message);
    } else if (page.conversations.empty()) {
      terminal_->line("remote", "(no conversations on the server)");
    }
    for (const auto& info : page.conversations) terminal_->line("remote", describe(info));
    {
      std::lock_guard<std::mutex> lock(mutex_);
      page_ = page;
    }
    arrived_.notify_all();
  }

  std::optional<orvi::ConversationListInfo> wait(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, timeout, [this] { return page_.has_value(); });
    return page_;
  }

 private:
  const std::shared_ptr<Terminal> terminal_;
  std::mutex mutex_;  // guards page_
  std::condition_variable arrived_;
  std::optional<orvi::ConversationListInfo> page_;
};

}  // namespace

// The hub's sender for the whole process: forwards to the current transport,
// held weakly so that the hub (which keeps its sender until exit) never
// keeps a transport and its thread alive.
class ChatHost::Relay final : public orvi::ITransportSender {
 public:
  static std::shared_ptr<Relay> instance() {
    static const auto relay = std::make_shared<Relay>();
    return relay;
  }
  void setTarget(const std::shared_ptr<orvi::net::NetTransport>& target) {
    std::lock_guard<std::mutex> lock(mutex_);
    target_ = target;
  }
  bool sendMessage(const std::string& message) override {
    const auto target = current();
    return target && target->sendMessage(message);
  }
  void httpRequest(const orvi::HttpRequest& request,
                   std::shared_ptr<orvi::HttpCallback> callback) override {
    if (const auto target = current()) return target->httpRequest(request, std::move(callback));
    if (callback) callback->onResponse(orvi::HttpResponse(0, std::nullopt));
  }

 private:
  std::shared_ptr<orvi::net::NetTransport> current() {
    std::lock_guard<std::mutex> lock(mutex_);
    return target_.lock();
  }
  std::mutex mutex_;  // guards target_
  std::weak_ptr<orvi::net::NetTransport> target_;
};

// The hub's listener for the whole process (the hub takes one, once): the
// outcome of remove, printed on the current terminal.
class ChatHost::HubEvents final : public orvi::ConversationHubListener {
 public:
  static std::shared_ptr<HubEvents> instance() {
    static const auto events = std::make_shared<HubEvents>();
    return events;
  }
  void setTerminal(const std::shared_ptr<Terminal>& terminal) {
    std::lock_guard<std::mutex> lock(mutex_);
    terminal_ = terminal;
  }
  void onConversationRemoved(bool success) override {
    std::shared_ptr<Terminal> terminal;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      terminal = terminal_.lock();
    }
    if (terminal) {
      terminal->line("delete", success ? "done, on the server and locally"
                                       : "the server refused; if it no longer knows the "
                                         "conversation, /delete ID local forgets it here");
    }
  }

 private:
  std::mutex mutex_;  // guards terminal_
  std::weak_ptr<Terminal> terminal_;
};

// The open session as the transport's I/O thread reaches it: weakly, under
// a lock, since the main thread opens and closes sessions meanwhile.
class ChatHost::SessionLink {
 public:
  void set(std::weak_ptr<ConnectionWatcher> watcher) {
    std::lock_guard<std::mutex> lock(mutex_);
    watcher_ = std::move(watcher);
  }
  void onConnection(bool up) {
    std::shared_ptr<ConnectionWatcher> watcher;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      watcher = watcher_.lock();
    }
    if (watcher) watcher->onConnection(up);
  }

 private:
  std::mutex mutex_;  // guards watcher_
  std::weak_ptr<ConnectionWatcher> watcher_;
};

ChatHost::ChatHost(HostSettings settings, std::shared_ptr<Terminal> terminal)
    : settings_(std::move(settings)),
      terminal_(std::move(terminal)),
      link_(std::make_shared<SessionLink>()) {}

ChatHost::~ChatHost() {
  stopTransport();
  session_.reset();  // stores what was shown of an answer cut short
  // History writes still queued when the process ends would be lost.
  constexpr int64_t kSaveAtExitMs = 5000;
  if (configured_ && !orvi::ConversationHub::instance()->flush(kSaveAtExitMs)) {
    terminal_->line("history", "not everything could be saved before exit");
  }
}

bool ChatHost::start(std::string* error) {
  std::error_code failed;
  std::filesystem::create_directories(settings_.cache_dir, failed);
  if (failed) {
    *error = "cannot create " + settings_.cache_dir + ": " + failed.message();
    return false;
  }
  if (settings_.log) {
    const std::string log_path =
        settings_.log_path.empty() ? settings_.cache_dir + "/orvi-chat.log" : settings_.log_path;
    std::string why;
    if (settings_.log->open(log_path, &why)) {
      terminal_->line("log", log_path);
    } else {
      terminal_->diagnostic("orvi-chat: " + why + "; diagnostics are dropped");
    }
  }
  const std::string path = settings_.cache_dir + "/history.db";
  auto history = orvi::sqlite::SqliteExecutor::open(path, error);
  if (!history) return false;
  const std::shared_ptr<LogFile> log = settings_.log;
  history->setErrorSink([log](const std::string& message) {
    if (log) log->write("sqlite", message);
  });
  auto hub = orvi::ConversationHub::instance();
  hub->config(orvi::OrviConfig(settings_.cache_dir, 30, true), history);
  configured_ = true;
  HubEvents::instance()->setTerminal(terminal_);
  hub->listen(HubEvents::instance());
  hub->connect(Relay::instance());
  terminal_->line("history", path);
  return startTransport(error);
}

bool ChatHost::startTransport(std::string* error) {
  orvi::net::NetOptions options;
  options.websocket_url = settings_.websocket_url;
  options.http_base_url = settings_.http_url;
  options.headers = settings_.headers;
  const bool verbose = settings_.verbose;
  const std::shared_ptr<LogFile> log = settings_.log;
  options.log = [log, verbose](orvi::LogLevel level, const std::string& line) {
    if (log && (verbose || level >= orvi::LogLevel::Info)) log->write("net", line);
  };
  std::weak_ptr<Terminal> terminal = terminal_;
  std::weak_ptr<SessionLink> link = link_;
  options.on_state = [terminal, link](orvi::net::ConnectionState state, const std::string& detail) {
    if (const auto target = terminal.lock()) {
      target->line("net", std::string(stateText(state)) + (detail.empty() ? "" : ": " + detail));
    }
    const auto session = link.lock();
    if (session && state == orvi::net::ConnectionState::Connected) session->onConnection(true);
    if (session && state == orvi::net::ConnectionState::Disconnected) session->onConnection(false);
  };
  net_ = orvi::net::NetTransport::create(std::move(options), error);
  if (!net_) return false;
  Relay::instance()->setTarget(net_);
  net_->start();
  return true;
}

void ChatHost::stopTransport() {
  if (!net_) return;
  net_->stop();
  Relay::instance()->setTarget(nullptr);
}

bool ChatHost::waitConnected(std::chrono::milliseconds timeout) const {
  return net_ && net_->waitConnected(timeout);
}

ChatSession* ChatHost::open(const std::string& local_id) {
  if (!local_id.empty() && !isStored(local_id)) {
    terminal_->line("open", "no stored conversation " + local_id + "; /list shows them");
    return nullptr;
  }
  closeSession();
  std::string error;
  orvi::ConversationOptions options;
  options.uplink_message_ack_timeout_ms = settings_.ack_timeout_ms;
  // A message the server did not acknowledge in time is sent again, twice
  // at most, before it is reported as failed.
  options.max_resend_uplink_message_count = kResends;
  session_ = ChatSession::open(local_id, options, net_, terminal_, &error);
  if (!session_) {
    terminal_->line("open", error);
    return nullptr;
  }
  terminal_->line("open", "conversation " + session_->localId());
  link_->set(session_->connectionWatcher());
  return session_.get();
}

bool ChatHost::isStored(const std::string& local_id) const {
  for (const auto& info : orvi::ConversationHub::instance()->list()) {
    if (info.local_conversation_id == local_id) return true;
  }
  return false;
}

void ChatHost::closeSession() {
  link_->set({});
  session_.reset();
}

void ChatHost::quit(std::chrono::milliseconds timeout) {
  const size_t pending = session_ ? session_->unsettledMessages() : 0;
  if (pending == 0) return;
  terminal_->line("quit", "waiting up to " + std::to_string(timeout.count() / 1000) + " s for " +
                              std::to_string(pending) + " message(s) to be accepted");
  if (!session_->waitSettled(timeout)) {
    terminal_->line("quit", "leaving without it; the history keeps it as never acknowledged");
  }
}

bool ChatHost::restartTransport(std::string* error) {
  stopTransport();
  closeSession();
  net_.reset();
  return startTransport(error);
}

void ChatHost::listLocal() {
  const auto conversations = orvi::ConversationHub::instance()->list();
  if (conversations.empty()) terminal_->line("list", "(no stored conversations)");
  const std::string current = session_ ? session_->localId() : std::string();
  for (const auto& info : conversations) {
    terminal_->line("list",
                    describe(info) + (info.local_conversation_id == current ? "  <- open" : ""));
  }
}

std::optional<orvi::ConversationListInfo> ChatHost::listRemote(
    std::optional<std::chrono::milliseconds> wait) {
  auto page = std::make_shared<RemoteList>(terminal_);
  if (!orvi::ConversationHub::instance()->listRemote("", 20, true, page)) {
    terminal_->line("remote", "cannot list: no connection to the server");
    return std::nullopt;
  }
  return wait ? page->wait(*wait) : std::nullopt;
}

bool ChatHost::remove(const std::string& local_id, bool local_only) {
  if (session_ && session_->localId() == local_id) {
    terminal_->line("delete", "that conversation is open; /new or /open another one first");
    return false;
  }
  if (!isStored(local_id)) {
    terminal_->line("delete", "no stored conversation " + local_id + "; /list shows them");
    return false;
  }
  const auto hub = orvi::ConversationHub::instance();
  if (local_only) {
    const bool removed = hub->removeLocal(local_id);
    terminal_->line("delete", removed ? "removed from the local history" : "could not remove it");
    return removed;
  }
  if (hub->remove(local_id)) return true;
  terminal_->line("delete", "not sent: no connection to the server");
  return false;
}

}  // namespace orvi_chat
