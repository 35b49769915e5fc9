#include "orvi/conversation/conversation_hub.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>

#include "orvi/conversation/conversation_impl.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/rest_api/rest_api.h"
#include "orvi/transport/transport.h"
#include "orvi/utils/logger.h"

namespace orvi {

std::shared_ptr<ConversationHub> ConversationHub::instance() {
  static const std::shared_ptr<ConversationHubImpl> hub = std::make_shared<ConversationHubImpl>();
  return hub;
}

ConversationHubImpl::ConversationHubImpl() : history_(std::make_shared<HistoryManager>()) {
  conversations_.max_load_factor(1.0f);
  conversations_.reserve(8);
}

ConversationHubImpl::~ConversationHubImpl() = default;

void ConversationHubImpl::config(const OrviConfig& config, std::shared_ptr<ISqlExecutor> executor) {
  bool idle = false;
  const bool runs = configuring_.compare_exchange_strong(idle, true);
  if (!runs || configured_.load()) {
    if (runs) configuring_.store(false);
    ORVI_LOGW("config is already set, don't config again..");
    return;
  }
  cache_path_ = config.cache_path;
  retention_days_ = config.retention_days;
  enable_merge_ = config.enable_merge;
  bool initialised = false;
  try {
    initialised = history_->init(cache_path_, std::move(executor), retention_days_, enable_merge_);
  } catch (const std::exception& e) {
    // The history contains the host store's exceptions; this is the last
    // line for anything else (an allocation failure), so config stays
    // retryable.
    ORVI_LOGE("config failed: %s", e.what());
  }
  if (initialised) {
    configured_.store(true);
    ORVI_LOGI("config done, cache_path = %s", cache_path_.c_str());
  } else {
    // Nothing is marked configured, so a later config retries the same
    // manager (which the conversations opened so far already share).
    ORVI_LOGE("init history manager failed, local history feature is unusable!!!");
  }
  configuring_.store(false);
}

bool ConversationHubImpl::checkConversation(const std::string& local_conversation_id) {
  const auto it = conversations_.find(local_conversation_id);
  if (it == conversations_.end()) {
    ORVI_LOGE("local conversation(%s) is not found", local_conversation_id.c_str());
    return false;
  }
  if (!it->second.expired()) return true;
  ORVI_LOGE("local conversation(%s) is expired, clear..", local_conversation_id.c_str());
  conversations_.erase(it);
  return false;
}

std::shared_ptr<Conversation> ConversationHubImpl::open(const std::string& local_conversation_id,
                                                        const ConversationOptions& options) {
  ORVI_LOGI("open conversation, local_conversation_id = (%s)", local_conversation_id.c_str());
  if (!local_conversation_id.empty()) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (checkConversation(local_conversation_id)) {
      ORVI_LOGE("local conversation(%s) is already opened", local_conversation_id.c_str());
      return nullptr;
    }
  }
  auto conversation = std::make_shared<ConversationImpl>(local_conversation_id, options, history_);
  size_t size = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sweepExpired();
    auto& entry = conversations_[conversation->localConversationId()];
    if (!entry.expired()) {
      // Opened by another thread meanwhile.
      ORVI_LOGE("local conversation(%s) is already opened", local_conversation_id.c_str());
      return nullptr;
    }
    entry = conversation;
    size = conversations_.size();
  }
  ORVI_LOGI(
      "open conversation, local_conversation_id = %s, conversation_id = %s, "
      "conversations_ size = %zu",
      conversation->localConversationId().c_str(), conversation->conversationId().c_str(), size);
  return conversation;
}

// Conversations the host dropped without close leave expired entries. They
// are swept whenever the map has doubled since the last sweep, so it never
// holds more than about twice the conversations alive (and at least the
// reserved buckets' worth), at a cost spread over the opens.
void ConversationHubImpl::sweepExpired() {
  if (conversations_.size() < sweep_at_) return;
  for (auto it = conversations_.begin(); it != conversations_.end();) {
    it = it->second.expired() ? conversations_.erase(it) : std::next(it);
  }
  sweep_at_ = std::max(kFirstSweep, 2 * conversations_.size());
}

void ConversationHubImpl::close(const std::string& local_conversation_id) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    conversations_.erase(local_conversation_id);
  }
  ORVI_LOGI(
      "close conversation, you must ensure that you won't use the "
      "`conversation`(local_conversation_id = %s) again!",
      local_conversation_id.c_str());
}

std::vector<ConversationInfo> ConversationHubImpl::list() {
  return history_->conversations();
}

std::shared_ptr<RestApiClient> ConversationHubImpl::restClient() {
  std::lock_guard<std::mutex> lock(remote_mutex_);
  if (!sender_) return nullptr;
  if (!rest_client_) rest_client_ = std::make_shared<RestApiClient>(transport_);
  return rest_client_;
}

