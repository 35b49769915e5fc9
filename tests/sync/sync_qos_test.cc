// Upload of oversized records and the limits on what a SyncQos keeps, on a
// SyncQos without a sender thread and with a settable clock: each push runs
// a round, and starts any upload or drop that is due, before it returns.
// Batching and resends are driven through the channel (sync_channel_test.cc).
#include "orvi/sync/sync_qos.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/recording_log_handler.h"
#include "support/recording_sender.h"
#include "support/sync_fakes.h"

namespace orvi {
namespace {

idl::SyncInfo wire(const std::string& id, std::string content, const std::string& type = "base",
                   int64_t index = 1, std::optional<std::string> compression = std::nullopt) {
  return {id, std::move(content), {}, type, index, std::move(compression), {}, {}};
}

struct UploadRig {
  int64_t now = 1000000;
  std::shared_ptr<test::RecordingSender> sender = std::make_shared<test::RecordingSender>();
  std::shared_ptr<test::RecordingSyncListener> listener =
      std::make_shared<test::RecordingSyncListener>();
  std::shared_ptr<test::FakeUploader> uploader = std::make_shared<test::FakeUploader>();
  std::shared_ptr<Transport> transport = std::make_shared<Transport>();
  std::shared_ptr<SyncQos> qos;
  int ticks = 0;

