// SyncQos is the delivery engine behind one sync channel: it queues wire
// records, sends them in size-bounded batches from a periodic sender thread
// (or at once when no thread is configured), keeps refused frames for a
// bounded number of resends, keeps the fragments of oversize records until
// the server acknowledges them, and drives uploads of oversize content
// through the host's IFileUploader. Every record it takes is reported to
// the listener: sent, not sent (refused, given up) or dropped.
//
// Ownership: held by std::shared_ptr (its channel, and for the length of one
// call the sender thread and upload callbacks). The transport and the
// listener are held weakly; the uploader strongly.
//
// Threading: every public operation may be called from any thread. One
// mutex guards all state and is held for bookkeeping only, never while the
// host's sender, listener, uploader or log handler runs. Send rounds never
// overlap: a round asked for while another runs is done by that one, once
// more, after it. So frames leave in queue order, and a frame the host's
// sender refuses stays at the head: later frames wait until it has gone
// out or been given up after its retries.
//
// The sender thread sleeps while nothing can move: with no transport or no
// listener it wakes only for flush; with a refused frame at the head, once
// per interval; with nothing queued, not at all until a record arrives or
// an upload retry or a fragment expiry falls due. Compression runs in the
// send round (on the sender thread when there is one).
//
// The sender thread holds only a weak reference between rounds. The
// destructor stops it: joined from any other thread, detached when the last
// reference is dropped on the sender thread itself. Records still queued,
// frames never offered and uploads not finished are reported to the
// listener as not sent; refused frames (already reported) and kept
// fragments (reported sent) are dropped.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "orvi/sync/sync_fragment_store.h"
#include "orvi/sync/sync_gzip_encoder.h"
#include "orvi/sync/sync_message_processor.h"
#include "orvi/sync/sync_send_queue.h"
#include "orvi/sync_channel.h"
#include "orvi/transport/transport.h"
#include "orvi/utils/ref_contained.h"

namespace orvi {

// How much one channel holds at most (documented in docs/sync.md).
struct SyncQosLimits {
  // Records waiting to be sent: content bytes plus 300 per record.
  int64_t max_queued_bytes = int64_t{256} << 20;
  // Sent records whose fragments are kept for nacks.
  size_t max_unacked_records = 1024;
  size_t max_unacked_bytes = size_t{64} << 20;
  int64_t max_unacked_age_ms = 5 * 60 * 1000;
};

class SyncQos : public RefContained {
 public:
  // Milliseconds of a steady clock; replaceable so that back-off and
  // expiry can be tested without waiting for them.
  using Clock = std::function<int64_t()>;

  // An upload that was started stays "in flight" this long; past it the
  // retry goes ahead even though the uploader never answered.
  static constexpr int64_t kUploadInFlightTimeoutMs = 20000;
  static constexpr int64_t kUploadBackoffCapMs = 30000;

  using Limits = SyncQosLimits;

  SyncQos(int32_t send_interval_ms, int32_t max_stash_count, int32_t failed_max_retry_count,
          int32_t fragment_size_kb, bool enable_file_upload, Clock clock = nullptr,
          Limits limits = Limits());
  ~SyncQos() override;

  SyncQos(const SyncQos&) = delete;
  SyncQos& operator=(const SyncQos&) = delete;

  // Keeps the transport weakly and starts the sender thread (interval >= 1).
  void connect(const std::shared_ptr<Transport>& transport);
  void setListener(const std::shared_ptr<SyncChannelListener>& listener);
  void setFileUploader(const std::shared_ptr<IFileUploader>& uploader);
  // Ends the sender thread once: it is joined, so a round in progress
  // finishes first, unless this runs on the sender thread itself, which is
  // then detached. Called by the owning channel as it goes, so that what
  // the destructor reports is reported before the host's last release
  // returns; the destructor calls it too.
  void stopSender();

  // Checks and queues the record; a record that is not valid UTF-8, or that
  // would take the queue over its cap, is refused and reported at once. A
  // "reply" record, or any record when there is no sender thread, starts a
  // round on the caller's thread.
  void push(idl::SyncInfo record);
  // Wakes the sender thread for a round now. Nothing without a thread.
  void flush();

  // The server has the record: its kept fragments are released.
  void onAck(const std::string& id, int64_t index);
  // The server lost one fragment: it alone is sent again on the next round.
  void onNack(const std::string& id, int64_t index, int32_t frag_total, int32_t frag_index);

  // Upload side, driven by FileUploadCallback.
  void uploadInner(const std::shared_ptr<idl::SyncInfo>& record);
  void onUploadSucceeded(const std::shared_ptr<idl::SyncInfo>& record, const std::string& uri);
  void onUploadFailed(const std::shared_ptr<idl::SyncInfo>& record);
  void onUploadCanceled(const std::shared_ptr<idl::SyncInfo>& record);

  // Wait before the next upload retry once `retries` retries were made:
  // max(interval, 1000) ms doubled per retry after the first, capped.
  int64_t uploadBackoffMs(int32_t retries) const;

