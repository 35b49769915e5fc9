#include "demo.h"

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "chat_host.h"
#include "emulator.h"

namespace orvi_chat {
namespace {

using std::chrono::milliseconds;

const milliseconds kStepTimeout(15000);
const milliseconds kConnectTimeout(5000);
// Deltas seen before the story is cancelled: enough to show it streaming.
const int kDeltasBeforeCancel = 3;

struct Turn {
  std::string prompt;
  std::string section;  // local section id
  std::string answer;   // the complete streamed text
};

// The newest complete text answer of `section`, if any.
std::optional<AnswerFacts> completeAnswer(const SessionFacts& facts, const std::string& section) {
  for (const auto& entry : facts.answers) {
    const AnswerFacts& answer = entry.second;
    if (answer.local_section_id == section && !answer.asks_for_tools &&
        answer.status == orvi::MessageStatus::Completed && !answer.text.empty()) {
      return answer;
    }
  }
  return std::nullopt;
}

std::optional<AnswerFacts> streamingAnswer(const SessionFacts& facts, const std::string& section) {
  for (const auto& entry : facts.answers) {
    if (entry.second.local_section_id == section && !entry.second.asks_for_tools)
      return entry.second;
  }
  return std::nullopt;
}

bool sectionIs(const SessionFacts& facts, const std::string& section, orvi::SectionStatus status) {
  const auto it = facts.section_status.find(section);
  return it != facts.section_status.end() && it->second == status;
}

using Restored = std::vector<orvi::ComboMessage>;

bool hasUser(const Restored& restored, const std::function<bool(const orvi::UserMessage&)>& match) {
  for (const auto& entry : restored) {
    if (entry.user_message && match(*entry.user_message)) return true;
  }
  return false;
}

bool hasCompleteAnswer(const Restored& restored, const std::string& text) {
  for (const auto& entry : restored) {
    if (entry.assistant_message &&
        entry.assistant_message->status == orvi::MessageStatus::Completed &&
        answerText(*entry.assistant_message) == text) {
      return true;
    }
  }
  return false;
}

class Demo {
 public:
  Demo(const ChatOptions& options, std::shared_ptr<Terminal> terminal, std::shared_ptr<LogFile> log)
      : options_(options), terminal_(std::move(terminal)), log_(std::move(log)) {}
  ~Demo() {
    host_.reset();
    if (emulator_) emulator_->stop();
  }

  int run() {
    const bool passed = startService() && plainTurn() && toolTurn() && cancelledTurn() &&
                        cutTurn() && restart() && recoverAndList();
    if (!passed) {
      terminal_->line("demo", "FAILED: " + missing_);
      terminal_->line("demo", "the history and the log are kept in " + cache_dir_);
      return 1;
    }
    host_.reset();
    emulator_->stop();
    terminal_->line("demo",
                    "passed: restored history matched the live conversation; the server's "
                    "latest section and conversation list were read back");
    if (temporary_cache_) {
      std::error_code ignored;
      std::filesystem::remove_all(cache_dir_, ignored);
    }
    return 0;
  }

 private:
  bool startService() {
    orvi::emulator::EmulatorOptions emulator_options;
    if (options_.verbose) {
      const std::shared_ptr<LogFile> log = log_;
      emulator_options.log = [log](const std::string& line) { log->write("emulator", line); };
    }
    emulator_ = std::make_unique<orvi::emulator::Emulator>(std::move(emulator_options));
    std::string error;
    if (!emulator_->start(&error)) return fail("the emulator did not start: " + error);
    const std::string address = "127.0.0.1:" + std::to_string(emulator_->port());
    terminal_->line("demo", "emulated assistant service on " + address);
    if (!makeCacheDir()) return false;

    HostSettings settings;
    settings.websocket_url = "ws://" + address + "/chat";
    settings.http_url = "http://" + address;
    settings.cache_dir = cache_dir_;
    settings.log_path = options_.log_file;
    settings.log = log_;
    settings.verbose = options_.verbose;
    settings.ack_timeout_ms = 2000;
    host_ = std::make_unique<ChatHost>(std::move(settings), terminal_);
    if (!host_->start(&error)) return fail("the host did not start: " + error);
    if (!host_->waitConnected(kConnectTimeout)) return fail("no connection to the emulator");
    session_ = host_->open("");
    if (!session_) return fail("no conversation");
    local_id_ = session_->localId();
    return true;
  }

