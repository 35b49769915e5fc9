// The sync channel as a host drives it: records in through send, frames out
// through the host's sender, downlink text in through the returned transport.
#include "orvi/sync_channel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
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
using Events = std::vector<std::string>;

constexpr int32_t kLongInterval = 600000;

SyncChannelOptions options(int32_t interval, int32_t fragment_kb = 200,
                           std::optional<std::string> compression = std::nullopt) {
  return SyncChannelOptions(interval, {}, std::move(compression), {}, fragment_kb, {});
}

SyncInfo info(const std::string& id, std::string content, SyncInfoType type = SyncInfoType::Base,
              int64_t index = 1) {
  return SyncInfo(id, std::move(content), {}, type, index, {});
}

// Random characters of every UTF-8 length: byte and character counts differ,
// and gzip cannot shrink it much.
std::string mixedUtf8(size_t chars) {
  static const char* alphabet[] = {"a", "Z", "7", "é", "ж", "€", "漢", "字", "😀", "🌍", "𐍈"};
  std::mt19937 rng(11);
  std::string out;
  for (size_t i = 0; i < chars; ++i) out += alphabet[rng() % (sizeof alphabet / sizeof *alphabet)];
  return out;
}

// The system's gzip, so that the wire bytes are checked against an
// implementation other than ours.
std::string gunzipWithSystemTool(const std::string& bytes) {
  char path[] = "/tmp/orvi_sync_gzip_XXXXXX";
  const int fd = mkstemp(path);
  const bool written =
      fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  if (fd >= 0) close(fd);
  std::string out = "<gzip failed>";
  FILE* pipe = written ? popen((std::string("gzip -dc < ") + path).c_str(), "r") : nullptr;
  if (pipe) {
    out.clear();
    char buffer[65536];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    if (pclose(pipe) != 0) out = "<gzip failed>";
  }
  unlink(path);
  return out;
}

json recordOf(const std::string& frame) {
  return json::parse(frame).at("sync_infos").at(0);
}

// Fragment frames of `id` by fragment index.
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

TEST(SyncChannelTest, CreateAppliesDefaultsAndConnectsOnce) {
  test::ScopedLogCapture log;
  Host host{SyncChannelOptions()};
  EXPECT_EQ(log->countContaining("created with options: send_interval_ms=1000, max_stash_count=10, "
                                 "compression_algo=, failed_max_retry_count=5"),
            1u);
  EXPECT_EQ(host.channel->connect(std::make_shared<test::RecordingSender>()), host.downlink);
  EXPECT_EQ(host.channel->connect(nullptr), nullptr);
  EXPECT_FALSE(host.channel->send(info("r", "x", SyncInfoType::Reply)));
  EXPECT_EQ(host.listener->events(), Events{"sent r[1]"});
}

TEST(SyncChannelTest, OversizedRecordsReassembleAndANackResendsOneFragment) {
  for (const std::optional<std::string>& compression : {std::optional<std::string>(), {"gzip"}}) {
    SCOPED_TRACE(compression.value_or("plain"));
    test::ScopedLogCapture log;
    Host host(options(kLongInterval, 1, compression));
    const std::string original = mixedUtf8(6000);
    host.channel->send(info("doc", original, SyncInfoType::Delta, 6));
    host.channel->flush();
    std::map<int, std::string> pieces;
    ASSERT_TRUE(waitUntil([&] {
      pieces = fragmentsOf(host.sender->frames(), "doc");
      return !pieces.empty() &&
             pieces.size() == recordOf(pieces.begin()->second)["fragment"]["total"] &&
             host.listener->count("sent doc[6]") == pieces.size();
    }));
    ASSERT_GE(pieces.size(), 3u);
    std::string joined;
    for (const auto& [index, frame] : pieces)
      joined += recordOf(frame)["content"].get<std::string>();
    EXPECT_EQ(compression ? gunzipWithSystemTool(utils::base64Decode(joined)) : joined, original);

    const size_t before = host.sender->frames().size();
    host.downlink->onMessageReceived(
        R"({"id":"doc","action":"nack","index":6,"fragment":{"total":)" +
        std::to_string(pieces.size()) + R"(,"index":1}})");
    ASSERT_TRUE(waitUntil([&] {
      return host.sender->frames().size() == before + 1 &&
             host.listener->count("sent doc[6]") == pieces.size() + 1;
    }));
    EXPECT_EQ(host.sender->frames().back(), pieces[1]);
    host.channel->send(info("barrier", "b", SyncInfoType::Reply));  // its round resends too
    EXPECT_EQ(host.sender->frames().size(), before + 2);

    host.downlink->onMessageReceived(R"({"id":"doc","action":"ack","index":6})");
    EXPECT_TRUE(log->has("onAck ok, id: doc, index: 6, fragment_map_ size: 0"));
    EXPECT_EQ(host.listener->count("nack doc 6"), 1u);
    EXPECT_EQ(host.listener->count("sent doc[6]"), pieces.size() + 1);
    EXPECT_EQ(host.listener->count("ack doc 6"), 1u);
  }
}

