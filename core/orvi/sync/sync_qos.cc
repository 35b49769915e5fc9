#include "orvi/sync/sync_qos.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <unordered_set>

#include "orvi/sync/file_upload_callback.h"
#include "orvi/utils/clock.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

using Processor = SyncMessageProcessor;

constexpr int32_t kDefaultFragmentSizeKb = 200;
// Slack kept free under the batch budget.
constexpr int64_t kBudgetSlackBytes = 100;

long long ll(int64_t v) {
  return static_cast<long long>(v);
}

}  // namespace

SyncQos::SyncQos(int32_t send_interval_ms, int32_t max_stash_count, int32_t failed_max_retry_count,
                 int32_t fragment_size_kb, bool enable_file_upload, Clock clock, Limits limits)
    : send_interval_ms_(send_interval_ms),
      // Below 1 the stash would always count as full.
      max_stash_count_(std::max(max_stash_count, 1)),
      failed_max_retry_count_(failed_max_retry_count),
      // Below 1 no record fits a batch and fragment counts divide by zero.
      fragment_size_kb_(fragment_size_kb < 1 ? kDefaultFragmentSizeKb : fragment_size_kb),
      enable_file_upload_(enable_file_upload),
      clock_(clock ? std::move(clock) : Clock(&steadyMs)),
      batch_budget_(static_cast<int64_t>(fragment_size_kb_) * 1024 - kBudgetSlackBytes),
      queue_(limits.max_queued_bytes),
      fragments_(
          {limits.max_unacked_records, limits.max_unacked_bytes, limits.max_unacked_age_ms}) {
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
  stopSender();

  // What never left, or never finished, is reported once as not sent.
  SentResultsBuilder unsent;
  size_t unacknowledged;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& record : queue_.drain()) unsent.add(record.id, record.index);
    std::unordered_set<const idl::SyncInfo*> fragmented;
    for (const auto& frame : failed_frames_) {
      const idl::SyncInfo* record = frame.fragment.record.get();
      if (!frame.offered && fragmented.insert(record).second) {
        unsent.add(record->id, record->index);
      }
    }
    for (const auto& upload : uploads_) unsent.add(upload.record->id, upload.record->index);
    unacknowledged = fragments_.recordCount();
  }
  if (unacknowledged > 0) {
    ORVI_LOGI("SyncQos destroyed with %zu sent records not acknowledged, fragments dropped",
              unacknowledged);
  }
  if (unsent.empty()) return;
  SentResults results = unsent.take();
  size_t count = 0;
  for (const auto& result : results.results) count += result.indexes.size();
  ORVI_LOGW("SyncQos destroyed with %zu records not sent, reporting them as failed", count);
  notify(false, results);
}

void SyncQos::stopSender() {
  bool started, stopped_before;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    started = started_;
    stopped_before = stop_;
    stop_ = true;
  }
  if (stopped_before) return;
  if (send_interval_ms_ < 1 || !started) {
    ORVI_LOGI(
        "SyncQos sender thread not started or not needed; destructor skip thread join/detach");
    return;
  }
  cv_.notify_all();
  if (std::this_thread::get_id() == thread_.get_id()) {
    // Stopped on the sender thread, from inside its round (the host dropped
    // the channel in a callback, or the last reference went away there):
    // joining would wait for ourselves. The loop sees the stop flag or the
    // expired owner and leaves without touching this object again.
    thread_.detach();
    ORVI_LOGW("SyncQos sender thread detached in its own context");
  } else {
    thread_.join();
    ORVI_LOGI("SyncQos sender thread joined");
  }
}

void SyncQos::connect(const std::shared_ptr<Transport>& transport) {
  if (!transport) {
    ORVI_LOGE("SyncQos connect failed, transport is null");
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    transport_ = transport;
  }
  ORVI_LOGI("SyncQos connected, transport: %p", static_cast<void*>(transport.get()));
  if (send_interval_ms_ < 1) return;

  bool started_now = false;
  try {
    std::weak_ptr<SyncQos> weak = weakFromThis(this);
    // The thread's first wait takes this mutex, so it sees thread_ assigned.
    std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
    uploader_ = uploader;
  }
  ORVI_LOGI("SyncQos setFileUploader, uploader: %p", static_cast<void*>(uploader.get()));
}

