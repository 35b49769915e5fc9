// The network transport: one WebSocket connection that is kept up, and one
// short-lived connection per HTTP request, all driven by one io_context on
// the transport's own thread. Everything below NetCore's public
// methods runs on that thread only, so the connection, the exchanges in
// flight and the back-off need no lock.
#include "orvi/net/net_transport.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#ifdef ORVI_NET_TLS
#include <boost/asio/ssl.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket/ssl.hpp>
#endif

#include "url.h"

namespace orvi {
namespace net {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Millis = std::chrono::milliseconds;

constexpr char kUserAgent[] = "orvi-net";
// Without traffic for this long the WebSocket pings; without an answer for
// as long again the connection counts as lost.
constexpr auto kIdleTimeout = std::chrono::seconds(30);

using PlainStream = beast::tcp_stream;
#ifdef ORVI_NET_TLS
using TlsStream = beast::ssl_stream<beast::tcp_stream>;
#endif

template <class Stream>
constexpr bool isTls() {
#ifdef ORVI_NET_TLS
  return std::is_same<Stream, TlsStream>::value;
#else
  return false;
#endif
}

}  // namespace

std::string defaultScenePath(HttpRequestScene scene) {
  switch (scene) {
    case HttpRequestScene::RecoverSection: return "/api/recover_section";
    case HttpRequestScene::RecoverSections: return "/api/recover_sections";
    case HttpRequestScene::ConversationList: return "/api/conversation_list";
    case HttpRequestScene::MessageBatchDelete: return "/api/delete_messages";
    case HttpRequestScene::ConversationBatchDelete: return "/api/delete_conversations";
  }
  return "/api/unknown";
}

bool tlsSupported() {
#ifdef ORVI_NET_TLS
  return true;
#else
  return false;
#endif
}

// The WebSocket connection of one connection attempt, from name resolution
// to its end. A new one is made for every reconnection.
class Connection {
 public:
  virtual ~Connection() = default;
  virtual void start() = 0;
  virtual void send(std::string frame) = 0;
  // Sends a close frame when it can, otherwise drops the socket.
  virtual void close() = 0;
};

// One HTTP request on a connection of its own.
class HttpExchange {
 public:
  virtual ~HttpExchange() = default;
  virtual void start() = 0;
  // Ends the exchange early; its callback is answered with status 0.
  virtual void abort() = 0;
};

class NetCore {
 public:
  NetCore(NetOptions options, Url websocket_url, std::optional<Url> http_url);
  virtual ~NetCore();

  // Any thread.
  void addReceiver(const std::shared_ptr<ITransport>& receiver);
  void removeReceiver(const std::shared_ptr<ITransport>& receiver);
  void start();
  void stop();
  void release(std::shared_ptr<NetCore> self);
  bool connected() const;
  bool waitConnected(Millis timeout) const;
  bool sendMessage(const std::string& frame);
  void httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback);
  void log(LogLevel level, const std::string& line) const;

  // I/O thread: what connections and exchanges report back.
  void onOpen(Connection* connection);
  void onClosed(Connection* connection, const std::string& reason);
  void onFrame(const std::string& text);
  void onExchangeDone(HttpExchange* exchange);

  asio::io_context& io() { return io_; }
  const NetOptions& options() const { return options_; }
  const Url& websocketUrl() const { return websocket_url_; }
#ifdef ORVI_NET_TLS
  asio::ssl::context& tls() {
    return tls_;
  }
#endif

 private:
  bool onIoThread() {
    return io_.get_executor().running_in_this_thread();
  }
  void run();
  void requestStop();
  void connect();
  void shutdown();
  void startExchange(const HttpRequest& request, std::shared_ptr<HttpCallback> callback);
  std::string targetOf(HttpRequestScene scene) const;
  void setConnected(bool connected);
  void notifyState(ConnectionState state, const std::string& detail) const;

  const NetOptions options_;
  const Url websocket_url_;
  const std::optional<Url> http_url_;

  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  asio::steady_timer reconnect_timer_;
#ifdef ORVI_NET_TLS
  asio::ssl::context tls_{asio::ssl::context::tls_client};
#endif

