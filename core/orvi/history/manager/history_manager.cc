#include "orvi/history/manager/history_manager.h"

#include <algorithm>
#include <chrono>
#include <unordered_map>
#include <unordered_set>

#include "orvi/history/cacher/cacher.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/utils/clock.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

// Newest first, the order the executor lists them in.
void sortConversations(std::vector<ConversationInfo>& conversations) {
  std::stable_sort(conversations.begin(), conversations.end(),
                   [](const ConversationInfo& a, const ConversationInfo& b) {
                     if (a.create_time != b.create_time) return a.create_time > b.create_time;
                     return a.local_conversation_id < b.local_conversation_id;
                   });
}

}  // namespace

HistoryManager::HistoryManager(std::chrono::milliseconds init_stall) : init_stall_(init_stall) {}

HistoryManager::~HistoryManager() {
  ORVI_LOGI("HistoryManager::~HistoryManager");
}

bool HistoryManager::init(const std::string& cache_path, std::shared_ptr<ISqlExecutor> executor,
                          int64_t retention_days, bool enable_merge) {
  bool idle = false;
  if (!initialising_.compare_exchange_strong(idle, true)) {
    ORVI_LOGE("HistoryManager init is already running");
    return false;
  }
  const bool inited = initOnce(cache_path, std::move(executor), retention_days, enable_merge);
  initialising_.store(false);
  return inited;
}

bool HistoryManager::initOnce(const std::string& cache_path, std::shared_ptr<ISqlExecutor> executor,
                              int64_t retention_days, bool enable_merge) {
  bool already = false;
  {
    std::lock_guard<std::mutex> lock(cacher_mutex_);
    already = cacher_ != nullptr;
  }
  if (already) {
    ORVI_LOGE("HistoryManager is already inited");
    return false;
  }
  cache_path_ = cache_path;
  executor_ = executor;
  retention_days_ = retention_days;
  enable_merge_ = enable_merge;
  ORVI_LOGI("HistoryManager::init, cache_path = %s", cache_path.c_str());

  auto cacher = std::make_shared<Cacher>(cache_path, retention_days);
  const bool has_executor = executor != nullptr;
  cacher->registerSqlExecutor(std::move(executor));
  if (!cacher->init()) return false;
  if (!has_executor) {
    // Without a store there is no history to keep; failing here lets the
    // host configure again with one.
    ORVI_LOGE("sql executor is null, u need register it before config.");
    return false;
  }
  // A failed init keeps nothing, so that the next one starts afresh.
  if (!prepare(*cacher)) return false;
  size_t count = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    count = conversations_.size();
  }
  {
    std::lock_guard<std::mutex> lock(cacher_mutex_);
    cacher_ = std::move(cacher);
  }
  ORVI_LOGI("init success, loaded %zu conversations", count);
  return true;
}

