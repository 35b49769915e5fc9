// A minimal host: it registers a log handler, gives a Transport its sender,
// sends a frame out and pushes the "server's" answer back in.
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvi/logger.h"
#include "orvi/transport.h"
#include "orvi/transport/transport.h"

namespace {

class PrintingLogHandler : public orvi::ILogHandler {
 public:
  void log(orvi::LogLevel, const std::string& line) override {
    std::lock_guard<std::mutex> lock(mutex_);
    std::cout << "log | " << line << '\n';
  }

 private:
  std::mutex mutex_;
};

// Stands in for the host's network: it keeps what the library sends.
class LoopbackSender : public orvi::ITransportSender {
 public:
  bool sendMessage(const std::string& message) override {
    sent.push_back(message);
    return true;
  }
  void httpRequest(const orvi::HttpRequest&, std::shared_ptr<orvi::HttpCallback> callback) override {
    callback->onResponse(orvi::HttpResponse(200, std::string("{}")));
  }
  std::vector<std::string> sent;
};

class PrintingReceiver : public orvi::Transport::Listener {
 public:
  void onMessageReceived(const std::string& message) override {
    std::cout << "received | " << message << '\n';
    ++received;
  }
  int received = 0;
};

}  // namespace

int main() {
  orvi::ILogger::registerHandler(std::make_shared<PrintingLogHandler>());
  orvi::ILogger::setLogLevel(orvi::LogLevel::Info);

  auto sender = std::make_shared<LoopbackSender>();
  auto receiver = std::make_shared<PrintingReceiver>();
  auto transport = std::make_shared<orvi::Transport>();
  transport->setSender(sender);
  transport->setListener(receiver);

  const std::string frame = R"({"event":"message","content":"hello"})";
  if (!transport->sendMessage(frame) || sender->sent.size() != 1) {
    std::cerr << "example host: the frame did not reach the sender\n";
    return 1;
  }
  std::cout << "sent | " << sender->sent.front() << '\n';

  // The host hands what its network received to the ITransport.
  std::shared_ptr<orvi::ITransport> inbound = transport;
  inbound->onMessageReceived(sender->sent.front());
  if (receiver->received != 1) {
    std::cerr << "example host: the frame did not come back\n";
    return 1;
  }
  std::cout << "round trip complete\n";
  orvi::ILogger::registerHandler(nullptr);
  return 0;
}