  explicit UploadRig(int32_t max_retry, bool upload = true, SyncQos::Limits limits = {})
      : qos(std::make_shared<SyncQos>(
            0, 10, max_retry, 1, upload, [this] { return now; }, limits)) {
    transport->setSender(sender);
    qos->setListener(listener);
    qos->setFileUploader(uploader);
    qos->connect(transport);
  }
  void tick() { qos->push(wire("tick" + std::to_string(ticks++), "t")); }
  size_t calls() const { return uploader->calls.size(); }
  FileUploadStatusCallback& last() const { return *uploader->calls.back().second; }
};

TEST(SyncQosTest, FailedUploadsBackOffDoublingUpToTheCapThenAreDropped) {
  test::ScopedLogCapture log;
  UploadRig up(8);
  up.qos->push(wire("big", test::mixedUtf8(3000), "reply", 3, "gzip"));

  // The uploader gets the content as compressed at push, named in `extra`.
  EXPECT_EQ(up.uploader->calls.at(0).first.extra, std::optional<std::string>("gzip"));

  up.last().onUploadFailed(503, "unavailable");
  up.tick();  // a fresh failure is retried on the next round
  ASSERT_EQ(up.calls(), 2u);
  for (const int64_t gap : {1000, 2000, 4000, 8000, 16000, 30000, 30000}) {
    const size_t calls = up.calls();
    up.last().onUploadFailed(503, "unavailable");
    const int64_t failed_at = up.now;
    up.now = failed_at + gap - 1;
    up.tick();
    EXPECT_EQ(up.calls(), calls) << gap;
    up.now = failed_at + gap;
    up.tick();
    ASSERT_EQ(up.calls(), calls + 1) << gap;
  }
  // The eighth retry fails too: the record is given up, and the host is told.
  up.last().onUploadFailed(503, "unavailable");
  EXPECT_EQ(log->countContaining("Upload retry count: 8 reach failed_max_retry_count_: 8, drop!"),
            1u);
  EXPECT_EQ(up.listener->count("failed big[3]"), 1u);
  up.now += 3600000;
  up.tick();
  EXPECT_EQ(up.calls(), 9u);
}

TEST(SyncQosTest, AnUploadedRecordIsSentOnceAsAnAddressAndACanceledOneNever) {
  test::ScopedLogCapture log;
  UploadRig up(5);
  up.qos->push(wire("big", test::mixedUtf8(3000), "delta", 9, "gzip"));
  const auto first = up.uploader->calls.back().second;
  first->onUploadFailed(503, "unavailable");
  up.tick();
  up.last().onUploadSuccess(200, "ok", "https://files.test/big");
  EXPECT_EQ(up.sender->frames().back(),
            R"({"version":0,"sync_infos":[{"id":"big","content":"https://files.test/big",)"
            R"("content_type":"uri","type":"delta","index":9,"compression":"gzip"}]})");
  EXPECT_EQ(up.listener->count("sent big[9]"), 1u);

  // A late failure of the first attempt leaves a stale entry, dropped on the
  // next round; a second success does not send the record again.
  first->onUploadFailed(500, "late");
  up.now += 3600000;
  up.tick();
  EXPECT_EQ(log->countContaining("tryReSend skip stale upload retry"), 1u);
  first->onUploadSuccess(200, "again", "https://files.test/other");

  // Canceled on the first attempt, and on a retry.
  up.qos->push(wire("first", test::mixedUtf8(1000)));
  up.last().onUploadCanceled();
  up.qos->push(wire("second", test::mixedUtf8(1000)));
  up.last().onUploadFailed(503, "unavailable");
  up.tick();
  up.last().onUploadCanceled();
  ASSERT_EQ(up.calls(), 5u);
  for (int i = 0; i < 3; ++i) {
    up.now += 3600000;
    up.tick();
  }
  EXPECT_EQ(up.calls(), 5u);
  // Every tick went out alone; besides them only the address of "big".
  EXPECT_EQ(up.sender->frames().size(), static_cast<size_t>(up.ticks) + 1);
  // A cancel is the record's end, and the host hears it once.
  EXPECT_EQ(up.listener->count("failed first[1]"), 1u);
  EXPECT_EQ(up.listener->count("failed second[1]"), 1u);
}

TEST(SyncQosTest, UploadsNeverAnsweredAreRetriedThenGivenUpAndReportedOnce) {
  test::ScopedLogCapture log;
  UploadRig up(1);
  up.qos->push(wire("big", test::mixedUtf8(3000), "base", 3));
  const int64_t started = up.now;
  up.now = started + SyncQos::kUploadInFlightTimeoutMs - 1;
  up.tick();
  EXPECT_EQ(up.calls(), 1u);  // the first attempt is still out
  up.now = started + SyncQos::kUploadInFlightTimeoutMs;
  up.tick();
  ASSERT_EQ(up.calls(), 2u);  // unanswered: retried
  // The one retry is used up: the next round gives the record up, without
  // waiting for the attempt that is still out.
  up.now += 1;
  up.tick();
  EXPECT_EQ(log->countContaining("Upload retry count: 1 reach failed_max_retry_count_: 1, drop!"),
            1u);
  EXPECT_EQ(up.listener->count("failed big[3]"), 1u);
  // Late answers change nothing: the host was told already.
  up.uploader->calls[1].second->onUploadSuccess(200, "late", "https://files.test/big");
  up.uploader->calls[0].second->onUploadFailed(500, "late");
  EXPECT_EQ(log->countContaining("upload success ignored, record already given up"), 1u);
  EXPECT_EQ(up.sender->frames().size(), static_cast<size_t>(up.ticks));
  EXPECT_EQ(up.listener->count("failed big[3]"), 1u);

  // An uploader that throws counts as a failure; a channel dropped while an
  // upload is out reports the record once.
  struct Throwing : IFileUploader {
    void upload(const SyncInfo&, std::shared_ptr<FileUploadStatusCallback>) override {
      throw std::runtime_error("disk full");
    }
  };
  UploadRig thrown(0);
  thrown.qos->setFileUploader(std::make_shared<Throwing>());
  thrown.qos->push(wire("t", test::mixedUtf8(3000)));
  EXPECT_EQ(thrown.listener->count("failed t[1]"), 1u);
  UploadRig dropped(5);
  dropped.qos->push(wire("d", test::mixedUtf8(3000)));
  dropped.qos.reset();
  EXPECT_EQ(dropped.listener->events(), std::vector<std::string>{"failed d[1]"});
}

TEST(SyncQosTest, WhatIsKeptIsBoundedAndEveryDropIsReported) {
  test::ScopedLogCapture log;
  SyncQos::Limits limits;
  limits.max_unacked_records = 2;
  limits.max_unacked_age_ms = 1000;
  UploadRig up(5, false, limits);
  for (int i = 0; i < 3; ++i) up.qos->push(wire("r" + std::to_string(i), test::mixedUtf8(2000)));
  // The third record's fragments push the first one's out.
  EXPECT_EQ(up.listener->count("failed r0[1]"), 1u);
  up.qos->onNack("r0", 1, 2, 0);
  EXPECT_EQ(log->countContaining("id: r0, index: 1, frag_total: 2, frag_index: 0, sync_info id"),
            1u);
  up.now += 999;
  up.tick();
  EXPECT_EQ(up.listener->count("failed r1[1]"), 0u);
  up.now += 1;
  up.tick();  // expired
  EXPECT_EQ(up.listener->count("failed r1[1]"), 1u);
  EXPECT_EQ(up.listener->count("failed r2[1]"), 1u);
  EXPECT_EQ(log->countContaining("SyncQos dropped the fragments of an unacknowledged record"), 3u);

  // The queue refuses what would take it over its cap, and says so.
  limits.max_queued_bytes = 2 * (500 + 300);
  auto listener = std::make_shared<test::RecordingSyncListener>();
  auto held = std::make_shared<SyncQos>(600000, 100, 5, 200, false, nullptr, limits);
  held->setListener(listener);  // never connected: records stay queued
  for (const char* id : {"a", "b", "c"}) held->push(wire(id, std::string(500, 'q')));
  EXPECT_EQ(log->countContaining("SyncQos push refused, queue full: 1600 bytes held, cap 1600"),
            1u);
  EXPECT_EQ(listener->events(), std::vector<std::string>{"failed c[1]"});
  held.reset();
  EXPECT_EQ(listener->events(), (std::vector<std::string>{"failed c[1]", "failed a[1] b[1]"}));
}

}  // namespace
}  // namespace orvi
