#include "orvi/sync/sync_qos.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>

#include "orvi/sync/file_upload_callback.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

using Processor = SyncMessageProcessor;

constexpr int32_t kDefaultFragmentSizeKb = 200;
// Envelope and key overhead allowed for each record of a batch, and slack
// kept free under the budget.
constexpr int64_t kRecordOverheadBytes = 300;
constexpr int64_t kBudgetSlackBytes = 100;

SentResults resultsOfRecord(const idl::SyncInfo& record) {
  return SentResults({SentResult(record.id, {record.index})});
}

bool sameRecord(const idl::SyncInfo& a, const idl::SyncInfo& b) {
  return a.id == b.id && a.index == b.index;
}

long long ll(int64_t v) {
  return static_cast<long long>(v);
}

}  // namespace

int64_t SyncQos::steadyNowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

SyncQos::SyncQos(int32_t send_interval_ms, int32_t max_stash_count, int32_t failed_max_retry_count,
                 int32_t fragment_size_kb, bool enable_file_upload, Clock clock)
    : send_interval_ms_(send_interval_ms),
      // Below 1 the sender would find its wake-up condition always true and spin.
      max_stash_count_(std::max(max_stash_count, 1)),
      failed_max_retry_count_(failed_max_retry_count),
      // Below 1 no record fits a batch and fragment counts divide by zero.
      fragment_size_kb_(fragment_size_kb < 1 ? kDefaultFragmentSizeKb : fragment_size_kb),
      enable_file_upload_(enable_file_upload),
      clock_(clock ? std::move(clock) : Clock(&SyncQos::steadyNowMs)) {
  if (max_stash_count != max_stash_count_ || fragment_size_kb != fragment_size_kb_) {
    ORVI_LOGW("SyncQos adjusted options, max_stash_count: %d -> %d, fragment_size_kb: %d -> %d",
              max_stash_count, max_stash_count_, fragment_size_kb, fragment_size_kb_);
  }
  if (send_interval_ms_ >= 1) {
    ORVI_LOGI(
        "SyncQos constructed, will start sender thread on connect. send_interval_ms_: %d, "
        "max_stash_count_: %d, fragment_size_kb_: %d",
        send_interval_ms_, max_stash_count_, fragment_size_kb_);
  } else {
    ORVI_LOGI(
        "SyncQos constructed, no sender thread needed. send_interval_ms_: %d, max_stash_count_: "
        "%d, failed_max_retry_count_: %d, fragment_size_kb_: %d",
        send_interval_ms_, max_stash_count_, failed_max_retry_count_, fragment_size_kb_);
  }
}

SyncQos::~SyncQos() {
  bool started;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    started = started_;
  }
  if (send_interval_ms_ < 1 || !started) {
    ORVI_LOGI(
        "SyncQos sender thread not started or not needed; destructor skip thread join/detach");
  } else {
    stop_.exchange(true);
    // Taking the mutex orders the flag before the sender's next predicate check.
    { std::lock_guard<std::mutex> lock(queue_mutex_); }
    queue_cv_.notify_all();
    if (std::this_thread::get_id() == thread_.get_id()) {
      // The last reference went away inside a round on the sender thread:
      // joining would wait for ourselves. The loop notices the expired owner
      // and leaves without touching this object again.
      thread_.detach();
      ORVI_LOGW("SyncQos sender thread detached in its own context");
    } else {
      thread_.join();
      ORVI_LOGI("SyncQos sender thread joined");
    }
  }

  // Records that never left are dropped; the host hears about each of them.
  std::vector<idl::SyncInfo> unsent;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    unsent.swap(queue_);
  }
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    for (const auto& entry : failed_queue_) {
      if (entry.kind == FailedEntry::Kind::UploadFailure) unsent.push_back(*entry.record);
    }
  }
  auto listener = this->listener();
  if (!unsent.empty() && listener) {
    ORVI_LOGW("SyncQos destroyed with %zu records not sent, reporting them as failed",
              unsent.size());
    notify(*listener, false, Processor::resultsOf(unsent));
  }
}