  // I/O thread only.
  std::shared_ptr<Connection> connection_;
  std::set<std::shared_ptr<HttpExchange>> exchanges_;
  Millis backoff_;

  std::thread thread_;
  std::atomic<bool> started_{false};
  // Set once; requests made after it are answered at once, without the
  // I/O thread. Set and read with lifecycle_mutex_ so that no request is
  // queued behind the shutdown where nothing would run it.
  std::mutex lifecycle_mutex_;
  bool stopped_ = false;
  // Holds the transport while its thread, detached because the last owner
  // let go on that very thread, finishes. Touched on the I/O thread only.
  std::shared_ptr<NetCore> keep_alive_;

  mutable std::mutex state_mutex_;
  mutable std::condition_variable state_changed_;
  bool connected_ = false;  // guarded by state_mutex_

  std::mutex receivers_mutex_;
  std::vector<std::weak_ptr<ITransport>> receivers_;  // guarded by receivers_mutex_
};

namespace {

std::string describe(const char* stage, const beast::error_code& error) {
  return std::string(stage) + ": " + error.message();
}

// Starts `stream`'s TLS handshake when it has one, then calls `next`.
template <class Stream, class Next>
void secure(Stream& stream, NetCore& owner, const std::string& host, Next next) {
#ifdef ORVI_NET_TLS
  if constexpr (isTls<Stream>()) {
    if (!SSL_set_tlsext_host_name(stream.native_handle(), host.c_str())) {
      next(beast::error_code(static_cast<int>(::ERR_get_error()), asio::error::get_ssl_category()));
      return;
    }
    if (owner.options().verify_peer)
      stream.set_verify_callback(asio::ssl::host_name_verification(host));
    stream.async_handshake(asio::ssl::stream_base::client, std::move(next));
    return;
  }
#endif
  (void)stream;
  (void)owner;
  (void)host;
  next(beast::error_code());
}

// Resolves `url`, connects within `timeout` and, when `stream` has TLS,
// performs its handshake; then calls done("") or done(the failed step). The
// caller's `done` keeps it, and so `resolver`, `stream` and `url`, alive.
template <class Stream, class Done>
void openStream(tcp::resolver& resolver, Stream& stream, NetCore& owner, const Url& url,
                Millis timeout, Done done) {
  resolver.async_resolve(
      url.host, url.port,
      [&stream, &owner, &url, timeout, done = std::move(done)](
          beast::error_code error, tcp::resolver::results_type found) mutable {
        if (error) return done(describe("resolve", error));
        auto& lowest = beast::get_lowest_layer(stream);
        lowest.expires_after(timeout);
        lowest.async_connect(found, [&stream, &owner, &url, done = std::move(done)](
                                        beast::error_code error, const tcp::endpoint&) mutable {
          if (error) return done(describe("connect", error));
          secure(stream, owner, url.host,
                 [done = std::move(done)](beast::error_code error) mutable {
                   done(error ? describe("TLS handshake", error) : std::string());
                 });
        });
      });
}

template <class Stream>
class WebSocketConnection : public Connection,
                            public std::enable_shared_from_this<WebSocketConnection<Stream>> {
 public:
  template <class... StreamArgs>
  explicit WebSocketConnection(NetCore& owner, StreamArgs&&... args)
      : owner_(owner),
        url_(owner.websocketUrl()),
        resolver_(owner.io()),
        ws_(std::forward<StreamArgs>(args)...) {}

  void start() override {
    openStream(resolver_, ws_.next_layer(), owner_, url_,
               Millis(owner_.options().connect_timeout_ms),
               [self = this->shared_from_this()](const std::string& failure) {
                 if (!failure.empty()) return self->fail(failure);
                 self->handshake();
               });
  }

  void send(std::string frame) override {
    outbox_.push_back(std::move(frame));
    if (open_ && outbox_.size() == 1) writeNext();
  }

  void close() override {
    closing_ = true;
    resolver_.cancel();
    if (!open_ || writing_) {
      lowest().close();
      return;
    }
    ws_.async_close(
        websocket::close_code::normal,
        [self = this->shared_from_this()](beast::error_code) { self->lowest().close(); });
  }

 private:
  beast::tcp_stream& lowest() { return beast::get_lowest_layer(ws_); }

  void handshake() {
    lowest().expires_never();
    websocket::stream_base::timeout timeouts;
    timeouts.handshake_timeout = Millis(owner_.options().connect_timeout_ms);
    timeouts.idle_timeout = kIdleTimeout;
    timeouts.keep_alive_pings = true;
    ws_.set_option(timeouts);
    ws_.set_option(websocket::stream_base::decorator(
        [headers = owner_.options().headers](websocket::request_type& request) {
          request.set(http::field::user_agent, kUserAgent);
          for (const auto& header : headers) request.set(header.first, header.second);
        }));
    ws_.async_handshake(url_.host + ":" + url_.port, url_.target,
                        [self = this->shared_from_this()](beast::error_code error) {
                          if (error) return self->fail(describe("WebSocket handshake", error));
                          self->opened();
                        });
  }

  void opened() {
    if (closing_) return fail("closed while connecting");
    open_ = true;
    ws_.text(true);
    owner_.onOpen(this);
    read();
    writeNext();
  }

  void read() {
    ws_.async_read(inbox_, [self = this->shared_from_this()](beast::error_code error, size_t) {
      if (error) return self->fail(describe("read", error));
      self->owner_.onFrame(beast::buffers_to_string(self->inbox_.data()));
      self->inbox_.consume(self->inbox_.size());
      self->read();
    });
  }

  void writeNext() {
    if (outbox_.empty() || writing_ || closing_) return;
    writing_ = true;
    ws_.async_write(asio::buffer(outbox_.front()),
                    [self = this->shared_from_this()](beast::error_code error, size_t) {
                      self->writing_ = false;
                      if (error) return self->fail(describe("write", error));
                      self->outbox_.pop_front();
                      self->writeNext();
                    });
  }

  void fail(const std::string& reason) {
    if (failed_) return;
    failed_ = true;
    open_ = false;
    lowest().close();
    owner_.onClosed(this, closing_ ? "closed" : reason);
  }

  NetCore& owner_;
  const Url& url_;
  tcp::resolver resolver_;
  websocket::stream<Stream> ws_;
  beast::flat_buffer inbox_;
  std::deque<std::string> outbox_;  // frames not yet written; the front one is being written
  bool open_ = false;
  bool writing_ = false;
  bool closing_ = false;
  bool failed_ = false;
};

template <class Stream>
class HttpExchangeOn : public HttpExchange,
                       public std::enable_shared_from_this<HttpExchangeOn<Stream>> {
 public:
  using Done = std::function<void(const HttpResponse& response)>;

  template <class... StreamArgs>
  HttpExchangeOn(NetCore& owner, const Url& url, std::string target, const HttpRequest& request,
                 Done done, StreamArgs&&... args)
      : owner_(owner),
        url_(url),
        resolver_(owner.io()),
        stream_(std::forward<StreamArgs>(args)...),
        done_(std::move(done)) {
    request_.method(request.method == HttpMethod::Get ? http::verb::get : http::verb::post);
    request_.target(target);
    request_.version(11);
    request_.set(http::field::host, url.host + ":" + url.port);
    request_.set(http::field::user_agent, kUserAgent);
    request_.set(http::field::content_type, "application/json");
    request_.set(http::field::connection, "close");
    for (const auto& header : owner.options().headers) request_.set(header.first, header.second);
    request_.body() = request.body.value_or("");
    request_.prepare_payload();
  }

  // One deadline, set when connecting, covers the whole exchange.
  void start() override {
    openStream(resolver_, stream_, owner_, url_, Millis(owner_.options().http_timeout_ms),
               [self = this->shared_from_this()](const std::string& failure) {
                 if (!failure.empty()) return self->fail(failure);
                 self->write();
               });
  }

  void abort() override {
    aborted_ = true;
    resolver_.cancel();
    lowest().close();
  }

 private:
  beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }

