#include "orvi/sync/sync_qos.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <tuple>
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
using Answer = FakeUploader::Answer;

constexpr int32_t kLongInterval = 600000;  // the sender never wakes by itself in a test

idl::SyncInfo wire(const std::string& id, std::string content, const std::string& type = "base",
                   int64_t index = 1) {
  return {id, std::move(content), {}, type, index, {}, {}, {}};
}

// Text that gzip barely shrinks, so that it stays oversized once compressed.
std::string noise(size_t size) {
  std::mt19937 rng(7);
  std::string out(size, ' ');
  for (auto& c : out) c = static_cast<char>('!' + rng() % 90);
  return out;
}

// Every record of every frame, as a list of ids per frame.
std::vector<std::vector<std::string>> idsPerFrame(const std::vector<std::string>& frames) {
  std::vector<std::vector<std::string>> out;
  for (const auto& frame : frames) {
    const json parsed = json::parse(frame);
    out.emplace_back();
    for (const auto& one : parsed.at("sync_infos")) out.back().push_back(one.at("id"));
  }
  return out;
}

size_t framesWith(const std::vector<std::string>& frames, const std::string& id) {
  const auto ids = idsPerFrame(frames);
  return static_cast<size_t>(std::count_if(ids.begin(), ids.end(), [&](const auto& f) {
    return std::find(f.begin(), f.end(), id) != f.end();
  }));
}

// A SyncQos wired as its channel wires it, over a recording sender.
struct Rig {
  std::shared_ptr<test::RecordingSender> sender = std::make_shared<test::RecordingSender>();
  std::shared_ptr<test::RecordingSyncListener> listener =
      std::make_shared<test::RecordingSyncListener>();
  std::shared_ptr<Transport> transport = std::make_shared<Transport>();
  std::shared_ptr<SyncQos> qos;

  Rig(int32_t interval, int32_t stash, int32_t retries, int32_t fragment_kb,
      std::shared_ptr<IFileUploader> uploader = nullptr, SyncQos::Clock clock = nullptr) {
    transport->setSender(sender);
    qos = std::make_shared<SyncQos>(interval, stash, retries, fragment_kb, uploader != nullptr,
                                    clock);
    qos->setListener(listener);
    if (uploader) qos->setFileUploader(uploader);
    qos->connect(transport);
  }
};

TEST(SyncQosTest, BatchesStayUnderTheBudgetInArrivalOrder) {
  // Budget 4 KiB - 100: records join while the sum of (content + 300) stays below it.
  struct Case {
    std::vector<size_t> sizes;
    std::vector<std::vector<std::string>> want;
    bool want_fragment;
  };
  for (const Case& c : std::vector<Case>{
           {std::vector<size_t>(7, 1000), {{"0", "1", "2"}, {"3", "4", "5"}, {"6"}}, false},
           {{1698, 1698}, {{"0"}, {"1"}}, false},  // the sum reaches the budget
           {{1697, 1698}, {{"0", "1"}}, false},
           {{3696}, {{"0"}}, true},  // oversized alone, though one fragment holds it
       }) {
    Rig rig(kLongInterval, 100, 5, 4);
    for (size_t i = 0; i < c.sizes.size(); ++i) {
      rig.qos->push(wire(std::to_string(i), std::string(c.sizes[i], 'x')));
    }
    rig.qos->flush();
    ASSERT_TRUE(waitUntil([&] { return rig.listener->events().size() == c.want.size(); }));
    const auto frames = rig.sender->frames();
    EXPECT_EQ(idsPerFrame(frames), c.want);
    EXPECT_EQ(json::parse(frames[0])["sync_infos"][0].contains("fragment"), c.want_fragment);
    for (const auto& frame : frames) EXPECT_LE(frame.size(), c.want_fragment ? 4096u : 3996u);
  }
}

