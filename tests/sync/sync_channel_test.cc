// The sync channel as a host drives it: records in through send, frames out
// through the host's sender, downlink text in through the returned transport.
#include "orvi/sync_channel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "orvi/utils/base64.h"
#include "support/recording_log_handler.h"
#include "support/recording_sender.h"
#include "support/sync_fakes.h"
#include "support/temp_dir.h"

namespace orvi {
namespace {

using nlohmann::json;
using test::waitUntil;
using Strings = std::vector<std::string>;

constexpr int32_t kLongInterval = 600000;  // the sender never wakes by itself in a test

// The system's gzip, so that the wire bytes are checked against an
// implementation other than ours.
std::string gunzipWithSystemTool(const std::string& bytes) {
  test::TempDir dir("orvi-sync-gzip");
  dir.write("in.gz", bytes);
  const std::string command = "gzip -dc < " + dir.file("in.gz") + " > " + dir.file("out");
  if (std::system(command.c_str()) != 0) return "<gzip failed>";
  std::ifstream out(dir.file("out"), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(out), {});
}

json recordOf(const std::string& frame) {
  return json::parse(frame).at("sync_infos").at(0);
}

// A reply goes out at once, but on the sender thread when a round is still
// running there; waits until the reply is the last frame sent.
template <typename Sender>
bool replyWasSentLast(const Sender& sender, const std::string& id) {
  return waitUntil([&] {
    const auto frames = sender.frames();
    return !frames.empty() && recordOf(frames.back()).at("id") == id;
  });
}

std::string nack(const std::string& id, int64_t index, int32_t fragment) {
  return R"({"id":")" + id + R"(","action":"nack","index":)" + std::to_string(index) +
         R"(,"fragment":{"total":3,"index":)" + std::to_string(fragment) + "}}";
}

// Downlink text that must change nothing but the log and the listener's
// events, once fragments of record "doc" index 6 are stored. The literal
// "NACK" is a diagnostic that acts on a fixed record, absent here.
struct DownlinkCase {
  std::string text, want_log, want_event;
};
const std::vector<DownlinkCase> kBadOrUnmatchedDownlink = {
    {"not json", "onMessageReceived: failed to parse message: not json", ""},
    {"[1]", "failed to parse message: [1]", ""},
    {R"({"id":3,"action":"ack"})", "failed to parse message: {\"id\":3", ""},
    {R"({"id":"doc","fragment":3})", "failed to parse message: {\"id\":\"doc\",", ""},
    {R"({"id":"doc","action":"resend"})", "onMessageReceived: unknown action: resend", ""},
    {"NACK", "id: mock_minidraft_id, index: 2, frag_total: 2, frag_index: 5, sync_info id", ""},
    {nack("x", 6, 0), "index: 6, frag_total: 3, frag_index: 0, sync_info id not found", "nack x 6"},
    {nack("doc", 9, 0), "frag_total: 3, frag_index: 0, sync_info index not found", "nack doc 9"},
    {nack("doc", 6, 70), "frag_total: 3, frag_index: 70, fragment not found", "nack doc 6"},
    {R"({"id":"doc","action":"nack","index":6})", "frag_index: -1, fragment not found",
     "nack doc 6"},
    {R"({"id":"x","action":"ack","index":null,"more":1})", "", "ack x -1"},
    {R"({"id":"c1","action":"collect","index":3})", "", "collect c1"},
    {R"({"id":"q1","action":"query","query":"state?"})", "", "query q1 state?"},
};

// The record ids of each frame.
std::vector<Strings> idsPerFrame(const Strings& frames) {
  std::vector<Strings> out;
  for (const auto& frame : frames) {
    const json parsed = json::parse(frame);  // the loop below must not outlive it
    out.emplace_back();
    for (const auto& one : parsed.at("sync_infos")) out.back().push_back(one.at("id"));
  }
  return out;
}

struct Host {
  std::shared_ptr<test::RecordingSender> sender = std::make_shared<test::RecordingSender>();
  std::shared_ptr<test::RecordingSyncListener> listener =
      std::make_shared<test::RecordingSyncListener>();
  std::shared_ptr<SyncChannel> channel;
  std::shared_ptr<ITransport> downlink;

