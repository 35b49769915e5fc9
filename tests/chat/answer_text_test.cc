// Streamed answer text read incrementally must agree with reading each
// payload whole, for payloads as the library writes them.
#include "answer_text.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

namespace orvi_chat {
namespace {

using nlohmann::json;

// Pieces an answer grows by: plain words, and everything JSON escapes or a
// terminal must not obey.
const std::vector<std::string> kPieces = {
    "word ",   "\"quoted\" ",  "back\\slash ", "line\nbreak ",     "tab\t",
    "\x1b[2J", "caf\xc3\xa9 ", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "}\",\"text\":\"",
    "/",       "\\u0041 ",     "\x01\x7f"};

TEST(AnswerTextTest, IncrementalReadingAgreesWithReadingWhole) {
  std::mt19937 random(20261123);
  for (int round = 0; round < 200; ++round) {
    // The library's payloads: an object with "text", sometimes with other
    // keys around it, dumped the way it dumps them.
    json payload = {{"text", ""}};
    if (round % 3 == 1) payload["card"] = {{"title", "t"}, {"text", "inner"}};
    if (round % 3 == 2) payload["zeta"] = json::array({1, 2, 3});
    AnswerText answer;
    std::string previous;
    std::vector<std::string> pieces;  // the text, cut where it grew
    const int steps = 1 + static_cast<int>(random() % 60);
    for (int step = 0; step < steps; ++step) {
      const unsigned kind = random() % 20;
      const std::string& piece = kPieces[random() % kPieces.size()];
      if (kind == 0) {
        pieces.resize(pieces.size() / 2);  // a rewrite that shrinks it
      } else if (kind == 1 && !pieces.empty()) {
        pieces.back() = piece;  // one that changes its end
      } else {
        pieces.push_back(piece);
      }
      std::string text;
      for (const auto& part : pieces) text += part;
      payload["text"] = text;
      const bool final = step == steps - 1;
      const bool extends = answer.update(payload.dump(), final);
      ASSERT_EQ(answer.text(), answerTextOf(payload.dump())) << "round " << round;
      ASSERT_EQ(extends, text.compare(0, previous.size(), previous) == 0) << "round " << round;
      previous = text;
    }
  }
}

TEST(AnswerTextTest, OtherShapesAndEditsBehindTheEndAreReadWholeAtTheLatestAtTheEnd) {
  // No "text": the payload itself is the text, and grows as such.
  AnswerText raw;
  EXPECT_TRUE(raw.update("plain", false));
  EXPECT_TRUE(raw.update("plain words", false));
  EXPECT_EQ(raw.text(), "plain words");
  EXPECT_FALSE(raw.update("other", false));
  EXPECT_EQ(raw.text(), "other");

  // A shape that changes midway: read whole.
  AnswerText shape;
  EXPECT_TRUE(shape.update(R"({"text":"a"})", false));
  EXPECT_TRUE(shape.update(R"({"text":"ab","z":1})", false));
  EXPECT_EQ(shape.text(), "ab");
  EXPECT_FALSE(shape.update(R"([1,2])", false));
  EXPECT_EQ(shape.text(), "[1,2]");

  // An edit far behind the end that keeps the bytes around it may pass
  // unseen while streaming, but the final update is exact, and reports
  // that it does not extend what was shown, so the screen is redrawn.
  const std::string long_text(200, 'a');
  AnswerText edited;
  edited.update(json({{"text", long_text}}).dump(), false);
  const std::string changed = "b" + long_text.substr(1) + "more";
  edited.update(json({{"text", changed}}).dump(), false);
  EXPECT_FALSE(edited.update(json({{"text", changed + "!"}}).dump(), true));
  EXPECT_EQ(edited.text(), changed + "!");
}

}  // namespace
}  // namespace orvi_chat
