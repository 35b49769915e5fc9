#include "orvi/message/engine/message_engine.h"

#include <exception>
#include <utility>

#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/custom_message_wrapper.h"
#include "orvi/message/wrapper/delta_message_wrapper.h"
#include "orvi/message/wrapper/system_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/type_converter.h"
#include "orvi/utils/unique_id.h"

namespace orvi {
namespace {

const char kCancelAction[] = "cancel";

// The id a stored message is known by in the history list.
std::string historyKey(const MessageBase& message) {
  const MessageEnvelope& ids = message.envelope();
  return message.type() == MessageKind::User ? ids.local_message_id : ids.message_id;
}

}  // namespace

MessageEngine::MessageEngine(std::string local_conversation_id)
    : local_conversation_id_(std::move(local_conversation_id)) {
  ORVI_LOGI("MessageEngine created, id: %s", local_conversation_id_.c_str());
}

MessageEngine::~MessageEngine() {
  ORVI_LOGI("MessageEngine destroyed, id: %s", local_conversation_id_.c_str());
}

MessagePtr MessageEngine::enqueue(const MessagePtr& message) {
  if (!message) {
    ORVI_LOGE("MessageEngine enqueue failed, message is null");
    return nullptr;
  }
  switch (message->type()) {
    case MessageKind::User: return enqueueUser(message);
    case MessageKind::Assistant: return enqueueAssistant(message);
    case MessageKind::Delta: return enqueueDelta(message);
    case MessageKind::System: return enqueueSystem(message);
    case MessageKind::Custom: return enqueueCustom(message);
  }
  return nullptr;
}

bool MessageEngine::isPrompt(const MessagePtr& message) const {
  const auto* user = dynamic_cast<const UserMessageWrapper*>(message.get());
  if (!user) {
    ORVI_LOGE("Invalid UserMessageWrapper");
    return false;
  }
  if (!user->message()) {
    ORVI_LOGE("Invalid UserMessage");
    return false;
  }
  // "action is null and content is not empty"
  return !user->message()->action && user->message()->content.has_value();
}

MessagePtr MessageEngine::enqueueUser(const MessagePtr& message) {
  auto* user = dynamic_cast<UserMessageWrapper*>(message.get());
  if (!user) {
    ORVI_LOGE("Invalid User message from client");
    return nullptr;
  }
  std::lock_guard<std::mutex> state(state_mutex_);
  const auto& record = user->message();
  if (record) {
    record->source = MessageSource::Live;
    if (!user->localSectionId().empty()) {
      // A message of a turn already open (resend, cancel) re-adopts its ids;
      // but one that names the turn in progress without its server id (read
      // before the server named it) keeps the server id.
      if (user->localSectionId() != local_section_id_ || !user->sectionId().empty()) {
        section_id_ = user->sectionId();
      }
      local_section_id_ = user->localSectionId();
    } else if (isPrompt(message)) {
      const std::string next = generateUniqueId();
      ORVI_LOGI(
          "user message action is null and content is not empty, means new prompt, update "
          "section_id(%s) to empty and local_section_id to %s",
          section_id_.c_str(), local_section_id_.c_str());
      section_id_.clear();
      local_section_id_ = next;
      std::lock_guard<std::mutex> lock(queue_mutex_);
      ORVI_LOGI(
          "user message action is null and content is not empty, means new prompt, clear "
          "message queue, current queue size: %zu",
          queue_.size());
      queue_.clear();
      // The answers of earlier turns are done with: a late delta for one of
      // them is dropped ("is not found") instead of growing it.
      assistant_index_.clear();
    }
    if (record->action && *record->action == kCancelAction) {
      ORVI_LOGI("user message action is cancel, means cancel current conversation");
      record->status = MessageStatus::Cancelled;
    }
  }

  user->setSectionIds(section_id_, local_section_id_);
  if (record) record->section = SectionInfo(section_id_, local_section_id_);
  ORVI_LOGD("user message takes section id: %s", section_id_.c_str());
  if (const auto run_mode = runModeText(run_mode_)) user->setRunMode(*run_mode);
  if (!babi_params_.empty()) user->setBabiParams(babi_params_);

  std::lock_guard<std::mutex> queue(queue_mutex_);
  queue_.push_back(message);
  return message;
}

MessagePtr MessageEngine::enqueueAssistant(const MessagePtr& message) {
  auto* assistant = dynamic_cast<AssistantMessageWrapper*>(message.get());
  if (!assistant) {
    ORVI_LOGE("Invalid Assistant message from server");
    return nullptr;
  }
  if (assistant->isAcknowledgement()) return enqueueAcknowledgement(*assistant, message);
  std::lock_guard<std::mutex> state(state_mutex_);
  if (!assistant->localSectionId().empty() && !local_section_id_.empty() &&
      assistant->localSectionId() != local_section_id_) {
    // Output of an older turn arriving late.
    ORVI_LOGW("assistant message takes local section id(%s) diff from local_section_id_(%s)",
              assistant->localSectionId().c_str(), local_section_id_.c_str());
    return nullptr;
  }
  if (assistant->sectionId() != section_id_) {
    // This is how the server's section id reaches the engine.
    ORVI_LOGI("assistant message update section id from (%s) to (%s)", section_id_.c_str(),
              assistant->sectionId().c_str());
    section_id_ = assistant->sectionId();
  }
  const auto& record = assistant->message();
  if (!record) return message;

  record->section = SectionInfo(section_id_, local_section_id_);
  record->source = MessageSource::Live;
  if (record->message_id.empty()) {
    ORVI_LOGE("Assistant message id is empty, pls check with server RD");
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(queue_mutex_);
  queue_.push_back(message);
  // A later message with the same id replaces the entry.
  assistant_index_[record->message_id] = message;
  return message;
}

// An acknowledgement is where the server first names a prompt's section, so
// it brings the section id in, as an answer would; it is neither queued nor
// indexed. One for a message of an earlier turn (a late acknowledgement of
// the previous prompt) still settles that message, but leaves the turn in
// progress alone. Without a local section id it counts as this turn's when
// the message it acknowledges is in the live queue.
MessagePtr MessageEngine::enqueueAcknowledgement(const AssistantMessageWrapper& ack,
                                                 const MessagePtr& message) {
  const std::string& local_message_id = ack.envelope().local_message_id;
  std::lock_guard<std::mutex> state(state_mutex_);
  bool this_turn = !local_section_id_.empty() && ack.localSectionId() == local_section_id_;
  if (ack.localSectionId().empty() && !local_message_id.empty()) {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    for (const auto& queued : queue_) {
      if (queued->type() == MessageKind::User &&
          queued->envelope().local_message_id == local_message_id) {
        this_turn = true;
        break;
      }
    }
  }
  if (this_turn && !ack.sectionId().empty() && ack.sectionId() != section_id_) {
    ORVI_LOGI("assistant message update section id from (%s) to (%s)", section_id_.c_str(),
              ack.sectionId().c_str());
    section_id_ = ack.sectionId();
  }
  return message;
}

MessagePtr MessageEngine::enqueueDelta(const MessagePtr& message) {
  patch(message);
  const auto* delta = dynamic_cast<const DeltaMessageWrapper*>(message.get());
  if (!delta) return nullptr;
  std::lock_guard<std::mutex> lock(queue_mutex_);
  const auto it = assistant_index_.find(delta->targetMessageId());
  return it == assistant_index_.end() ? nullptr : it->second;
}

MessagePtr MessageEngine::enqueueSystem(const MessagePtr& message) {
  auto* system = dynamic_cast<SystemMessageWrapper*>(message.get());
  if (!system) {
    ORVI_LOGE("Invalid System message from server");
    return nullptr;
  }
  const auto& record = system->message();
  if (!record) {
    ORVI_LOGE("System message is nullptr");
    return nullptr;
  }
  record->section = SectionInfo(system->sectionId(), system->localSectionId());
  std::lock_guard<std::mutex> state(state_mutex_);
  if (record->code != 0) {
    ORVI_LOGE("System message: code = %d, msg = %s", record->code, record->msg.c_str());
    return message;
  }

  if (record->msg == "stream_complete") {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    for (auto it = queue_.rbegin(); it != queue_.rend(); ++it) {
      if ((*it)->type() != MessageKind::Assistant) continue;
      auto* assistant = static_cast<AssistantMessageWrapper*>(it->get());
      if (assistant->message()) {
        ORVI_LOGI("Assistant message %s status %d -> %d", assistant->message()->message_id.c_str(),
                  static_cast<int>(assistant->message()->status),
                  static_cast<int>(MessageStatus::Completed));
        assistant->message()->status = MessageStatus::Completed;
      }
      return *it;
    }
    return nullptr;
  }

  if (record->msg == "section_complete") {
    if (!system->localSectionId().empty() && system->localSectionId() == local_section_id_) {
      ORVI_LOGI("[section_complete] update section_id(%s) and local_section_id(%s) to empty",
                section_id_.c_str(), local_section_id_.c_str());
      section_id_.clear();
      local_section_id_.clear();
    } else {
      ORVI_LOGW("system message takes local section id(%s) diff from local_section_id_(%s)",
                system->localSectionId().c_str(), local_section_id_.c_str());
    }
  }
  return message;
}

MessagePtr MessageEngine::enqueueCustom(const MessagePtr& message) {
  auto* custom = dynamic_cast<CustomMessageWrapper*>(message.get());
  if (custom) custom->sync();  // the processor leaves custom records unbuilt
  if (!custom || !custom->message()) {
    ORVI_LOGE("Invalid Custom message from server");
    return nullptr;
  }
  const CustomMessage& record = *custom->message();
  if (record.content.content.empty()) {
    ORVI_LOGE("Custom message content is empty");
    return nullptr;
  }
  std::shared_ptr<ICustomMessageHandler> handler;
  {
    std::lock_guard<std::mutex> state(state_mutex_);
    handler = custom_handler_;
    if (handler && custom->sectionId() != section_id_) {
      ORVI_LOGI("Custom message update section id from (%s) to (%s)", section_id_.c_str(),
                custom->sectionId().c_str());
      section_id_ = custom->sectionId();
    }
  }
  if (!handler) {
    ORVI_LOGE("Custom message handler is not registered");
    return nullptr;
  }

  // The host's handler runs with no engine lock held.
  std::optional<CustomMessage> handled;
  handler->onCustomMessage(record, handled);
  if (!handled) return nullptr;
  ORVI_LOGI("Custom message %s handled done!", record.message_id.c_str());

  auto assistant = std::make_shared<AssistantMessageWrapper>();
  assistant->envelope() = custom->envelope();
  auto result = std::make_shared<AssistantMessage>();
  result->message_id = handled->message_id.empty() ? record.message_id : handled->message_id;
  result->content = handled->content;
  result->status = MessageStatus::Completed;
  result->create_time = custom->wire().create_time;
  result->update_time = custom->wire().update_time.value_or(result->create_time);
  assistant->setMessage(std::move(result));
  return enqueueAssistant(assistant);
}

void MessageEngine::stash(const MessagePtr& message) {
  if (message && message->type() == MessageKind::User) {
    ORVI_LOGE("MessageEngine stash failed, message type is user");
    return;
  }
  std::lock_guard<std::mutex> lock(queue_mutex_);
  stash_.push_back(message);
}

bool MessageEngine::hasStashed() {
  std::lock_guard<std::mutex> lock(queue_mutex_);
  return !stash_.empty();
}

MessagePtr MessageEngine::popStashed() {
  std::lock_guard<std::mutex> lock(queue_mutex_);
  if (stash_.empty()) return nullptr;
  MessagePtr front = std::move(stash_.front());
  stash_.pop_front();
  return front;
}

MessagePtr MessageEngine::recover(const MessagePtr& message) {
  if (!message) {
    ORVI_LOGE("MessageEngine recover failed, message is null");
    return nullptr;
  }
  if (message->type() == MessageKind::Assistant) {
    auto* assistant = dynamic_cast<AssistantMessageWrapper*>(message.get());
    if (!assistant) {
      ORVI_LOGE("Invalid Assistant message from recover");
      return nullptr;
    }
    if (!assistant->message()) {
      ORVI_LOGE("Assistant message is nullptr!");
      return nullptr;
    }
    assistant->message()->section = SectionInfo(message->sectionId(), message->localSectionId());
  } else if (message->type() == MessageKind::User) {
    auto* user = dynamic_cast<UserMessageWrapper*>(message.get());
    if (!user) {
      ORVI_LOGE("Invalid User message from recover");
      return nullptr;
    }
    if (user->message()) {
      if (user->message()->action && *user->message()->action == kCancelAction) {
        ORVI_LOGI("user message action is cancel, means cancel current conversation");
      }
      user->message()->section = SectionInfo(message->sectionId(), message->localSectionId());
    }
  }

  const std::string key = historyKey(*message);
  std::lock_guard<std::mutex> lock(history_mutex_);
  if (!key.empty()) {
    for (const auto& stored : history_) {
      if (stored->type() == message->type() && historyKey(*stored) == key) {
        ORVI_LOGI("MessageEngine recover cancel, message is exist");
        return nullptr;
      }
    }
  }
  history_.push_back(message);
  return message;
}

void MessageEngine::clearHistory() {
  {
    std::lock_guard<std::mutex> lock(history_mutex_);
    history_.clear();
  }
  ORVI_LOGI("MessageEngine clear history");
}

std::vector<MessagePtr> MessageEngine::takeHistorySection(bool latest_only) {
  std::vector<MessagePtr> result;
  std::lock_guard<std::mutex> lock(history_mutex_);
  if (!latest_only || history_.empty()) {
    result.assign(history_.begin(), history_.end());
    history_.clear();
  } else {
    const MessagePtr& newest = history_.back();
    const std::string target = newest->sectionId();
    auto first = std::prev(history_.end());
    if (target.empty() && newest->type() == MessageKind::User) {
      ORVI_LOGW("the latest message is user message prompt, stop..");
    } else {
      // Walk back over the section. Its prompt was stored before the server
      // named the section, so a message without a section id still belongs
      // to it when its local section id matches the run's.
      const std::string local_target = newest->localSectionId();
      while (first != history_.begin()) {
        const MessageBase& previous = **std::prev(first);
        const bool same_section = previous.sectionId() == target ||
                                  (previous.sectionId().empty() && !local_target.empty() &&
                                   previous.localSectionId() == local_target);
        if (!same_section) break;
        --first;
      }
    }
    result.assign(first, history_.end());
    history_.erase(first, history_.end());
  }
  ORVI_LOGD("result size: %d", static_cast<int>(result.size()));
  return result;
}

MessagePtr MessageEngine::lastMessageByType(MessageKind type, const std::string& message_id) {
  std::lock_guard<std::mutex> lock(queue_mutex_);
  for (auto it = queue_.rbegin(); it != queue_.rend(); ++it) {
    if ((*it)->type() != type) continue;
    if (type != MessageKind::User || message_id.empty() ||
        (*it)->envelope().local_message_id == message_id) {
      return *it;
    }
  }
  ORVI_LOGW("can not find last msg by type: %d", static_cast<int>(type));
  return nullptr;
}

std::optional<AssistantMessage> MessageEngine::assistantSnapshot(const std::string& message_id) {
  std::lock_guard<std::mutex> lock(queue_mutex_);
  const auto it = assistant_index_.find(message_id);
  if (it == assistant_index_.end()) return std::nullopt;
  const auto* assistant = dynamic_cast<const AssistantMessageWrapper*>(it->second.get());
  if (!assistant || !assistant->message()) return std::nullopt;
  return *assistant->message();
}

void MessageEngine::recoverSectionId(const std::string& section_id,
                                     const std::string& local_section_id) {
  std::lock_guard<std::mutex> state(state_mutex_);
  if (section_id_.empty()) {
    section_id_ = section_id;
    ORVI_LOGI("local_conversation_id(%s) update section_id: %s", local_conversation_id_.c_str(),
              section_id_.c_str());
  } else {
    ORVI_LOGW(
        "Attempt to recover section_id %s for local_conversation_id %s, but it is already "
        "set to %s",
        section_id.c_str(), local_conversation_id_.c_str(), section_id_.c_str());
  }
  if (local_section_id_.empty()) {
    // Deliberately the server's section id, not `local_section_id`: a section
    // restored from the server has no local id of this process, and keying it
    // by the server id makes its later messages match it.
    local_section_id_ = section_id_;
    ORVI_LOGI("local_conversation_id(%s) update local_section_id: %s",
              local_conversation_id_.c_str(), local_section_id_.c_str());
  } else {
    ORVI_LOGW(
        "Attempt to recover local_section_id %s for local_conversation_id %s, but it is "
        "already set to %s",
        local_section_id.c_str(), local_conversation_id_.c_str(), local_section_id_.c_str());
  }
}

void MessageEngine::registerCustomMessageHandler(std::shared_ptr<ICustomMessageHandler> handler) {
  ORVI_LOGI("local conversation(%s) register custom message handler: %p",
            local_conversation_id_.c_str(), static_cast<void*>(handler.get()));
  custom_handler_ = std::move(handler);
}

void MessageEngine::setBabiParams(const std::string& babi_params) {
  std::lock_guard<std::mutex> state(state_mutex_);
  babi_params_ = babi_params;
  ORVI_LOGI("local conversation(%s) update babi params: %s", local_conversation_id_.c_str(),
            babi_params_.c_str());
}

SectionInfo MessageEngine::currentSection() const {
  std::lock_guard<std::mutex> state(state_mutex_);
  return SectionInfo(section_id_, local_section_id_);
}

void MessageEngine::setRunMode(RunMode mode) {
  std::lock_guard<std::mutex> state(state_mutex_);
  run_mode_ = mode;
}

}  // namespace orvi
