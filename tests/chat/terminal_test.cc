// The terminal: answers stream in place, other lines never tear them or
// each other.
#include "terminal.h"

#include <gtest/gtest.h>

#include <cctype>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace orvi_chat {
namespace {

TEST(TerminalTest, StreamsPrintOnlyWhatWasAppended) {
  std::ostringstream out, err;
  Terminal terminal(out, err);
  terminal.stream("m1", "", true, false);  // the empty first frame of an answer
  terminal.stream("m1", "It ", true, false);
  terminal.stream("m1", "It is", true, false);
  terminal.stream("m1", "It is sunny.", true, true);
  EXPECT_EQ(out.str(), "bot      It is sunny.\n");
  EXPECT_EQ(err.str(), "");
}

TEST(TerminalTest, InterruptedOrRewrittenStreamsRestartWithTheWholeText) {
  std::ostringstream out, err;
  Terminal terminal(out, err);
  terminal.stream("m1", "Once", true, false);
  terminal.line("ack", "prompt accepted");
  terminal.stream("m1", "Once upon", true, false);    // resumes on a line of its own
  terminal.stream("m1", "Twice upon", false, false);  // a rewrite: shown whole
  terminal.stream("m2", "Other", true, false);        // another answer takes the line
  terminal.diagnostic("orvi: a warning");             // stderr, but ends the stdout line
  terminal.stream("m1", "Twice upon a time", true, true);
  EXPECT_EQ(out.str(),
            "bot      Once\n"
            "ack      prompt accepted\n"
            "bot      Once upon\n"
            "bot      Twice upon\n"
            "bot      Other\n"
            "bot      Twice upon a time\n");
  EXPECT_EQ(err.str(), "orvi: a warning\n");
}

// One whole line of the test below: "ack      thread T line N", or an
// answer made only of thread T's word "wT".
bool isWholeLine(const std::string& line) {
  const std::string ack = "ack      thread ";
  const std::string bot = "bot      ";
  if (line.compare(0, ack.size(), ack) == 0) {
    const std::string rest = line.substr(ack.size());
    return rest.size() > 7 && std::isdigit(static_cast<unsigned char>(rest[0])) &&
           rest.compare(1, 6, " line ") == 0 &&
           rest.find_first_not_of("0123456789", 7) == std::string::npos;
  }
  if (line.compare(0, bot.size(), bot) != 0) return false;
  const std::string words = line.substr(bot.size());
  if (words.size() < 2 || words.size() % 2 != 0 || words[0] != 'w') return false;
  for (size_t i = 0; i < words.size(); i += 2) {
    if (words.compare(i, 2, words, 0, 2) != 0) return false;
  }
  return true;
}

TEST(TerminalTest, LinesFromManyThreadsStayWhole) {
  std::ostringstream out, err;
  Terminal terminal(out, err);
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&terminal, t] {
      const std::string id = "answer-" + std::to_string(t);
      std::string text;
      for (int i = 0; i < kLines; ++i) {
        if (i % 2 == 0) {
          terminal.line("ack", "thread " + std::to_string(t) + " line " + std::to_string(i));
        } else {
          text += "w" + std::to_string(t);
          terminal.stream(id, text, true, i == kLines - 1);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();

  std::istringstream lines(out.str());
  std::string line;
  int acks = 0;
  while (std::getline(lines, line)) {
    EXPECT_TRUE(isWholeLine(line)) << line;
    acks += line.rfind("ack", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(acks, kThreads * kLines / 2);
}

}  // namespace
}  // namespace orvi_chat
