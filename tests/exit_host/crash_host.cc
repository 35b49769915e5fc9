// A host that writes its history through orvi_sqlite until it is killed: the
// child process of the crash test (history_crash_test.cc beside it). It
// holds one conversation, "crash", with an in-process stand-in for the
// service whose message and section ids start at 1 in every run, as those
// of a restarted server do. Turn T of run R asks "run R prompt T" and is
// answered "run R answer T" in streamed words. After every few completed
// turns it flushes the history and prints "flushed T" on standard output;
// it prints "ready" once configured. Log lines go to standard error.
//
// Usage: orvi_crash_host <cache directory> <run number> <seed>
#include <orvi/orvi.h>
#include <orvi/sqlite/sqlite_executor.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

constexpr int kMaxTurns = 100000;

class StderrLog : public orvi::ILogHandler {
 public:
  void log(orvi::LogLevel, const std::string& line) override {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
};

// Answers each uplink frame on a thread of its own, the way a network
// would: acknowledgement, a first empty frame, the answer word by word as
// deltas, then the end of the stream and of the section.
class StandInService : public orvi::ITransportSender {
 public:
  StandInService() : worker_([this] { run(); }) {}
  ~StandInService() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    worker_.join();
  }
  void attach(std::shared_ptr<orvi::ITransport> inbound) { inbound_ = std::move(inbound); }

  bool sendMessage(const std::string& frame) override {
    std::lock_guard<std::mutex> lock(mutex_);
    uplinks_.push_back(frame);
    wake_.notify_all();
    return true;
  }
  void httpRequest(const orvi::HttpRequest&,
                   std::shared_ptr<orvi::HttpCallback> callback) override {
    callback->onResponse(orvi::HttpResponse(200, std::string(R"({"ret":"0"})")));
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stop_ || !uplinks_.empty(); });
      if (stop_) return;
      const std::string uplink = std::move(uplinks_.front());
      uplinks_.pop_front();
      lock.unlock();
      answer(json::parse(uplink));
      lock.lock();
    }
  }

  void push(const json& uplink, const std::string& section_id, const std::string& event,
            const json& content) {
    inbound_->onMessageReceived(json({{"conversation_id", "srv-crash"},
                                      {"local_conversation_id", uplink["local_conversation_id"]},
                                      {"section_id", section_id},
                                      {"local_section_id", uplink["local_section_id"]},
                                      {"event", event},
                                      {"content", content.dump()},
                                      {"server_time", 1795305600000}})
                                    .dump());
  }

  void answer(const json& uplink) {
    const std::string section_id = std::to_string(next_section_++);
    json ack = uplink["messages"][0];
    const std::string prompt = ack["content"]["payload"].get<std::string>();
    ack["message_id"] = std::to_string(next_id_++);
    ack.erase("content");
    push(uplink, section_id, "message", ack);

    const std::string answer_id = std::to_string(next_id_++);
    push(uplink, section_id, "message",
         {{"message_id", answer_id},
          {"role", "assistant"},
          {"content", {{"payload", json({{"text", ""}}).dump()}, {"content_type", 1}}},
          {"status", 0}});
    std::string answer = prompt;
    answer.replace(answer.find("prompt"), 6, "answer");
    std::istringstream words(answer);
    bool first = true;
    for (std::string word; words >> word; first = false) {
      const json patch = json::array(
          {{{"op", "append"}, {"path", "/text"}, {"value", (first ? "" : " ") + word}}});
      push(uplink, section_id, "delta", {{"message_id", answer_id}, {"json_patch", patch.dump()}});
    }
    push(uplink, section_id, "system", {{"code", 0}, {"msg", "stream_complete"}});
    push(uplink, section_id, "system", {{"code", 0}, {"msg", "section_complete"}});
  }

  std::shared_ptr<orvi::ITransport> inbound_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::deque<std::string> uplinks_;
  int next_id_ = 1;
  int next_section_ = 1;
  std::thread worker_;
};

// Counts completed sections, so that the host sends one prompt at a time.
class TurnListener : public orvi::ConversationListener {
 public:
  void onAck(const std::string&, orvi::AckStatus) override {}
  void onAssistantMessage(const orvi::AssistantMessage&) override {}
  void onUserMessage(const orvi::UserMessage&) override {}
  void onSystemMessage(const orvi::SystemMessage&) override {}
  void onSectionStatus(orvi::SectionStatus status, bool from_history,
                       const orvi::SectionInfo&) override {
    if (status != orvi::SectionStatus::Completed || from_history) return;
    std::lock_guard<std::mutex> lock(mutex_);
    ++completed_;
    changed_.notify_all();
  }
  void onRecoverStatus(orvi::RecoverStatus, const std::optional<orvi::RecoverExtra>&) override {}
  void onTraceEvent(const std::string&, const std::string&) override {}

  bool waitForCompleted(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return completed_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int completed_ = 0;
};

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: orvi_crash_host <cache directory> <run> <seed>\n");
    return 2;
  }
  const std::string dir = argv[1];
  const std::string run = argv[2];
  std::mt19937 random(static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)));
  orvi::ILogger::registerHandler(std::make_shared<StderrLog>());
  orvi::ILogger::setLogLevel(orvi::LogLevel::Warn);

  std::string error;
  auto store = orvi::sqlite::SqliteExecutor::open(dir + "/history.db", &error);
  if (!store) {
    std::fprintf(stderr, "crash host: %s\n", error.c_str());
    return 3;
  }
  auto hub = orvi::ConversationHub::instance();
  hub->config(orvi::OrviConfig(dir, 3650, false), store);
  auto service = std::make_shared<StandInService>();
  auto listener = std::make_shared<TurnListener>();
  auto conversation = hub->open("crash", orvi::ConversationOptions());
  if (!conversation) return 3;
  conversation->listen(listener);
  service->attach(conversation->connect(service));
  say("ready");

  std::uniform_int_distribution<int> turns_between_flushes(1, 4);
  int until_flush = turns_between_flushes(random);
  for (int turn = 0; turn < kMaxTurns; ++turn) {
    orvi::InputMessage prompt;
    prompt.content = orvi::MessageContent("run " + run + " prompt " + std::to_string(turn), 0);
    conversation->sendMessage(prompt);
    if (!listener->waitForCompleted(turn + 1)) {
      std::fprintf(stderr, "crash host: turn %d did not complete\n", turn);
      return 4;
    }
    if (--until_flush > 0) continue;
    until_flush = turns_between_flushes(random);
    if (hub->flush(30000)) say("flushed " + std::to_string(turn));
  }
  return hub->flush(30000) ? 0 : 5;
}