void SyncQos::connect(const std::shared_ptr<Transport>& transport) {
  if (!transport) {
    ORVI_LOGE("SyncQos connect failed, transport is null");
    return;
  }
  {
    std::lock_guard<std::mutex> lock(links_mutex_);
    transport_ = transport;
  }
  ORVI_LOGI("SyncQos connected, transport: %p", static_cast<void*>(transport.get()));
  if (send_interval_ms_ < 1) return;

  bool started_now = false;
  try {
    std::weak_ptr<SyncQos> weak = weakFromThis(this);
    // The thread's first wait takes this mutex, so it sees thread_ assigned.
    std::lock_guard<std::mutex> lock(queue_mutex_);
    if (!started_) {
      thread_ = std::thread(&SyncQos::senderLoop, std::move(weak), this);
      started_ = started_now = true;
    }
  } catch (const std::bad_weak_ptr& e) {
    ORVI_LOGE("SyncQos failed to start sender thread in connect: bad_weak_ptr: %s", e.what());
  } catch (...) {
    ORVI_LOGE("SyncQos failed to start sender thread in connect: unknown exception");
  }
  if (started_now) {
    ORVI_LOGI("SyncQos sender thread started in connect, interval: %d ms", send_interval_ms_);
  }
}

void SyncQos::setListener(const std::shared_ptr<SyncChannelListener>& listener) {
  if (!listener) {
    ORVI_LOGE("SyncQos setListener failed, listener is null");
    return;
  }
  {
    std::lock_guard<std::mutex> lock(links_mutex_);
    listener_ = listener;
  }
  ORVI_LOGI("SyncQos setListener, listener: %p", static_cast<void*>(listener.get()));
}

void SyncQos::setFileUploader(const std::shared_ptr<IFileUploader>& uploader) {
  if (!uploader) {
    ORVI_LOGE("SyncQos setFileUploader failed, uploader is null");
    return;
  }
  {
    std::lock_guard<std::mutex> lock(links_mutex_);
    uploader_ = uploader;
  }
  ORVI_LOGI("SyncQos setFileUploader, uploader: %p", static_cast<void*>(uploader.get()));
}

std::shared_ptr<Transport> SyncQos::transport() const {
  std::lock_guard<std::mutex> lock(links_mutex_);
  return transport_.lock();
}

std::shared_ptr<SyncChannelListener> SyncQos::listener() const {
  std::lock_guard<std::mutex> lock(links_mutex_);
  return listener_.lock();
}

std::shared_ptr<IFileUploader> SyncQos::uploader() const {
  std::lock_guard<std::mutex> lock(links_mutex_);
  return uploader_;
}

// ---- queue and sender thread ----

void SyncQos::push(idl::SyncInfo record) {
  Processor::tryCompress(record);
  const bool reply = record.type == "reply";
  if (reply) {
    ORVI_LOGI("SyncQos push `reply`, send immediatly, index: %lld", ll(record.index));
  }
  bool wake;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    queue_.push_back(std::move(record));
    wake = queue_.size() >= static_cast<size_t>(max_stash_count_);
  }
  if (!reply && send_interval_ms_ >= 1) {
    if (wake) queue_cv_.notify_one();
    return;
  }
  sendImpl();
}

void SyncQos::flush() {
  if (send_interval_ms_ < 1) return;
  wake_ = true;
  size_t queued;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    queued = queue_.size();
  }
  queue_cv_.notify_all();
  size_t failed;
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    failed = failed_queue_.size();
  }
  ORVI_LOGI("SyncQos flush, queue size: %zu, failed queue size: %zu", queued, failed);
}