  std::string address() const { return url_.origin() + std::string(request_.target()); }

  void write() {
    http::async_write(stream_, request_,
                      [self = this->shared_from_this()](beast::error_code error, size_t) {
                        if (error) return self->fail(describe("write", error));
                        self->read();
                      });
  }

  void read() {
    http::async_read(stream_, buffer_, response_,
                     [self = this->shared_from_this()](beast::error_code error, size_t) {
                       if (error) return self->fail(describe("read", error));
                       self->answered();
                     });
  }

  void answered() {
    const int status = static_cast<int>(response_.result_int());
    if (status < 200 || status >= 300)
      owner_.log(LogLevel::Warn, "HTTP POST " + address() + " answered " + std::to_string(status));
    finish(HttpResponse(status, std::move(response_.body())));
  }

  void fail(const std::string& reason) {
    owner_.log(LogLevel::Warn,
               "HTTP POST " + address() + " failed: " + (aborted_ ? "transport stopped" : reason));
    finish(HttpResponse(0, std::nullopt));
  }

  void finish(const HttpResponse& response) {
    lowest().close();
    if (!done_) return;
    auto done = std::move(done_);
    done_ = nullptr;
    done(response);
    owner_.onExchangeDone(this);
  }

  NetCore& owner_;
  const Url url_;
  tcp::resolver resolver_;
  Stream stream_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
  beast::flat_buffer buffer_;
  Done done_;  // empty once answered
  bool aborted_ = false;
};

}  // namespace