bool HistoryManager::prepare(Cacher& cacher) {
  // Each step reads what the previous one queued, and reads may overtake
  // queued writes: let each step's writes land first. An import can be
  // long, so the wait has no limit as long as the store keeps writing; that
  // also keeps its "done" mark from being dropped at an early exit.
  const auto settle = [&](const char* step) {
    if (!cacher.waitWhileProgressing(init_stall_)) {
      ORVI_LOGE("the writes of the %s are not all done, init goes on", step);
    }
  };
  cacher.firstMigrationToDb();
  settle("legacy migration");
  cacher.removeExpiredConversations();
  settle("expiry pass");
  std::vector<ConversationInfo> loaded;
  if (!cacher.queryConversations(loaded)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  conversations_ = std::move(loaded);
  return true;
}

std::shared_ptr<Cacher> HistoryManager::readyCacher(const char* operation) {
  std::shared_ptr<Cacher> cacher;
  {
    std::lock_guard<std::mutex> lock(cacher_mutex_);
    cacher = cacher_;
  }
  if (!cacher) {
    ORVI_LOGE("%s failed, cacher_ is null", operation);
    return nullptr;
  }
  if (!cacher->inited()) {
    ORVI_LOGE("%s failed, cacher_ is not inited", operation);
    return nullptr;
  }
  return cacher;
}

std::vector<ConversationInfo>::iterator HistoryManager::findLocked(
    const std::string& local_conversation_id) {
  return std::find_if(conversations_.begin(), conversations_.end(),
                      [&](const ConversationInfo& info) {
                        return info.local_conversation_id == local_conversation_id;
                      });
}

void HistoryManager::addConversation(const std::string& local_conversation_id,
                                     const std::string& conversation_id, const std::string& name) {
  auto cacher = readyCacher("addConversation");
  if (!cacher) return;
  std::vector<ConversationInfo> snapshot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto existing = findLocked(local_conversation_id);
    if (existing != conversations_.end()) {
      ORVI_LOGI("SKIP to add conversation, local_conversation_id: %s, name: %s is already record",
                local_conversation_id.c_str(), existing->name.c_str());
      return;
    }
    const int64_t now = wallMs();
    conversations_.emplace_back(local_conversation_id, conversation_id, name, now, now,
                                std::nullopt, std::string());
    snapshot = conversations_;
  }
  ORVI_LOGI("add conversation success, local_conversation_id: %s, conversation_id: %s, name: %s",
            local_conversation_id.c_str(), conversation_id.c_str(), name.c_str());
  cacher->saveConversations(std::move(snapshot));
}

std::string HistoryManager::getConversationId(const std::string& local_conversation_id) {
  if (!readyCacher("getConversationId")) return std::string();
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = findLocked(local_conversation_id);
  return it == conversations_.end() ? std::string() : it->conversation_id;
}

std::vector<ConversationInfo> HistoryManager::conversations() {
  if (!readyCacher("conversations")) return {};
  std::lock_guard<std::mutex> lock(mutex_);
  return conversations_;
}

bool HistoryManager::findConversation(const std::string& local_conversation_id,
                                      ConversationInfo& out) {
  if (!readyCacher("findConversation")) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = findLocked(local_conversation_id);
  if (it == conversations_.end()) return false;
  out = *it;
  return true;
}

void HistoryManager::updateConversation(const ConversationInfo& conversation) {
  auto cacher = readyCacher("updateConversation");
  if (!cacher) return;
  std::vector<ConversationInfo> snapshot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = findLocked(conversation.local_conversation_id);
    if (it == conversations_.end()) return;
    *it = conversation;
    snapshot = conversations_;
  }
  cacher->updateConversations(std::move(snapshot));
}

void HistoryManager::saveConversationInfos(const std::vector<ConversationInfo>& page) {
  auto cacher = readyCacher("saveConversationInfos");
  if (!cacher) return;
  std::vector<ConversationInfo> snapshot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& remote : page) {
      const auto it = findLocked(remote.local_conversation_id);
      if (it == conversations_.end()) {
        conversations_.push_back(remote);
        continue;
      }
      // The server is the authority on what it names; the local create
      // time stays, since expiry is counted from it.
      if (!remote.conversation_id.empty()) it->conversation_id = remote.conversation_id;
      if (!remote.name.empty()) it->name = remote.name;
      if (remote.update_time) it->update_time = remote.update_time;
      if (remote.message_count) it->message_count = remote.message_count;
      if (!remote.extra.empty()) it->extra = remote.extra;
    }
    sortConversations(conversations_);
    snapshot = conversations_;
  }
  cacher->saveConversations(std::move(snapshot));
}

void HistoryManager::deleteConversation(const std::string& local_conversation_id) {
  auto cacher = readyCacher("deleteConversation");
  if (!cacher) return;
  std::vector<ConversationInfo> snapshot;
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = findLocked(local_conversation_id);
    if (it != conversations_.end()) {
      ORVI_LOGI(
          "delete local conversation: local_conversation_id: %s, conversation_id: %s, name: %s, "
          "create_time: %ld",
          it->local_conversation_id.c_str(), it->conversation_id.c_str(), it->name.c_str(),
          static_cast<long>(it->create_time));
      conversations_.erase(it);
      snapshot = conversations_;
      found = true;
    }
  }
  if (found) {
    cacher->saveConversations(std::move(snapshot));
    cacher->deleteConversations({local_conversation_id});
  }
  // Messages go even when the list never knew the conversation.
  cacher->removeMessages(local_conversation_id);
}

