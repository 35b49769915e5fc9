// The sync channel as a host drives it: records in through send, frames out
// through the host's sender, downlink text in through the returned transport.
#include "orvi/sync_channel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "orvi/utils/base64.h"
#include "support/recording_log_handler.h"
#include "support/recording_sender.h"
#include "support/sync_fakes.h"

namespace orvi {
namespace {

using nlohmann::json;
using test::waitUntil;

constexpr int32_t kLongInterval = 600000;

SyncChannelOptions options(int32_t interval, int32_t fragment_kb = 200,
                           std::optional<std::string> compression = std::nullopt) {
  return SyncChannelOptions(interval, std::nullopt, std::move(compression), std::nullopt,
                            fragment_kb, std::nullopt);
}

SyncInfo info(const std::string& id, std::string content, SyncInfoType type = SyncInfoType::Base,
              int64_t index = 1) {
  return SyncInfo(id, std::move(content), std::nullopt, type, index, std::nullopt);
}

// Random text over characters of every UTF-8 length, so that byte and
// character counts differ and gzip cannot shrink it much.
std::string mixedUtf8(size_t chars, uint32_t seed) {
  static const std::vector<std::string> alphabet = {"a",
                                                    "Z",
                                                    "7",
                                                    "\xC3\xA9",
                                                    "\xC3\xB1",
                                                    "\xD0\xB6",
                                                    "\xE2\x82\xAC",
                                                    "\xE6\xBC\xA2",
                                                    "\xE5\xAD\x97",
                                                    "\xF0\x9F\x98\x80",
                                                    "\xF0\x9F\x8C\x8D",
                                                    "\xF0\x90\x8D\x88"};
  std::mt19937 rng(seed);
  std::string out;
  for (size_t i = 0; i < chars; ++i) out += alphabet[rng() % alphabet.size()];
  return out;
}

// Decompresses with the system's gzip, so the wire bytes are checked against
// an implementation other than our own.
std::string gunzipWithSystemTool(const std::string& bytes) {
  char path[] = "/tmp/orvi_sync_gzip_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "<mkstemp failed>";
  const bool written = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  close(fd);
  std::string out;
  if (written) {
    FILE* pipe = popen((std::string("gzip -dc < ") + path).c_str(), "r");
    if (pipe) {
      char buffer[65536];
      size_t n;
      while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
      if (pclose(pipe) != 0) out = "<gzip failed>";
    }
  }
  unlink(path);
  return out;
}

json recordOf(const std::string& frame) {
  return json::parse(frame).at("sync_infos").at(0);
}

// Frames whose single record is a fragment of `id`, keyed by fragment index.
std::map<int, std::string> fragmentsOf(const std::vector<std::string>& frames,
                                       const std::string& id) {
  std::map<int, std::string> out;
  for (const auto& frame : frames) {
    const json one = recordOf(frame);
    if (one.at("id") == id && one.contains("fragment")) out[one["fragment"]["index"]] = frame;
  }
  return out;
}

struct Host {
  std::shared_ptr<test::RecordingSender> sender = std::make_shared<test::RecordingSender>();
  std::shared_ptr<test::RecordingSyncListener> listener =
      std::make_shared<test::RecordingSyncListener>();
  std::shared_ptr<SyncChannel> channel;
  std::shared_ptr<ITransport> downlink;