std::shared_ptr<Transport> SyncQos::transport() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return transport_.lock();
}

std::shared_ptr<SyncChannelListener> SyncQos::listener() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return listener_.lock();
}

std::shared_ptr<IFileUploader> SyncQos::uploader() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return uploader_;
}

// ---- queue and sender thread ----

void SyncQos::push(idl::SyncInfo record) {
  const bool reply = record.type == "reply";
  if (reply) {
    ORVI_LOGI("SyncQos push `reply`, send immediatly, index: %lld", ll(record.index));
  }
  // Content that will be compressed travels as Base64 and is checked only
  // if compression fails; everything else must be UTF-8 already.
  const bool gzip = Processor::wantsGzip(record);
  if (!gzip) Processor::dropUnusedCompression(record);
  if (const char* field = Processor::invalidField(record, !gzip)) {
    refuseInvalid(record, field);
    return;
  }
  bool accepted, wake = false;
  int64_t held, cap;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    accepted = queue_.push(record, !gzip);
    held = queue_.bytes();
    cap = queue_.maxBytes();
    wake = accepted && (sender_idle_ || stashFull());
  }
  if (!accepted) {
    ORVI_LOGE(
        "SyncQos push refused, queue full: %lld bytes held, cap %lld, record %lld bytes, id: %s, "
        "index: %lld",
        ll(held), ll(cap), ll(SyncSendQueue::costOf(record)), record.id.c_str(), ll(record.index));
    notify(false, Processor::resultsOf(record));
    return;
  }
  if (reply || send_interval_ms_ < 1) {
    runRound();
  } else if (wake) {
    cv_.notify_all();
  }
}

void SyncQos::refuseInvalid(const idl::SyncInfo& record, const char* field) {
  // An id that is not UTF-8 is not printed either.
  const bool id_ok = std::strcmp(field, "id") != 0;
  ORVI_LOGE("SyncQos push refused, %s is not valid UTF-8, id: %s, index: %lld", field,
            id_ok ? record.id.c_str() : "(not printable)", ll(record.index));
  notify(false, Processor::resultsOf(record));
}

void SyncQos::flush() {
  if (send_interval_ms_ < 1) return;
  size_t queued, failed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    wake_ = true;
    queued = queue_.size();
    failed = failed_frames_.size() + uploads_.size();
  }
  cv_.notify_all();
  ORVI_LOGI("SyncQos flush, queue size: %zu, failed queue size: %zu", queued, failed);
}

void SyncQos::senderLoop(std::weak_ptr<SyncQos> weak, SyncQos* self) {
  while (!weak.expired()) {
    // `self` stays valid while we wait: the destructor joins this thread.
    if (!self->waitForRound(weak)) {
      ORVI_LOGI("SyncQos senderLoop stop signaled");
      return;
    }
    std::shared_ptr<SyncQos> owner = weak.lock();
    if (!owner) break;
    owner->runRound();
    // Dropping `owner` may destroy the SyncQos right here; its destructor
    // then detaches this thread, and the loop test reads only `weak`.
  }
  ORVI_LOGI("SyncQos senderLoop exit: owner expired");
}

bool SyncQos::stashFull() const {
  // Not while a round runs elsewhere (it will take these records), nor
  // while the last round could not send: a full stash would wake the
  // sender again at once, for nothing.
  return queue_.size() >= static_cast<size_t>(max_stash_count_) && !round_running_ &&
         !links_missing_ && !head_refused_;
}

std::optional<int64_t> SyncQos::nextRoundMs(int64_t tick) const {
  if (links_missing_) return std::nullopt;
  if (!queue_.empty() || !failed_frames_.empty()) return tick;
  std::optional<int64_t> due;
  const auto consider = [&](int64_t at) {
    const int64_t when = std::max(at, tick);
    due = due ? std::min(*due, when) : when;
  };
  for (const auto& upload : uploads_) consider(uploadDueMs(upload));
  if (const auto expiry = fragments_.nextExpiryMs()) consider(*expiry);
  return due;
}