NetCore::NetCore(NetOptions options, Url websocket_url, std::optional<Url> http_url)
    : options_(std::move(options)),
      websocket_url_(std::move(websocket_url)),
      http_url_(std::move(http_url)),
      work_(asio::make_work_guard(io_)),
      reconnect_timer_(io_),
      backoff_(Millis(options_.reconnect_min_ms)) {
#ifdef ORVI_NET_TLS
  beast::error_code error;
  tls_.set_verify_mode(options_.verify_peer ? asio::ssl::verify_peer : asio::ssl::verify_none);
  tls_.set_default_verify_paths(error);
  if (error) log(LogLevel::Warn, describe("loading the system's trust store", error));
  if (!options_.ca_file.empty()) {
    tls_.load_verify_file(options_.ca_file, error);
    if (error) log(LogLevel::Error, describe(("loading " + options_.ca_file).c_str(), error));
  }
#endif
}

NetCore::~NetCore() = default;

void NetCore::log(LogLevel level, const std::string& line) const {
  if (options_.log) {
    options_.log(level, "[orvi-net] " + line);
  } else if (level >= LogLevel::Warn) {
    std::fprintf(stderr, "[orvi-net] %s\n", line.c_str());
  }
}

void NetCore::addReceiver(const std::shared_ptr<ITransport>& receiver) {
  if (!receiver) return;
  std::lock_guard<std::mutex> lock(receivers_mutex_);
  receivers_.push_back(receiver);
}

void NetCore::removeReceiver(const std::shared_ptr<ITransport>& receiver) {
  std::lock_guard<std::mutex> lock(receivers_mutex_);
  receivers_.erase(std::remove_if(receivers_.begin(), receivers_.end(),
                                  [&](const std::weak_ptr<ITransport>& held) {
                                    auto live = held.lock();
                                    return !live || live == receiver;
                                  }),
                   receivers_.end());
}

void NetCore::start() {
  {
    std::lock_guard<std::mutex> lock(lifecycle_mutex_);
    if (stopped_ || started_.exchange(true)) return;
  }
  asio::post(io_, [this] { connect(); });
  thread_ = std::thread([this] { run(); });
}

void NetCore::run() {
  for (;;) {
    try {
      io_.run();
      break;
    } catch (const std::exception& e) {
      log(LogLevel::Error, std::string("unexpected error on the I/O thread: ") + e.what());
    }
  }
  // Only set when this thread was detached: the transport ends here.
  std::shared_ptr<NetCore> last_reference = std::move(keep_alive_);
}