  explicit Host(const SyncChannelOptions& opts) : channel(SyncChannel::create(opts)) {
    channel->listen(listener);
    downlink = channel->connect(sender);
  }
};

TEST(SyncChannelTest, CreateAppliesDefaultsAndMisuseIsRefused) {
  test::ScopedLogCapture log;
  auto channel = SyncChannel::create(SyncChannelOptions());
  ASSERT_TRUE(channel);
  EXPECT_EQ(log->countContaining("created with options: send_interval_ms=1000, "
                                 "max_stash_count=10, compression_algo=, "
                                 "failed_max_retry_count=5"),
            1u);

  EXPECT_EQ(channel->connect(nullptr), nullptr);
  EXPECT_TRUE(log->has("sender is null"));
  auto sender = std::make_shared<test::RecordingSender>();
  auto transport = channel->connect(sender);
  ASSERT_TRUE(transport);
  EXPECT_EQ(channel->connect(std::make_shared<test::RecordingSender>()), transport);
  EXPECT_EQ(log->countContaining("transport is already connected, skip"), 1u);

  auto first = std::make_shared<test::RecordingSyncListener>();
  auto second = std::make_shared<test::RecordingSyncListener>();
  channel->listen(nullptr);
  channel->listen(first);
  channel->listen(second);
  EXPECT_EQ(log->countContaining("listen: listener is null"), 1u);
  EXPECT_EQ(log->countContaining("listen: listener is already set"), 1u);
  channel->setFileUploader(nullptr);
  EXPECT_EQ(log->countContaining("setFileUploader: uploader is null"), 1u);

  channel->flush();  // nothing to flush before the first send
  EXPECT_EQ(log->countContaining("SyncQos"), 0u);

  EXPECT_FALSE(channel->send(info("r", "x", SyncInfoType::Reply)));
  ASSERT_EQ(sender->frames().size(), 1u);
  transport->onMessageReceived(R"({"id":"c","action":"collect"})");
  EXPECT_EQ(first->collects().size(), 1u);
  EXPECT_TRUE(second->collects().empty());
}

TEST(SyncChannelTest, SendBeforeConnectLeavesTheChannelWithoutTransport) {
  test::ScopedLogCapture log;
  auto channel = SyncChannel::create(options(kLongInterval));
  auto listener = std::make_shared<test::RecordingSyncListener>();
  channel->listen(listener);
  EXPECT_FALSE(channel->send(info("early", "e")));
  EXPECT_TRUE(log->has("SyncQos connect failed, transport is null"));

  auto sender = std::make_shared<test::RecordingSender>();
  channel->connect(sender);
  EXPECT_FALSE(channel->send(info("reply", "r", SyncInfoType::Reply)));
  EXPECT_TRUE(log->has("SyncQos resendInner failed, transport is null"));
  EXPECT_EQ(log->countContaining("sender thread started"), 0u);
  EXPECT_TRUE(sender->attempts().empty());
  EXPECT_TRUE(listener->sendResults().empty());
}

TEST(SyncChannelTest, OversizedRecordsReassembleAndNackedFragmentsAreResentAlone) {
  struct Case {
    const char* name;
    std::optional<std::string> compression;
  };
  for (const Case& c : {Case{"plain", std::nullopt}, Case{"gzip", std::string("gzip")}}) {
    SCOPED_TRACE(c.name);
    test::ScopedLogCapture log;
    Host host(options(kLongInterval, 1, c.compression));
    const std::string original = mixedUtf8(6000, 11);
    host.channel->send(info("doc", original, SyncInfoType::Delta, 6));
    host.channel->flush();
    ASSERT_TRUE(waitUntil([&] {
      const auto got = fragmentsOf(host.sender->frames(), "doc");
      return !got.empty() && got.size() == recordOf(got.begin()->second)["fragment"]["total"] &&
             host.listener->resultsFor("doc", true) == got.size();
    }));

    const auto pieces = fragmentsOf(host.sender->frames(), "doc");
    ASSERT_GE(pieces.size(), 3u);
    std::string joined;
    for (const auto& [index, frame] : pieces) {
      const json one = recordOf(frame);
      EXPECT_EQ(one.at("index"), 6);
      EXPECT_EQ(one.at("type"), "delta");
      EXPECT_EQ(one.value("compression", ""), c.compression.value_or(""));
      joined += one.at("content").get<std::string>();
    }
    if (c.compression) {
      EXPECT_EQ(gunzipWithSystemTool(utils::base64Decode(joined)), original);
    } else {
      EXPECT_EQ(joined, original);
    }
    EXPECT_EQ(host.listener->resultsFor("doc", true), pieces.size());

    const size_t before = host.sender->frames().size();
    host.downlink->onMessageReceived(
        R"({"id":"doc","action":"nack","index":6,"fragment":{"total":)" +
        std::to_string(pieces.size()) + R"(,"index":1}})");
    ASSERT_TRUE(waitUntil([&] { return host.sender->frames().size() == before + 1; }));
    EXPECT_EQ(host.sender->frames().back(), pieces.at(1));
    EXPECT_EQ(host.listener->nacks(), (std::vector<std::pair<std::string, int64_t>>{{"doc", 6}}));
    // A reply's round runs the failed queue too: nothing else went out.
    host.channel->send(info("barrier", "b", SyncInfoType::Reply));
    EXPECT_EQ(host.sender->frames().size(), before + 2);
    EXPECT_EQ(recordOf(host.sender->frames().back()).at("id"), "barrier");

    host.downlink->onMessageReceived(R"({"id":"doc","action":"ack","index":6})");
    EXPECT_TRUE(log->has("onAck ok, id: doc, index: 6, fragment_map_ size: 0"));
    EXPECT_EQ(host.listener->acks(), (std::vector<std::pair<std::string, int64_t>>{{"doc", 6}}));
  }
}

TEST(SyncChannelTest, DownlinkActionsReachTheListener) {
  test::ScopedLogCapture log;
  Host host(options(0));
  host.downlink->onMessageReceived("ACK");
  host.downlink->onMessageReceived("NACK");
  EXPECT_EQ(log->countContaining("mock_minidraft_id"), 0u);  // no SyncQos before the first send

  host.downlink->onMessageReceived(R"({"id":"c1","action":"collect","index":3})");
  host.downlink->onMessageReceived(R"({"id":"q1","action":"query","query":"state?"})");
  host.downlink->onMessageReceived(R"({"id":"q2","action":"query"})");
  host.downlink->onMessageReceived(R"({"id":"a1","action":"ack","index":4})");
  host.downlink->onMessageReceived(R"({"id":"a2","action":"ack"})");
  host.downlink->onMessageReceived(R"({"id":"n1","action":"nack"})");

  const auto collects = host.listener->collects();
  ASSERT_EQ(collects.size(), 1u);
  EXPECT_EQ(collects[0].id, "c1");
  EXPECT_EQ(collects[0].index, std::optional<int64_t>(3));
  const auto queries = host.listener->queries();
  ASSERT_EQ(queries.size(), 2u);
  EXPECT_EQ(queries[0].message.id, "q1");
  EXPECT_EQ(queries[0].query, "state?");
  EXPECT_EQ(queries[1].query, "");
  EXPECT_EQ(host.listener->acks(),
            (std::vector<std::pair<std::string, int64_t>>{{"a1", 4}, {"a2", -1}}));
  EXPECT_EQ(host.listener->nacks(), (std::vector<std::pair<std::string, int64_t>>{{"n1", -1}}));

  // Once there is a SyncQos the literal texts act on the diagnostic record,
  // and only there.
  host.channel->send(info("x", "x"));
  host.downlink->onMessageReceived("NACK");
  EXPECT_TRUE(
      log->has("id: mock_minidraft_id, index: 2, frag_total: 2, frag_index: 5, sync_info "
               "id not found"));
  host.downlink->onMessageReceived("ACK");
  EXPECT_EQ(host.listener->acks().size(), 2u);
  EXPECT_EQ(host.listener->nacks().size(), 1u);
}

TEST(SyncChannelTest, BadDownlinkIsLoggedAndChangesNothing) {
  test::ScopedLogCapture log;
  Host host(options(0, 1, std::string("gzip")));
  host.channel->send(info("doc", mixedUtf8(6000, 5), SyncInfoType::Base, 2));
  const auto fragments = fragmentsOf(host.sender->frames(), "doc");
  ASSERT_GE(fragments.size(), 3u);

  struct Case {
    std::string text;
    std::string want_log;
  };
  const std::string missing = "id: doc, index: 2, frag_total: ";
  const std::vector<Case> cases = {
      {"not json", "onMessageReceived: failed to parse message: not json"},
      {"", "onMessageReceived: failed to parse message: "},
      {"[1]", "onMessageReceived: failed to parse message: [1]"},
      {R"({"id":3,"action":"ack"})", "failed to parse message: {\"id\":3"},
      {R"({"id":"doc","action":"resend"})", "onMessageReceived: unknown action: resend"},
      {R"({"id":"doc"})", "onMessageReceived: unknown action: "},
      {R"({"id":"ghost","action":"nack","index":2,"fragment":{"total":3,"index":0}})",
       "id: ghost, index: 2, frag_total: 3, frag_index: 0, sync_info id not found"},
      {R"({"id":"doc","action":"nack","index":9,"fragment":{"total":3,"index":0}})",
       "id: doc, index: 9, frag_total: 3, frag_index: 0, sync_info index not found"},
      {R"({"id":"doc","action":"nack","index":2,"fragment":{"total":3,"index":7}})",
       missing + "3, frag_index: 7, fragment not found"},
      {R"({"id":"doc","action":"nack","index":2})",
       missing + "0, frag_index: -1, fragment not found"},
  };
  const size_t frames = host.sender->attempts().size();
  const size_t results = host.listener->sendResults().size();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    log->clear();
    host.downlink->onMessageReceived(c.text);
    EXPECT_EQ(log->countContaining(c.want_log), 1u);
  }
  // An ack for a record never fragmented is only passed on to the host.
  host.downlink->onMessageReceived(R"({"id":"ghost","action":"ack","index":1})");
  EXPECT_EQ(log->countContaining("onAck ok"), 0u);
  EXPECT_EQ(host.listener->acks(), (std::vector<std::pair<std::string, int64_t>>{{"ghost", 1}}));
  EXPECT_EQ(host.sender->attempts().size(), frames);
  EXPECT_EQ(host.listener->sendResults().size(), results);
  EXPECT_TRUE(host.listener->collects().empty());
  EXPECT_TRUE(host.listener->queries().empty());