  bool makeCacheDir() {
    if (!options_.cache_dir.empty()) {
      cache_dir_ = options_.cache_dir;
      return true;
    }
    std::string pattern =
        (std::filesystem::temp_directory_path() / "orvi-chat-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return fail("cannot make a temporary directory");
    cache_dir_ = pattern;
    temporary_cache_ = true;
    return true;
  }

  bool plainTurn() {
    step("(a) a plain prompt; the answer streams in as deltas");
    plain_.prompt = "Hello! What can you do for me?";
    if (!send(&plain_)) return false;
    if (!waitFor("the first answer to complete", [&](const SessionFacts& facts) {
          return sectionIs(facts, plain_.section, orvi::SectionStatus::Completed) &&
                 completeAnswer(facts, plain_.section);
        })) {
      return false;
    }
    plain_.answer = completeAnswer(session_->facts(), plain_.section)->text;
    return true;
  }

  bool toolTurn() {
    step("(b) a prompt that needs a tool: orvi-chat runs get_weather and replies");
    weather_.prompt = "What is the weather in Paris today?";
    if (!send(&weather_)) return false;
    if (!waitFor("the get_weather call and the tool reply", [&](const SessionFacts& facts) {
          return facts.tool_replies.count(weather_.section) > 0;
        })) {
      return false;
    }
    if (!waitFor("the answer after the tool result", [&](const SessionFacts& facts) {
          return sectionIs(facts, weather_.section, orvi::SectionStatus::Completed) &&
                 completeAnswer(facts, weather_.section);
        })) {
      return false;
    }
    weather_.answer = completeAnswer(session_->facts(), weather_.section)->text;
    return true;
  }

  bool cancelledTurn() {
    step("(c) a long answer; a prompt typed meanwhile is queued; the answer is cancelled after " +
         std::to_string(kDeltasBeforeCancel) + " deltas and the queued prompt goes out");
    story_.prompt = "Tell me a long story about a lighthouse keeper.";
    if (!send(&story_)) return false;
    if (!waitFor("the story to start streaming", [&](const SessionFacts& facts) {
          const auto answer = streamingAnswer(facts, story_.section);
          return answer && (answer->updates > kDeltasBeforeCancel ||
                            answer->status == orvi::MessageStatus::Completed);
        })) {
      return false;
    }
    if (streamingAnswer(session_->facts(), story_.section)->status ==
        orvi::MessageStatus::Completed) {
      return fail("the story ended before it could be cancelled");
    }
    const size_t started = session_->facts().started_sections.size();
    queued_.prompt = "And what is a lighthouse for?";
    if (!session_->prompt(queued_.prompt)) return fail("the queued prompt was refused");
    if (session_->facts().started_sections.size() != started) {
      return fail("the prompt went out while the story was streaming");
    }
    terminal_->line("you", "/cancel");
    if (!session_->cancel()) return fail("the cancel was not sent");
    if (!waitFor("the section to end as cancelled", [&](const SessionFacts& facts) {
          return sectionIs(facts, story_.section, orvi::SectionStatus::Cancelled);
        })) {
      return false;
    }
    if (!waitFor("the queued prompt to go out", [&](const SessionFacts& facts) {
          return facts.started_sections.size() > started;
        })) {
      return false;
    }
    queued_.section = session_->facts().started_sections[started];
    return completes(&queued_) &&
           waitFor("the queued prompt's section to complete", [&](const SessionFacts& facts) {
             return sectionIs(facts, queued_.section, orvi::SectionStatus::Completed);
           });
  }

  bool cutTurn() {
    step(
        "(d) the connection drops mid-answer; once it is back the answer is recovered and "
        "continues in place");
    orvi::emulator::Faults faults;
    faults.cut_after_deltas = kDeltasBeforeCancel;
    emulator_->setFaults(faults);
    cut_.prompt = "Tell me a story about a cut cable.";
    if (!send(&cut_)) return false;
    if (!waitFor("the recovery after the reconnection",
                 [&](const SessionFacts& facts) { return !facts.recover_statuses.empty(); })) {
      return false;
    }
    if (session_->facts().recover_statuses.back() != orvi::RecoverStatus::Completed) {
      return fail("the recovery after the reconnection did not complete");
    }
    return completes(&cut_);
  }

  // Waits for the complete answer of `turn` and keeps it.
  bool completes(Turn* turn) {
    if (!waitFor("the answer to \"" + turn->prompt + "\"", [&](const SessionFacts& facts) {
          return completeAnswer(facts, turn->section).has_value();
        })) {
      return false;
    }
    turn->answer = completeAnswer(session_->facts(), turn->section)->text;
    return true;
  }

  bool restart() {
    step("(e) restart: close the conversation, drop the network transport, reopen " + local_id_);
    session_ = nullptr;
    std::string error;
    if (!host_->restartTransport(&error)) return fail("no new transport: " + error);
    if (!host_->waitConnected(kConnectTimeout)) return fail("no reconnection to the emulator");
    session_ = host_->open(local_id_);
    if (!session_) return fail("the conversation did not reopen");
    step("the conversation as the database kept it:");
    // The library writes the history on a worker of its own; a read waits
    // for the writes queued before it, so one read sees the whole story.
    const int count = session_->restore(false);
    const std::string missing = whatIsMissing(session_->facts().local_history);
    if (missing.empty()) {
      step("restored " + std::to_string(count) +
           " messages: the five prompts, the four complete answers (the recovered one "
           "included), the tool result and the cancel are there");
      return true;
    }
    return fail("the restored history lacks " + missing);
  }

  std::string whatIsMissing(const Restored& restored) const {
    for (const Turn* turn : {&plain_, &weather_, &story_, &queued_, &cut_}) {
      if (!hasUser(restored, [&](const orvi::UserMessage& message) {
            return message.content && message.content->content == turn->prompt;
          })) {
        return "the prompt \"" + turn->prompt + "\"";
      }
    }
    if (!hasCompleteAnswer(restored, plain_.answer)) return "the complete answer of (a)";
    if (!hasCompleteAnswer(restored, weather_.answer)) return "the complete answer of (b)";
    if (!hasCompleteAnswer(restored, queued_.answer)) return "the answer to the queued prompt";
    if (!hasCompleteAnswer(restored, cut_.answer)) return "the recovered answer of (d)";
    if (!hasUser(restored, [](const orvi::UserMessage& message) {
          return message.tool_result && !message.tool_result->tool_call_result.empty() &&
                 message.tool_result->tool_call_result.front().name == "get_weather";
        })) {
      return "the get_weather tool result";
    }
    if (!hasUser(restored, [](const orvi::UserMessage& message) {
          return message.action && *message.action == "cancel";
        })) {
      return "the cancel";
    }
    return std::string();
  }

  bool recoverAndList() {
    step("ask the server for the latest section (recoverRemoteSection)");
    if (!session_->recoverLatestSection()) return fail("the recovery did not start");
    if (!waitFor("the recovery to finish",
                 [](const SessionFacts& facts) { return !facts.recover_statuses.empty(); })) {
      return false;
    }
    const SessionFacts facts = session_->facts();
    if (facts.recover_statuses.back() == orvi::RecoverStatus::Failed) {
      return fail("the recovery failed");
    }
    if (!hasUser(facts.remote_history, [&](const orvi::UserMessage& message) {
          return message.content && message.content->content == cut_.prompt;
        })) {
      return fail("the recovered section lacks the story prompt");
    }
    step("list the conversations on the server (listRemote)");
    const auto page = host_->listRemote(kStepTimeout);
    if (!page) return fail("no conversation list from the server");
    const std::string server_id = session_->detail().conversation_id;
    for (const auto& info : page->conversations) {
      if (!server_id.empty() && info.conversation_id == server_id) return true;
    }
    return fail("the server's list lacks conversation " + server_id);
  }

  bool send(Turn* turn) {
    const size_t before = session_->facts().started_sections.size();
    if (!session_->prompt(turn->prompt)) return fail("the prompt was not sent");
    // sendMessage reports the new section before it returns.
    const SessionFacts facts = session_->facts();
    if (facts.started_sections.size() <= before) return fail("no section started");
    turn->section = facts.started_sections.back();
    return true;
  }

  bool waitFor(const std::string& what, const std::function<bool(const SessionFacts&)>& condition) {
    return session_->waitFor(condition, kStepTimeout) ||
           fail(what + " did not happen within " + std::to_string(kStepTimeout.count()) + " ms");
  }

  bool fail(const std::string& what) {
    missing_ = what;
    return false;
  }

  void step(const std::string& text) { terminal_->line("demo", text); }

  const ChatOptions options_;
  const std::shared_ptr<Terminal> terminal_;
  const std::shared_ptr<LogFile> log_;
  std::unique_ptr<orvi::emulator::Emulator> emulator_;
  std::unique_ptr<ChatHost> host_;
  ChatSession* session_ = nullptr;  // owned by host_
  std::string cache_dir_;
  bool temporary_cache_ = false;
  std::string local_id_;
  Turn plain_, weather_, story_, queued_, cut_;
  std::string missing_;
};

}  // namespace

int runDemo(const ChatOptions& options, const std::shared_ptr<Terminal>& terminal,
            const std::shared_ptr<LogFile>& log) {
  Demo demo(options, terminal, log);
  return demo.run();
}

}  // namespace orvi_chat