void SyncQos::senderLoop(std::weak_ptr<SyncQos> weak, SyncQos* self) {
  // Between rounds only `weak` is held. While it is unexpired `self` is safe
  // to use: a destructor running on another thread joins this one first.
  while (!weak.expired()) {
    if (!self->waitForRound(weak)) {
      ORVI_LOGI("SyncQos senderLoop stop signaled");
      return;
    }
    std::shared_ptr<SyncQos> owner = weak.lock();
    if (!owner) break;
    // Cleared before the round, so a flush that arrives during it asks for
    // one more round instead of being lost.
    owner->wake_ = false;
    try {
      owner->sendImpl();
    } catch (const std::exception& e) {
      ORVI_LOGE("SyncQos senderLoop round failed: %s", e.what());
    }
    // Dropping `owner` may destroy the SyncQos right here; its destructor
    // then detaches this thread, and the loop test reads only `weak`.
  }
  ORVI_LOGI("SyncQos senderLoop exit: owner expired");
}

bool SyncQos::waitForRound(const std::weak_ptr<SyncQos>& weak) {
  using namespace std::chrono;
  std::unique_lock<std::mutex> lock(queue_mutex_);
  const auto due = [&] {
    return weak.expired() || stop_ || wake_ ||
           queue_.size() >= static_cast<size_t>(max_stash_count_);
  };
  const auto now = steady_clock::now();
  const auto interval = duration_cast<steady_clock::duration>(milliseconds(send_interval_ms_));
  if (now.time_since_epoch() > steady_clock::duration::max() - interval) {
    queue_cv_.wait(lock, due);
  } else {
    queue_cv_.wait_until(lock, now + interval, due);
  }
  return !stop_;
}

// ---- sending ----

bool SyncQos::sendText(Transport& transport, const std::string& text) {
  try {
    return transport.sendMessage(text);
  } catch (const std::exception& e) {
    ORVI_LOGE("SyncQos sender threw, treated as not sent: %s", e.what());
  } catch (...) {
    ORVI_LOGE("SyncQos sender threw, treated as not sent");
  }
  return false;
}

void SyncQos::notify(SyncChannelListener& listener, bool success, const SentResults& results) {
  try {
    listener.onSendResult(success, results);
  } catch (...) {
    ORVI_LOGE("SyncQos listener threw from onSendResult, ignored");
  }
}

void SyncQos::notify(const std::vector<Outcome>& outcomes) {
  if (outcomes.empty()) return;
  auto listener = this->listener();
  if (!listener) return;
  for (const auto& outcome : outcomes) notify(*listener, outcome.success, outcome.results);
}

void SyncQos::sendImpl() {
  auto transport = this->transport();
  if (!transport) {
    ORVI_LOGE("SyncQos resendInner failed, transport is null");
    return;
  }
  auto listener = this->listener();
  if (!listener) {
    ORVI_LOGE("SyncQos resendInner failed, listener is null");
    return;
  }
  tryReSend(*transport, *listener);
  for (Batch batch = takeToSend(); !batch.records.empty(); batch = takeToSend()) {
    if (batch.oversized && !Processor::isUri(batch.records.front())) {
      sendOversized(std::move(batch.records.front()), *transport, *listener);
    } else {
      sendInner(Processor::marshalBatch(batch.records), *transport, *listener);
    }
  }
}

SyncQos::Batch SyncQos::takeToSend() {
  const int64_t budget = static_cast<int64_t>(fragment_size_kb_) * 1024 - kBudgetSlackBytes;
  Batch batch;
  int64_t total = 0;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    size_t taken = 0;
    for (; taken < queue_.size(); ++taken) {
      total += static_cast<int64_t>(queue_[taken].content.size()) + kRecordOverheadBytes;
      if (total >= budget) {
        // A record that alone exceeds the budget goes by itself, to be
        // fragmented or uploaded; otherwise it waits for the next batch.
        if (taken == 0) {
          taken = 1;
          batch.oversized = true;
        }
        break;
      }
    }
    batch.records.assign(std::make_move_iterator(queue_.begin()),
                         std::make_move_iterator(queue_.begin() + static_cast<ptrdiff_t>(taken)));
    queue_.erase(queue_.begin(), queue_.begin() + static_cast<ptrdiff_t>(taken));
  }
  if (!batch.records.empty()) {
    ORVI_LOGI("Send %d sync infos, reserved size_count = %lld bytes",
              static_cast<int>(batch.records.size()), ll(total));
  }
  return batch;
}