  explicit Host(const SyncChannelOptions& options) : channel(SyncChannel::create(options)) {
    channel->listen(listener);
    downlink = channel->connect(sender);
  }
  void send(const std::string& id, const std::string& content,
            SyncInfoType type = SyncInfoType::Base, int64_t index = 1) {
    channel->send(SyncInfo(id, content, {}, type, index, {}));
  }
};

TEST(SyncChannelTest, AFullStashWakesTheSenderAndBatchesStayUnderTheBudget) {
  // Budget 4 KiB - 100: records join while the sum of (content + 300) stays below it.
  // Cases: content sizes, ids per frame, whether the first record is a fragment.
  for (const auto& [sizes, want, fragment] :
       std::vector<std::tuple<std::vector<size_t>, std::vector<Strings>, bool>>{
           {std::vector<size_t>(7, 1000), {{"0", "1", "2"}, {"3", "4", "5"}, {"6"}}, false},
           {{1698, 1698}, {{"0"}, {"1"}}, false},  // the sum reaches the budget
           {{1697, 1698}, {{"0", "1"}}, false},
           {{3696}, {{"0"}}, true},  // oversized alone, though one fragment holds it
       }) {
    // Within the interval only the last send, filling the stash, wakes the sender.
    Host host(SyncChannelOptions(kLongInterval, static_cast<int32_t>(sizes.size()), {}, {}, 4, {}));
    for (size_t i = 0; i < sizes.size(); ++i) {
      host.send(std::to_string(i), std::string(sizes[i], 'x'));
    }
    ASSERT_TRUE(waitUntil([&] { return host.listener->events().size() == want.size(); }));
    const auto frames = host.sender->frames();
    EXPECT_EQ(idsPerFrame(frames), want);
    EXPECT_EQ(recordOf(frames[0]).contains("fragment"), fragment);
    for (const auto& frame : frames) EXPECT_LE(frame.size(), fragment ? 4096u : 3996u);
  }
}

TEST(SyncChannelTest, AFailingTransportGetsBoundedResendsThenTheRecordIsDropped) {
  // Cases: retries allowed, sends refused before the sender recovers, attempts, delivered.
  for (const auto& [retries, failures, attempts, delivered] :
       std::vector<std::tuple<int32_t, size_t, size_t, bool>>{
           {3, 1, 2, true}, {3, 3, 4, true}, {3, 4, 4, false}, {5, 100, 6, false}}) {
    SCOPED_TRACE(std::to_string(retries) + " retries, " + std::to_string(failures));
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(2, {}, {}, retries, {}, {}));
    // The hook is owned by the listener, so it must not own the listener.
    host.listener->on_send_result = [sender = host.sender, listener = host.listener.get(),
                                     failures = failures] {
      if (listener->count("failed a[1]") == failures) sender->fail_sends = false;
    };
    host.sender->fail_sends = true;
    host.send("a", "payload");
    // Every attempt is reported; a drop is logged before the last report.
    const size_t failed = std::min(failures, attempts), reports = failed + delivered;
    ASSERT_TRUE(waitUntil([&] { return host.listener->events().size() == reports; }));
    host.sender->fail_sends = false;
    host.send("barrier", "b", SyncInfoType::Reply);  // a round of its own: "a" stays settled
    ASSERT_TRUE(replyWasSentLast(*host.sender, "barrier"));

    EXPECT_EQ(host.sender->attempts().size(), attempts + 1);
    EXPECT_EQ(host.sender->frames().size(), delivered ? 2u : 1u);
    EXPECT_EQ(host.listener->count("failed a[1]"), failed);
    EXPECT_EQ(log->countContaining("drop! will not try any more!"), delivered ? 0u : 1u);
  }
}

TEST(SyncChannelTest, FragmentsReassembleAndOnlyAValidNackResendsOne) {
  for (const auto& [interval, compression] :
       std::vector<std::pair<int32_t, std::string>>{{kLongInterval, "zstd"}, {0, "gzip"}}) {
    SCOPED_TRACE(compression);  // zstd is unknown here: sent plain, without "compression"
    const bool gzip = compression == "gzip";
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(interval, {}, compression, {}, 1, {}));
    const std::string original = test::mixedUtf8(6000);
    host.send("doc", original, SyncInfoType::Delta, 6);
    host.channel->flush();
    std::vector<std::string> frames;
    ASSERT_TRUE(waitUntil([&] {
      frames = host.sender->frames();
      return !frames.empty() && frames.size() == recordOf(frames[0])["fragment"]["total"] &&
             host.listener->count("sent doc[6]") == frames.size();
    }));
    ASSERT_GE(frames.size(), 3u);
    std::string joined;
    for (size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(recordOf(frames[i])["fragment"]["index"], i);
      EXPECT_EQ(recordOf(frames[i]).value("compression", ""), gzip ? "gzip" : "");
      joined += recordOf(frames[i])["content"].get<std::string>();
    }
    EXPECT_EQ(gzip ? gunzipWithSystemTool(utils::base64Decode(joined)) : joined, original);

    for (const DownlinkCase& c : kBadOrUnmatchedDownlink) {
      SCOPED_TRACE(c.text);
      log->clear();
      Strings want = host.listener->events();
      host.downlink->onMessageReceived(c.text);
      if (!c.want_log.empty()) {
        EXPECT_EQ(log->countContaining(c.want_log), 1u);
      }
      if (!c.want_event.empty()) want.push_back(c.want_event);
      EXPECT_EQ(host.listener->events(), want);
    }
    EXPECT_EQ(host.sender->attempts(), frames);

    host.downlink->onMessageReceived(nack("doc", 6, 1));
    if (interval >= 1) {
      ASSERT_TRUE(waitUntil([&] { return host.sender->frames().size() == frames.size() + 1; }));
    } else {
      // Without a sender thread the fragment waits for the next round.
      EXPECT_EQ(host.sender->frames().size(), frames.size());
    }
    host.send("after", "", SyncInfoType::Reply);
    ASSERT_TRUE(replyWasSentLast(*host.sender, "after"));
    ASSERT_EQ(host.sender->frames().size(), frames.size() + 2);  // the fragment once, then "after"
    EXPECT_EQ(host.sender->frames()[frames.size()], frames[1]);
    // Empty content cannot be compressed: it goes plain, and the log says so.
    EXPECT_FALSE(recordOf(host.sender->frames().back()).contains("compression"));
    EXPECT_EQ(log->countContaining("tryCompress gzip failed, will not compress, ret: -1"),
              gzip ? 1u : 0u);
    EXPECT_EQ(host.listener->count("sent doc[6]"), frames.size() + 1);

    host.downlink->onMessageReceived(R"({"id":"doc","action":"ack","index":6})");
    EXPECT_TRUE(log->has("onAck ok, id: doc, index: 6, fragment_map_ size: 0"));
  }
}

