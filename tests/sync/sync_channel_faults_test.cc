// The sync channel when things go wrong, as a host would meet them: a
// server or a host that stays silent, a sender that refuses frames or
// blocks, nack storms, content that is not UTF-8, and a channel dropped
// with work left.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orvi/sync_channel.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "support/recording_log_handler.h"
#include "support/sync_fakes.h"

namespace orvi {
namespace {

using test::waitUntil;
using Strings = std::vector<std::string>;

constexpr int32_t kLongInterval = 600000;  // the sender never wakes by itself in a test
constexpr int32_t kHugeStash = 1 << 30;    // ... nor for a full stash

// Long enough for a sender that spins to show it in the log.
void giveASpinnerTime() {
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

SyncInfo record(const std::string& id, std::string content, int64_t index = 1,
                SyncInfoType type = SyncInfoType::Delta) {
  return SyncInfo(id, std::move(content), {}, type, index, {});
}

// "id" or "id#fragment" for each record of each frame, in order.
Strings recordsOf(const Strings& frames) {
  Strings out;
  for (const auto& frame : frames) {
    const auto parsed = nlohmann::json::parse(frame);
    for (const auto& r : parsed.at("sync_infos")) {
      std::string name = r.at("id");
      if (r.contains("fragment")) name += "#" + std::to_string(r["fragment"]["index"].get<int>());
      out.push_back(name);
    }
  }
  return out;
}

struct Host {
  std::shared_ptr<test::ScriptedSyncSender> sender = std::make_shared<test::ScriptedSyncSender>();
  std::shared_ptr<test::RecordingSyncListener> listener =
      std::make_shared<test::RecordingSyncListener>();
  std::shared_ptr<SyncChannel> channel;
  std::shared_ptr<ITransport> downlink;

  explicit Host(const SyncChannelOptions& options, bool listen = true, bool connect = true)
      : channel(SyncChannel::create(options)) {
    if (listen) channel->listen(listener);
    if (connect) downlink = channel->connect(sender);
  }
};

TEST(SyncChannelFaultsTest, ASilentHostOrServerNeitherSpinsNorLosesRecords) {
  {
    SCOPED_TRACE("connected, never given a listener");
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(1, 10, {}, {}, {}, {}), false);
    for (int i = 0; i < 30; ++i) host.channel->send(record("r", "x", i));
    // One line from SyncQos's wiring, one from the single round that found
    // nothing to report to; then the sender sleeps until asked.
    for (const size_t lines : {2u, 3u, 4u}) {
      if (lines > 2) host.channel->flush();
      ASSERT_TRUE(waitUntil([&] { return log->countContaining("listener is null") >= lines; }));
      giveASpinnerTime();
      EXPECT_EQ(log->countContaining("listener is null"), lines);
    }
    EXPECT_TRUE(host.sender->attempts().empty());
    host.channel.reset();
    EXPECT_TRUE(log->has("SyncQos destroyed with 30 records not sent, reporting them as failed"));
  }
  {
    SCOPED_TRACE("sent before connect: no transport, ever");
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(1, 2, {}, {}, {}, {}), true, false);
    for (int i = 0; i < 3; ++i) host.channel->send(record("q", "x", i));
    host.channel->send(record("reply", "y", 9, SyncInfoType::Reply));
    host.channel->connect(host.sender);
    giveASpinnerTime();
    EXPECT_EQ(log->count("SyncQos connect failed, transport is null"), 1u);
    EXPECT_EQ(log->count("SyncQos resendInner failed, transport is null"), 1u);  // the reply's
    EXPECT_EQ(log->countContaining("sender thread started"), 0u);
    host.channel.reset();
    EXPECT_EQ(host.listener->events(), Strings{"failed q[0] q[1] q[2] reply[9]"});
  }
  {
    SCOPED_TRACE("nothing left to send but fragments kept for minutes");
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(1, {}, {}, {}, 1, {}));
    // "b" must not wait for the fragments of "a" to expire.
    for (const char* id : {"a", "b"}) {
      host.channel->send(record(id, *id == 'a' ? std::string(3000, 'a') : "x"));
      ASSERT_TRUE(
          waitUntil([&] { return host.listener->count("sent " + std::string(id) + "[1]"); }));
    }
    giveASpinnerTime();
    const size_t rounds = log->countContaining("After retry send, failed queue remains size");
    giveASpinnerTime();
    EXPECT_EQ(log->countContaining("After retry send, failed queue remains size"), rounds);
    // Every round ends on an empty take, and says so.
    EXPECT_EQ(log->count("Send 0 sync infos, reserved size_count = 0 bytes"), rounds);
    EXPECT_EQ(log->count("SyncQos setFileUploader failed, uploader is null"), 1u);
  }
}