void HistoryManager::deactivateConversation(const std::string& local_conversation_id) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    states_.erase(local_conversation_id);
  }
  ORVI_LOGI("deactivate local conversation: %s", local_conversation_id.c_str());
}

void HistoryManager::setHistoryMessageLimited(const std::string& local_conversation_id,
                                              int32_t limited) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    states_[local_conversation_id].limited = limited;
  }
  ORVI_LOGI("setHistoryMessageLimited, local_conversation_id: %s, limited: %d",
            local_conversation_id.c_str(), limited);
}

int32_t HistoryManager::historyMessageLimited(const std::string& local_conversation_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = states_.find(local_conversation_id);
  return it == states_.end() ? 0 : it->second.limited;
}

std::vector<std::string> HistoryManager::getMessages(const std::string& local_conversation_id) {
  auto cacher = readyCacher("getMessages");
  if (!cacher) return {};
  std::vector<std::string> frames;
  for (auto& record : cacher->queryMessages(local_conversation_id)) {
    frames.push_back(std::move(record.content));
  }
  ORVI_LOGI("local_conversation_id: %s load message history size: %zu",
            local_conversation_id.c_str(), frames.size());
  return frames;
}

MessageQueryResult HistoryManager::getMessages(const std::string& local_conversation_id,
                                               int32_t cursor, int32_t count) {
  auto cacher = readyCacher("getMessages");
  if (!cacher) return MessageQueryResult();
  return cacher->queryMessages(local_conversation_id, cursor, count);
}

// The stored form of `message`; false (logged) when it has none.
static bool toRecord(const MessagePtr& message, MessageRecord& record) {
  record = MessageProcessor::message2Record(message);
  if (!record.type.empty()) return true;
  ORVI_LOGE("message2Record failed, message type: %d",
            message ? static_cast<int>(message->type()) : -1);
  return false;
}

void HistoryManager::recordMessage(const MessagePtr& message) {
  auto cacher = readyCacher("recordMessage");
  MessageRecord record;
  if (!cacher || !toRecord(message, record)) return;
  cacher->insertMessage(std::move(record));
}

void HistoryManager::updateMessage(const MessagePtr& message) {
  auto cacher = readyCacher("updateMessage");
  MessageRecord record;
  if (!cacher || !toRecord(message, record)) return;
  ORVI_LOGI("update message, local_conversation_id: %s, message_id: %s, local_message_id: %s",
            record.local_conversation_id.c_str(), record.message_id.c_str(),
            record.local_message_id.c_str());
  cacher->updateMessage(std::move(record));
}

void HistoryManager::deleteMessage(const std::string& local_conversation_id,
                                   const std::string& local_message_id) {
  auto cacher = readyCacher("deleteMessage");
  if (!cacher) return;
  ORVI_LOGI("remove message, local_conversation_id: %s, local_message_id: %s",
            local_conversation_id.c_str(), local_message_id.c_str());
  cacher->removeMessage(local_conversation_id, local_message_id);
}

void HistoryManager::deleteMessageById(const std::string& local_conversation_id,
                                       const std::string& message_id,
                                       const std::string& local_section_id) {
  auto cacher = readyCacher("deleteMessageById");
  if (!cacher) return;
  ORVI_LOGI("remove message, local_conversation_id: %s, message_id: %s, local_section_id: %s",
            local_conversation_id.c_str(), message_id.c_str(), local_section_id.c_str());
  cacher->removeMessageById(local_conversation_id, message_id, local_section_id);
}