bool SyncQos::waitForRound(const std::weak_ptr<SyncQos>& weak) {
  std::unique_lock<std::mutex> lock(mutex_);
  int64_t tick = clock_() + send_interval_ms_;
  for (;;) {
    if (weak.expired() || stop_) break;
    if (wake_ || stashFull()) break;
    const std::optional<int64_t> due = nextRoundMs(tick);
    const int64_t now = clock_();
    if (due && now >= *due) break;
    // With nothing to send, the next push wakes us (see push) to start an
    // interval for it; otherwise it could wait for a far upload or expiry.
    sender_idle_ = queue_.empty() && failed_frames_.empty();
    if (due) {
      cv_.wait_for(lock, std::chrono::milliseconds(*due - now));
    } else {
      cv_.wait(lock);
    }
    if (sender_idle_ && !queue_.empty()) tick = clock_() + send_interval_ms_;
    sender_idle_ = false;
  }
  // Cleared before the round, so a flush that arrives during it asks for
  // one more round instead of being lost.
  wake_ = false;
  return !stop_;
}

void SyncQos::runRound() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (round_running_) {
      round_again_ = true;
      return;
    }
    round_running_ = true;
  }
  for (;;) {
    try {
      sendImpl();
    } catch (const std::exception& e) {
      ORVI_LOGE("SyncQos send round failed: %s", e.what());
    } catch (...) {
      ORVI_LOGE("SyncQos send round failed");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (!round_again_) {
      round_running_ = false;
      break;
    }
    round_again_ = false;
  }
  // The round may have left work with a deadline for a sleeping sender.
  cv_.notify_all();
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

void SyncQos::notify(bool success, const SentResults& results) {
  if (auto listener = this->listener()) notify(*listener, success, results);
}

void SyncQos::sendImpl() {
  auto transport = this->transport();
  auto listener = this->listener();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    links_missing_ = !transport || !listener;
  }
  if (!transport) {
    ORVI_LOGE("SyncQos resendInner failed, transport is null");
    return;
  }
  if (!listener) {
    ORVI_LOGE("SyncQos resendInner failed, listener is null");
    return;
  }
  Links links{*transport, *listener};
  expireFragments();
  bool refused = !tryReSend(links);
  while (!refused) {
    prepareBatch(batch_budget_);
    SyncSendQueue::Batch batch;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      batch = queue_.take(batch_budget_);
    }
    ORVI_LOGI("Send %d sync infos, reserved size_count = %lld bytes",
              static_cast<int>(batch.records.size()), ll(batch.reserved));
    if (batch.records.empty()) break;
    if (batch.oversized && !Processor::isUri(batch.records.front())) {
      refused = !sendOversized(std::move(batch.records.front()), links);
    } else {
      const SyncMessage message = Processor::marshalBatch(batch.records);
      refused = !sendInner(message.text, message.results, {}, links);
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  head_refused_ = refused;
}

void SyncQos::prepareBatch(int64_t budget) {
  for (;;) {
    SyncSendQueue::Taken taken;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!queue_.takeToPrepare(budget, &taken)) return;
    }
    const char* invalid = nullptr;
    if (!taken.prepared) {
      Processor::tryCompress(taken.record, encoder_);
      // Compression failed: the content goes plain and must be UTF-8.
      if (!taken.record.compression) invalid = Processor::invalidField(taken.record, true);
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (invalid) {
        queue_.forget(taken.cost);
      } else {
        queue_.pushReady(std::move(taken.record), taken.cost);
      }
    }
    if (invalid) refuseInvalid(taken.record, invalid);
  }
}

bool SyncQos::sendOversized(idl::SyncInfo record, Links& links) {
  if (enable_file_upload_) {
    startUpload(std::move(record));
    return true;
  }
  const int32_t count = Processor::calcFragmentCount(record.content.size(), fragment_size_kb_);
  auto shared = std::make_shared<const idl::SyncInfo>(std::move(record));
  std::vector<FragmentSlice> slices = Processor::planFragments(*shared, count);
  const SentResults results = Processor::resultsOf(*shared);
  if (slices.empty()) {
    notify(false, results);  // nothing to send: never silently lost
    return true;
  }
  std::vector<SyncFragmentStore::Dropped> dropped;
  {
    // Kept before the first send, so that an acknowledgement racing the
    // sends cannot leave fragments behind.
    std::lock_guard<std::mutex> lock(mutex_);
    dropped = fragments_.put(shared, slices, clock_());
  }
  reportDropped(dropped);
  for (size_t i = 0; i < slices.size(); ++i) {
    const SyncFragmentStore::Fragment fragment{shared, slices[i]};
    if (sendInner(Processor::marshalFragment(*shared, slices[i]), results, fragment, links)) {
      continue;
    }
    // The rest wait behind the refused one, each built when it is offered.
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t j = i + 1; j < slices.size(); ++j) {
      failed_frames_.push_back({{}, {shared, slices[j]}, results, 0, false});
    }
    return false;
  }
  return true;
}