TEST(SyncChannelFaultsTest, RefusedFramesAreNotOvertaken) {
  // Records a, c, d travel alone (700 of 924 bytes each); b goes in three
  // fragments. Cases: which attempts the sender refuses, what it accepts.
  const auto refuse = [](std::set<size_t> attempts) {
    return [attempts](size_t attempt, const std::string&) { return attempts.count(attempt) == 0; };
  };
  const auto refuseC = [](size_t, const std::string& frame) {
    return frame.find(R"("id":"c")") == std::string::npos;
  };
  const Strings all = {"a", "b#0", "b#1", "b#2", "c", "d"};
  const struct {
    const char* name;
    std::function<bool(size_t, const std::string&)> accept;
    Strings want;
  } cases[] = {
      {"the first frame, once", refuse({0}), all},
      {"a fragment, then its first resend", refuse({2, 3}), all},
      {"the last fragment, three times", refuse({3, 4, 5}), all},
      {"c always: given up after its retries", refuseC, {"a", "b#0", "b#1", "b#2", "d"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(kLongInterval, kHugeStash, {}, 3, 1, {}));
    host.sender->accept = c.accept;
    host.channel->send(record("a", std::string(400, 'a')));
    host.channel->send(record("b", std::string(2500, 'b')));
    host.channel->send(record("c", std::string(400, 'c')));
    host.channel->send(record("d", std::string(400, 'd')));
    // A refused frame waits for the next round: flush until all is settled.
    ASSERT_TRUE(waitUntil([&] {
      host.channel->flush();
      return recordsOf(host.sender->accepted()).size() == c.want.size() &&
             host.listener->count("sent d[1]") == 1;
    }));
    EXPECT_EQ(recordsOf(host.sender->accepted()), c.want);
  }
}

TEST(SyncChannelFaultsTest, ANackStormResendsEachFragmentOnce) {
  test::ScopedLogCapture log;
  Host host(SyncChannelOptions(0, {}, {}, {}, 1, {}));  // no sender thread: rounds on send
  host.channel->send(record("doc", test::mixedUtf8(1500), 6));
  const Strings first = host.sender->accepted();
  ASSERT_GE(first.size(), 3u);
  const auto nack = [&](int fragment) {
    host.downlink->onMessageReceived(R"({"id":"doc","action":"nack","index":6,"fragment":)"
                                     R"({"total":3,"index":)" +
                                     std::to_string(fragment) + "}}");
  };
  for (int i = 0; i < 500; ++i) nack(1);
  nack(0);
  nack(1);
  EXPECT_EQ(host.sender->accepted().size(), first.size());  // nothing before the next round
  EXPECT_EQ(log->countContaining("onNack, fragment already waiting to be sent again"), 500u);
  EXPECT_EQ(host.listener->count("nack doc 6"), 502u);  // the host hears every one
  host.channel->send(record("next", "n", 7, SyncInfoType::Reply));
  const Strings after = host.sender->accepted();
  ASSERT_EQ(after.size(), first.size() + 3);
  EXPECT_EQ(after[first.size()], first[1]);
  EXPECT_EQ(after[first.size() + 1], first[0]);
  EXPECT_EQ(recordsOf({after.back()}), Strings{"next"});
}

TEST(SyncChannelFaultsTest, TheHostIsNotBlockedBehindAResendInProgress) {
  Host host(SyncChannelOptions(kLongInterval, kHugeStash, {}, {}, {}, {}));
  std::atomic<bool> release{false};
  host.sender->accept = [&](size_t attempt, const std::string&) {
    if (attempt == 1) {
      while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return attempt != 0;
  };
  host.channel->send(record("a", "x"));
  host.channel->flush();  // refused
  ASSERT_TRUE(waitUntil([&] { return host.listener->count("failed a[1]") == 1; }));
  host.channel->flush();  // the resend now blocks inside the host's sender
  ASSERT_TRUE(waitUntil([&] { return host.sender->attempts().size() == 2; }));
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    host.channel->flush();
    host.channel->send(record("b", "y"));
    returned = true;
  });
  const bool not_blocked = waitUntil([&] { return returned.load(); });
  release = true;
  caller.join();
  EXPECT_TRUE(not_blocked);
  ASSERT_TRUE(waitUntil([&] {
    host.channel->flush();
    return host.listener->count("sent b[1]") == 1;
  }));
  EXPECT_EQ(recordsOf(host.sender->accepted()), (Strings{"a", "b"}));
}

