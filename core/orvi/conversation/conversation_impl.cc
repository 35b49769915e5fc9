// ConversationImpl: creation, options, listening, connecting and setters.
#include "orvi/conversation/conversation_impl.h"

#include "orvi/conversation/delayed_task_timer.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/message/engine/message_engine.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/report/reporter.h"
#include "orvi/rest_api/rest_api.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/unique_id.h"

namespace orvi {
namespace {

constexpr int32_t kListenerIsNull = -2000;

std::string ensureId(const std::string& local_conversation_id) {
  return local_conversation_id.empty() ? generateUniqueId() : local_conversation_id;
}

}  // namespace

ConversationImpl::ConversationImpl(std::string local_conversation_id,
                                   const ConversationOptions& options,
                                   std::shared_ptr<HistoryManager> history)
    : history_message_limited_(options.history_message_limited.value_or(50)),
      callback_user_message_(options.callback_user_message.value_or(true)),
      popup_assistant_message_after_cancel_(
          options.popup_assistant_message_after_cancel.value_or(false)),
      enable_tracing_event_(options.enable_tracing_event.value_or(false)),
      enable_sync_user_message_timestamp_by_ack_(
          options.enable_sync_user_message_timestamp_by_ack.value_or(false)),
      block_when_recovering_(options.block_when_recovering.value_or(true)),
      uplink_message_ack_timeout_ms_(options.uplink_message_ack_timeout_ms.value_or(5000)),
      enable_resend_(options.enable_resend.value_or(true)),
      max_resend_uplink_message_count_(options.max_resend_uplink_message_count.value_or(-1)),
      max_downlink_frame_bytes_(options.max_downlink_frame_bytes.value_or(0) > 0
                                    ? static_cast<size_t>(*options.max_downlink_frame_bytes)
                                    : kDefaultMaxDownlinkFrameBytes),
      local_conversation_id_(ensureId(local_conversation_id)),
      name_(options.name.value_or(std::string())),
      history_(std::move(history)),
      timer_(DelayedTaskTimer::instance()) {
  if (!local_conversation_id.empty()) {
    conversation_id_ = history_ ? history_->getConversationId(local_conversation_id_) : "";
    if (conversation_id_.empty()) {
      ORVI_LOGW("local_conversation_id_(%s) cann't find conversation_id, means new conversation",
                local_conversation_id_.c_str());
    } else {
      ORVI_LOGI("local_conversation_id_(%s) recovered conversation_id: %s",
                local_conversation_id_.c_str(), conversation_id_.c_str());
    }
  }
  engine_ = std::make_shared<MessageEngine>(local_conversation_id_);
  if (history_)
    history_->setHistoryMessageLimited(local_conversation_id_, history_message_limited_);

  ORVI_LOGI(
      "ConversationImpl created, local_conversation_id: %s, conversation_id: %s, addr = %p, "
      "name = %s, history_message_limited = %d, callback_user_message = %d, "
      "popup_assistant_message_after_cancel = %d, enable_tracing_event = %d, "
      "enable_sync_user_message_timestamp_by_ack = %d, block_when_recovering = %d",
      local_conversation_id_.c_str(), conversation_id_.c_str(), static_cast<void*>(this),
      name_.c_str(), history_message_limited_, callback_user_message_,
      popup_assistant_message_after_cancel_, enable_tracing_event_,
      enable_sync_user_message_timestamp_by_ack_, block_when_recovering_);
  ORVI_LOGI(
      "[ACK] uplink_message_ack_timeout_ms_ = %d, enable_resend_ = %d, "
      "max_resend_uplink_message_count_ = %d",
      uplink_message_ack_timeout_ms_, enable_resend_.load(), max_resend_uplink_message_count_);
}

ConversationImpl::~ConversationImpl() {
  if (auto reporter = this->reporter()) {
    reporter->onConversationClose(conversationId(), local_conversation_id_, section_count_.load(),
                                  0, 0, "");
  }
  storeCheckpoints();  // an answer cut short keeps the text shown
  if (history_) history_->deactivateConversation(local_conversation_id_);
  ORVI_LOGI("ConversationImpl destroyed, local_id: %s, conversation_id: %s, addr = %p",
            local_conversation_id_.c_str(), conversation_id_.c_str(), static_cast<void*>(this));
}

// The first listener stays. With tracing on, the reporter made for it is
// installed with it; a refused listener leaves tracing with the real one,
// and a reporter that is replaced or unused drains (through the host's
// onTraceEvent) only after the lock is released.
void ConversationImpl::listen(std::shared_ptr<ConversationListener> listener) {
  const auto self = keepAlive();
  std::shared_ptr<Reporter> reporter;
  if (enable_tracing_event_) reporter = std::make_shared<Reporter>(listener);
  if (!listener) {
    ORVI_LOGE("listener is null");
    if (reporter) {
      reporter->onConversationOpen(conversationId(), local_conversation_id_, 0, 0, kListenerIsNull,
                                   "listener is null");
    }
    return;
  }
  std::shared_ptr<ConversationListener> existing;
  std::shared_ptr<Reporter> replaced;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    existing = listener_;
    if (!existing) {
      listener_ = listener;
      replaced = std::move(reporter_);
      reporter_ = reporter;
    }
  }
  if (existing) {
    ORVI_LOGW(
        "local conversation(%s) listen, listener is already exist, old listener: %p, new "
        "listener: %p, abort.",
        local_conversation_id_.c_str(), static_cast<void*>(existing.get()),
        static_cast<void*>(listener.get()));
    return;
  }
  if (reporter) {
    ORVI_LOGI("local conversation(%s) start tracing..", local_conversation_id_.c_str());
    reporter->onConversationOpen(conversationId(), local_conversation_id_, section_count_.load(), 0,
                                 0, "");
  }
  ORVI_LOGI("local conversation(%s) listen, listener: %p", local_conversation_id_.c_str(),
            static_cast<void*>(listener.get()));
}