bool SyncQos::sendInner(const std::string& text, const SentResults& results,
                        const SyncFragmentStore::Fragment& fragment, Links& links,
                        bool stash_in_front) {
  if (sendText(links.transport, text)) {
    notify(links.listener, true, results);
    return true;
  }
  size_t failed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    FailedFrame frame{text, fragment, results, 0, true};
    if (stash_in_front) {
      failed_frames_.push_front(std::move(frame));
    } else {
      failed_frames_.push_back(std::move(frame));
    }
    failed = failed_frames_.size() + uploads_.size();
  }
  ORVI_LOGE("SyncQos sendInner failed, stash the message: %s, failed_queue_ size: %zu",
            Processor::describe(results).c_str(), failed);
  notify(links.listener, false, results);
  return false;
}

bool SyncQos::tryReSend(Links& links) {
  UploadPlan uploads;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    uploads = scheduleUploads(clock_());
  }
  for (const auto& record : uploads.stale) {
    ORVI_LOGW("tryReSend skip stale upload retry, content is already uri, id: %s, index: %lld",
              record->id.c_str(), ll(record->index));
  }
  for (size_t i = 0; i < uploads.exhausted.size(); ++i) {
    ORVI_LOGE(
        "Upload retry count: %d reach failed_max_retry_count_: %d, drop! will not try any more!",
        uploads.exhausted_retries[i], failed_max_retry_count_);
    notify(links.listener, false, Processor::resultsOf(*uploads.exhausted[i]));
  }

  bool clear = true;
  for (;;) {
    FailedFrame frame;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (failed_frames_.empty()) break;
      frame = std::move(failed_frames_.front());
      failed_frames_.pop_front();
    }
    const bool lazy = frame.text.empty();
    if (lazy) frame.text = Processor::marshalFragment(*frame.fragment.record, frame.fragment.slice);
    if (!frame.offered) {
      // Its first offer: it is sent, or refused and kept, like a new frame.
      if (!sendInner(frame.text, frame.results, frame.fragment, links, true)) {
        clear = false;
        break;
      }
      continue;
    }
    const std::string described = Processor::describe(frame.results);
    ++frame.retry_count;
    if (sendText(links.transport, frame.text)) {
      ORVI_LOGI("Retry send message again success, retry count: %d, : %s", frame.retry_count,
                described.c_str());
      notify(links.listener, true, frame.results);
      continue;
    }
    ORVI_LOGE("Retry send message again failed, retry count: %d, : %s", frame.retry_count,
              described.c_str());
    notify(links.listener, false, frame.results);
    if (frame.retry_count >= failed_max_retry_count_) {
      ORVI_LOGE("retry count: %d reach failed_max_retry_count_: %d, drop! will not try any more! ",
                frame.retry_count, failed_max_retry_count_);
      continue;  // given up: the frames behind it may go
    }
    if (lazy) frame.text.clear();  // rebuilt on the next offer
    std::lock_guard<std::mutex> lock(mutex_);
    failed_frames_.push_front(std::move(frame));
    clear = false;
    break;
  }

  size_t remaining;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    remaining = failed_frames_.size() + uploads_.size();
  }
  ORVI_LOGI("After retry send, failed queue remains size: %zu", remaining);
  for (const auto& record : uploads.due) {
    ORVI_LOGI("tryReSend, UploadFileFailed info.id: %s", record->id.c_str());
    uploadInner(record);
  }
  return clear;
}

// ---- acknowledgements ----

void SyncQos::onAck(const std::string& id, int64_t index) {
  bool known;
  size_t remaining;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    known = fragments_.erase(id, index);
    remaining = fragments_.idCount();
  }
  if (!known) return;
  ORVI_LOGI("onAck ok, id: %s, index: %lld, fragment_map_ size: %zu", id.c_str(), ll(index),
            remaining);
}