void SyncQos::sendOversized(idl::SyncInfo record, Transport& transport,
                            SyncChannelListener& listener) {
  if (enable_file_upload_) {
    uploadInner(std::make_shared<idl::SyncInfo>(std::move(record)));
    return;
  }
  const int32_t count = Processor::calcFragmentCount(record.content.size(), fragment_size_kb_);
  const std::vector<SyncMessage> messages = Processor::splitFragments(record, count);
  if (messages.empty()) return;
  {
    // Stored before the first send, so that an acknowledgement racing the
    // sends cannot leave fragments behind.
    std::lock_guard<std::mutex> lock(fragment_mutex_);
    FragmentSet& set = fragment_map_[record.id][record.index];
    set.total = static_cast<int32_t>(messages.size());
    set.fragments.clear();
    for (size_t i = 0; i < messages.size(); ++i) {
      set.fragments.emplace(static_cast<int32_t>(i), messages[i]);
    }
  }
  for (const auto& message : messages) sendInner(message, transport, listener);
}

void SyncQos::sendInner(const SyncMessage& message, Transport& transport,
                        SyncChannelListener& listener) {
  if (sendText(transport, message.text)) {
    notify(listener, true, message.results);
    return;
  }
  size_t failed;
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    FailedEntry entry;
    entry.results = message.results;
    entry.message = message.text;
    failed_queue_.push_back(std::move(entry));
    failed = failed_queue_.size();
  }
  ORVI_LOGE("SyncQos sendInner failed, stash the message: %s, failed_queue_ size: %zu",
            Processor::describe(message.results).c_str(), failed);
  notify(listener, false, message.results);
}

void SyncQos::tryReSend(Transport& transport, SyncChannelListener& listener) {
  std::vector<Outcome> outcomes;
  std::vector<std::shared_ptr<idl::SyncInfo>> due_uploads;
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    // A sender that calls back into the channel on this thread may start a
    // nested round; the walk in progress already covers the queue.
    if (resending_) return;
    resending_ = true;
    // Entries added while we walk (a nested failure or nack) land in the
    // emptied queue and are kept after the older ones.
    std::vector<FailedEntry> walking;
    walking.swap(failed_queue_);
    std::vector<FailedEntry> kept;
    const int64_t now = clock_();
    for (auto& entry : walking) {
      const bool keep = entry.kind == FailedEntry::Kind::SendFailure
                            ? resendEntry(entry, transport, outcomes)
                            : scheduleUploadRetry(entry, now, due_uploads, outcomes);
      if (keep) kept.push_back(std::move(entry));
    }
    kept.insert(kept.end(), std::make_move_iterator(failed_queue_.begin()),
                std::make_move_iterator(failed_queue_.end()));
    failed_queue_.swap(kept);
    resending_ = false;
    ORVI_LOGI("After retry send, failed queue remains size: %zu", failed_queue_.size());
  }
  for (const auto& outcome : outcomes) notify(listener, outcome.success, outcome.results);
  for (const auto& record : due_uploads) {
    ORVI_LOGI("tryReSend, UploadFileFailed info.id: %s", record->id.c_str());
    uploadInner(record);
  }
}

bool SyncQos::resendEntry(FailedEntry& entry, Transport& transport,
                          std::vector<Outcome>& outcomes) {
  ++entry.retry_count;
  const std::string described = Processor::describe(entry.results);
  if (sendText(transport, entry.message)) {
    ORVI_LOGI("Retry send message again success, retry count: %d, : %s", entry.retry_count,
              described.c_str());
    outcomes.push_back({true, entry.results});
    return false;
  }
  ORVI_LOGE("Retry send message again failed, retry count: %d, : %s", entry.retry_count,
            described.c_str());
  outcomes.push_back({false, entry.results});
  if (entry.retry_count >= failed_max_retry_count_) {
    ORVI_LOGE("retry count: %d reach failed_max_retry_count_: %d, drop! will not try any more! ",
              entry.retry_count, failed_max_retry_count_);
    return false;
  }
  return true;
}