TEST(SyncChannelTest, DownlinkReachesTheListenerAndBadInputChangesNothing) {
  test::ScopedLogCapture log;
  Host host(options(0, 1, std::string("gzip")));
  host.downlink->onMessageReceived("ACK");  // no SyncQos yet: nothing at all
  host.channel->send(info("doc", mixedUtf8(6000), SyncInfoType::Base, 2));
  const auto fragments = fragmentsOf(host.sender->frames(), "doc");
  ASSERT_GE(fragments.size(), 3u);
  const size_t attempts = host.sender->attempts().size();
  const auto errors = [&] {
    const auto lines = log->lines();
    return std::count_if(lines.begin(), lines.end(),
                         [](const std::string& l) { return l.rfind("[ERROR]", 0) == 0; });
  };

  struct Case {
    std::string text, want_log, want_event;
  };
  for (const Case& c : std::vector<Case>{
           {"not json", "onMessageReceived: failed to parse message: not json", ""},
           {"", "onMessageReceived: failed to parse message: ", ""},
           {"[1]", "failed to parse message: [1]", ""},
           {R"({"id":3,"action":"ack"})", "failed to parse message: {\"id\":3", ""},
           {R"({"id":"doc","action":"resend"})", "onMessageReceived: unknown action: resend", ""},
           {R"({"id":"doc"})", "onMessageReceived: unknown action: ", ""},
           {"NACK",
            "mock_minidraft_id, index: 2, frag_total: 2, frag_index: 5, sync_info id not found",
            ""},
           {R"({"id":"x","action":"nack","index":2,"fragment":{"total":3,"index":0}})",
            "id: x, index: 2, frag_total: 3, frag_index: 0, sync_info id not found", "nack x 2"},
           {R"({"id":"doc","action":"nack","index":9,"fragment":{"total":3,"index":0}})",
            "sync_info index not found", "nack doc 9"},
           {R"({"id":"doc","action":"nack","index":2,"fragment":{"total":3,"index":7}})",
            "frag_total: 3, frag_index: 7, fragment not found", "nack doc 2"},
           {R"({"id":"doc","action":"nack","index":2})", "frag_index: -1, fragment not found",
            "nack doc 2"},
           {R"({"id":"x","action":"ack"})", "", "ack x -1"},
           {R"({"id":"c1","action":"collect","index":3})", "", "collect c1"},
           {R"({"id":"q1","action":"query","query":"state?"})", "", "query q1 state?"},
           {R"({"id":"q2","action":"query"})", "", "query q2 "},
       }) {
    SCOPED_TRACE(c.text);
    log->clear();
    const Events before = host.listener->events();
    host.downlink->onMessageReceived(c.text);
    if (c.want_log.empty()) {
      EXPECT_EQ(errors(), 0);
    } else {
      EXPECT_EQ(log->countContaining(c.want_log), 1u);
    }
    Events want = before;
    if (!c.want_event.empty()) want.push_back(c.want_event);
    EXPECT_EQ(host.listener->events(), want);
  }
  EXPECT_EQ(host.sender->attempts().size(), attempts);

  // Every fragment is still kept.
  for (const auto& [index, frame] : fragments) {
    host.downlink->onMessageReceived(
        R"({"id":"doc","action":"nack","index":2,"fragment":{"total":)" +
        std::to_string(fragments.size()) + R"(,"index":)" + std::to_string(index) + "}}");
    EXPECT_EQ(host.sender->frames().back(), frame);
  }
}

TEST(SyncChannelTest, DroppingTheChannelStopsItsSenderFromAnyThread) {
  {
    SCOPED_TRACE("the last reference dropped inside onSendResult, on the sender thread");
    test::ScopedLogCapture log;
    Host host(options(kLongInterval));
    auto holder = std::make_shared<std::pair<std::mutex, std::shared_ptr<SyncChannel>>>();
    holder->second = std::move(host.channel);
    host.listener->setSendResultHook([holder] {
      std::shared_ptr<SyncChannel> last;
      {
        std::lock_guard<std::mutex> lock(holder->first);
        last.swap(holder->second);
      }
    });
    {
      std::lock_guard<std::mutex> lock(holder->first);
      holder->second->send(info("last", "l"));
      holder->second->flush();
    }
    ASSERT_TRUE(waitUntil([&] {
      return log->has("SyncQos senderLoop exit: owner expired") &&
             log->has("SyncQos sender thread detached in its own context");
    }));
    host.downlink->onMessageReceived(R"({"id":"last","action":"ack"})");  // nobody listens now
    EXPECT_EQ(host.listener->events(), Events{"sent last[1]"});
  }
  {
    SCOPED_TRACE("dropped by the host while the sender waits");
    test::ScopedLogCapture log;
    Host host(options(kLongInterval));
    host.channel->send(info("queued", "q", SyncInfoType::Delta, 8));
    host.channel.reset();
    EXPECT_TRUE(log->has("SyncQos sender thread joined"));
    EXPECT_TRUE(host.sender->attempts().empty());
    EXPECT_EQ(host.listener->events(), Events{"failed queued[8]"});  // never left, and said so
  }
}

}  // namespace
}  // namespace orvi