TEST(SyncChannelTest, DroppingTheChannelStopsItsSenderFromAnyThread) {
  {
    SCOPED_TRACE("the last reference dropped inside onSendResult, on the sender thread");
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(kLongInterval, {}, {}, {}, {}, {}));
    std::mutex m;
    std::shared_ptr<SyncChannel> channel = std::move(host.channel);  // guarded by m
    host.listener->on_send_result = [&] {
      std::lock_guard<std::mutex> lock(m);
      channel.reset();
    };
    std::unique_lock<std::mutex> lock(m);
    channel->send(SyncInfo("last", "l", {}, SyncInfoType::Base, 1, {}));
    channel->flush();
    lock.unlock();
    ASSERT_TRUE(waitUntil([&] { return log->has("SyncQos senderLoop exit: owner expired"); }));
    EXPECT_TRUE(log->has("SyncQos sender thread detached in its own context"));
    host.downlink->onMessageReceived(R"({"id":"last","action":"ack"})");  // nobody listens now
    EXPECT_EQ(host.listener->events(), Strings{"sent last[1]"});
  }
  {
    SCOPED_TRACE("dropped by the host while the sender waits");
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(kLongInterval, {}, {}, {}, {}, {}));
    host.send("queued", "q", SyncInfoType::Delta, 8);
    host.channel.reset();
    EXPECT_TRUE(log->has("SyncQos sender thread joined"));
    EXPECT_EQ(host.listener->events(), Strings{"failed queued[8]"});  // never left, and said so
  }
}

}  // namespace
}  // namespace orvi