std::shared_ptr<ConversationHubListener> ConversationHubImpl::hubListener() {
  std::lock_guard<std::mutex> lock(remote_mutex_);
  return listener_;
}

bool ConversationHubImpl::listRemote(const std::string& cursor, int32_t count,
                                     bool create_time_desc,
                                     std::shared_ptr<IConversations> callback) {
  const auto client = restClient();
  if (!client) {
    ORVI_LOGE("sender is null, remote conversation list need sender set.");
    return false;
  }
  std::weak_ptr<HistoryManager> history = history_;
  client->requestConversationList(
      cursor, count, create_time_desc, [history, callback](const std::string& body) {
        ORVI_LOGD("conversation list: %s", body.c_str());
        const ConversationListInfo page = MessageProcessor::parseConversationListResp(body);
        if (callback) callback->onConversations(page);
        if (page.error) return;
        if (const auto manager = history.lock()) manager->saveConversationInfos(page.conversations);
      });
  return true;
}

void ConversationHubImpl::saveConversationInfos(const ConversationListInfo& page) {
  history_->saveConversationInfos(page.conversations);
}

bool ConversationHubImpl::remove(const std::string& local_conversation_id) {
  const auto client = restClient();
  if (!client) {
    ORVI_LOGE("sender is null, remote conversation list need sender set.");
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (checkConversation(local_conversation_id)) {
      ORVI_LOGI("local conversation(%s) is opened, can't remove", local_conversation_id.c_str());
      return false;
    }
  }
  ConversationInfo info;
  const std::string conversation_id =
      history_->findConversation(local_conversation_id, info) ? info.conversation_id : "";
  std::weak_ptr<HistoryManager> history = history_;
  const auto listener = hubListener();
  if (conversation_id.empty()) {
    // The server never named it, so it has nothing to delete: the local
    // record goes at once, and the host hears of it as of any removal.
    ORVI_LOGI("local conversation(%s) has no conversation_id, remove local only",
              local_conversation_id.c_str());
    history_->deleteConversation(local_conversation_id);
    if (listener) listener->onConversationRemoved(true);
    return true;
  }
  client->requestConversationBatchDelete(
      {conversation_id}, [history, listener, local_conversation_id](const std::string& body) {
        ORVI_LOGD("delete conversation messages: %s", body.c_str());
        const bool success = MessageProcessor::parseConversationBatchDeleteResp(body);
        if (listener) listener->onConversationRemoved(success);
        // The local record goes only once the server has confirmed.
        if (!success) return;
        if (const auto manager = history.lock()) manager->deleteConversation(local_conversation_id);
      });
  return true;
}

bool ConversationHubImpl::removeLocal(const std::string& local_conversation_id) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (checkConversation(local_conversation_id)) {
      ORVI_LOGI("local conversation(%s) is opened, can't remove", local_conversation_id.c_str());
      return false;
    }
  }
  ConversationInfo info;
  if (!configured_.load() || !history_->findConversation(local_conversation_id, info)) {
    ORVI_LOGW("local conversation(%s) is not stored, nothing to remove",
              local_conversation_id.c_str());
    return false;
  }
  history_->deleteConversation(local_conversation_id);
  return true;
}

void ConversationHubImpl::listen(std::shared_ptr<ConversationHubListener> listener) {
  if (!listener) {
    ORVI_LOGE("listen conversation hub listener is null");
    return;
  }
  std::lock_guard<std::mutex> lock(remote_mutex_);
  if (listener_) {
    ORVI_LOGE("listen conversation hub listener is already set");
    return;
  }
  listener_ = std::move(listener);
}

bool ConversationHubImpl::flush(int64_t timeout_ms) {
  const int64_t bounded = std::max<int64_t>(timeout_ms, 0);
  try {
    return history_->flush(std::chrono::milliseconds(bounded));
  } catch (const std::exception& e) {
    ORVI_LOGE("flush failed: %s", e.what());
    return false;
  }
}

std::shared_ptr<ITransport> ConversationHubImpl::connect(std::shared_ptr<ITransportSender> sender) {
  if (!sender) {
    ORVI_LOGE("sender is null");
    return nullptr;
  }
  std::shared_ptr<Transport> existing;
  {
    std::lock_guard<std::mutex> lock(remote_mutex_);
    existing = transport_;
  }
  if (!existing) {
    // Published only once its sender is set: a remote call made meanwhile
    // on another thread never goes through a transport without one.
    auto fresh = std::make_shared<Transport>();
    fresh->setSender(sender);
    {
      std::lock_guard<std::mutex> lock(remote_mutex_);
      existing = transport_;
      if (!existing) {
        sender_ = sender;
        transport_ = fresh;
      }
    }
    if (!existing) {
      ORVI_LOGI("transport is connected, addr = %p", static_cast<void*>(fresh.get()));
      return fresh;
    }
  }
  ORVI_LOGW("transport is already connected, skip, addr = %p", static_cast<void*>(existing.get()));
  return existing;
}

}  // namespace orvi