// ---- acknowledgements ----

void SyncQos::onAck(const std::string& id, int64_t index) {
  size_t remaining;
  {
    std::lock_guard<std::mutex> lock(fragment_mutex_);
    auto it = fragment_map_.find(id);
    if (it == fragment_map_.end()) return;
    it->second.erase(index);
    if (it->second.empty()) fragment_map_.erase(it);
    remaining = fragment_map_.size();
  }
  ORVI_LOGI("onAck ok, id: %s, index: %lld, fragment_map_ size: %zu", id.c_str(), ll(index),
            remaining);
}

void SyncQos::onNack(const std::string& id, int64_t index, int32_t frag_total, int32_t frag_index) {
  const char* missing = nullptr;
  SyncMessage fragment;
  {
    std::lock_guard<std::mutex> lock(fragment_mutex_);
    auto by_id = fragment_map_.find(id);
    if (by_id == fragment_map_.end()) {
      missing = "sync_info id not found";
    } else if (auto by_index = by_id->second.find(index); by_index == by_id->second.end()) {
      missing = "sync_info index not found";
    } else if (auto it = by_index->second.fragments.find(frag_index);
               it == by_index->second.fragments.end()) {
      missing = "fragment not found";
    } else if (it->second.text.empty()) {
      missing = "fragment msg is empty";
    } else {
      fragment = it->second;
    }
  }
  if (missing) {
    ORVI_LOGE("id: %s, index: %lld, frag_total: %d, frag_index: %d, %s", id.c_str(), ll(index),
              frag_total, frag_index, missing);
    return;
  }
  size_t failed;
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    FailedEntry entry;
    entry.results = std::move(fragment.results);
    entry.message = std::move(fragment.text);
    failed_queue_.push_back(std::move(entry));
    failed = failed_queue_.size();
  }
  ORVI_LOGI(
      "onNack, ok! id: %s, index: %lld, frag_total: %d, frag_index: %d, failed queue size: %zu",
      id.c_str(), ll(index), frag_total, frag_index, failed);
  // Without a sender thread every send happens at once, and so does this one.
  if (send_interval_ms_ >= 1) {
    flush();
  } else {
    sendImpl();
  }
}

// ---- file upload ----

int64_t SyncQos::uploadBackoffMs(int32_t retries) const {
  int64_t delay = std::max<int64_t>(send_interval_ms_, 1000);
  for (int32_t i = 1; i < retries && delay < kUploadBackoffCapMs; ++i) delay *= 2;
  return std::min(delay, kUploadBackoffCapMs);
}

void SyncQos::uploadInner(const std::shared_ptr<idl::SyncInfo>& record) {
  if (!record) {
    ORVI_LOGE("SyncQos uploadInner failed, info is null");
    return;
  }
  std::optional<SyncInfo> info;
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    if (Processor::isUri(*record)) {
      eraseUploadEntries(*record);
    } else {
      info = Processor::toUploadInfo(*record);
    }
  }
  if (!info) {
    ORVI_LOGW("SyncQos uploadInner skip, content is already uri, id: %s, index: %lld",
              record->id.c_str(), ll(record->index));
    return;
  }
  auto uploader = this->uploader();
  if (!uploader) {
    ORVI_LOGE("SyncQos uploadInner failed, file_uploader_ is null");
    notify({{false, resultsOfRecord(*record)}});
    return;
  }
  std::weak_ptr<SyncQos> self = std::static_pointer_cast<SyncQos>(weak_from_this().lock());
  auto callback = std::make_shared<FileUploadCallback>(std::move(self), record);
  try {
    uploader->upload(*info, std::move(callback));
  } catch (...) {
    ORVI_LOGE("SyncQos uploader threw, counted as a failed upload, id: %s", record->id.c_str());
    onUploadFailed(record);
  }
}

