#include "orvi/sync/sync_message_processor.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using P = SyncMessageProcessor;
using nlohmann::json;
using Text = std::optional<std::string>;

TEST(SyncMessageProcessorTest, CompressionFollowsTheAlgorithmAndLeavesAddressesAlone) {
  struct Case {
    Text compression, content_type;
    std::string content;
    Text want_compression;
    bool want_compressed;
  };
  const std::string text = "draft draft draft, ünïcödé 漢字 draft draft";
  for (const Case& c : std::vector<Case>{{"gzip", {}, text, "gzip", true},
                                         {"gzip", "uri", "https://f.test/a", "gzip", false},
                                         {"zstd", {}, text, {}, false},
                                         {{}, {}, text, {}, false},
                                         {"gzip", {}, "", {}, false}}) {
    SCOPED_TRACE(c.compression.value_or("-") + " " + c.content_type.value_or("-") + " " +
                 c.content);
    test::ScopedLogCapture log;
    idl::SyncInfo r;
    r.content = c.content;
    r.compression = c.compression;
    r.content_type = c.content_type;
    P::tryCompress(r);
    EXPECT_EQ(r.compression, c.want_compression);
    std::string bytes = c.want_compressed ? utils::base64Decode(r.content) : r.content;
    if (c.want_compressed) {
      EXPECT_GT(utils::decompressEx(bytes), 0);
    }
    EXPECT_EQ(bytes, c.content);
    EXPECT_EQ(log->countContaining("tryCompress gzip failed, will not compress, ret: -1"),
              c.content.empty() ? 1u : 0u);
  }
}

TEST(SyncMessageProcessorTest, FragmentsCutWholeCharactersAndCopyTheRecord) {
  std::string mixed;
  for (int i = 0; i < 25; ++i) mixed += "aé€😀";  // characters of 1, 2, 3 and 4 bytes
  const std::string bad = "\xEF\xBF\xBD";        // U+FFFD, for bytes that are not UTF-8
  struct Case {
    std::string content;
    int32_t count;
    std::vector<std::string> want;  // as the wire shows each piece
  };
  for (const Case& c : std::vector<Case>{
           {std::string(1000, 'x'),
            3,
            {std::string(333, 'x'), std::string(333, 'x'), std::string(334, 'x')}},
           {mixed,
            3,
            {mixed.substr(0, 81), mixed.substr(81, 82), mixed.substr(163)}},  // 33, 33, 34
           {"\x80\x80"
            "abc",
            2,
            {bad + bad, "abc"}},             // stray continuation bytes count alone
           {"ab\xE2", 2, {"a", "b" + bad}},  // a cut-off character at the end
       }) {
    idl::SyncInfo r{"rec", c.content, "text", "delta", 42, "gzip", "meta", std::nullopt};
    const auto messages = P::splitFragments(r, c.count);
    ASSERT_EQ(messages.size(), c.want.size());
    for (size_t i = 0; i < messages.size(); ++i) {
      EXPECT_EQ(json::parse(messages[i].text),
                json({{"version", 0},
                      {"sync_infos",
                       {{{"id", "rec"},
                         {"content", c.want[i]},
                         {"content_type", "text"},
                         {"type", "delta"},
                         {"index", 42},
                         {"compression", "gzip"},
                         {"extra", "meta"},
                         {"fragment", {{"total", c.count}, {"index", i}}}}}}}));
      EXPECT_EQ(P::describe(messages[i].results), R"({id: "rec", indexs: [42]})");
    }
  }
  test::ScopedLogCapture log;
  EXPECT_TRUE(P::splitFragments(idl::SyncInfo{"none", "", {}, "base", 0, {}, {}, {}}, 2).empty());
  EXPECT_TRUE(log->has("Empty content for sync info id: none"));
}

TEST(SyncMessageProcessorTest, EnvelopeAndDownlinkFormats) {
  const SyncMessage batch = P::marshalBatch(
      {P::toWire(SyncInfo("d1", "héllo", {}, SyncInfoType::Base, 1, {}), ""),
       P::toWire(SyncInfo("d2", "r", "text", SyncInfoType::Reply, 2, "x"), "gzip"),
       P::toWire(SyncInfo("d1", "o", {}, static_cast<SyncInfoType>(7), 3, {}), "")});
  EXPECT_EQ(
      batch.text,
      R"({"version":0,"sync_infos":[{"id":"d1","content":"héllo","type":"base","index":1},)"
      R"({"id":"d2","content":"r","content_type":"text","type":"reply","index":2,)"
      R"("compression":"gzip","extra":"x"},{"id":"d1","content":"o","type":"delta","index":3}]})");
  EXPECT_EQ(P::describe(batch.results), R"({id: "d1", indexs: [1, 3]}, {id: "d2", indexs: [2]})");

  const auto full = P::parseDownlink(
      R"({"id":"d","action":"nack","index":9,"query":"q","fragment":{"total":3,"index":1},"x":1})");
  ASSERT_TRUE(full && full->fragment);
  EXPECT_EQ(std::make_tuple(full->id, full->action, full->index, full->query, full->fragment->total,
                            full->fragment->index),
            std::make_tuple(std::string("d"), std::string("nack"), std::optional<int64_t>(9),
                            Text("q"), 3, 1));
  const auto nulls = P::parseDownlink(R"({"action":"ack","index":null,"fragment":null})");
  ASSERT_TRUE(nulls);
  EXPECT_FALSE(nulls->index || nulls->query || nulls->fragment);

  for (const std::string bad : {"not json", "", "[1,2]", R"({"id":5})", R"({"index":"1"})",
                                R"({"fragment":{"index":1}})", R"({"fragment":3})"}) {
    test::ScopedLogCapture log;
    EXPECT_FALSE(P::parseDownlink(bad)) << bad;
    EXPECT_EQ(log->countContaining("Failed to parse SyncDownloadlinkMessage: "), 1u) << bad;
  }
}

}  // namespace
}  // namespace orvi