// The transport is published only once its listener and sender are set, so
// no other thread can send through a transport that has no sender yet.
std::shared_ptr<ITransport> ConversationImpl::connect(std::shared_ptr<ITransportSender> sender) {
  if (!sender) {
    ORVI_LOGE("sender is null");
    return nullptr;
  }
  if (const auto existing = transport()) {
    ORVI_LOGW("transport is already connected, skip, addr = %p",
              static_cast<void*>(existing.get()));
    return existing;
  }
  auto fresh = std::make_shared<Transport>();
  fresh->setListener(sharedFromThis<Transport::Listener>(this));
  fresh->setSender(sender);
  std::shared_ptr<Transport> existing;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    existing = transport_;
    if (!existing) {
      transport_ = fresh;
      sender_ = sender;
    }
  }
  if (existing) {  // another thread connected meanwhile
    ORVI_LOGW("transport is already connected, skip, addr = %p",
              static_cast<void*>(existing.get()));
    return existing;
  }
  ORVI_LOGI("transport is connected, addr = %p", static_cast<void*>(fresh.get()));
  return fresh;
}

void ConversationImpl::setRunMode(RunMode mode) {
  ORVI_LOGI("local conversation(%s) set run mode: %d", local_conversation_id_.c_str(),
            static_cast<int>(mode));
  engine_->setRunMode(mode);
}

void ConversationImpl::enableResend(bool enable) {
  enable_resend_.store(enable);
  ORVI_LOGI("local conversation(%s) set enable_resend: %d", local_conversation_id_.c_str(), enable);
}

void ConversationImpl::setBabiParams(const std::string& params) {
  if (engine_) engine_->setBabiParams(params);
}

void ConversationImpl::registerCustomMessageHandler(
    std::shared_ptr<ICustomMessageHandler> handler) {
  engine_->registerCustomMessageHandler(std::move(handler));
}

ConversationDetail ConversationImpl::getDetail() {
  return ConversationDetail(local_conversation_id_, conversationId(), name_,
                            engine_->currentSection().section_id);
}

std::string ConversationImpl::conversationId() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return conversation_id_;
}

// Only the recovery of the latest section holds traffic back: the section
// it brings may be the one still streaming. Pages of older sections are
// history; sending and live frames go on while they are fetched (their
// answer is still handled in turn with the frames, as a delivery task).
bool ConversationImpl::isRecovering() const {
  return recover_remote_section_count_.count.load() != 0;
}

std::shared_ptr<ConversationListener> ConversationImpl::listener() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return listener_;
}

std::shared_ptr<Transport> ConversationImpl::transport() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return transport_;
}

std::shared_ptr<Reporter> ConversationImpl::reporter() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reporter_;
}

std::shared_ptr<RestApiClient> ConversationImpl::restClient() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!rest_client_ && transport_) rest_client_ = std::make_shared<RestApiClient>(transport_);
  return rest_client_;
}

}  // namespace orvi
