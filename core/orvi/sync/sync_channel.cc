#include "orvi/sync/sync_channel.h"

#include <exception>

#include "orvi/sync/sync_message_processor.h"
#include "orvi/sync/sync_qos.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

// The literal downlink texts "ACK" and "NACK" act on this record: a
// diagnostic hook for checking a deployment's downlink path by hand.
constexpr const char* kDiagnosticId = "mock_minidraft_id";
constexpr int64_t kDiagnosticIndex = 2;
constexpr int32_t kDiagnosticFragmentTotal = 2;
constexpr int32_t kDiagnosticFragmentIndex = 5;

void* ptr(const void* p) {
  return const_cast<void*>(p);
}

}  // namespace

std::shared_ptr<SyncChannel> SyncChannel::create(const SyncChannelOptions& options) {
  try {
    return std::make_shared<SyncChannelImpl>(options);
  } catch (const std::exception& e) {
    ORVI_LOGE("SyncChannel create failed: %s", e.what());
  }
  return nullptr;
}

SyncChannelImpl::SyncChannelImpl(const SyncChannelOptions& options)
    : send_interval_ms_(options.send_interval_ms.value_or(kDefaultSendIntervalMs)),
      max_stash_count_(options.max_stash_count.value_or(kDefaultMaxStashCount)),
      failed_max_retry_count_(options.failed_max_retry_count.value_or(kDefaultFailedMaxRetryCount)),
      fragment_size_kb_(options.fragment_size_kb.value_or(kDefaultFragmentSizeKb)),
      compression_algo_(options.compression_algo.value_or("")),
      enable_file_upload_(options.enable_file_upload.value_or(false)) {
  ORVI_LOGI(
      "SyncChannelImpl(%p) created with options: send_interval_ms=%d, max_stash_count=%d, "
      "compression_algo=%s, failed_max_retry_count=%d",
      ptr(this), send_interval_ms_, max_stash_count_, compression_algo_.c_str(),
      failed_max_retry_count_);
}

SyncChannelImpl::~SyncChannelImpl() {
  // The sender thread may hold the SyncQos for a round; once it has
  // stopped, ours is normally the last reference, and the records still
  // waiting are reported before the host's release returns.
  if (qos_) qos_->stopSender();
  ORVI_LOGI("SyncChannelImpl(%p) destroyed", ptr(this));
}

void SyncChannelImpl::listen(std::shared_ptr<SyncChannelListener> listener) {
  if (!listener) {
    ORVI_LOGE("SyncChannelImpl(%p) listen: listener is null", ptr(this));
    return;
  }
  bool already_set;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    already_set = listener_ != nullptr;
    if (!already_set) listener_ = listener;
  }
  if (already_set) {
    ORVI_LOGW("SyncChannelImpl(%p) listen: listener is already set", ptr(this));
    return;
  }
  ORVI_LOGI("SyncChannelImpl(%p) listen: listener set: addr=%p", ptr(this), ptr(listener.get()));
}

std::shared_ptr<ITransport> SyncChannelImpl::connect(std::shared_ptr<ITransportSender> sender) {
  if (!sender) {
    ORVI_LOGE("sender is null");
    return nullptr;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (transport_) {
      auto existing = transport_;
      ORVI_LOGW("transport is already connected, skip, addr = %p", ptr(existing.get()));
      return existing;
    }
  }
  auto transport = std::make_shared<Transport>();
  transport->setListener(sharedFromThis(static_cast<Transport::Listener*>(this)));
  transport->setSender(sender);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    transport_ = transport;
  }
  ORVI_LOGI("SyncChannelImpl(%p) connect: transport is connected, addr = %p", ptr(this),
            ptr(transport.get()));
  return transport;
}

bool SyncChannelImpl::send(const SyncInfo& info) {
  try {
    qosForSend()->push(SyncMessageProcessor::toWire(info, compression_algo_));
  } catch (const std::exception& e) {
    ORVI_LOGE("SyncChannelImpl(%p) send failed, id: %s, error: %s", ptr(this), info.id.c_str(),
              e.what());
  }
  // Delivery is reported later, through SyncChannelListener::onSendResult.
  return false;
}

