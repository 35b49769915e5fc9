#include "orvi/sync/sync_qos.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "support/recording_log_handler.h"
#include "support/recording_sender.h"
#include "support/sync_fakes.h"

namespace orvi {
namespace {

using nlohmann::json;
using test::FakeUploader;
using test::waitUntil;

constexpr int32_t kLongInterval = 600000;  // the sender never wakes by itself in a test

idl::SyncInfo wire(const std::string& id, std::string content, const std::string& type = "base",
                   int64_t index = 1) {
  idl::SyncInfo r;
  r.id = id;
  r.content = std::move(content);
  r.type = type;
  r.index = index;
  return r;
}

std::vector<std::string> idsIn(const std::string& frame) {
  std::vector<std::string> ids;
  const json parsed = json::parse(frame);
  for (const auto& one : parsed.at("sync_infos")) ids.push_back(one.at("id"));
  return ids;
}

size_t framesWith(const std::vector<std::string>& frames, const std::string& id) {
  return static_cast<size_t>(std::count_if(frames.begin(), frames.end(), [&](const auto& f) {
    const auto ids = idsIn(f);
    return std::find(ids.begin(), ids.end(), id) != ids.end();
  }));
}

// The record `id` from whichever frame carries it (a round on another thread
// may have batched it with others); null when none does.
json recordWithId(const std::vector<std::string>& frames, const std::string& id) {
  for (const auto& frame : frames) {
    const json parsed = json::parse(frame);
    for (const auto& one : parsed.at("sync_infos")) {
      if (one.at("id") == id) return one;
    }
  }
  return nullptr;
}

size_t recordsIn(const std::vector<std::string>& frames) {
  size_t n = 0;
  for (const auto& f : frames) n += idsIn(f).size();
  return n;
}

// Text that gzip barely shrinks, so that it stays oversized once compressed.
std::string noise(size_t size, uint32_t seed = 7) {
  std::mt19937 rng(seed);
  std::string out(size, ' ');
  for (auto& c : out) c = static_cast<char>('!' + rng() % 90);
  return out;
}

// A SyncQos wired as its channel wires it, over a recording sender.
struct Rig {
  std::shared_ptr<test::RecordingSender> sender = std::make_shared<test::RecordingSender>();
  std::shared_ptr<test::RecordingSyncListener> listener =
      std::make_shared<test::RecordingSyncListener>();
  std::shared_ptr<Transport> transport = std::make_shared<Transport>();
  std::shared_ptr<SyncQos> qos;