void SyncQos::onNack(const std::string& id, int64_t index, int32_t frag_total, int32_t frag_index) {
  using Lookup = SyncFragmentStore::Lookup;
  SyncFragmentStore::Fragment fragment;
  Lookup found;
  bool waiting = false;
  size_t failed = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    found = fragments_.find(id, index, frag_index, &fragment);
    if (found == Lookup::Found) {
      // A storm of nacks for one fragment asks for one resend, not one each.
      waiting = std::any_of(failed_frames_.begin(), failed_frames_.end(), [&](const auto& f) {
        return f.fragment.record == fragment.record && f.fragment.slice.index == frag_index;
      });
      if (!waiting) {
        failed_frames_.push_back({{}, fragment, Processor::resultsOf(*fragment.record), 0, true});
      }
      failed = failed_frames_.size() + uploads_.size();
    }
  }
  if (found != Lookup::Found) {
    const char* missing = found == Lookup::NoId      ? "sync_info id not found"
                          : found == Lookup::NoIndex ? "sync_info index not found"
                                                     : "fragment not found";
    ORVI_LOGE("id: %s, index: %lld, frag_total: %d, frag_index: %d, %s", id.c_str(), ll(index),
              frag_total, frag_index, missing);
    return;
  }
  if (waiting) {
    ORVI_LOGI(
        "onNack, fragment already waiting to be sent again, id: %s, index: %lld, frag_index: %d",
        id.c_str(), ll(index), frag_index);
    return;
  }
  ORVI_LOGI(
      "onNack, ok! id: %s, index: %lld, frag_total: %d, frag_index: %d, failed queue size: %zu",
      id.c_str(), ll(index), frag_total, frag_index, failed);
  // Without a sender thread this does nothing: the fragment goes with the
  // next round, which the next push starts.
  flush();
}

void SyncQos::expireFragments() {
  std::vector<SyncFragmentStore::Dropped> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    dropped = fragments_.expire(clock_());
  }
  reportDropped(dropped);
}

void SyncQos::reportDropped(const std::vector<SyncFragmentStore::Dropped>& dropped) {
  for (const auto& record : dropped) {
    ORVI_LOGW(
        "SyncQos dropped the fragments of an unacknowledged record (%s), a nack can no longer be "
        "served, id: %s, index: %lld",
        record.reason, record.id.c_str(), ll(record.index));
    notify(false, SentResults({SentResult(record.id, {record.index})}));
  }
}

// ---- file upload ----

int64_t SyncQos::uploadBackoffMs(int32_t retries) const {
  int64_t delay = std::max<int64_t>(send_interval_ms_, 1000);
  for (int32_t i = 1; i < retries && delay < kUploadBackoffCapMs; ++i) delay *= 2;
  return std::min(delay, kUploadBackoffCapMs);
}

void SyncQos::startUpload(idl::SyncInfo record) {
  auto shared = std::make_shared<idl::SyncInfo>(std::move(record));
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Upload upload;
    upload.record = shared;
    upload.in_flight_deadline_ms = clock_() + kUploadInFlightTimeoutMs;
    uploads_.push_back(std::move(upload));
  }
  uploadInner(shared);
}

bool SyncQos::eraseUpload(const idl::SyncInfo* record) {
  const auto it = std::find_if(uploads_.begin(), uploads_.end(),
                               [&](const Upload& u) { return u.record.get() == record; });
  if (it == uploads_.end()) return false;
  uploads_.erase(it);
  return true;
}