void NetCore::requestStop() {
  {
    std::lock_guard<std::mutex> lock(lifecycle_mutex_);
    if (stopped_) return;
    stopped_ = true;
  }
  asio::post(io_, [this] { shutdown(); });
}

void NetCore::stop() {
  requestStop();
  if (onIoThread()) return;
  if (thread_.joinable()) {
    thread_.join();
  } else if (!started_) {
    // Never started: answer what was queued on this thread.
    io_.run();
  }
}

void NetCore::release(std::shared_ptr<NetCore> self) {
  requestStop();
  if (onIoThread() && thread_.joinable()) {
    // A thread cannot join itself; it finishes the shutdown on its own.
    keep_alive_ = std::move(self);
    thread_.detach();
    return;
  }
  stop();
}

void NetCore::shutdown() {
  reconnect_timer_.cancel();
  if (connection_) connection_->close();
  for (const auto& exchange : std::set<std::shared_ptr<HttpExchange>>(exchanges_))
    exchange->abort();
  work_.reset();
  setConnected(false);
  notifyState(ConnectionState::Stopped, "");
}

void NetCore::connect() {
  {
    std::lock_guard<std::mutex> lock(lifecycle_mutex_);
    if (stopped_) return;
  }
  notifyState(ConnectionState::Connecting, websocket_url_.origin() + websocket_url_.target);
#ifdef ORVI_NET_TLS
  if (websocket_url_.tls) {
    connection_ = std::make_shared<WebSocketConnection<TlsStream>>(*this, io_, tls_);
    connection_->start();
    return;
  }
#endif
  connection_ = std::make_shared<WebSocketConnection<PlainStream>>(*this, io_);
  connection_->start();
}

void NetCore::onOpen(Connection* connection) {
  if (connection != connection_.get()) return;
  backoff_ = Millis(options_.reconnect_min_ms);
  log(LogLevel::Info, "connected to " + websocket_url_.origin() + websocket_url_.target);
  setConnected(true);
  notifyState(ConnectionState::Connected, "");
}

void NetCore::onClosed(Connection* connection, const std::string& reason) {
  if (connection != connection_.get()) return;
  auto ended = std::move(connection_);  // kept until its handler returns
  setConnected(false);
  {
    std::lock_guard<std::mutex> lock(lifecycle_mutex_);
    if (stopped_) return;
  }
  const Millis delay = backoff_;
  backoff_ = std::min(backoff_ * 2, Millis(std::max(options_.reconnect_max_ms, 1)));
  log(LogLevel::Warn, "connection to " + websocket_url_.origin() + websocket_url_.target +
                          " ended (" + reason + "); reconnecting in " +
                          std::to_string(delay.count()) + " ms");
  notifyState(ConnectionState::Disconnected, reason);
  reconnect_timer_.expires_after(delay);
  reconnect_timer_.async_wait([this](beast::error_code error) {
    if (!error) connect();
  });
}

void NetCore::onFrame(const std::string& text) {
  std::vector<std::shared_ptr<ITransport>> live;
  {
    std::lock_guard<std::mutex> lock(receivers_mutex_);
    for (const auto& held : receivers_)
      if (auto receiver = held.lock()) live.push_back(std::move(receiver));
  }
  for (const auto& receiver : live) receiver->onMessageReceived(text);
}

bool NetCore::sendMessage(const std::string& frame) {
  if (!connected()) {
    log(LogLevel::Debug, "not connected; frame refused");
    return false;
  }
  asio::post(io_, [this, frame] {
    if (connection_) connection_->send(frame);
  });
  return true;
}

void NetCore::httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) {
  if (!callback) return;
  bool refused = !http_url_;
  if (!refused) {
    std::lock_guard<std::mutex> lock(lifecycle_mutex_);
    refused = stopped_;
    if (!refused) asio::post(io_, [this, request, callback] { startExchange(request, callback); });
  }
  if (refused) {
    log(LogLevel::Warn, http_url_ ? "transport stopped; HTTP request answered with status 0"
                                  : "no HTTP address configured; request answered with status 0");
    callback->onResponse(HttpResponse(0, std::nullopt));
  }
}

