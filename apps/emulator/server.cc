// The network side of the emulator: the listener, HTTP sessions (REST and
// the WebSocket upgrade) and WebSocket sessions, all on one I/O thread.
// Server is the ServiceHost the protocol services run against; the
// services, the store and every session are touched on the I/O thread only.
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "chat_service.h"
#include "emulator.h"
#include "fault_switches.h"
#include "rest_service.h"
#include "service_host.h"
#include "store.h"
#include "sync_service.h"

namespace orvi {
namespace emulator {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ErrorCode = boost::system::error_code;

enum class Channel { Chat, Sync };

// The most a client may send at once: a WebSocket message (the library's
// own default cap on frames), and a REST body (the library's requests are a
// few hundred bytes). Longer ones end the connection.
constexpr uint64_t kMaxWsMessageBytes = 16u << 20;
constexpr uint64_t kMaxRestBodyBytes = 1u << 20;

// The start time in milliseconds, in base 36: 8 characters, different for
// each run started more than a millisecond apart.
std::string runFromClock() {
  auto ms = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                      std::chrono::system_clock::now().time_since_epoch())
                                      .count());
  std::string run;
  do {
    run.insert(run.begin(), "0123456789abcdefghijklmnopqrstuvwxyz"[ms % 36]);
    ms /= 36;
  } while (ms != 0);
  return run;
}

std::string pathOf(beast::string_view target) {
  const auto query = target.find('?');
  return std::string(target.substr(0, query));
}

}  // namespace

class WsSession;
class HttpSession;

// The listener and everything it serves; Emulator's implementation.

class Server : public ServiceHost {
 public:
  explicit Server(EmulatorOptions options)
      : options_(std::move(options)),
        faults_(options_.faults),
        store_(options_.id_run.empty() ? runFromClock() : options_.id_run),
        chat_(*this, faults_, store_, options_.delta_interval_ms, options_.gzip_every,
              [this](const std::string& line) { log(line); }),
        rest_(store_, [this] { return nowMs(); }),
        sync_(*this, faults_, [this](const std::string& line) { log(line); }),
        acceptor_(ioc_) {}

  ~Server() override { stop(); }

  bool start(std::string* error);
  void stop();
  uint16_t port() const { return port_.load(); }
  void setFaults(const Faults& faults) { faults_.set(faults); }

  void send(SessionId session, std::string text) override;
  void cut(SessionId session, bool mid_frame) override;
  void schedule(int32_t delay_ms, std::function<void()> task) override;
  int64_t nowMs() override {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  }

  // Called by the sessions, on the I/O thread.
  SessionId newSessionId() { return ++last_session_id_; }
  void addHttp(SessionId id, const std::shared_ptr<HttpSession>& session) {
    http_sessions_[id] = session;
  }
  void removeHttp(SessionId id) { http_sessions_.erase(id); }
  void addWs(SessionId id, const std::shared_ptr<WsSession>& session) {
    ws_sessions_[id] = session;
  }
  void onWsText(SessionId id, Channel channel, const std::string& text);
  void onWsClosed(SessionId id, Channel channel, const std::string& why);
  RestReply rest(const std::string& path, const std::string& body);
  Faults faults() const { return faults_.get(); }
  bool stopping() const { return stopping_; }
  void log(const std::string& line) const {
    if (options_.log) options_.log(line);
  }
  asio::io_context& ioc() { return ioc_; }

 private:
  void accept();
  void closeAll();

  const EmulatorOptions options_;
  FaultSwitches faults_;
  Store store_;
  ChatService chat_;
  RestService rest_;
  SyncService sync_;
  // Declared after the services: pending handlers, which may refer to them,
  // are destroyed with the context before the services go.
  asio::io_context ioc_;
  tcp::acceptor acceptor_;
  std::map<SessionId, std::shared_ptr<WsSession>> ws_sessions_;  // open WebSockets
  std::map<SessionId, std::weak_ptr<HttpSession>> http_sessions_;
  SessionId last_session_id_ = 0;
  bool stopping_ = false;  // I/O thread: no session event reaches a service any more
  std::atomic<uint16_t> port_{0};
  bool started_ = false;  // start()/stop() are for the owning thread
  std::thread thread_;
};

// One WebSocket, "/chat" or "/sync". Frames leave in the order they were
// queued; a cut waits behind the frames queued before it.
class WsSession : public std::enable_shared_from_this<WsSession> {
 public:
  WsSession(Server& impl, SessionId id, Channel channel, tcp::socket socket)
      : impl_(impl), id_(id), channel_(channel), ws_(std::move(socket)) {}

  void start(http::request<http::string_body> request) {
    ws_.set_option(websocket::stream_base::timeout{std::chrono::seconds(30),
                                                   websocket::stream_base::none(), false});
    ws_.read_message_max(kMaxWsMessageBytes);
    ws_.async_accept(request, [self = shared_from_this()](ErrorCode ec) {
      if (ec) return self->impl_.log("ws: handshake failed: " + ec.message());
      self->impl_.addWs(self->id_, self);
      self->impl_.log(std::string("ws: session ") + std::to_string(self->id_) + " opened");
      self->read();
    });
  }

