// A host around one hub: a real SQLite history in a scratch directory, the
// scripted server behind the sender, and a recording listener per
// conversation. Tests script the server and read what went over the wire
// and what the listener saw.
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "orvi/conversation/conversation_hub.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/sqlite/sqlite_executor.h"
#include "support/recording_listener.h"
#include "support/recording_log_handler.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace orvi {
namespace test {

class ConversationFixture : public ::testing::Test {
 protected:
  using Calls = RecordingListener::Calls;
  using Json = nlohmann::json;

  void SetUp() override {
    ILogger::setLogLevel(LogLevel::Info);
    hub_ = makeHub();
  }

  // The server thread may still hold a conversation for a frame it is
  // delivering; once it is idle the test's objects go on this thread, and
  // none outlives the test. On failure, show what the library warned about.
  void TearDown() override {
    EXPECT_TRUE(server_->drain());
    if (!HasFailure()) return;
    for (const auto& line : log_->lines()) {
      if (line.rfind("[WARN]", 0) == 0 || line.rfind("[ERROR]", 0) == 0) {
        std::cerr << line.substr(0, 400) << '\n';
      }
    }
  }

  std::shared_ptr<ConversationHubImpl> makeHub() {
    auto hub = std::make_shared<ConversationHubImpl>();
    std::string error;
    auto sql = sqlite::SqliteExecutor::open(dir_.file("history.db"), &error);
    EXPECT_TRUE(sql) << error;
    hub->config(OrviConfig(dir_.path(), 30, true), sql);
    return hub;
  }

  // Opens, listens and connects a conversation to the scripted server.
  std::shared_ptr<Conversation> open(const std::string& id, ConversationOptions options = {},
                                     std::shared_ptr<RecordingListener> listener = nullptr) {
    auto conversation = hub_->open(id, options);
    EXPECT_TRUE(conversation);
    if (!conversation) return nullptr;
    conversation->listen(listener ? listener : listener_);
    server_->attach(conversation->connect(server_));
    return conversation;
  }

  static InputMessage prompt(const std::string& text) {
    InputMessage input;
    input.content = MessageContent(text, 0);
    return input;
  }

  std::vector<Json> wire() const {
    std::vector<Json> frames;
    for (const auto& text : server_->uplinks()) frames.push_back(Json::parse(text));
    return frames;
  }

  bool waitFor(const std::function<bool(const Calls&)>& done) { return listener_->waitFor(done); }

  ScopedLogCapture log_;
  TempDir dir_{"orvi-conversation"};
  std::shared_ptr<ScriptedServer> server_ = std::make_shared<ScriptedServer>();
  std::shared_ptr<RecordingListener> listener_ = std::make_shared<RecordingListener>();
  std::shared_ptr<ConversationHubImpl> hub_;
};

}  // namespace test
}  // namespace orvi