void SyncQos::uploadInner(const std::shared_ptr<idl::SyncInfo>& record) {
  if (!record) {
    ORVI_LOGE("SyncQos uploadInner failed, info is null");
    return;
  }
  std::optional<SyncInfo> info;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (Processor::isUri(*record)) {
      eraseUpload(record.get());
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
    bool settled;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      settled = eraseUpload(record.get());
    }
    if (settled) notify(false, Processor::resultsOf(*record));
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
  enum { kSend, kAlreadySent, kGivenUp } what;
  idl::SyncInfo resend;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (Processor::isUri(*record)) {
      // Two attempts of one record can both succeed (a retry started after
      // the in-flight deadline); only the first sends the record.
      what = kAlreadySent;
    } else if (!eraseUpload(record.get())) {
      // Given up (and reported) before this answer came.
      what = kGivenUp;
    } else {
      record->content_type = Processor::kUri;
      record->content = uri;
      resend = *record;
      what = kSend;
    }
  }
  if (what == kAlreadySent) {
    ORVI_LOGW("SyncQos upload success ignored, record already sent as uri, id: %s, index: %lld",
              record->id.c_str(), ll(record->index));
  } else if (what == kGivenUp) {
    ORVI_LOGW("SyncQos upload success ignored, record already given up, id: %s, index: %lld",
              record->id.c_str(), ll(record->index));
  } else {
    push(std::move(resend));
    flush();
  }
}

void SyncQos::onUploadFailed(const std::shared_ptr<idl::SyncInfo>& record) {
  int32_t exhausted = -1;
  bool ignored = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(uploads_.begin(), uploads_.end(),
                           [&](const Upload& u) { return u.record == record; });
    if (it == uploads_.end()) {
      if (Processor::isUri(*record)) {
        // A late failure of an attempt whose record went out meanwhile: the
        // next round drops the entry as stale.
        Upload stale;
        stale.record = record;
        stale.in_flight = false;
        uploads_.push_back(std::move(stale));
      } else {
        ignored = true;
      }
    } else if (it->retry_count >= failed_max_retry_count_) {
      exhausted = it->retry_count;
      uploads_.erase(it);
    } else {
      it->in_flight = false;
      // A first failure is retried on the next round.
      it->next_retry_ms = it->retry_count == 0 ? 0 : clock_() + uploadBackoffMs(it->retry_count);
    }
  }
  cv_.notify_all();  // a sleeping sender may now be due earlier
  if (ignored) {
    ORVI_LOGW("SyncQos upload failure ignored, record already given up, id: %s, index: %lld",
              record->id.c_str(), ll(record->index));
  }
  if (exhausted < 0) return;
  ORVI_LOGE(
      "Upload retry count: %d reach failed_max_retry_count_: %d, drop! will not try any more!",
      exhausted, failed_max_retry_count_);
  notify(false, Processor::resultsOf(*record));
}

void SyncQos::onUploadCanceled(const std::shared_ptr<idl::SyncInfo>& record) {
  bool settled;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    settled = eraseUpload(record.get());
  }
  if (!settled) return;
  ORVI_LOGW("SyncQos upload canceled, record not sent, id: %s, index: %lld", record->id.c_str(),
            ll(record->index));
  notify(false, Processor::resultsOf(*record));
}

int64_t SyncQos::uploadDueMs(const Upload& upload) const {
  const bool stale = Processor::isUri(*upload.record);
  const bool first = upload.retry_count == 0;
  if (stale || (!first && upload.retry_count >= failed_max_retry_count_)) return 0;
  return std::max(upload.in_flight ? upload.in_flight_deadline_ms : 0, upload.next_retry_ms);
}

SyncQos::UploadPlan SyncQos::scheduleUploads(int64_t now) {
  UploadPlan plan;
  for (auto it = uploads_.begin(); it != uploads_.end();) {
    Upload& upload = *it;
    const bool waiting =
        (upload.in_flight && now < upload.in_flight_deadline_ms) || now < upload.next_retry_ms;
    bool remove = false;
    if (Processor::isUri(*upload.record)) {
      plan.stale.push_back(upload.record);
      remove = true;
    } else if (upload.retry_count == 0 && waiting) {
      // The first attempt is still out; it has used no retry yet.
    } else if (upload.retry_count >= failed_max_retry_count_) {
      // Given up even while its last attempt is out; a late answer is ignored.
      plan.exhausted.push_back(upload.record);
      plan.exhausted_retries.push_back(upload.retry_count);
      remove = true;
    } else if (!waiting) {
      ++upload.retry_count;
      upload.in_flight = true;
      upload.in_flight_deadline_ms = now + kUploadInFlightTimeoutMs;
      upload.next_retry_ms = now + uploadBackoffMs(upload.retry_count);
      plan.due.push_back(upload.record);
    }
    it = remove ? uploads_.erase(it) : std::next(it);
  }
  return plan;
}

}  // namespace orvi
