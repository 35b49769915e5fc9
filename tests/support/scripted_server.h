// An in-process stand-in for the assistant service, behind the host's
// sender: it records every frame and HTTP request the library sends, and
// answers on a thread of its own by running a script, which pushes downlink
// frames into the conversation's ITransport. Frames can be compressed the way
// the service compresses them.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/message/processor/wire_records.h"
#include "orvi/transport.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"

namespace orvi {
namespace test {

class ScriptedServer : public ITransportSender {
 public:
  using Json = nlohmann::json;
  // Called on the server thread for each uplink frame the library sent.
  using Script = std::function<void(ScriptedServer& server, const idl::UplinkMessage& uplink)>;
  // Answers an HTTP request (on the server thread); the body it returns is
  // sent back with status 200.
  using RestScript = std::function<std::string(const HttpRequest& request)>;

  ScriptedServer() : worker_([this] { run(); }) {}
  ~ScriptedServer() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    worker_.join();
  }

  void setScript(Script script) {
    std::lock_guard<std::mutex> lock(mutex_);
    script_ = std::move(script);
  }
  void setRestScript(RestScript script) {
    std::lock_guard<std::mutex> lock(mutex_);
    rest_script_ = std::move(script);
  }
  // Where downlink frames go: the ITransport the conversation handed out.
  void attach(std::shared_ptr<ITransport> inbound) {
    std::lock_guard<std::mutex> lock(mutex_);
    inbound_ = std::move(inbound);
  }

  std::atomic<bool> refuse_frames{false};
  // While set, HTTP requests are kept unanswered until answerHeld().
  std::atomic<bool> hold_requests{false};
  // How often each HTTP request is answered (a faulty host answers twice).
  std::atomic<int> answers_per_request{1};
  // Off: uplinks are answered but not kept (long tests that measure memory).
  std::atomic<bool> keep_uplinks{true};

  bool sendMessage(const std::string& message) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (refuse_frames.load()) return false;
    ++uplink_count_;
    if (keep_uplinks.load()) uplinks_.push_back(message);
    jobs_.push_back([this, message] { runScript(message); });
    wake_.notify_all();
    return true;
  }

  void httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
    if (hold_requests.load()) {
      held_.push_back({request, callback});
      return;
    }
    jobs_.push_back([this, request, callback] { answer(request, callback); });
    wake_.notify_all();
  }

  // Answers the requests kept while hold_requests was set, on the server thread.
  void answerHeld() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& held : held_) {
      jobs_.push_back([this, held] { answer(held.request, held.callback); });
    }
    held_.clear();
    wake_.notify_all();
  }

  // Pushes a frame into the conversation from the server thread.
  void push(std::string frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back([this, frame] { deliver(frame); });
    wake_.notify_all();
  }

  // Delivers a frame at once on the calling thread (a script's, or a test
  // thread that plays a second connection).
  void deliver(const std::string& frame) {
    std::shared_ptr<ITransport> inbound;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      inbound = inbound_;
    }
    if (inbound) inbound->onMessageReceived(frame);
  }

  size_t uplinkCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return uplink_count_;
  }
  // Forgets the requests kept while hold_requests was set: they are never
  // answered (a host that drops them).
  void dropHeld() {
    std::lock_guard<std::mutex> lock(mutex_);
    held_.clear();
  }

  std::vector<std::string> uplinks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return uplinks_;
  }
  std::vector<HttpRequest> requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

  // Waits until the server has run every job queued so far.
  bool drain(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return idle_.wait_for(lock, timeout, [this] { return jobs_.empty() && !busy_; });
  }

  // Frame builders, with the ids of the uplink they answer.
  static std::string frame(const idl::UplinkMessage& to, const std::string& conversation_id,
                           const std::string& section_id, idl::RemoteEventType event,
                           const std::string& content, bool compress = false) {
    idl::DownlinkMessage frame;
    frame.conversation_id = conversation_id;
    frame.local_conversation_id = to.local_conversation_id;
    frame.section_id = section_id;
    frame.local_section_id = to.local_section_id;
    frame.event = event;
    frame.content = content;
    frame.server_time = 1795305600000;
    if (compress) {
      utils::compressEx(frame.content);
      frame.content = utils::base64Encode(frame.content);
      frame.compression = idl::Compression{"gzip", std::nullopt, std::nullopt};
    }
    return idl::toText(frame);
  }

  static std::string ack(const idl::UplinkMessage& to, const std::string& conversation_id,
                         const std::string& section_id, const std::string& server_message_id,
                         int32_t status = 2) {
    idl::Message message = to.messages.at(0);
    message.message_id = server_message_id;
    message.create_time = 1795305600123;
    message.status = status;
    message.content.reset();
    return frame(to, conversation_id, section_id, idl::RemoteEventType::Message,
                 idl::toText(message));
  }

  static std::string assistant(const idl::UplinkMessage& to, const std::string& conversation_id,
                               const std::string& section_id, const std::string& id,
                               const Json& payload) {
    idl::Message message;
    message.message_id = id;
    message.role = idl::Role::Assistant;
    message.content = idl::MessageContent{payload.dump(), 1};
    message.create_time = 1795305600200;
    return frame(to, conversation_id, section_id, idl::RemoteEventType::Message,
                 idl::toText(message));
  }

  static std::string delta(const idl::UplinkMessage& to, const std::string& conversation_id,
                           const std::string& section_id, const std::string& id,
                           const Json& operations, bool compress = false) {
    idl::DeltaContent delta{id, operations.dump()};
    return frame(to, conversation_id, section_id, idl::RemoteEventType::Delta, idl::toText(delta),
                 compress);
  }

  static std::string system(const idl::UplinkMessage& to, const std::string& conversation_id,
                            const std::string& section_id, int32_t code, const std::string& msg) {
    return frame(to, conversation_id, section_id, idl::RemoteEventType::System,
                 idl::toText(idl::SystemContent{code, msg}));
  }

 private:
  struct Held {
    HttpRequest request;
    std::shared_ptr<HttpCallback> callback;
  };

  void runScript(const std::string& text) {
    Script script;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      script = script_;
    }
    if (script) script(*this, idl::fromText<idl::UplinkMessage>(text));
  }

  void answer(const HttpRequest& request, const std::shared_ptr<HttpCallback>& callback) {
    RestScript script;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      script = rest_script_;
    }
    const HttpResponse response(200, script ? script(request) : std::string(R"({"ret":"1"})"));
    for (int i = 0; i < answers_per_request.load(); ++i) callback->onResponse(response);
  }

  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
      if (jobs_.empty()) return;  // stopping
      auto job = std::move(jobs_.front());
      jobs_.pop_front();
      busy_ = true;
      lock.unlock();
      job();
      lock.lock();
      busy_ = false;
      if (jobs_.empty()) idle_.notify_all();
    }
  }

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  bool stop_ = false;                       // guarded by mutex_
  bool busy_ = false;                       // guarded by mutex_
  std::deque<std::function<void()>> jobs_;  // guarded by mutex_
  std::vector<std::string> uplinks_;        // guarded by mutex_
  size_t uplink_count_ = 0;                 // guarded by mutex_
  std::vector<HttpRequest> requests_;       // guarded by mutex_
  std::vector<Held> held_;                  // guarded by mutex_
  Script script_;                           // guarded by mutex_
  RestScript rest_script_;                  // guarded by mutex_
  std::shared_ptr<ITransport> inbound_;     // guarded by mutex_
  std::thread worker_;
};

}  // namespace test
}  // namespace orvi