  void send(std::string text) {
    if (closed_) return;
    queue_.push_back(Item{std::move(text), false, false});
    if (queue_.size() == 1) write();
  }

  void cut(bool mid_frame) {
    if (closed_) return;
    queue_.push_back(Item{std::string(), true, mid_frame});
    if (queue_.size() == 1) write();
  }

  // Abrupt close, for stop(): the peer sees the TCP connection end.
  void close() {
    closed_ = true;
    queue_.clear();
    ErrorCode ec;
    auto& socket = beast::get_lowest_layer(ws_).socket();
    socket.shutdown(tcp::socket::shutdown_both, ec);
    socket.close(ec);
  }

 private:
  struct Item {
    std::string text;
    bool cut = false;
    bool mid_frame = false;
  };

  void read() {
    ws_.async_read(buffer_, [self = shared_from_this()](ErrorCode ec, size_t) {
      if (ec) {
        self->closed_ = true;
        return self->impl_.onWsClosed(self->id_, self->channel_, ec.message());
      }
      const std::string text = beast::buffers_to_string(self->buffer_.data());
      self->buffer_.consume(self->buffer_.size());
      self->impl_.onWsText(self->id_, self->channel_, text);
      self->read();
    });
  }

  void write() {
    Item& item = queue_.front();
    if (item.cut) return doCut(item.mid_frame);
    ws_.text(true);
    ws_.async_write(asio::buffer(item.text), [self = shared_from_this()](ErrorCode ec, size_t) {
      if (ec) {
        self->queue_.clear();
        return;
      }
      self->queue_.pop_front();
      if (!self->queue_.empty()) self->write();
    });
  }

  void doCut(bool mid_frame) {
    if (mid_frame) {
      // A text frame header announcing 256 payload bytes, then only 3 of them.
      static const unsigned char kStart[] = {0x81, 0x7E, 0x01, 0x00, 'c', 'u', 't'};
      ErrorCode ec;
      asio::write(beast::get_lowest_layer(ws_).socket(), asio::buffer(kStart), ec);
    }
    close();
  }

  Server& impl_;
  const SessionId id_;
  const Channel channel_;
  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
  std::deque<Item> queue_;  // front: being written
  bool closed_ = false;
};

// One HTTP connection: POSTs of the REST scenes (keep-alive), or the
// upgrade that turns it into a WsSession.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(Server& impl, SessionId id, tcp::socket socket)
      : impl_(impl), id_(id), stream_(std::move(socket)) {}

  void start() {
    impl_.addHttp(id_, shared_from_this());
    read();
  }

  void close() {
    ErrorCode ec;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
    stream_.socket().close(ec);
  }

 private:
  void read() {
    parser_.emplace();
    parser_->body_limit(kMaxRestBodyBytes);
    stream_.expires_after(std::chrono::seconds(60));
    http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](ErrorCode ec, size_t) {
      if (ec) {
        if (ec != http::error::end_of_stream) self->impl_.log("http: read failed: " + ec.message());
        return self->end();
      }
      self->request_ = self->parser_->release();
      self->handle();
    });
  }

  void handle() {
    const std::string path = pathOf(request_.target());
    if (websocket::is_upgrade(request_) && (path == "/chat" || path == "/sync")) {
      impl_.removeHttp(id_);
      beast::get_lowest_layer(stream_).expires_never();
      std::make_shared<WsSession>(impl_, id_, path == "/chat" ? Channel::Chat : Channel::Sync,
                                  stream_.release_socket())
          ->start(std::move(request_));
      return;
    }
    RestReply reply{404, "{\"ret\":\"404\",\"err_msg\":\"no such path\"}"};
    if (request_.method() == http::verb::post && !websocket::is_upgrade(request_)) {
      reply = impl_.rest(path, request_.body());
    }
    const Faults faults = impl_.faults();
    if (faults.rest_status != 0) reply = {faults.rest_status, "{\"err_msg\":\"emulated failure\"}"};
    impl_.log("http: " + std::string(request_.method_string()) + " " + path + " -> " +
              std::to_string(reply.status) + (faults.rest_truncate ? " (truncated)" : ""));
    if (faults.rest_truncate) return writeTruncated(reply);

    response_ = {};
    response_.result(static_cast<unsigned>(reply.status));
    response_.version(request_.version());
    response_.set(http::field::server, "orvi-emulator");
    response_.set(http::field::content_type, "application/json");
    response_.keep_alive(request_.keep_alive());
    response_.body() = std::move(reply.body);
    response_.prepare_payload();
    http::async_write(stream_, response_, [self = shared_from_this()](ErrorCode ec, size_t) {
      if (ec || !self->response_.keep_alive()) return self->end();
      self->read();
    });
  }

  // The status line and headers promise the whole body; half of it comes,
  // then the connection ends.
  void writeTruncated(const RestReply& reply) {
    raw_ = "HTTP/1.1 " + std::to_string(reply.status) +
           " OK\r\nServer: orvi-emulator\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(reply.body.size()) + "\r\nConnection: close\r\n\r\n" +
           reply.body.substr(0, reply.body.size() / 2);
    asio::async_write(stream_.socket(), asio::buffer(raw_),
                      [self = shared_from_this()](ErrorCode, size_t) { self->end(); });
  }

  void end() {
    close();
    impl_.removeHttp(id_);
  }

  Server& impl_;
  const SessionId id_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;  // one per request
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
  std::string raw_;
};

