// Uses only installed headers and liborvi: logs through a host handler and
// fills the records a host would.
#include <orvi/orvi.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

class CountingHandler : public orvi::ILogHandler {
 public:
  void log(orvi::LogLevel, const std::string& line) override {
    if (line.find("[Orvi] update log level to 1") != std::string::npos) ++seen;
  }
  int seen = 0;
};

}  // namespace

int main() {
  auto handler = std::make_shared<CountingHandler>();
  orvi::ILogger::registerHandler(handler);
  orvi::ILogger::setLogLevel(orvi::LogLevel::Info);
  orvi::ILogger::registerHandler(nullptr);

  orvi::ConversationOptions options;
  options.name = "consumer";
  orvi::InputMessage input;
  input.content = orvi::MessageContent("hello", 0);

  std::printf("orvi %s, handler saw %d line(s)\n", ORVI_VERSION_STRING, handler->seen);
  return handler->seen == 1 && options.name && input.content ? 0 : 1;
}
