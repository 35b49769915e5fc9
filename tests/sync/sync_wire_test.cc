// The sync wire's hand-written parts against the libraries they replace:
// the UTF-8 check and frame text against the JSON library, the reused gzip
// stream against compressEx. Random inputs from fixed seeds.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "orvi/sync/sync_gzip_encoder.h"
#include "orvi/sync/sync_message_processor.h"
#include "orvi/sync/sync_wire_text.h"
#include "orvi/utils/gzip.h"
#include "support/sync_fakes.h"

namespace orvi {
namespace {

using P = SyncMessageProcessor;
using Json = nlohmann::ordered_json;

// Pieces that exercise every escape and every UTF-8 length; the ones after
// kValidPieces are malformed (stray, overlong, surrogate, too high, cut).
const std::vector<std::string> kPieces = {
    "a", "Z", " ", "\"", "\\", "/", "\x7f", "\n", "\t", "\b", "\f", "\r", std::string(1, '\0'),
    "\x01", "\x1f", "é", "€", "漢", "😀", "\xf4\x8f\xbf\xbf", "\xef\xbf\xbf",
    // malformed from here
    "\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x80\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80",
    "\xf5\x80\x80\x80", "\xff", "\xe2\x82", "\xf0\x9f\x98"};
constexpr size_t kValidPieces = 21;

std::string randomText(std::mt19937& rng, size_t pieces, bool valid) {
  std::string out;
  const size_t range = valid ? kValidPieces : kPieces.size();
  for (size_t i = 0; i < pieces; ++i) out += kPieces[rng() % range];
  return out;
}

bool libraryAccepts(const std::string& text) {
  try {
    Json(text).dump();
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

// The frame as the JSON library writes it: keys in record order, compact.
std::string reference(const std::vector<idl::SyncInfo>& records) {
  Json infos = Json::array();
  for (const auto& r : records) {
    Json j;
    j["id"] = r.id;
    j["content"] = r.content;
    if (r.content_type) j["content_type"] = *r.content_type;
    j["type"] = r.type;
    j["index"] = r.index;
    if (r.compression) j["compression"] = *r.compression;
    if (r.extra) j["extra"] = *r.extra;
    if (r.fragment) j["fragment"] = {{"total", r.fragment->total}, {"index", r.fragment->index}};
    infos.push_back(std::move(j));
  }
  return Json{{"version", 0}, {"sync_infos", std::move(infos)}}.dump();
}

TEST(SyncWireTest, Utf8CheckAndFrameTextAgreeWithTheJsonLibrary) {
  std::mt19937 rng(20240611);
  for (int i = 0; i < 5000; ++i) {
    const std::string text = randomText(rng, rng() % 12, i % 2 == 0);
    ASSERT_EQ(sync_wire::isValidUtf8(text), libraryAccepts(text)) << testing::PrintToString(text);
  }
  for (const std::string& text : kPieces) {
    for (const std::string& around : {std::string(), std::string("abcdefgh12345678")}) {
      EXPECT_EQ(sync_wire::isValidUtf8(around + text + around), libraryAccepts(text))
          << testing::PrintToString(text);
    }
  }

  const auto maybe = [&](bool present) {
    return present ? std::optional<std::string>(randomText(rng, rng() % 6, true)) : std::nullopt;
  };
  for (int i = 0; i < 300; ++i) {
    std::vector<idl::SyncInfo> records(1 + rng() % 4);
    for (auto& r : records) {
      r = {randomText(rng, rng() % 5, true),
           randomText(rng, rng() % 40, true),
           maybe(rng() % 2),
           i % 3 == 0 ? "reply" : "delta",
           static_cast<int64_t>(rng()) - (1 << 30),
           maybe(rng() % 2),
           maybe(rng() % 2),
           std::nullopt};
    }
    ASSERT_EQ(P::marshalBatch(records).text, reference(records));

    // A fragment is the record with its slice as content.
    idl::SyncInfo piece = records[0];
    const auto slices = P::planFragments(piece, 3);
    for (const FragmentSlice& slice : slices) {
      piece.content = records[0].content.substr(slice.begin, slice.end - slice.begin);
      piece.fragment = SyncFragment(slice.total, slice.index);
      ASSERT_EQ(P::marshalFragment(records[0], slice), reference({piece}));
    }
  }
}

TEST(SyncWireTest, TheReusedGzipStreamWritesCompressExBytes) {
  std::mt19937 rng(7);
  std::string noise(300 * 1024, '\0');
  for (char& c : noise) c = static_cast<char>(rng());
  const std::vector<std::string> inputs = {
      "a", test::mixedUtf8(1000),           std::string(200 * 1024, '\0'), noise,
      "",  std::string(1024, 'x') + "tail", test::mixedUtf8(30),           noise.substr(0, 1024)};
  SyncGzipEncoder encoder;  // one stream for all, as a channel uses it
  for (int round = 0; round < 2; ++round) {
    for (const std::string& input : inputs) {
      std::string ours = input, theirs = input;
      const int ours_ret = encoder.compress(ours), theirs_ret = utils::compressEx(theirs);
      ASSERT_EQ(ours_ret, theirs_ret) << input.size();
      ASSERT_EQ(ours, theirs) << input.size();
      if (input.empty()) continue;
      // gzip magic, deflate, no flags, time 0, extra flags 2 (level 9), OS 0
      EXPECT_EQ(ours.substr(0, 10), std::string("\x1f\x8b\x08\0\0\0\0\0\x02\0", 10));
    }
  }
}

}  // namespace
}  // namespace orvi
