// Server text on its way to the terminal: nothing but text may get through,
// whether it comes whole or cut into deltas at any byte.
#include "printable.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>

#include "terminal.h"

namespace orvi_chat {
namespace {

TEST(PrintableTest, ControlsAreShownAndTextIsKept) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"plain text, line\nand\ttab", "plain text, line\nand\ttab"},
      {"\x1b[2J\x1b]0;owned\x07", "^[[2J^[]0;owned^G"},  // clear screen, window title
      {"back\rover\bx\x7f", "back^Mover^Hx^?"},
      {"\xc2\x9b"
       "31m",
       "<U+009B>31m"},  // C1 CSI
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82"},
      {"\x9b"
       "31m",
       "\xef\xbf\xbd"
       "31m"},                                                   // a lone continuation byte
      {"\xc0\x9b", "\xef\xbf\xbd\xef\xbf\xbd"},                  // overlong
      {"\xed\xa0\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},  // surrogate
      {"cut \xe2\x82", "cut \xef\xbf\xbd\xef\xbf\xbd"},
      {std::string("nul\0byte", 8), "nul^@byte"},
  };
  for (const auto& c : cases) EXPECT_EQ(printableText(c.in), c.out) << c.in;
}

TEST(PrintableTest, OnlyACutSequenceAtTheEndIsHeldBack) {
  EXPECT_EQ(completePrefixLength(""), 0u);
  EXPECT_EQ(completePrefixLength("abc"), 3u);
  EXPECT_EQ(completePrefixLength("ab\xc2"), 2u);
  EXPECT_EQ(completePrefixLength("ab\xc2\x9b"), 4u);
  EXPECT_EQ(completePrefixLength("ab\xf0\x9f\x99"), 2u);
  EXPECT_EQ(completePrefixLength("ab\xf0\x9f\x99\x82"), 6u);
  EXPECT_EQ(completePrefixLength("ab\x9b"), 3u);  // not a cut sequence: shown as U+FFFD
}

// True when `screen` holds only newline, tab, printable ASCII and valid
// UTF-8 outside the C1 range.
bool onlyText(const std::string& screen) {
  return printableText(screen) == screen;
}

TEST(PrintableTest, StreamedAnswersCutAnywhereNeverReachTheTerminalRaw) {
  const std::string pieces[] = {"\x1b", "[2J",          "\xc2", "\x9b", "\x07", "\r",
                                "ok ",  "\xe2\x82\xac", "\xff", "\n",   "\x7f", "\xf0\x9f\x99\x82"};
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::string answer;
    for (int i = 0; i < 40; ++i) answer += pieces[random() % std::size(pieces)];
    std::ostringstream out, err;
    Terminal terminal(out, err);
    size_t sent = 0;
    while (sent < answer.size()) {
      sent = std::min(answer.size(), sent + 1 + random() % 4);  // cuts inside sequences too
      terminal.stream("m", answer.substr(0, sent), true, false);
    }
    terminal.stream("m", answer, true, true);
    const std::string expected = "bot      " + printableText(answer) + "\n";
    ASSERT_EQ(out.str(), expected) << "round " << round;
    ASSERT_TRUE(onlyText(out.str()));
  }
}

TEST(PrintableTest, LinesAndDiagnosticsAreNeutralisedToo) {
  std::ostringstream out, err;
  Terminal terminal(out, err);
  terminal.line("you", "hi\x1b]0;title\x07");
  terminal.diagnostic("orvi: refused \x1b[31mred");
  EXPECT_EQ(out.str(), "you      hi^[]0;title^G\n");
  EXPECT_EQ(err.str(), "orvi: refused ^[[31mred\n");
}

}  // namespace
}  // namespace orvi_chat
