#include "e2e_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "orvi/conversation_hub.h"
#include "orvi/sqlite/sqlite_executor.h"
#include "support/temp_dir.h"

extern char** environ;

namespace orvi {
namespace test {

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

namespace {

// Reads stdout until the "listening on" line; 0 when it does not come.
uint16_t readPort(int fd) {
  static const std::string marker = "listening on 127.0.0.1:";
  std::string seen;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd wait{fd, POLLIN, 0};
    if (::poll(&wait, 1, 100) <= 0) continue;
    char chunk[256];
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got <= 0) return 0;
    seen.append(chunk, static_cast<size_t>(got));
    const auto at = seen.find(marker);
    if (at != std::string::npos && seen.find('\n', at) != std::string::npos)
      return static_cast<uint16_t>(std::stoi(seen.substr(at + marker.size())));
  }
  return 0;
}

}  // namespace

EmulatorProcess::EmulatorProcess(const std::vector<std::string>& flags) {
  // The emulator also ends when its stdin closes, so that it never outlives
  // a test process that crashed.
  std::vector<std::string> args = {ORVI_EMULATOR_PATH, "--port", "0", "--exit-on-stdin-eof"};
  args.insert(args.end(), flags.begin(), flags.end());
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  int out[2];
  int in[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return;
  if (::pipe2(in, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(in[0]);
  stdout_fd_ = out[0];
  stdin_fd_ = in[1];
  if (spawned != 0) {
    pid_ = -1;
    return;
  }
  port_ = readPort(stdout_fd_);
}

EmulatorProcess::~EmulatorProcess() {
  stop();
  if (stdout_fd_ >= 0) ::close(stdout_fd_);
  if (stdin_fd_ >= 0) ::close(stdin_fd_);
}

bool EmulatorProcess::stop() {
  if (pid_ < 0) return false;
  ::kill(pid_, SIGTERM);
  int status = 0;
  const bool ended = eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; },
                                std::chrono::seconds(10));
  if (!ended) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

uint16_t closedPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

size_t NetEvents::countStates(net::ConnectionState state) const {
  return static_cast<size_t>(std::count(states.begin(), states.end(), state));
}

bool NetEvents::hasLine(const std::string& fragment) const {
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(fragment) != std::string::npos;
  });
}

class WireTap::Recorder : public ITransport {
 public:
  explicit Recorder(std::shared_ptr<Record> record) : record_(std::move(record)) {}
  void onMessageReceived(const std::string& message) override {
    std::lock_guard<std::mutex> lock(record_->mutex);
    record_->downlinks.push_back(nlohmann::json::parse(message, nullptr, false));
  }

 private:
  std::shared_ptr<Record> record_;
};

std::shared_ptr<WireTap> WireTap::connect(const std::string& websocket_url,
                                          const std::string& http_url) {
  std::shared_ptr<WireTap> tap(new WireTap());
  const std::shared_ptr<Record> record = tap->record_;
  net::NetOptions options;
  options.websocket_url = websocket_url;
  options.http_base_url = http_url;
  options.connect_timeout_ms = 2000;
  options.http_timeout_ms = 3000;
  options.reconnect_min_ms = 50;
  options.reconnect_max_ms = 400;
  options.log = [record](LogLevel, const std::string& line) {
    std::lock_guard<std::mutex> lock(record->mutex);
    record->events.lines.push_back(line);
  };
  options.on_state = [record](net::ConnectionState state, const std::string&) {
    std::lock_guard<std::mutex> lock(record->mutex);
    record->events.states.push_back(state);
  };
  std::string error;
  tap->transport_ = net::NetTransport::create(options, &error);
  if (!tap->transport_) return nullptr;
  tap->recorder_ = std::make_shared<Recorder>(record);
  tap->transport_->addReceiver(tap->recorder_);
  tap->transport_->start();
  return tap;
}

WireTap::~WireTap() {
  if (transport_) transport_->stop();
}

void WireTap::addReceiver(const std::shared_ptr<ITransport>& receiver) {
  transport_->addReceiver(receiver);
}

bool WireTap::sendMessage(const std::string& frame) {
  const bool sent = transport_->sendMessage(frame);
  std::lock_guard<std::mutex> lock(record_->mutex);
  if (sent) record_->uplinks.push_back(frame);
  return sent;
}

void WireTap::httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) {
  transport_->httpRequest(request, std::move(callback));
}

std::vector<std::string> WireTap::uplinks() const {
  std::lock_guard<std::mutex> lock(record_->mutex);
  return record_->uplinks;
}

std::vector<nlohmann::json> WireTap::downlinks() const {
  std::lock_guard<std::mutex> lock(record_->mutex);
  return record_->downlinks;
}

NetEvents WireTap::events() const {
  std::lock_guard<std::mutex> lock(record_->mutex);
  return record_->events;
}

void configureHubOnce() {
  static TempDir cache("orvi-e2e");
  static const bool configured = [] {
    auto history = sqlite::SqliteExecutor::open(cache.file("history.db"));
    ConversationHub::instance()->config(OrviConfig(cache.path(), 30, true), history);
    return history != nullptr;
  }();
  (void)configured;
}

}  // namespace test
}  // namespace orvi
