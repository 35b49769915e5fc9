// A host that returns from main while the library still has work queued: an
// unacknowledged message whose time-out is armed on the timer, trace events
// for the reporter, history writes for the cacher, and a REST request nobody
// answers. The process must end cleanly (exit code 0, no hang, no crash).
#include <orvi/orvi.h>
#include <orvi/sqlite/sqlite_executor.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace {

class SilentSender : public orvi::ITransportSender {
 public:
  bool sendMessage(const std::string&) override { return true; }
  void httpRequest(const orvi::HttpRequest&, std::shared_ptr<orvi::HttpCallback> callback) override {
    pending_ = std::move(callback);  // never answered
  }

 private:
  std::shared_ptr<orvi::HttpCallback> pending_;
};

class QuietListener : public orvi::ConversationListener {
 public:
  void onAck(const std::string&, orvi::AckStatus) override {}
  void onAssistantMessage(const orvi::AssistantMessage&) override {}
  void onUserMessage(const orvi::UserMessage&) override {}
  void onSystemMessage(const orvi::SystemMessage&) override {}
  void onSectionStatus(orvi::SectionStatus, bool, const orvi::SectionInfo&) override {}
  void onRecoverStatus(orvi::RecoverStatus, const std::optional<orvi::RecoverExtra>&) override {}
  void onTraceEvent(const std::string&, const std::string&) override {}
};

}  // namespace

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : "orvi-exit-host";
  std::filesystem::create_directories(dir);
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);

  auto hub = orvi::ConversationHub::instance();
  hub->config(orvi::OrviConfig(dir, 30, false), orvi::sqlite::SqliteExecutor::open(dir + "/history.db"));
  auto sender = std::make_shared<SilentSender>();
  hub->connect(sender);

  orvi::ConversationOptions options;
  options.enable_tracing_event = true;
  options.uplink_message_ack_timeout_ms = 300;
  options.max_resend_uplink_message_count = 3;
  auto conversation = hub->open("exit-host", options);
  conversation->listen(std::make_shared<QuietListener>());
  conversation->connect(sender);
  for (int i = 0; i < 20; ++i) {
    orvi::InputMessage input;
    input.content = orvi::MessageContent("message " + std::to_string(i), 0);
    conversation->sendMessage(input);
  }
  hub->listRemote("", 10, true, nullptr);
  std::printf("exiting with work pending\n");
  return 0;
}