void SyncChannelImpl::flush() {
  if (auto qos = this->qos()) qos->flush();
}

void SyncChannelImpl::setFileUploader(std::shared_ptr<IFileUploader> uploader) {
  if (!uploader) {
    ORVI_LOGE("SyncChannelImpl(%p) setFileUploader: uploader is null", ptr(this));
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    uploader_ = uploader;
  }
  ORVI_LOGI("SyncChannelImpl(%p) setFileUploader: uploader set: addr=%p", ptr(this),
            ptr(uploader.get()));
}

std::shared_ptr<SyncQos> SyncChannelImpl::qos() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return qos_;
}

std::shared_ptr<SyncChannelListener> SyncChannelImpl::listener() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return listener_;
}

std::shared_ptr<SyncQos> SyncChannelImpl::qosForSend() {
  std::shared_ptr<Transport> transport;
  std::shared_ptr<SyncChannelListener> listener;
  std::shared_ptr<IFileUploader> uploader;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (qos_) return qos_;
    transport = transport_;
    listener = listener_;
    uploader = uploader_;
  }
  // Wired before it is published, and outside the lock, since wiring logs
  // and starts the sender thread. Each missing piece is logged here, once.
  auto qos = std::make_shared<SyncQos>(send_interval_ms_, max_stash_count_, failed_max_retry_count_,
                                       fragment_size_kb_, enable_file_upload_);
  qos->connect(transport);
  qos->setListener(listener);
  qos->setFileUploader(uploader);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!qos_) qos_ = std::move(qos);
  return qos_;
}

void SyncChannelImpl::onMessageReceived(const std::string& message) {
  if (message == "ACK" || message == "NACK") {
    auto qos = this->qos();
    if (!qos) return;
    if (message == "ACK") {
      qos->onAck(kDiagnosticId, kDiagnosticIndex);
    } else {
      qos->onNack(kDiagnosticId, kDiagnosticIndex, kDiagnosticFragmentTotal,
                  kDiagnosticFragmentIndex);
    }
    return;
  }
  ORVI_LOGD("SyncChannelImpl(%p) onMessageReceived: %s", ptr(this), textForLog(message).c_str());
  const auto parsed = SyncMessageProcessor::parseDownlink(message);
  if (!parsed) {
    ORVI_LOGE("SyncChannelImpl(%p) onMessageReceived: failed to parse message: %s", ptr(this),
              textForLog(message).c_str());
    return;
  }
  const SyncDownlinkMessage& downlink = *parsed;
  const int64_t index = downlink.index.value_or(-1);
  auto qos = this->qos();
  auto listener = this->listener();
  try {
    if (downlink.action == "ack") {
      if (qos) qos->onAck(downlink.id, index);
      if (listener) listener->onAck(downlink.id, index);
    } else if (downlink.action == "nack") {
      // A nack without a fragment names no fragment: nothing can be resent.
      const int32_t total = downlink.fragment ? downlink.fragment->total : 0;
      const int32_t fragment = downlink.fragment ? downlink.fragment->index : -1;
      if (qos) qos->onNack(downlink.id, index, total, fragment);
      if (listener) listener->onNack(downlink.id, index);
    } else if (downlink.action == "collect") {
      if (listener) listener->onCollect(downlink);
    } else if (downlink.action == "query") {
      if (listener) listener->onQuery(downlink, downlink.query.value_or(""));
    } else {
      ORVI_LOGE("SyncChannelImpl(%p) onMessageReceived: unknown action: %s", ptr(this),
                downlink.action.c_str());
    }
  } catch (const std::exception& e) {
    ORVI_LOGE("SyncChannelImpl(%p) onMessageReceived: handling failed: %s", ptr(this), e.what());
  } catch (...) {
    ORVI_LOGE("SyncChannelImpl(%p) onMessageReceived: handling failed", ptr(this));
  }
}

}  // namespace orvi
