// The terminal: answers stream in place, other lines never tear them or
// each other.
#include "terminal.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <thread>
#include <vector>

namespace orvi_chat {
namespace {

TEST(TerminalTest, StreamsPrintOnlyWhatWasAppended) {
  std::ostringstream out, err;
  Terminal terminal(out, err);
  terminal.stream("m1", "", false);  // the empty first frame of an answer
  terminal.stream("m1", "It ", false);
  terminal.stream("m1", "It is", false);
  terminal.stream("m1", "It is sunny.", true);
  EXPECT_EQ(out.str(), "bot      It is sunny.\n");
  EXPECT_EQ(err.str(), "");
}

TEST(TerminalTest, InterruptedOrRewrittenStreamsRestartWithTheWholeText) {
  std::ostringstream out, err;
  Terminal terminal(out, err);
  terminal.stream("m1", "Once", false);
  terminal.line("ack", "prompt accepted");
  terminal.stream("m1", "Once upon", false);   // resumes on a line of its own
  terminal.stream("m1", "Twice upon", false);  // not an append: shown whole
  terminal.stream("m2", "Other", false);       // another answer takes the line
  terminal.diagnostic("orvi: a warning");      // stderr, but ends the stdout line
  terminal.stream("m1", "Twice upon a time", true);
  EXPECT_EQ(out.str(),
            "bot      Once\n"
            "ack      prompt accepted\n"
            "bot      Once upon\n"
            "bot      Twice upon\n"
            "bot      Other\n"
            "bot      Twice upon a time\n");
  EXPECT_EQ(err.str(), "orvi: a warning\n");
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
          terminal.stream(id, text, i == kLines - 1);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();

  // Every line is one whole ack line, or one answer whose words all come
  // from the same thread.
  const std::regex whole(R"(ack      thread \d line \d+|bot      (w(\d))(\1)*)");
  std::istringstream lines(out.str());
  std::string line;
  int acks = 0;
  while (std::getline(lines, line)) {
    EXPECT_TRUE(std::regex_match(line, whole)) << line;
    acks += line.rfind("ack", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(acks, kThreads * kLines / 2);
}

}  // namespace
}  // namespace orvi_chat