void SyncQos::onUploadSucceeded(const std::shared_ptr<idl::SyncInfo>& record,
                                const std::string& uri) {
  idl::SyncInfo resend;
  bool already_sent;
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    // Two attempts of one record can both succeed (a retry started after the
    // in-flight deadline); only the first sends the record.
    already_sent = Processor::isUri(*record);
    if (!already_sent) {
      record->content_type = Processor::kUri;
      record->content = uri;
      eraseUploadEntries(*record);
      resend = *record;
    }
  }
  if (already_sent) {
    ORVI_LOGW("SyncQos upload success ignored, record already sent as uri, id: %s, index: %lld",
              record->id.c_str(), ll(record->index));
    return;
  }
  push(std::move(resend));
  flush();
}

void SyncQos::onUploadFailed(const std::shared_ptr<idl::SyncInfo>& record) {
  std::vector<Outcome> dropped;
  int32_t retries = 0;
  {
    std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
    auto it = std::find_if(failed_queue_.begin(), failed_queue_.end(), [&](const FailedEntry& e) {
      return e.kind == FailedEntry::Kind::UploadFailure && sameRecord(*e.record, *record);
    });
    if (it == failed_queue_.end()) {
      FailedEntry entry;
      entry.kind = FailedEntry::Kind::UploadFailure;
      entry.results = resultsOfRecord(*record);
      entry.record = record;
      failed_queue_.push_back(std::move(entry));
    } else if (it->retry_count >= failed_max_retry_count_) {
      retries = it->retry_count;
      dropped.push_back({false, it->results});
      failed_queue_.erase(it);
    } else {
      it->in_flight = false;
      it->next_retry_ms = clock_() + uploadBackoffMs(it->retry_count);
    }
  }
  if (dropped.empty()) return;
  ORVI_LOGE(
      "Upload retry count: %d reach failed_max_retry_count_: %d, drop! will not try any more!",
      retries, failed_max_retry_count_);
  notify(dropped);
}

void SyncQos::onUploadCanceled(const std::shared_ptr<idl::SyncInfo>& record) {
  std::lock_guard<std::recursive_mutex> lock(failed_mutex_);
  eraseUploadEntries(*record);
}

void SyncQos::eraseUploadEntries(const idl::SyncInfo& record) {
  failed_queue_.erase(std::remove_if(failed_queue_.begin(), failed_queue_.end(),
                                     [&](const FailedEntry& e) {
                                       return e.kind == FailedEntry::Kind::UploadFailure &&
                                              sameRecord(*e.record, record);
                                     }),
                      failed_queue_.end());
}

bool SyncQos::scheduleUploadRetry(FailedEntry& entry, int64_t now,
                                  std::vector<std::shared_ptr<idl::SyncInfo>>& due,
                                  std::vector<Outcome>& outcomes) {
  const idl::SyncInfo& record = *entry.record;
  if (Processor::isUri(record)) {
    ORVI_LOGW("tryReSend skip stale upload retry, content is already uri, id: %s, index: %lld",
              record.id.c_str(), ll(record.index));
    return false;
  }
  // The last attempt is waited for like any other before the record is
  // given up, so that a late success still goes out.
  if ((entry.in_flight && now < entry.in_flight_deadline_ms) || now < entry.next_retry_ms) {
    return true;
  }
  if (entry.retry_count >= failed_max_retry_count_) {
    ORVI_LOGE(
        "Upload retry count: %d reach failed_max_retry_count_: %d, drop! will not try any more!",
        entry.retry_count, failed_max_retry_count_);
    outcomes.push_back({false, entry.results});
    return false;
  }
  ++entry.retry_count;
  entry.in_flight = true;
  entry.in_flight_deadline_ms = now + kUploadInFlightTimeoutMs;
  entry.next_retry_ms = now + uploadBackoffMs(entry.retry_count);
  due.push_back(entry.record);
  return true;
}

}  // namespace orvi