  // The fragments are all still there.
  for (const auto& [index, frame] : fragments) {
    host.downlink->onMessageReceived(
        R"({"id":"doc","action":"nack","index":2,"fragment":{"total":)" +
        std::to_string(fragments.size()) + R"(,"index":)" + std::to_string(index) + "}}");
    EXPECT_EQ(host.sender->frames().back(), frame);
  }

  // Empty content cannot be gzipped: it goes out plain.
  host.channel->send(info("empty", ""));
  EXPECT_TRUE(log->has("tryCompress gzip failed, will not compress, ret: -1"));
  const json sent = recordOf(host.sender->frames().back());
  EXPECT_EQ(sent.at("id"), "empty");
  EXPECT_EQ(sent.at("content"), "");
  EXPECT_FALSE(sent.contains("compression"));
}

TEST(SyncChannelTest, DroppingTheChannelStopsTheSenderFromAnyThread) {
  {
    SCOPED_TRACE("dropped inside a listener call on the sender thread");
    test::ScopedLogCapture log;
    auto holder = std::make_shared<std::pair<std::mutex, std::shared_ptr<SyncChannel>>>();
    auto sender = std::make_shared<test::RecordingSender>();
    auto listener = std::make_shared<test::RecordingSyncListener>();
    std::shared_ptr<ITransport> downlink;
    {
      auto channel = SyncChannel::create(options(kLongInterval));
      channel->listen(listener);
      downlink = channel->connect(sender);
      channel->send(info("last", "l"));
      std::lock_guard<std::mutex> lock(holder->first);
      holder->second = std::move(channel);
    }
    listener->setOnSendResult([holder](bool, const SentResults&) {
      std::shared_ptr<SyncChannel> dropped;
      {
        std::lock_guard<std::mutex> lock(holder->first);
        dropped.swap(holder->second);
      }
      dropped.reset();
    });
    {
      std::lock_guard<std::mutex> lock(holder->first);
      holder->second->flush();
    }
    ASSERT_TRUE(waitUntil([&] {
      return log->has("SyncQos senderLoop exit: owner expired") &&
             log->has("SyncQos sender thread detached in its own context");
    }));
    EXPECT_EQ(log->countContaining("destroyed"), 1u);
    EXPECT_EQ(sender->frames().size(), 1u);
    downlink->onMessageReceived(R"({"id":"last","action":"ack"})");  // the channel is gone
    EXPECT_TRUE(listener->acks().empty());
  }
  {
    SCOPED_TRACE("dropped by the host while the sender waits");
    test::ScopedLogCapture log;
    auto sender = std::make_shared<test::RecordingSender>();
    auto listener = std::make_shared<test::RecordingSyncListener>();
    auto channel = SyncChannel::create(options(kLongInterval));
    channel->listen(listener);
    channel->connect(sender);
    channel->send(info("queued", "q", SyncInfoType::Delta, 8));
    channel.reset();
    EXPECT_TRUE(log->has("SyncQos sender thread joined"));
    EXPECT_TRUE(sender->attempts().empty());
    // The record never left; the host hears so.
    EXPECT_EQ(listener->resultsFor("queued", false), 1u);
  }
}

}  // namespace
}  // namespace orvi