void NetCore::startExchange(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) {
  auto done = [callback](const HttpResponse& response) { callback->onResponse(response); };
  {
    std::lock_guard<std::mutex> lock(lifecycle_mutex_);
    if (stopped_) return done(HttpResponse(0, std::nullopt));
  }
  const std::string target = joinTarget(http_url_->target, targetOf(request.scene));
  std::shared_ptr<HttpExchange> exchange;
#ifdef ORVI_NET_TLS
  if (http_url_->tls)
    exchange = std::make_shared<HttpExchangeOn<TlsStream>>(*this, *http_url_, target, request, done,
                                                           io_, tls_);
#endif
  if (!exchange)
    exchange = std::make_shared<HttpExchangeOn<PlainStream>>(*this, *http_url_, target, request,
                                                             done, io_);
  exchanges_.insert(exchange);
  exchange->start();
}

void NetCore::onExchangeDone(HttpExchange* exchange) {
  for (auto it = exchanges_.begin(); it != exchanges_.end(); ++it) {
    if (it->get() == exchange) {
      exchanges_.erase(it);
      return;
    }
  }
}

std::string NetCore::targetOf(HttpRequestScene scene) const {
  for (const auto& entry : options_.scene_paths)
    if (entry.first == scene) return entry.second;
  return defaultScenePath(scene);
}

bool NetCore::connected() const {
  std::lock_guard<std::mutex> lock(state_mutex_);
  return connected_;
}

bool NetCore::waitConnected(Millis timeout) const {
  std::unique_lock<std::mutex> lock(state_mutex_);
  return state_changed_.wait_for(lock, timeout, [this] { return connected_; });
}

void NetCore::setConnected(bool connected) {
  {
    std::lock_guard<std::mutex> lock(state_mutex_);
    connected_ = connected;
  }
  state_changed_.notify_all();
}

void NetCore::notifyState(ConnectionState state, const std::string& detail) const {
  if (options_.on_state) options_.on_state(state, detail);
}

class NetTransport::Impl : public NetCore {
 public:
  using NetCore::NetCore;
};

std::shared_ptr<NetTransport> NetTransport::create(NetOptions options, std::string* error) {
  std::string reason;
  Url websocket_url;
  std::optional<Url> http_url;
  bool usable = parseUrl(options.websocket_url, UrlKind::WebSocket, &websocket_url, &reason);
  if (usable && !options.http_base_url.empty()) {
    http_url.emplace();
    usable = parseUrl(options.http_base_url, UrlKind::Http, &*http_url, &reason);
  }
  if (usable && !tlsSupported() && (websocket_url.tls || (http_url && http_url->tls))) {
    reason = "this build has no TLS support (OpenSSL was not found)";
    usable = false;
  }
  if (!usable) {
    if (error) *error = reason;
    return nullptr;
  }
  auto impl =
      std::make_shared<Impl>(std::move(options), std::move(websocket_url), std::move(http_url));
  return std::shared_ptr<NetTransport>(new NetTransport(std::move(impl)));
}

NetTransport::NetTransport(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

NetTransport::~NetTransport() {
  NetCore* impl = impl_.get();
  impl->release(std::move(impl_));
}

void NetTransport::addReceiver(const std::shared_ptr<ITransport>& receiver) {
  impl_->addReceiver(receiver);
}

void NetTransport::removeReceiver(const std::shared_ptr<ITransport>& receiver) {
  impl_->removeReceiver(receiver);
}

void NetTransport::start() {
  impl_->start();
}

void NetTransport::stop() {
  impl_->stop();
}

bool NetTransport::connected() const {
  return impl_->connected();
}

bool NetTransport::waitConnected(std::chrono::milliseconds timeout) const {
  return impl_->waitConnected(timeout);
}

bool NetTransport::sendMessage(const std::string& message) {
  return impl_->sendMessage(message);
}

void NetTransport::httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) {
  impl_->httpRequest(request, std::move(callback));
}

}  // namespace net
}  // namespace orvi
