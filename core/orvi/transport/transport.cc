#include "orvi/transport/transport.h"

#include "orvi/utils/logger.h"

namespace orvi {

Transport::Transport() { ORVI_LOGI("Transport ctor: %p", static_cast<void*>(this)); }

Transport::~Transport() { ORVI_LOGI("Transport dtor: %p", static_cast<void*>(this)); }

void Transport::setSender(const std::shared_ptr<ITransportSender>& sender) {
  ORVI_LOGI("Transport setSender: %p", static_cast<void*>(sender.get()));
  std::unique_lock<std::mutex> lock(mutex_);
  if (!sender_) {
    sender_ = sender;
  } else if (!sender) {
    sender_.reset();
    lock.unlock();
    ORVI_LOGI("Transport setSender: sender unset");
  } else {
    lock.unlock();
    ORVI_LOGW("Transport setSender: sender already set");
  }
}

void Transport::setListener(const std::shared_ptr<Listener>& listener) {
  ORVI_LOGI("Transport setListener: %p", static_cast<void*>(listener.get()));
  std::unique_lock<std::mutex> lock(mutex_);
  if (listener && !listener_.expired()) {
    lock.unlock();
    ORVI_LOGW("Transport setListener: listener already set, skip!");
    return;
  }
  listener_ = listener;
}

std::shared_ptr<ITransportSender> Transport::sender() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sender_;
}

bool Transport::sendMessage(const std::string& message) {
  auto sender = this->sender();
  if (!sender) {
    ORVI_LOGE("Transport send: sender not set");
    return false;
  }
  ORVI_LOGD("Transport send: %s", message.c_str());
  return sender->sendMessage(message);
}

void Transport::httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) {
  auto sender = this->sender();
  if (!sender) {
    ORVI_LOGE("Transport httpRequest: sender not set");
    return;
  }
  sender->httpRequest(request, std::move(callback));
}

void Transport::onMessageReceived(const std::string& message) {
  std::shared_ptr<Listener> listener;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    listener = listener_.lock();
  }
  if (!listener) {
    ORVI_LOGI("Transport onRecv: %s", message.c_str());
    return;
  }
  listener->onMessageReceived(message);
}

}  // namespace orvi
