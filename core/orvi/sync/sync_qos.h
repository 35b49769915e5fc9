// SyncQos is the delivery engine behind one sync channel: it queues wire
// records, sends them in size-bounded batches from a periodic sender thread
// (or at once when no thread is configured), keeps failed messages for a
// bounded number of resends, keeps the fragments of oversize records until
// the server acknowledges them, and drives uploads of oversize content
// through the host's IFileUploader.
//
// Ownership: held by std::shared_ptr (its channel, and for the length of one
// call the sender thread and upload callbacks). The transport and the
// listener are held weakly; the uploader strongly.
//
// Threading: every public operation may be called from any thread. Locks:
// `queue_mutex_` (send queue and the sender's wake-up), `failed_mutex_`
// (failed queue and the upload records it shares), `fragment_mutex_`
// (fragment map) and `links_mutex_` (the three host pointers). The code takes
// one at a time, with one exception: the resend walk (tryReSend) calls the
// host's sendMessage while holding `failed_mutex_`, so that resends keep
// their order, and a sender that answers on the same thread (a nack pushed
// back into the channel) takes the others under it. Nothing takes
// `failed_mutex_` while holding another lock, so there is no cycle; it is
// recursive for that re-entry. Listener and uploader calls are made with no
// lock held.
//
// The sender thread holds only a weak reference between rounds. The
// destructor stops it: joined from any other thread, detached when the last
// reference is dropped on the sender thread itself. Records still queued at
// that point, and records waiting for an upload retry, are dropped and
// reported to the listener as not sent; failed frames (already reported)
// and stored fragments are dropped.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "orvi/sync/sync_message_processor.h"
#include "orvi/sync_channel.h"
#include "orvi/transport/transport.h"
#include "orvi/utils/ref_contained.h"

namespace orvi {

class SyncQos : public RefContained {
 public:
  // Milliseconds of a steady clock; replaceable so that upload back-off can
  // be tested without waiting for it.
  using Clock = std::function<int64_t()>;
  static int64_t steadyNowMs();

  // An upload that was started stays "in flight" this long; past it the
  // retry goes ahead even though the uploader never answered.
  static constexpr int64_t kUploadInFlightTimeoutMs = 20000;
  static constexpr int64_t kUploadBackoffCapMs = 30000;

  SyncQos(int32_t send_interval_ms, int32_t max_stash_count, int32_t failed_max_retry_count,
          int32_t fragment_size_kb, bool enable_file_upload, Clock clock = &SyncQos::steadyNowMs);
  ~SyncQos() override;

  SyncQos(const SyncQos&) = delete;
  SyncQos& operator=(const SyncQos&) = delete;

  // Keeps the transport weakly and starts the sender thread (interval >= 1).
  void connect(const std::shared_ptr<Transport>& transport);
  void setListener(const std::shared_ptr<SyncChannelListener>& listener);
  void setFileUploader(const std::shared_ptr<IFileUploader>& uploader);

  // Compresses the record and queues it. A "reply" record, or any record
  // when there is no sender thread, is sent at once on the caller's thread.
  void push(idl::SyncInfo record);
  // Wakes the sender thread for a round now. Nothing without a thread.
  void flush();

  // The server has the record: its stored fragments are released.
  void onAck(const std::string& id, int64_t index);
  // The server lost one fragment: it alone is sent again.
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
  struct FailedEntry {
    enum class Kind { SendFailure, UploadFailure };
    Kind kind = Kind::SendFailure;
    SentResults results;
    std::string message;  // send failures only
    int32_t retry_count = 0;
    std::shared_ptr<idl::SyncInfo> record;  // upload failures only
    bool in_flight = false;
    int64_t in_flight_deadline_ms = 0;
    int64_t next_retry_ms = 0;
  };

  struct Batch {
    std::vector<idl::SyncInfo> records;
    bool oversized = false;
  };

  // The fragments of one record, kept until the server acknowledges it.
  struct FragmentSet {
    int32_t total = 0;
    std::map<int32_t, SyncMessage> fragments;
  };

  struct Outcome {
    bool success;
    SentResults results;
  };

  static void senderLoop(std::weak_ptr<SyncQos> weak, SyncQos* self);
  // Blocks until a round is due; false once the stop flag is set.
  bool waitForRound(const std::weak_ptr<SyncQos>& weak);

  // One send round: resends, then the whole send queue, batch by batch.
  void sendImpl();
  Batch takeToSend();
  void sendOversized(idl::SyncInfo record, Transport& transport, SyncChannelListener& listener);
  void sendInner(const SyncMessage& message, Transport& transport, SyncChannelListener& listener);
  void tryReSend(Transport& transport, SyncChannelListener& listener);
  // Resends one failed message; true while the entry stays queued.
  bool resendEntry(FailedEntry& entry, Transport& transport, std::vector<Outcome>& outcomes);
  // Decides an upload retry; true while the entry stays queued.
  bool scheduleUploadRetry(FailedEntry& entry, int64_t now,
                           std::vector<std::shared_ptr<idl::SyncInfo>>& due,
                           std::vector<Outcome>& outcomes);
  // Removes the upload entries of the record (caller holds failed_mutex_).
  void eraseUploadEntries(const idl::SyncInfo& record);

  std::shared_ptr<Transport> transport() const;
  std::shared_ptr<SyncChannelListener> listener() const;
  std::shared_ptr<IFileUploader> uploader() const;
  void notify(const std::vector<Outcome>& outcomes);
  static void notify(SyncChannelListener& listener, bool success, const SentResults& results);
  static bool sendText(Transport& transport, const std::string& text);

  const int32_t send_interval_ms_;
  const int32_t max_stash_count_;
  const int32_t failed_max_retry_count_;
  const int32_t fragment_size_kb_;
  const bool enable_file_upload_;
  const Clock clock_;

  std::mutex queue_mutex_;
  std::condition_variable queue_cv_;  // sender wake-up; with queue_mutex_
  std::vector<idl::SyncInfo> queue_;  // guarded by queue_mutex_
  std::thread thread_;                // guarded by queue_mutex_ while starting
  bool started_ = false;              // guarded by queue_mutex_
  std::atomic<bool> stop_{false};
  std::atomic<bool> wake_{false};

  mutable std::mutex links_mutex_;
  std::weak_ptr<Transport> transport_;           // guarded by links_mutex_
  std::weak_ptr<SyncChannelListener> listener_;  // guarded by links_mutex_
  std::shared_ptr<IFileUploader> uploader_;      // guarded by links_mutex_

  std::recursive_mutex failed_mutex_;
  std::vector<FailedEntry> failed_queue_;  // guarded by failed_mutex_, with the content of
                                           // the records its upload entries share
  bool resending_ = false;                 // guarded by failed_mutex_

  std::mutex fragment_mutex_;
  // id -> record index -> fragments; guarded by fragment_mutex_
  std::unordered_map<std::string, std::map<int64_t, FragmentSet>> fragment_map_;
};

}  // namespace orvi
