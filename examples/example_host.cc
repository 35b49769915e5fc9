// A minimal host, using only the public API: it registers a log handler,
// configures the hub over the ready-made SQLite history, opens a
// conversation and sends a prompt. A small in-process stand-in for the
// service answers on its own thread, the way a network would: it
// acknowledges the prompt, streams an answer as deltas (some of them
// gzip-compressed) and completes the section. The host prints what its
// listener sees, and flushes the history before it exits.
#include <orvi/orvi.h>
#include <orvi/sqlite/sqlite_executor.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

class ConsoleLog : public orvi::ILogHandler {
 public:
  void log(orvi::LogLevel level, const std::string& line) override {
    if (level >= orvi::LogLevel::Warn) std::cerr << "log | " << line << '\n';
  }
};

// The stand-in service: frames the library sends arrive in sendMessage; the
// answers are pushed into the conversation's ITransport from a thread of its
// own.
class DemoService : public orvi::ITransportSender {
 public:
  DemoService() : worker_([this] { run(); }) {}
  ~DemoService() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    worker_.join();
  }
  void attach(std::shared_ptr<orvi::ITransport> inbound) { inbound_ = std::move(inbound); }

  bool sendMessage(const std::string& frame) override {
    std::cout << "uplink   | " << frame.substr(0, 160) << "...\n";
    std::lock_guard<std::mutex> lock(mutex_);
    uplinks_.push_back(json::parse(frame));
    wake_.notify_all();
    return true;
  }
  void httpRequest(const orvi::HttpRequest&, std::shared_ptr<orvi::HttpCallback> callback) override {
    callback->onResponse(orvi::HttpResponse(200, std::string(R"({"ret":"0"})")));
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stop_ || !uplinks_.empty(); });
      if (uplinks_.empty()) return;
      json uplink = std::move(uplinks_.front());
      uplinks_.pop_front();
      lock.unlock();
      answer(uplink);
      lock.lock();
    }
  }

  json frame(const json& uplink, const std::string& event, const json& content) const {
    return {{"conversation_id", "demo-conversation"},
            {"local_conversation_id", uplink["local_conversation_id"]},
            {"section_id", "demo-section"},
            {"local_section_id", uplink["local_section_id"]},
            {"event", event},
            {"content", content.dump()},
            {"server_time", 1795305600000}};
  }

  void push(const json& frame) { inbound_->onMessageReceived(frame.dump()); }

  void answer(const json& uplink) {
    json ack = uplink["messages"][0];
    ack["message_id"] = "server-message-1";
    ack.erase("content");
    push(frame(uplink, "message", ack));
    push(frame(uplink, "message",
               {{"message_id", "answer-1"},
                {"role", "assistant"},
                {"content", {{"payload", json({{"text", ""}}).dump()}, {"content_type", 1}}},
                {"status", 0}}));
    for (const char* word : {"It ", "is ", "sunny ", "in ", "the ", "demo ", "city."}) {
      const json patch = json::array({{{"op", "append"}, {"path", "/text"}, {"value", word}}});
      push(frame(uplink, "delta", {{"message_id", "answer-1"}, {"json_patch", patch.dump()}}));
    }
    push(frame(uplink, "system", {{"code", 0}, {"msg", "stream_complete"}}));
    push(frame(uplink, "system", {{"code", 0}, {"msg", "section_complete"}}));
  }

  std::shared_ptr<orvi::ITransport> inbound_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::deque<json> uplinks_;
  std::thread worker_;
};

class PrintingListener : public orvi::ConversationListener {
 public:
  void onAck(const std::string& id, orvi::AckStatus status) override {
    std::cout << "ack      | " << id << " status " << static_cast<int>(status) << '\n';
  }
  void onAssistantMessage(const orvi::AssistantMessage& message) override {
    std::cout << "answer   | " << json::parse(message.content->content)["text"].get<std::string>()
              << (message.status == orvi::MessageStatus::Completed ? "  [complete]" : "") << '\n';
  }
  void onUserMessage(const orvi::UserMessage& message) override {
    std::cout << "user     | " << message.content->content << " (server id '" << message.message_id
              << "')\n";
  }
  void onSystemMessage(const orvi::SystemMessage& message) override {
    std::cout << "system   | " << message.code << " " << message.msg << '\n';
  }
  void onSectionStatus(orvi::SectionStatus status, bool, const orvi::SectionInfo&) override {
    std::cout << "section  | status " << static_cast<int>(status) << '\n';
    std::lock_guard<std::mutex> lock(mutex_);
    if (status == orvi::SectionStatus::Completed) {
      done_ = true;
      changed_.notify_all();
    }
  }
  void onRecoverStatus(orvi::RecoverStatus, const std::optional<orvi::RecoverExtra>&) override {}
  void onTraceEvent(const std::string& name, const std::string&) override {
    std::cout << "trace    | " << name << '\n';
  }
  bool waitForCompletion() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [this] { return done_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
};

}  // namespace

int main() {
  orvi::ILogger::registerHandler(std::make_shared<ConsoleLog>());
  const auto cache = std::filesystem::temp_directory_path() / "orvi-example-host";
  std::filesystem::remove_all(cache);
  std::filesystem::create_directories(cache);
  std::string error;
  auto history = orvi::sqlite::SqliteExecutor::open((cache / "history.db").string(), &error);
  if (!history) {
    std::cerr << "example host: " << error << '\n';
    return 1;
  }

  auto hub = orvi::ConversationHub::instance();
  hub->config(orvi::OrviConfig(cache.string(), 30, false), history);
  auto service = std::make_shared<DemoService>();
  auto listener = std::make_shared<PrintingListener>();
  bool completed = false;
  {
    orvi::ConversationOptions options;
    options.enable_tracing_event = true;
    auto conversation = hub->open("demo", options);
    conversation->listen(listener);
    service->attach(conversation->connect(service));

    orvi::InputMessage prompt;
    prompt.content = orvi::MessageContent("What is the weather?", 0);
    conversation->sendMessage(prompt);
    completed = listener->waitForCompletion();
    std::cout << "detail   | conversation id " << conversation->getDetail().conversation_id << '\n';
  }
  std::cout << (completed ? "conversation complete\n" : "example host: no completion\n");
  // History is written on the library's own thread; what is still queued
  // when the process ends is dropped, so wait for it before leaving.
  const bool saved = hub->flush(5000);
  std::cout << (saved ? "history saved\n" : "example host: history not saved\n");
  return completed && saved ? 0 : 1;
}