TEST(SyncQosTest, RepliesAndThreadlessQueuesSendAtOnceAndTheStashWakesTheSender) {
  Rig threadless(0, 10, 5, 200);
  threadless.qos->push(wire("plain", "p"));
  EXPECT_EQ(threadless.sender->frames().size(), 1u);  // out before push returned

  Rig threaded(kLongInterval, 3, 5, 200);
  threaded.qos->push(wire("queued", "q"));
  threaded.qos->push(wire("answer", "a", "reply"));
  EXPECT_EQ(idsPerFrame(threaded.sender->frames()),
            (std::vector<std::vector<std::string>>{{"queued", "answer"}}));
  for (const char* id : {"s0", "s1", "s2"}) threaded.qos->push(wire(id, "s"));
  // Within the interval only the stash count can wake the sender.
  ASSERT_TRUE(waitUntil([&] { return threaded.sender->frames().size() == 2; }));
}

TEST(SyncQosTest, AFailingTransportGetsBoundedResendsThenTheRecordIsDropped) {
  struct Case {
    int32_t max_retry;
    int failures;  // sends refused before the sender recovers
    size_t want_attempts;
    bool want_delivered;
  };
  for (const Case& c :
       std::vector<Case>{{3, 1, 2, true}, {3, 3, 4, true}, {3, 4, 4, false}, {5, 100, 6, false}}) {
    SCOPED_TRACE(std::to_string(c.max_retry) + " retries, " + std::to_string(c.failures));
    test::ScopedLogCapture log;
    Rig rig(2, 10, c.max_retry, 200);
    auto sender = rig.sender;
    auto listener = rig.listener;
    // The hook is owned by the listener, so it must not own the listener.
    rig.listener->setSendResultHook([sender, listener = listener.get(), c] {
      if (listener->count("failed a[1]") == static_cast<size_t>(c.failures)) {
        sender->fail_sends = false;
      }
    });
    sender->fail_sends = true;
    rig.qos->push(wire("a", "payload"));
    // Delivered, or every attempt reported as failed (the drop comes first).
    ASSERT_TRUE(waitUntil([&] {
      return listener->count("sent a[1]") > 0 || listener->count("failed a[1]") == c.want_attempts;
    }));
    sender->fail_sends = false;
    rig.qos->push(wire("barrier", "b", "reply"));  // a round of its own: "a" stays settled

    EXPECT_EQ(framesWith(sender->attempts(), "a"), c.want_attempts);
    EXPECT_EQ(framesWith(sender->frames(), "a"), c.want_delivered ? 1u : 0u);
    EXPECT_EQ(listener->count("sent a[1]"), c.want_delivered ? 1u : 0u);
    EXPECT_EQ(listener->count("failed a[1]"), std::min<size_t>(c.failures, c.want_attempts));
    EXPECT_EQ(log->countContaining("drop! will not try any more!"), c.want_delivered ? 0u : 1u);
  }
}

// Uploads on a thread-less SyncQos with a settable clock: pushing a small
// record runs a round, and any upload it starts, before push returns.
struct UploadRig {
  std::atomic<int64_t> now{1000000};
  std::shared_ptr<FakeUploader> uploader;
  std::unique_ptr<Rig> rig;
  int ticks = 0;

  UploadRig(std::function<Answer(size_t)> script, int32_t max_retry)
      : uploader(std::make_shared<FakeUploader>(std::move(script), now)),
        rig(std::make_unique<Rig>(0, 10, max_retry, 1, uploader, [this] { return now.load(); })) {}
  ~UploadRig() { rig.reset(); }

  void push(idl::SyncInfo record) {
    rig->qos->push(std::move(record));
    ASSERT_TRUE(waitUntil([&] { return uploader->settled(); }));
  }
  void tick() { push(wire("tick" + std::to_string(ticks++), "t")); }
};