  Rig(int32_t interval, int32_t stash, int32_t retries, int32_t fragment_kb, bool upload = false,
      SyncQos::Clock clock = nullptr, std::shared_ptr<IFileUploader> uploader = nullptr) {
    transport->setSender(sender);
    qos = std::make_shared<SyncQos>(interval, stash, retries, fragment_kb, upload, clock);
    qos->setListener(listener);
    if (uploader) qos->setFileUploader(uploader);
    qos->connect(transport);
  }
};

TEST(SyncQosTest, BatchesStayUnderTheSizeBudgetAndKeepArrivalOrder) {
  // 4 KiB budget: a batch holds records while the sum of (content + 300)
  // stays below 4096 - 100 bytes.
  struct Case {
    const char* name;
    std::vector<size_t> sizes;
    std::vector<size_t> want_batches;
    bool want_fragment;
  };
  const std::vector<Case> cases = {
      {"seven small records", std::vector<size_t>(7, 1000), {3, 3, 1}, false},
      {"sum reaching the budget splits", {1698, 1698}, {1, 1}, false},
      {"sum just below the budget stays together", {1697, 1698}, {2}, false},
      {"largest record that is not oversized", {3695}, {1}, false},
      {"oversized alone even when one fragment fits", {3696}, {1}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Rig rig(kLongInterval, 100, 5, 4);
    for (size_t i = 0; i < c.sizes.size(); ++i) {
      rig.qos->push(wire("r" + std::to_string(i), std::string(c.sizes[i], 'x')));
    }
    rig.qos->flush();
    ASSERT_TRUE(waitUntil([&] { return recordsIn(rig.sender->frames()) == c.sizes.size(); }));

    const auto frames = rig.sender->frames();
    std::vector<size_t> batches;
    std::vector<std::string> order;
    for (const auto& frame : frames) {
      const json parsed = json::parse(frame);
      batches.push_back(parsed.at("sync_infos").size());
      for (const auto& one : parsed["sync_infos"]) {
        order.push_back(one.at("id"));
        EXPECT_EQ(one.contains("fragment"), c.want_fragment);
      }
      if (c.sizes.size() > 1) {
        EXPECT_LE(frame.size(), 4096u);
      }
    }
    EXPECT_EQ(batches, c.want_batches);
    for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(order[i], "r" + std::to_string(i));
    const auto results = rig.listener->sendResults();
    ASSERT_EQ(results.size(), frames.size());
    for (size_t i = 0; i < results.size(); ++i) {
      EXPECT_TRUE(results[i].success);
      EXPECT_EQ(results[i].results.results.size(), idsIn(frames[i]).size());
    }
  }
}

TEST(SyncQosTest, RepliesAndThreadlessChannelsSendOnTheCallersThread) {
  {
    test::ScopedLogCapture log;
    Rig rig(0, 10, 5, 200);
    EXPECT_EQ(log->countContaining("SyncQos constructed, no sender thread needed."), 1u);
    rig.qos->push(wire("plain", "p"));
    EXPECT_EQ(rig.sender->frames().size(), 1u);  // already out when push returns
    EXPECT_EQ(log->countContaining("sender thread started"), 0u);
  }
  {
    Rig rig(kLongInterval, 10, 5, 200);
    rig.qos->push(wire("queued", "q"));
    rig.qos->push(wire("answer", "a", "reply"));
    // The reply's round takes everything queued before it.
    ASSERT_EQ(rig.sender->frames().size(), 1u);
    EXPECT_EQ(idsIn(rig.sender->frames()[0]), (std::vector<std::string>{"queued", "answer"}));
  }
  {
    Rig rig(kLongInterval, 3, 5, 200);
    for (int i = 0; i < 3; ++i) rig.qos->push(wire("s" + std::to_string(i), "s"));
    // Only the stash count can wake the sender inside the interval.
    ASSERT_TRUE(waitUntil([&] { return recordsIn(rig.sender->frames()) == 3; }));
  }
}

TEST(SyncQosTest, FailedMessagesGetBoundedResendsThenAreDropped) {
  struct Case {
    int32_t max_retry;
    int failures;  // sends refused before the sender recovers
    size_t want_attempts;
    bool want_delivered;
  };
  const std::vector<Case> cases = {
      {3, 1, 2, true}, {3, 3, 4, true}, {3, 4, 4, false}, {5, 100, 6, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE("max_retry " + std::to_string(c.max_retry) + ", failures " +
                 std::to_string(c.failures));
    test::ScopedLogCapture log;
    Rig rig(2, 10, c.max_retry, 200);
    auto sender = rig.sender;
    auto failures = std::make_shared<std::atomic<int>>(0);
    rig.listener->setOnSendResult([sender, failures, c](bool ok, const SentResults&) {
      if (!ok && ++*failures == c.failures) sender->fail_sends = false;
    });
    sender->fail_sends = true;
    rig.qos->push(wire("a", "payload"));
    rig.qos->flush();
    ASSERT_TRUE(waitUntil([&] {
      return rig.listener->resultsFor("a", true) > 0 || log->countContaining("drop!") > 0;
    }));
    // A later round must not touch "a" again.
    sender->fail_sends = false;
    rig.qos->push(wire("barrier", "b", "reply"));
    ASSERT_EQ(framesWith(sender->frames(), "barrier"), 1u);

    EXPECT_EQ(framesWith(sender->attempts(), "a"), c.want_attempts);
    EXPECT_EQ(framesWith(sender->frames(), "a"), c.want_delivered ? 1u : 0u);
    EXPECT_EQ(rig.listener->resultsFor("a", true), c.want_delivered ? 1u : 0u);
    EXPECT_EQ(rig.listener->resultsFor("a", false),
              c.want_delivered ? static_cast<size_t>(c.failures) : c.want_attempts);
    EXPECT_EQ(log->countContaining("drop! will not try any more!"), c.want_delivered ? 0u : 1u);
  }
}

TEST(SyncQosTest, NackResendsExactlyTheNamedFragmentUntilTheRecordIsAcked) {
  test::ScopedLogCapture log;
  Rig rig(0, 10, 5, 1);  // no thread: every send completes inside the call
  rig.qos->push(wire("big", noise(3000), "delta", 4));
  const auto fragments = rig.sender->frames();
  ASSERT_EQ(fragments.size(), 3u);

  rig.qos->onNack("big", 4, 3, 1);
  ASSERT_EQ(rig.sender->frames().size(), 4u);
  EXPECT_EQ(rig.sender->frames()[3], fragments[1]);
  EXPECT_TRUE(
      log->has("onNack, ok! id: big, index: 4, frag_total: 3, frag_index: 1, failed "
               "queue size: 1"));

  // Misses change nothing.
  rig.qos->onNack("big", 5, 3, 1);
  rig.qos->onNack("big", 4, 3, 3);
  rig.qos->onAck("ghost", 4);
  EXPECT_TRUE(
      log->has("id: big, index: 5, frag_total: 3, frag_index: 1, sync_info index not found"));
  EXPECT_TRUE(log->has("id: big, index: 4, frag_total: 3, frag_index: 3, fragment not found"));
  EXPECT_EQ(log->countContaining("onAck ok"), 0u);
  rig.qos->onNack("big", 4, 3, 0);
  ASSERT_EQ(rig.sender->frames().size(), 5u);
  EXPECT_EQ(rig.sender->frames()[4], fragments[0]);

  rig.qos->onAck("big", 4);
  EXPECT_TRUE(log->has("onAck ok, id: big, index: 4, fragment_map_ size: 0"));
  rig.qos->onNack("big", 4, 3, 1);
  EXPECT_TRUE(log->has("id: big, index: 4, frag_total: 3, frag_index: 1, sync_info id not found"));
  EXPECT_EQ(rig.sender->frames().size(), 5u);
}

// Rounds are driven by pushing a small record on a thread-less SyncQos: the
// round (and any upload it starts) is over when push returns.
struct UploadRig {
  test::ManualClock clock{1000000};
  std::shared_ptr<FakeUploader> uploader;
  std::unique_ptr<Rig> rig;
  int ticks = 0;

  UploadRig(std::function<FakeUploader::Answer(size_t)> script, int32_t max_retry) {
    uploader = std::make_shared<FakeUploader>(std::move(script), clock.fn());
    rig = std::make_unique<Rig>(0, 10, max_retry, 1, true, clock.fn(), uploader);
  }
  ~UploadRig() { rig.reset(); }

  void tick() { rig->qos->push(wire("tick" + std::to_string(ticks++), "t")); }
  // Waits until every upload started so far has been answered.
  bool settle() const {
    return waitUntil([&] { return uploader->answered() == uploader->callCount(); });
  }
};

TEST(SyncQosTest, FailedUploadsBackOffDoublingUpToTheCapThenAreDropped) {
  test::ScopedLogCapture log;
  UploadRig up([](size_t) { return FakeUploader::Answer::Fail; }, 8);
  idl::SyncInfo big = wire("big", noise(4000), "reply", 3);
  big.compression = "gzip";
  const std::string original = big.content;
  up.rig->qos->push(big);
  ASSERT_EQ(up.uploader->callCount(), 1u);
  ASSERT_TRUE(up.settle());

  // The uploader gets the Base64 of the gzip bytes, named in `extra`.
  const SyncInfo sent = up.uploader->calls()[0].info;
  EXPECT_EQ(sent.id, "big");
  EXPECT_EQ(sent.index, 3);
  EXPECT_EQ(sent.type, SyncInfoType::Reply);
  EXPECT_EQ(sent.extra, std::optional<std::string>("gzip"));
  std::string bytes = utils::base64Decode(sent.content);
  ASSERT_GT(utils::decompressEx(bytes), 0);
  EXPECT_EQ(bytes, original);

  up.tick();  // a fresh failure is retried on the next round
  ASSERT_EQ(up.uploader->callCount(), 2u);
  ASSERT_TRUE(up.settle());

  const std::vector<int64_t> gaps = {1000, 2000, 4000, 8000, 16000, 30000, 30000};
  for (const int64_t gap : gaps) {
    SCOPED_TRACE("gap " + std::to_string(gap));
    const size_t calls = up.uploader->callCount();
    const int64_t last = up.uploader->calls().back().at_ms;
    up.clock.set(last + gap - 1);
    up.tick();
    EXPECT_EQ(up.uploader->callCount(), calls);
    up.clock.set(last + gap);
    up.tick();
    ASSERT_EQ(up.uploader->callCount(), calls + 1);
    ASSERT_TRUE(up.settle());
  }
  // The eighth retry failed: the record is given up, and the host is told.
  EXPECT_EQ(log->countContaining("Upload retry count: 8 reach failed_max_retry_count_: 8, drop!"),
            1u);
  EXPECT_EQ(up.rig->listener->resultsFor("big", false), 1u);
  up.clock.set(up.clock.now() + 3600000);
  up.tick();
  EXPECT_EQ(up.uploader->callCount(), 9u);
  EXPECT_EQ(framesWith(up.rig->sender->frames(), "big"), 0u);
}

TEST(SyncQosTest, UploadOutcomesSendOnceCancelQuietlyAndDropStaleRetries) {
  using Answer = FakeUploader::Answer;
  {
    SCOPED_TRACE("success after a failure");
    test::ScopedLogCapture log;
    UploadRig up([](size_t n) { return n == 0 ? Answer::Fail : Answer::Succeed; }, 5);
    idl::SyncInfo big = wire("big", noise(4000), "delta", 9);
    big.compression = "gzip";
    up.rig->qos->push(big);
    ASSERT_TRUE(up.settle());
    up.tick();
    ASSERT_TRUE(up.settle());
    ASSERT_EQ(up.uploader->callCount(), 2u);

    const auto frames = up.rig->sender->frames();
    ASSERT_EQ(framesWith(frames, "big"), 1u);
    const json sent = recordWithId(frames, "big");
    EXPECT_EQ(sent.at("content"), "https://files.test/big");
    EXPECT_EQ(sent.at("content_type"), "uri");
    EXPECT_EQ(sent.at("compression"), "gzip");  // kept, though an address is never compressed
    EXPECT_EQ(sent.at("index"), 9);
    EXPECT_EQ(up.rig->listener->resultsFor("big", true), 1u);

    // A late failure of the first attempt leaves a stale entry that is dropped.
    up.uploader->calls()[0].callback->onUploadFailed(500, "late");
    up.clock.set(up.clock.now() + 3600000);
    up.tick();
    EXPECT_EQ(log->countContaining("tryReSend skip stale upload retry, content is already uri, "
                                   "id: big, index: 9"),
              1u);
    // A second success of the same record does not send it again.
    up.uploader->calls()[0].callback->onUploadSuccess(200, "dup", "https://files.test/other");
    up.tick();
    EXPECT_EQ(up.uploader->callCount(), 2u);
    EXPECT_EQ(framesWith(up.rig->sender->frames(), "big"), 1u);
  }
  {
    SCOPED_TRACE("cancel, first and on a retry");
    test::ScopedLogCapture log;
    UploadRig up([](size_t n) { return n == 1 ? Answer::Fail : Answer::Cancel; }, 5);
    up.rig->qos->push(wire("first", noise(2000)));
    ASSERT_TRUE(up.settle());
    up.rig->qos->push(wire("second", noise(2000, 9)));
    ASSERT_TRUE(up.settle());
    up.tick();  // retries "second", which is canceled this time
    ASSERT_TRUE(up.settle());
    ASSERT_EQ(up.uploader->callCount(), 3u);
    for (int i = 0; i < 3; ++i) {
      up.clock.set(up.clock.now() + 3600000);
      up.tick();
    }
    EXPECT_EQ(up.uploader->callCount(), 3u);
    EXPECT_EQ(framesWith(up.rig->sender->frames(), "first"), 0u);
    EXPECT_EQ(framesWith(up.rig->sender->frames(), "second"), 0u);
    EXPECT_EQ(log->countContaining("FileUploadCallback::onUploadCanceled upload file canceled"),
              2u);
  }
  {
    SCOPED_TRACE("an unanswered retry is repeated after the in-flight deadline");
    UploadRig up([](size_t n) { return n == 0 ? Answer::Fail : Answer::Hold; }, 5);
    up.rig->qos->push(wire("held", noise(2000)));
    ASSERT_TRUE(up.settle());
    up.tick();
    ASSERT_EQ(up.uploader->callCount(), 2u);
    const int64_t started = up.uploader->calls()[1].at_ms;
    up.clock.set(started + SyncQos::kUploadInFlightTimeoutMs - 1);
    up.tick();
    EXPECT_EQ(up.uploader->callCount(), 2u);
    up.clock.set(started + SyncQos::kUploadInFlightTimeoutMs);
    up.tick();
    EXPECT_EQ(up.uploader->callCount(), 3u);
  }
}

}  // namespace
}  // namespace orvi
