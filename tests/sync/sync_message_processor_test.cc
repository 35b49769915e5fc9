#include "orvi/sync/sync_message_processor.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using P = SyncMessageProcessor;
using nlohmann::json;

idl::SyncInfo record(std::string id, std::string content, int64_t index = 7) {
  idl::SyncInfo r;
  r.id = std::move(id);
  r.content = std::move(content);
  r.type = "delta";
  r.index = index;
  return r;
}

size_t utf8Chars(const std::string& s) {
  size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

TEST(SyncMessageProcessorTest, CompressionFollowsTheRecordsAlgorithmAndContentType) {
  struct Case {
    const char* name;
    std::optional<std::string> compression;
    std::optional<std::string> content_type;
    std::string content;
    std::optional<std::string> want_compression;
    bool want_compressed;
  };
  const std::string text = "draft text draft text draft text, with ünïcödé and 漢字 draft text";
  const std::vector<Case> cases = {
      {"gzip", "gzip", std::nullopt, text, "gzip", true},
      {"uri keeps its field", "gzip", "uri", "https://files.test/a", "gzip", false},
      {"unknown algorithm", "zstd", std::nullopt, text, std::nullopt, false},
      {"none", std::nullopt, std::nullopt, text, std::nullopt, false},
      {"empty content cannot be gzipped", "gzip", std::nullopt, "", std::nullopt, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::ScopedLogCapture log;
    idl::SyncInfo r = record("a", c.content);
    r.compression = c.compression;
    r.content_type = c.content_type;
    P::tryCompress(r);
    EXPECT_EQ(r.compression, c.want_compression);
    if (c.want_compressed) {
      std::string bytes = utils::base64Decode(r.content);
      ASSERT_GT(bytes.size(), 2u);
      EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0x1F);
      EXPECT_EQ(static_cast<unsigned char>(bytes[1]), 0x8B);
      ASSERT_GT(utils::decompressEx(bytes), 0);
      EXPECT_EQ(bytes, c.content);
      EXPECT_EQ(log->countContaining("tryCompress gzip and base64 encoded, original size: " +
                                     std::to_string(c.content.size())),
                1u);
    } else {
      EXPECT_EQ(r.content, c.content);
    }
  }
  test::ScopedLogCapture log;
  idl::SyncInfo empty = record("e", "");
  empty.compression = "gzip";
  P::tryCompress(empty);
  EXPECT_TRUE(log->has("tryCompress gzip failed, will not compress, ret: -1"));
}

TEST(SyncMessageProcessorTest, FragmentCountIsCeilingOfBytesOverBudget) {
  const std::vector<std::pair<std::pair<size_t, int32_t>, int32_t>> cases = {
      {{1, 1}, 1},        {{1024, 1}, 1},     {{1025, 1}, 2},
      {{204800, 200}, 1}, {{204801, 200}, 2}, {{10 * 1024 * 1024, 200}, 52},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(P::calcFragmentCount(c.first.first, c.first.second), c.second)
        << c.first.first << " bytes, " << c.first.second << " KiB";
  }
}

TEST(SyncMessageProcessorTest, FragmentsSplitOnCharacterBoundariesAndCarryTheRecord) {
  struct Case {
    const char* name;
    std::string content;
    int32_t count;
    std::vector<size_t> want_chars;
    // For content that is not valid UTF-8: the pieces as the wire shows
    // them, bad bytes replaced by U+FFFD.
    std::vector<std::string> want_wire;
  };
  std::string mixed;
  for (int i = 0; i < 25; ++i) mixed += "a\u00e9\u20ac\U0001F600";  // 1, 2, 3 and 4 bytes
  const std::string bad = "\xEF\xBF\xBD";
  const std::vector<Case> cases = {
      {"ascii", std::string(1000, 'x'), 3, {333, 333, 334}, {}},
      {"multi-byte", mixed, 3, {33, 33, 34}, {}},
      {"single fragment", "z", 1, {1}, {}},
      {"stray continuation bytes count alone",
       "\x80\x80"
       "abc",
       2,
       {},
       {bad + bad, "abc"}},
      {"truncated character at the end", "ab\xE2", 2, {}, {"a", "b" + bad}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    idl::SyncInfo r = record("rec", c.content, 42);
    r.compression = "gzip";
    r.content_type = "text";
    r.extra = "meta";
    const auto messages = P::splitFragments(r, c.count);
    ASSERT_EQ(messages.size(), static_cast<size_t>(c.count));
    std::string joined;
    for (size_t i = 0; i < messages.size(); ++i) {
      const json frame = json::parse(messages[i].text);
      EXPECT_EQ(frame.at("version"), 0);
      ASSERT_EQ(frame.at("sync_infos").size(), 1u);
      const json& one = frame["sync_infos"][0];
      EXPECT_EQ(one.at("id"), "rec");
      EXPECT_EQ(one.at("index"), 42);
      EXPECT_EQ(one.at("type"), "delta");
      EXPECT_EQ(one.at("compression"), "gzip");
      EXPECT_EQ(one.at("content_type"), "text");
      EXPECT_EQ(one.at("extra"), "meta");
      EXPECT_EQ(one.at("fragment"), json({{"total", messages.size()}, {"index", i}}));
      const std::string slice = one.at("content").get<std::string>();
      if (c.want_wire.empty()) {
        EXPECT_EQ(utf8Chars(slice), c.want_chars[i]);
      } else {
        EXPECT_EQ(slice, c.want_wire[i]);
      }
      joined += slice;
      ASSERT_EQ(messages[i].results.results.size(), 1u);
      EXPECT_EQ(messages[i].results.results[0].id, "rec");
      EXPECT_EQ(messages[i].results.results[0].indexes, std::vector<int64_t>{42});
    }
    if (c.want_wire.empty()) {
      EXPECT_EQ(joined, c.content);
    }
  }

  test::ScopedLogCapture log;
  EXPECT_TRUE(P::splitFragments(record("nothing", ""), 2).empty());
  EXPECT_TRUE(log->has("Empty content for sync info id: nothing"));
}

TEST(SyncMessageProcessorTest, BatchEnvelopeWritesOnlyPresentKeysAndKeepsUtf8) {
  SyncInfo base("d1", "héllo 漢字", std::nullopt, SyncInfoType::Base, 1, std::nullopt);
  SyncInfo reply("d2", "r", "text", SyncInfoType::Reply, 2, "x");
  SyncInfo odd("d1", "o", std::nullopt, static_cast<SyncInfoType>(7), 3, std::nullopt);
  const std::vector<idl::SyncInfo> records = {P::toWire(base, ""), P::toWire(reply, "gzip"),
                                              P::toWire(odd, "")};
  const SyncMessage message = P::marshalBatch(records);

  EXPECT_NE(message.text.find("héllo 漢字"), std::string::npos) << message.text;
  EXPECT_EQ(message.text.find('\n'), std::string::npos);
  const json frame = json::parse(message.text);
  EXPECT_EQ(frame, json::parse(R"({"version":0,"sync_infos":[
      {"id":"d1","content":"héllo 漢字","type":"base","index":1},
      {"id":"d2","content":"r","content_type":"text","type":"reply","index":2,
       "compression":"gzip","extra":"x"},
      {"id":"d1","content":"o","type":"delta","index":3}]})"));

  ASSERT_EQ(message.results.results.size(), 2u);
  EXPECT_EQ(message.results.results[0].id, "d1");
  EXPECT_EQ(message.results.results[0].indexes, (std::vector<int64_t>{1, 3}));
  EXPECT_EQ(message.results.results[1].id, "d2");
  EXPECT_EQ(P::describe(message.results), R"({id: "d1", indexs: [1, 3]}, {id: "d2", indexs: [2]})");

  // The uploader learns the content's encoding from `extra`.
  const SyncInfo upload = P::toUploadInfo(records[1]);
  EXPECT_EQ(upload.extra, std::optional<std::string>("gzip"));
  EXPECT_EQ(upload.type, SyncInfoType::Reply);
  EXPECT_EQ(upload.content_type, std::optional<std::string>("text"));
  EXPECT_EQ(P::toUploadInfo(records[0]).extra, std::nullopt);
}

TEST(SyncMessageProcessorTest, DownlinkParsingTakesPresentMembersAndRejectsTheRest) {
  const auto ok = P::parseDownlink(
      R"({"id":"d","action":"nack","index":9,"query":"q","fragment":{"total":3,"index":1},"x":1})");
  ASSERT_TRUE(ok);
  EXPECT_EQ(ok->id, "d");
  EXPECT_EQ(ok->action, "nack");
  EXPECT_EQ(ok->index, std::optional<int64_t>(9));
  EXPECT_EQ(ok->query, std::optional<std::string>("q"));
  ASSERT_TRUE(ok->fragment);
  EXPECT_EQ(ok->fragment->total, 3);
  EXPECT_EQ(ok->fragment->index, 1);

  const auto nulls = P::parseDownlink(R"({"action":"ack","index":null,"fragment":null})");
  ASSERT_TRUE(nulls);
  EXPECT_EQ(nulls->id, "");
  EXPECT_FALSE(nulls->index);
  EXPECT_FALSE(nulls->query);
  EXPECT_FALSE(nulls->fragment);

  for (const std::string bad :
       {"not json", "", "[1,2]", "\"ack\"", R"({"id":5,"action":"ack"})",
        R"({"action":"nack","index":"1"})", R"({"action":"nack","fragment":{"index":1}})",
        R"({"action":"nack","fragment":3})"}) {
    SCOPED_TRACE(bad);
    test::ScopedLogCapture log;
    EXPECT_FALSE(P::parseDownlink(bad));
    EXPECT_EQ(log->countContaining("Failed to parse SyncDownloadlinkMessage: "), 1u);
  }
}

}  // namespace
}  // namespace orvi