TEST(SyncQosTest, FailedUploadsBackOffDoublingUpToTheCapThenAreDropped) {
  test::ScopedLogCapture log;
  UploadRig up([](size_t) { return Answer::Fail; }, 8);
  idl::SyncInfo big = wire("big", noise(4000), "reply", 3);
  big.compression = "gzip";
  up.push(big);

  // The uploader gets the Base64 of the gzip bytes, named in `extra`.
  const SyncInfo sent = up.uploader->calls().at(0).info;
  EXPECT_EQ(std::make_tuple(sent.id, sent.index, sent.type, sent.extra),
            std::make_tuple(std::string("big"), int64_t{3}, SyncInfoType::Reply,
                            std::optional<std::string>("gzip")));
  std::string bytes = utils::base64Decode(sent.content);
  ASSERT_GT(utils::decompressEx(bytes), 0);
  EXPECT_EQ(bytes, big.content);

  up.tick();  // a fresh failure is retried on the next round
  for (const int64_t gap : {1000, 2000, 4000, 8000, 16000, 30000, 30000}) {
    const size_t calls = up.uploader->calls().size();
    const int64_t last = up.uploader->calls().back().at_ms;
    up.now = last + gap - 1;
    up.tick();
    EXPECT_EQ(up.uploader->calls().size(), calls) << gap;
    up.now = last + gap;
    up.tick();
    ASSERT_EQ(up.uploader->calls().size(), calls + 1) << gap;
  }
  // The eighth retry failed: the record is given up, and the host is told.
  EXPECT_EQ(log->countContaining("Upload retry count: 8 reach failed_max_retry_count_: 8, drop!"),
            1u);
  EXPECT_EQ(up.rig->listener->count("failed big[3]"), 1u);
  up.now += 3600000;
  up.tick();
  EXPECT_EQ(up.uploader->calls().size(), 9u);
}

TEST(SyncQosTest, AnUploadedRecordIsSentOnceAndACanceledOneNever) {
  {
    test::ScopedLogCapture log;
    UploadRig up([](size_t n) { return n == 0 ? Answer::Fail : Answer::Succeed; }, 5);
    idl::SyncInfo big = wire("big", noise(4000), "delta", 9);
    big.compression = "gzip";
    up.push(big);
    up.tick();  // the retry succeeds and the record goes out with the address
    ASSERT_EQ(framesWith(up.rig->sender->frames(), "big"), 1u);
    const auto frames = up.rig->sender->frames();
    EXPECT_TRUE(std::any_of(frames.begin(), frames.end(), [](const std::string& f) {
      return f.find(R"({"id":"big","content":"https://files.test/big","content_type":"uri",)"
                    R"("type":"delta","index":9,"compression":"gzip"})") != std::string::npos;
    }));
    EXPECT_EQ(up.rig->listener->results("sent", "big[9]"), 1u);

    // A late failure of the first attempt leaves a stale entry, dropped on
    // the next round; a second success does not send the record again.
    up.uploader->calls()[0].callback->onUploadFailed(500, "late");
    up.now += 3600000;
    up.tick();
    EXPECT_EQ(log->countContaining("tryReSend skip stale upload retry"), 1u);
    up.uploader->calls()[0].callback->onUploadSuccess(200, "again", "https://files.test/other");
    up.tick();
    EXPECT_EQ(up.uploader->calls().size(), 2u);
    EXPECT_EQ(framesWith(up.rig->sender->frames(), "big"), 1u);
  }
  {
    // Canceled on the first attempt, and on a retry.
    UploadRig up([](size_t n) { return n == 1 ? Answer::Fail : Answer::Cancel; }, 5);
    up.push(wire("first", noise(2000)));
    up.push(wire("second", noise(2000)));
    up.tick();
    ASSERT_EQ(up.uploader->calls().size(), 3u);
    for (int i = 0; i < 3; ++i) {
      up.now += 3600000;
      up.tick();
    }
    EXPECT_EQ(up.uploader->calls().size(), 3u);
    EXPECT_EQ(framesWith(up.rig->sender->frames(), "first") +
                  framesWith(up.rig->sender->frames(), "second"),
              0u);
    EXPECT_EQ(up.rig->listener->count("failed first[1]"), 0u);
  }
}

}  // namespace
}  // namespace orvi