void HistoryManager::deleteNamedMessages(const std::string& local_conversation_id,
                                         const std::vector<std::string>& ids) {
  auto cacher = readyCacher("deleteNamedMessages");
  if (!cacher) return;
  std::unordered_set<std::string> local_ids;
  std::unordered_set<std::string> prompt_server_ids;                  // these go by their local ids
  std::unordered_map<std::string, std::string> section_of_server_id;  // the newest wins
  for (const auto& record : cacher->queryMessages(local_conversation_id)) {
    if (!record.local_message_id.empty()) {
      local_ids.insert(record.local_message_id);
      prompt_server_ids.insert(record.message_id);
    } else if (!record.message_id.empty()) {
      section_of_server_id[record.message_id] = record.local_section_id;
    }
  }
  for (const auto& id : ids) {
    const auto found = section_of_server_id.find(id);
    if (local_ids.count(id)) {
      deleteMessage(local_conversation_id, id);
    } else if (found != section_of_server_id.end()) {
      deleteMessageById(local_conversation_id, id, found->second);
    } else if (!prompt_server_ids.count(id)) {
      ORVI_LOGW("remove message, local_conversation_id: %s, no stored message is named %s",
                local_conversation_id.c_str(), id.c_str());
    }
  }
}

std::string HistoryManager::findLocalSection(const std::string& local_conversation_id,
                                             const std::vector<MessagePtr>& messages,
                                             bool by_server_section) {
  auto cacher = readyCacher("findLocalSection");
  if (!cacher) return std::string();
  std::unordered_set<std::string> local_ids;
  std::string section_id;
  for (const auto& message : messages) {
    if (!message) continue;
    if (!message->envelope().local_message_id.empty()) {
      local_ids.insert(message->envelope().local_message_id);
    }
    if (section_id.empty()) section_id = message->sectionId();
  }
  std::string by_prompt, by_section;
  for (const auto& record : cacher->queryMessages(local_conversation_id)) {
    if (record.local_section_id.empty()) continue;
    if (local_ids.count(record.local_message_id)) by_prompt = record.local_section_id;
    if (!section_id.empty() && record.section_id == section_id) {
      by_section = record.local_section_id;  // the newest wins: ids come back after a restart
    }
  }
  return by_prompt.empty() && by_server_section ? by_section : by_prompt;
}

void HistoryManager::mergeMessage(const std::string& local_conversation_id,
                                  const std::vector<MessagePtr>& messages, bool add_missing) {
  // The switch is read after the cacher, which init publishes after it.
  auto cacher = readyCacher("mergeMessage");
  if (!cacher || !enable_merge_) return;
  // A message is known by its local id, or by its server id within its
  // local section: a restarted server hands out its ids again.
  const auto server_key = [](const std::string& message_id, const std::string& local_section_id) {
    return message_id + '\n' + local_section_id;
  };
  // The local id each stored message goes by, if any, keyed by server id.
  std::unordered_map<std::string, std::string> stored_ids;
  std::unordered_set<std::string> stored_local_ids;
  for (const auto& record : cacher->queryMessages(local_conversation_id)) {
    if (!record.message_id.empty()) {
      stored_ids[server_key(record.message_id, record.local_section_id)] = record.local_message_id;
    }
    if (!record.local_message_id.empty()) stored_local_ids.insert(record.local_message_id);
  }
  for (const auto& message : messages) {
    if (!message) continue;
    if (message->type() != MessageKind::User && message->type() != MessageKind::Assistant) {
      continue;
    }
    MessageEnvelope& ids = message->envelope();
    bool stored = stored_local_ids.count(ids.local_message_id) > 0;
    if (ids.local_message_id.empty() && !ids.message_id.empty()) {
      const auto found = stored_ids.find(server_key(ids.message_id, ids.local_section_id));
      stored = found != stored_ids.end();
      // A prompt the server sends back without its local id is still the
      // stored prompt, and keeps the id it is stored under.
      if (stored) ids.local_message_id = found->second;
    }
    if (stored) {
      updateMessage(message);
    } else if (add_missing) {
      recordMessage(message);
    }
  }
}

bool HistoryManager::flush(std::chrono::milliseconds timeout) {
  auto cacher = readyCacher("flush");
  return cacher && cacher->waitForWrites(timeout);
}

}  // namespace orvi