TEST(SyncChannelFaultsTest, ContentThatIsNotUtf8IsRefusedUnlessCompressed) {
  for (const auto& [field, info] : std::vector<std::pair<std::string, SyncInfo>>{
           {"content", SyncInfo("k1", "ok \xff\xfe", {}, SyncInfoType::Base, 1, {})},
           {"id", SyncInfo("\xc0\x80", "ok", {}, SyncInfoType::Base, 1, {})},
           {"content_type", SyncInfo("k3", "ok", "\x80", SyncInfoType::Base, 1, {})},
           {"extra", SyncInfo("k4", "ok", {}, SyncInfoType::Reply, 1, "x\xed\xa0\x80")},
       }) {
    SCOPED_TRACE(field);
    test::ScopedLogCapture log;
    Host host(SyncChannelOptions(0, {}, {}, {}, {}, {}));
    host.channel->send(info);
    EXPECT_EQ(log->countContaining("SyncQos push refused, " + field + " is not valid UTF-8"), 1u);
    EXPECT_EQ(host.listener->events(), Strings{"failed " + info.id + "[1]"});
    EXPECT_TRUE(host.sender->attempts().empty());
  }
  // Compressed, any bytes travel as Base64 and come back unchanged.
  Host host(SyncChannelOptions(0, {}, "gzip", {}, {}, {}));
  const std::string bytes("\xff\xfe\0\x80 binary", 11);
  host.channel->send(record("bin", bytes));
  ASSERT_EQ(host.sender->accepted().size(), 1u);
  const auto sent = nlohmann::json::parse(host.sender->accepted()[0])["sync_infos"][0];
  std::string content = utils::base64Decode(sent["content"].get<std::string>());
  ASSERT_GT(utils::decompressEx(content), 0);
  EXPECT_EQ(content, bytes);
}

TEST(SyncChannelFaultsTest, CompressionRunsOnTheSenderThreadWhenThereIsOne) {
  struct ThreadLog : ILogHandler {
    void log(LogLevel, const std::string& line) override {
      if (line.find("tryCompress gzip and base64 encoded") == std::string::npos) return;
      std::lock_guard<std::mutex> lock(mutex);
      threads.push_back(std::this_thread::get_id());
    }
    std::mutex mutex;
    std::vector<std::thread::id> threads;
  };
  for (const int32_t interval : {kLongInterval, 0}) {
    auto handler = std::make_shared<ThreadLog>();
    test::ScopedLogCapture restore;  // and the default handler afterwards
    ILogger::registerHandler(nullptr);
    ILogger::registerHandler(handler);
    Host host(SyncChannelOptions(interval, {}, "gzip", {}, {}, {}));
    for (int i = 0; i < 5; ++i) host.channel->send(record("z", test::mixedUtf8(300), i));
    host.channel->flush();
    ASSERT_TRUE(waitUntil([&] { return host.listener->events().size() >= 1; }));
    std::lock_guard<std::mutex> lock(handler->mutex);
    ASSERT_EQ(handler->threads.size(), 5u);
    for (const auto& id : handler->threads) {
      EXPECT_EQ(id == std::this_thread::get_id(), interval == 0) << interval;
    }
  }
}

TEST(SyncChannelFaultsTest, DroppingAChannelWithABacklogReportsEveryRecordOnce) {
  {
    SCOPED_TRACE("a large queue");
    Host host(SyncChannelOptions(kLongInterval, kHugeStash, {}, {}, {}, {}));
    std::string want = "failed";
    for (int i = 0; i < 100000; ++i) {
      host.channel->send(record("r", "x", i));
      want += " r[" + std::to_string(i) + "]";
    }
    host.channel.reset();
    EXPECT_EQ(host.listener->events(), Strings{want});
  }
  {
    SCOPED_TRACE("fragments waiting behind a refused one");
    Host host(SyncChannelOptions(kLongInterval, kHugeStash, {}, {}, 1, {}));
    host.sender->accept = [](size_t attempt, const std::string&) { return attempt != 1; };
    host.channel->send(record("doc", std::string(3000, 'd'), 4));
    host.channel->flush();
    ASSERT_TRUE(waitUntil([&] { return host.listener->count("failed doc[4]") == 1; }));
    host.channel.reset();
    EXPECT_EQ(host.listener->events(), (Strings{"sent doc[4]", "failed doc[4]", "failed doc[4]"}));
  }
}

}  // namespace
}  // namespace orvi