 private:
  // A frame waiting to be offered again: refused, nacked, or queued behind
  // a refused fragment of its record.
  struct FailedFrame {
    std::string text;                      // empty: rebuilt from `fragment`
    SyncFragmentStore::Fragment fragment;  // fragments only
    SentResults results;
    int32_t retry_count = 0;
    bool offered = true;  // false: never offered yet, so no retry is used up
  };

  // An oversize record handed to the uploader, from its first attempt until
  // it is sent as an address or given up.
  struct Upload {
    std::shared_ptr<idl::SyncInfo> record;
    int32_t retry_count = 0;
    bool in_flight = true;
    int64_t in_flight_deadline_ms = 0;
    int64_t next_retry_ms = 0;
  };

  // The host objects of one round.
  struct Links {
    Transport& transport;
    SyncChannelListener& listener;
  };

  static void senderLoop(std::weak_ptr<SyncQos> weak, SyncQos* self);
  // Blocks until a round is due; false once the stop flag is set.
  bool waitForRound(const std::weak_ptr<SyncQos>& weak);
  // When the sleeping sender must run a round without being woken; empty
  // while nothing can move. `tick` is the end of the current interval.
  std::optional<int64_t> nextRoundMs(int64_t tick) const;  // mutex_ held
  // The queue has reached max_stash_count and a round could send it.
  bool stashFull() const;  // mutex_ held

  // Runs a round here, or has the running one do another.
  void runRound();
  // One send round: resends, then the send queue, batch by batch, until it
  // is empty or a frame is refused.
  void sendImpl();
  // Compresses and checks queued records until a batch's worth is ready.
  void prepareBatch(int64_t budget);
  // False when a frame was refused (and stashed).
  bool sendOversized(idl::SyncInfo record, Links& links);
  // Sends one frame and reports it; a refused frame is stashed in the
  // failed queue, at its back or, for a frame that was waiting there, at
  // its front. False when refused.
  bool sendInner(const std::string& text, const SentResults& results,
                 const SyncFragmentStore::Fragment& fragment, Links& links,
                 bool stash_in_front = false);
  // Offers the failed frames again in order; false while one is kept.
  bool tryReSend(Links& links);
  // What one round does with the uploads: which to start again, which to
  // give up, which stale entries to drop (for the log).
  struct UploadPlan {
    std::vector<std::shared_ptr<idl::SyncInfo>> due;
    std::vector<std::shared_ptr<idl::SyncInfo>> exhausted;
    std::vector<int32_t> exhausted_retries;
    std::vector<std::shared_ptr<idl::SyncInfo>> stale;
  };
  UploadPlan scheduleUploads(int64_t now);  // mutex_ held
  // When the upload's next step falls due (0: at the next round).
  int64_t uploadDueMs(const Upload& upload) const;
  void startUpload(idl::SyncInfo record);
  // Removes the record's upload entry; false when there was none (the
  // record is settled already).
  bool eraseUpload(const idl::SyncInfo* record);  // mutex_ held
  void expireFragments();
  void reportDropped(const std::vector<SyncFragmentStore::Dropped>& dropped);
  // An error line and a report for a record whose `field` is not UTF-8.
  void refuseInvalid(const idl::SyncInfo& record, const char* field);

  std::shared_ptr<Transport> transport() const;
  std::shared_ptr<SyncChannelListener> listener() const;
  std::shared_ptr<IFileUploader> uploader() const;
  void notify(bool success, const SentResults& results);
  static void notify(SyncChannelListener& listener, bool success, const SentResults& results);
  static bool sendText(Transport& transport, const std::string& text);

  const int32_t send_interval_ms_;
  const int32_t max_stash_count_;
  const int32_t failed_max_retry_count_;
  const int32_t fragment_size_kb_;
  const bool enable_file_upload_;
  const Clock clock_;
  const int64_t batch_budget_;  // fragment_size_kb_ x 1024 - 100

  // Used by the running round only (see runRound).
  SyncGzipEncoder encoder_;

  mutable std::mutex mutex_;
  std::condition_variable cv_;  // the sender's wake-up; with mutex_
  // All below guarded by mutex_.
  std::thread thread_;
  bool started_ = false;
  bool stop_ = false;
  bool wake_ = false;           // flush asked for a round
  bool sender_idle_ = false;    // the sender sleeps with nothing to send
  bool round_running_ = false;  // a round runs on some thread
  bool round_again_ = false;    // ... and must run once more
  bool links_missing_ = false;  // the last round found no transport or listener
  bool head_refused_ = false;   // the last round ended on a refused frame
  std::weak_ptr<Transport> transport_;
  std::weak_ptr<SyncChannelListener> listener_;
  std::shared_ptr<IFileUploader> uploader_;
  SyncSendQueue queue_;
  std::deque<FailedFrame> failed_frames_;
  std::vector<Upload> uploads_;  // few: one per oversize record being uploaded
  // Records (shared with FileUploadCallback) change content and content
  // type under mutex_ too.
  SyncFragmentStore fragments_;
};

}  // namespace orvi