bool Server::start(std::string* error) {
  auto fail = [error](const std::string& why) {
    if (error != nullptr) *error = why;
    return false;
  };
  if (started_) return fail("the emulator was started already");
  ErrorCode ec;
  const auto address = asio::ip::make_address(options_.host, ec);
  if (ec) return fail("bad host " + options_.host + ": " + ec.message());
  const tcp::endpoint endpoint(address, options_.port);
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor_.bind(endpoint, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    // The reason is taken before close() reuses the error code.
    const std::string why = ec.message();
    acceptor_.close(ec);
    return fail("cannot listen on " + options_.host + ":" + std::to_string(options_.port) + ": " +
                why);
  }
  port_ = acceptor_.local_endpoint().port();
  started_ = true;
  accept();
  thread_ = std::thread([this] { ioc_.run(); });
  return true;
}

void Server::stop() {
  if (!thread_.joinable()) return;
  asio::post(ioc_, [this] {
    closeAll();
    ioc_.stop();
  });
  thread_.join();
}

void Server::closeAll() {
  stopping_ = true;
  ErrorCode ec;
  acceptor_.close(ec);
  for (auto& entry : ws_sessions_) entry.second->close();
  ws_sessions_.clear();
  for (auto& entry : http_sessions_) {
    if (auto session = entry.second.lock()) session->close();
  }
  http_sessions_.clear();
}

void Server::accept() {
  acceptor_.async_accept(ioc_, [this](ErrorCode ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || stopping_) return;
    if (ec) {
      log("accept failed: " + ec.message());
    } else {
      std::make_shared<HttpSession>(*this, newSessionId(), std::move(socket))->start();
    }
    accept();
  });
}

void Server::send(SessionId session, std::string text) {
  const auto it = ws_sessions_.find(session);
  if (it != ws_sessions_.end()) it->second->send(std::move(text));
}

void Server::cut(SessionId session, bool mid_frame) {
  const auto it = ws_sessions_.find(session);
  if (it != ws_sessions_.end()) it->second->cut(mid_frame);
}

void Server::schedule(int32_t delay_ms, std::function<void()> task) {
  auto timer = std::make_shared<asio::steady_timer>(ioc_, std::chrono::milliseconds(delay_ms));
  timer->async_wait([timer, task = std::move(task)](ErrorCode ec) {
    if (!ec) task();
  });
}

void Server::onWsText(SessionId id, Channel channel, const std::string& text) {
  if (stopping_) return;
  const char* name = channel == Channel::Chat ? "chat" : "sync";
  log(std::string(name) + " <- " + text.substr(0, 300));
  // Whatever a client sends, the I/O thread goes on serving the others.
  try {
    if (channel == Channel::Chat) {
      chat_.onText(id, text);
    } else {
      sync_.onText(id, text);
    }
  } catch (const std::exception& e) {
    log(std::string(name) + ": dropped a frame: " + e.what());
  }
}

RestReply Server::rest(const std::string& path, const std::string& body) {
  try {
    return rest_.handle(path, body);
  } catch (const std::exception& e) {
    log("http: " + path + " failed: " + e.what());
    return {500, "{\"ret\":\"500\",\"err_msg\":\"internal error\"}"};
  }
}

void Server::onWsClosed(SessionId id, Channel channel, const std::string& why) {
  if (stopping_) return;
  log("ws: session " + std::to_string(id) + " closed: " + why);
  ws_sessions_.erase(id);
  if (channel == Channel::Chat) chat_.onClosed(id);
}

class Emulator::Impl {
 public:
  explicit Impl(EmulatorOptions options) : server(std::move(options)) {}
  Server server;
};

Emulator::Emulator(EmulatorOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Emulator::~Emulator() = default;
bool Emulator::start(std::string* error) {
  return impl_->server.start(error);
}
void Emulator::stop() {
  impl_->server.stop();
}
uint16_t Emulator::port() const {
  return impl_->server.port();
}
void Emulator::setFaults(const Faults& faults) {
  impl_->server.setFaults(faults);
}

}  // namespace emulator
}  // namespace orvi
