// orvi-chat in a terminal of its own, against an orvi-emulator process, as
// a user meets it: typing during an answer, a connection cut mid-answer, a
// server restart, quitting with a prompt pending, and commands that cannot
// do what was asked. Every wait is bounded; none measures speed.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "chat/pty_harness.h"
#include "support/temp_dir.h"

namespace orvi_chat_test {
namespace {

using std::chrono::seconds;

const seconds kStep(20);

const char kStoryEnd[] = "told it once more, to the last word. ";

size_t count(const std::string& text, const std::string& needle) {
  size_t found = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++found;
  }
  return found;
}

// The lines of the terminal output, without their "\r\n".
std::vector<std::string> linesOf(const std::string& output) {
  std::vector<std::string> lines;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// Types /history 10 and returns the messages it listed ("you: ...",
// "bot: ..."), without the line that ends the page.
std::vector<std::string> showHistory(PtyProgram& chat) {
  const size_t from = chat.output().size();
  chat.type("/history 10");
  if (!chat.waitFor("(start of the conversation)", kStep)) {
    ADD_FAILURE() << "no end of the history page in\n" << chat.output();
    return {};
  }
  std::vector<std::string> lines;
  for (const auto& line : linesOf(chat.output().substr(from))) {
    if (line.rfind("history  ", 0) == 0) lines.push_back(line.substr(9));
  }
  if (!lines.empty()) lines.pop_back();  // "(start of the conversation)"
  return lines;
}

class ChatPtyTest : public ::testing::Test {
 protected:
  void startEmulator(const std::vector<std::string>& flags) {
    std::string error;
    ASSERT_TRUE(emulator_.start(0, flags, &error)) << error;
  }

  // Starts orvi-chat on the emulator and waits for its prompt line.
  void startChat(PtyProgram& chat, const std::vector<std::string>& extra = {}) {
    const std::string address = "127.0.0.1:" + std::to_string(emulator_.port());
    std::vector<std::string> argv = {
        ORVI_CHAT_BINARY, "--server",   "ws://" + address + "/chat", "--http", "http://" + address,
        "--cache",        cache_.path()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    std::string error;
    ASSERT_TRUE(chat.start(argv, &error)) << error;
    ASSERT_TRUE(chat.waitFor("type a prompt", kStep)) << chat.output();
  }

  // The id orvi-chat printed for the conversation it opened.
  static std::string conversationId(const std::string& output) {
    const std::string tag = "open     conversation ";
    const size_t at = output.find(tag);
    if (at == std::string::npos) return std::string();
    const size_t start = at + tag.size();
    return output.substr(start, output.find('\r', start) - start);
  }

  static void quit(PtyProgram& chat) {
    chat.type("/quit");
    EXPECT_EQ(chat.waitExit(kStep), std::optional<int>(0)) << chat.output();
  }

  EmulatorProcess emulator_;
  orvi::test::TempDir cache_{"orvi-chat-pty"};
};

// /quit leaves at once when nothing is pending, and waits, saying so, for a
// prompt still unacknowledged, which the next run then finds stored as
// acknowledged. Diagnostics go to the log file, never to the screen.
TEST_F(ChatPtyTest, QuitWaitsOnlyForWhatIsPendingAndKeepsIt) {
  startEmulator({"--ack-delay-ms", "1500"});
  {
    PtyProgram chat;
    startChat(chat);
    quit(chat);
    EXPECT_EQ(chat.output().find("waiting"), std::string::npos) << chat.output();
  }
  std::string id;
  {
    PtyProgram chat;
    startChat(chat);
    id = conversationId(chat.output());
    chat.type("remember me");
    ASSERT_TRUE(chat.waitFor("you      remember me", kStep)) << chat.output();
    quit(chat);
    const std::string output = chat.output();
    EXPECT_NE(output.find("quit     waiting up to 5 s for 1 message(s) to be accepted"),
              std::string::npos)
        << output;
    EXPECT_LT(output.find("quit     waiting"), output.find("prompt \"remember me\" accepted"))
        << output;
    // Nothing of the library's or the transport's own narration.
    for (const char* leak : {".cc:", "[INFO]", "[WARN]", "[ERROR]", "orvi: ", "net: "}) {
      EXPECT_EQ(output.find(leak), std::string::npos) << leak << " in\n" << output;
    }
  }
  {
    // A prompt not acknowledged in time (and not answered either: the
    // answer follows the acknowledgement) is said to be sent again, then
    // accepted once; the resend is not answered a second time.
    PtyProgram chat;
    startChat(chat, {"--ack-timeout-ms", "1000"});
    chat.type("slow one");
    ASSERT_TRUE(chat.waitFor("prompt \"slow one\" not accepted yet; sent again", kStep))
        << chat.output();
    ASSERT_TRUE(chat.waitFor("prompt \"slow one\" accepted", kStep)) << chat.output();
    ASSERT_TRUE(chat.waitFor("section  completed", kStep)) << chat.output();
    quit(chat);
    EXPECT_EQ(count(chat.output(), "You said: slow one"), 1u) << chat.output();
    EXPECT_EQ(count(chat.output(), "\"slow one\" accepted"), 1u) << chat.output();
  }
  std::ifstream log(cache_.file("orvi-chat.log"));
  std::stringstream logged;
  logged << log.rdbuf();
  EXPECT_NE(logged.str().find("orvi: "), std::string::npos) << "the log file is empty";

  PtyProgram again;
  startChat(again, {"--conversation", id});
  const auto history = showHistory(again);
  ASSERT_FALSE(history.empty()) << again.output();
  EXPECT_EQ(history.front(), "you: remember me") << again.output();
  quit(again);
}

// A prompt typed while an answer streams waits its turn, visibly; both
// answers are shown whole and kept, in order.
TEST_F(ChatPtyTest, APromptTypedDuringAnAnswerIsQueuedAndBothAnswersAreKept) {
  startEmulator({"--delta-interval-ms", "40"});
  PtyProgram chat;
  startChat(chat);
  chat.type("tell me a story");
  ASSERT_TRUE(chat.waitFor("bot      You said: tell me a story", kStep)) << chat.output();
  chat.type("and then?");
  ASSERT_TRUE(chat.waitFor("queued   and then?", kStep)) << chat.output();
  ASSERT_TRUE(chat.waitFor(kStoryEnd, kStep)) << chat.output();
  ASSERT_TRUE(chat.waitFor("you      and then?", kStep)) << chat.output();
  ASSERT_TRUE(chat.waitFor("section  completed", kStep)) << chat.output();

  const auto history = showHistory(chat);
  ASSERT_EQ(history.size(), 4u) << chat.output();
  EXPECT_EQ(history[0], "you: tell me a story");
  EXPECT_EQ(history[1].find("bot: You said: tell me a story. Once upon"), 0u) << history[1];
  EXPECT_NE(history[1].find(kStoryEnd), std::string::npos) << history[1];
  EXPECT_EQ(history[2], "you: and then?");
  EXPECT_EQ(history[3].find("bot: You said: and then?"), 0u) << history[3];
  EXPECT_EQ(history[1].find("(unfinished)"), std::string::npos);
  EXPECT_EQ(history[3].find("(unfinished)"), std::string::npos);
  quit(chat);
}

// The connection is cut mid-answer: the answer is marked, recovered without
// a command once the connection is back, shown once more whole (not once per
// delta) and stored complete; the prompt queued behind it goes out after.
TEST_F(ChatPtyTest, AnAnswerCutMidStreamIsRecoveredInPlace) {
  startEmulator({"--delta-interval-ms", "30", "--cut-after-deltas", "5"});
  PtyProgram chat;
  startChat(chat);
  chat.type("tell me a story");
  ASSERT_TRUE(chat.waitFor("bot      You said: tell me a", kStep)) << chat.output();
  chat.type("after the story");
  ASSERT_TRUE(chat.waitFor("the connection dropped mid-answer", kStep)) << chat.output();
  ASSERT_TRUE(chat.waitFor("recover  connection is back", kStep)) << chat.output();
  const size_t recovered_from = chat.mark();
  ASSERT_TRUE(chat.waitFor("recover  completed", kStep)) << chat.output();
  const std::string recovered = chat.output().substr(recovered_from, chat.mark() - recovered_from);
  EXPECT_EQ(count(recovered, "You said: tell me a story"), 1u) << recovered;
  EXPECT_NE(recovered.find(kStoryEnd), std::string::npos) << recovered;
  ASSERT_TRUE(chat.waitFor("you      after the story", kStep)) << chat.output();
  ASSERT_TRUE(chat.waitFor("section  completed", kStep)) << chat.output();

  const auto history = showHistory(chat);
  ASSERT_EQ(history.size(), 4u) << chat.output();
  EXPECT_EQ(history[0], "you: tell me a story");
  EXPECT_NE(history[1].find(kStoryEnd), std::string::npos) << history[1];
  EXPECT_EQ(history[1].find("(unfinished)"), std::string::npos) << history[1];
  EXPECT_EQ(history[2], "you: after the story");
  quit(chat);
}

// The server dies mid-answer and comes back empty: the cut answer stays,
// marked unfinished, the conversation goes on, and the restarted server's
// ids do not fold the new turn into an old one.
TEST_F(ChatPtyTest, AServerRestartMidAnswerKeepsEveryTurnApart) {
  startEmulator({"--delta-interval-ms", "50"});
  PtyProgram chat;
  startChat(chat);
  chat.type("hello");
  ASSERT_TRUE(chat.waitFor("section  completed", kStep)) << chat.output();
  chat.type("tell me a story");
  ASSERT_TRUE(chat.waitFor("bot      You said: tell me a", kStep)) << chat.output();
  emulator_.kill();
  ASSERT_TRUE(chat.waitFor("the connection dropped mid-answer", kStep)) << chat.output();
  std::string error;
  ASSERT_TRUE(emulator_.restart(&error)) << error;
  ASSERT_TRUE(chat.waitFor("recover  connection is back", kStep)) << chat.output();
  ASSERT_TRUE(chat.waitFor("the answer stays cut", kStep)) << chat.output();
  chat.type("after the restart");
  ASSERT_TRUE(chat.waitFor("bot      You said: after the restart", kStep)) << chat.output();
  ASSERT_TRUE(chat.waitFor("section  completed", kStep)) << chat.output();

  const auto history = showHistory(chat);
  ASSERT_EQ(history.size(), 6u) << chat.output();
  EXPECT_EQ(history[0], "you: hello");
  EXPECT_EQ(history[1].find("bot: You said: hello."), 0u) << history[1];
  EXPECT_EQ(history[2], "you: tell me a story");
  EXPECT_NE(history[3].find("(unfinished)"), std::string::npos) << history[3];
  EXPECT_EQ(history[4], "you: after the restart");
  EXPECT_EQ(history[5].find("bot: You said: after the restart."), 0u) << history[5];
  EXPECT_EQ(history[5].find("(unfinished)"), std::string::npos) << history[5];
  quit(chat);
}

// Commands that cannot do what was asked say so, and change nothing.
TEST_F(ChatPtyTest, CommandsSayWhatHappened) {
  startEmulator({});
  PtyProgram chat;
  startChat(chat);
  const std::string first = conversationId(chat.output());

  chat.type("/cancel");
  EXPECT_TRUE(chat.waitFor("nothing to cancel: no answer is in progress", kStep)) << chat.output();
  chat.type("/open no-such-conversation");
  EXPECT_TRUE(chat.waitFor("no stored conversation no-such-conversation", kStep)) << chat.output();
  chat.type("/delete no-such-conversation");
  EXPECT_TRUE(chat.waitFor("no stored conversation no-such-conversation", kStep)) << chat.output();
  chat.type("hi");
  ASSERT_TRUE(chat.waitFor("section  completed", kStep)) << chat.output();
  EXPECT_EQ(conversationId(chat.output()), first) << "a mistyped /open replaced the conversation";

  // With the server gone, a prompt is reported not sent, once, and the
  // history says so.
  emulator_.kill();
  ASSERT_TRUE(chat.waitFor("net      disconnected", kStep)) << chat.output();
  size_t from = chat.output().size();
  chat.type("offline prompt");
  ASSERT_TRUE(chat.waitFor("prompt \"offline prompt\" not sent", kStep)) << chat.output();
  const auto history = showHistory(chat);
  EXPECT_EQ(count(chat.output().substr(from), "not sent"), 2u) << chat.output().substr(from);
  ASSERT_FALSE(history.empty()) << chat.output();
  EXPECT_EQ(history.back(), "you: offline prompt  (not sent)") << chat.output();

  // The server comes back having forgotten everything; the conversation can
  // then be deleted only locally, and the remote history says it failed,
  // not that it ended.
  std::string error;
  ASSERT_TRUE(emulator_.restart(&error)) << error;
  chat.type("/remote-history");
  ASSERT_TRUE(chat.waitFor("recover  failed (the server did not send the page", kStep))
      << chat.output();
  chat.type("/new");
  ASSERT_TRUE(chat.waitFor("open     conversation", kStep)) << chat.output();
  chat.type("/delete " + first);
  ASSERT_TRUE(chat.waitFor("the server refused", kStep)) << chat.output();
  chat.type("/delete " + first + " local");
  ASSERT_TRUE(chat.waitFor("removed from the local history", kStep)) << chat.output();
  from = chat.output().size();
  chat.type("/list");
  chat.type("/help");
  ASSERT_TRUE(chat.waitFor("help     /help", kStep)) << chat.output();
  EXPECT_EQ(chat.output().find(first, from), std::string::npos) << chat.output().substr(from);
  quit(chat);
}

}  // namespace
}  // namespace orvi_chat_test
