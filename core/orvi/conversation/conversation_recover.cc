// ConversationImpl: stored history handed to the host, sections recovered
// from the server, history pages, and changes to stored messages.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "orvi/conversation/conversation_impl.h"
#include "orvi/conversation/delayed_task_timer.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/message/engine/message_engine.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/system_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "orvi/rest_api/rest_api.h"
#include "orvi/utils/clock.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

bool parseInt32(const std::string& text, int32_t& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return false;
  out = static_cast<int32_t>(value);
  return true;
}

bool isKnownRecoverStatus(RecoverStatus status) {
  const int value = static_cast<int>(status);
  return value >= static_cast<int>(RecoverStatus::Completed) &&
         value <= static_cast<int>(RecoverStatus::Failed);
}

}  // namespace

// Stored messages of this conversation: a page when `count` is positive
// (paging back from `cursor`), else the newest history_message_limited_
// (all of them without a limit). A limited read is a page too, so that its
// cursor leads on to the older messages rather than back to the same ones.
std::vector<MessagePtr> ConversationImpl::storedMessages(int32_t cursor, int32_t count,
                                                         bool* has_more, int32_t* next_cursor) {
  std::vector<std::string> frames;
  *has_more = false;
  *next_cursor = 0;
  if (count <= 0 && history_message_limited_ > 0) {
    cursor = 0;
    count = history_message_limited_;
  }
  if (count > 0) {
    MessageQueryResult page = history_->getMessages(local_conversation_id_, cursor, count);
    for (auto& record : page.messages) frames.push_back(std::move(record.content));
    *has_more = page.has_more;
    *next_cursor = page.count;
  } else {
    frames = history_->getMessages(local_conversation_id_);
  }
  ORVI_LOGI("local_conversation_id = %s, messages size = %zu", local_conversation_id_.c_str(),
            frames.size());
  std::vector<MessagePtr> messages;
  for (const auto& frame : frames) {
    if (MessagePtr message = MessageProcessor::parse(frame)) messages.push_back(message);
  }
  return messages;
}

std::vector<ComboMessage> ConversationImpl::toComboMessages(
    const std::vector<MessagePtr>& messages) {
  std::vector<ComboMessage> combos;
  for (const auto& message : messages) {
    ComboMessage combo;
    if (const auto* user = dynamic_cast<const UserMessageWrapper*>(message.get())) {
      combo.type = MessageType::User;
      if (user->message()) combo.user_message = *user->message();
    } else if (const auto* assistant =
                   dynamic_cast<const AssistantMessageWrapper*>(message.get())) {
      combo.type = MessageType::Assistant;
      if (assistant->message()) combo.assistant_message = *assistant->message();
    } else if (const auto* system = dynamic_cast<const SystemMessageWrapper*>(message.get())) {
      combo.type = MessageType::System;
      if (system->message()) {
        combo.system_message = *system->message();
        combo.system_message->section = SectionInfo(system->sectionId(), system->localSectionId());
      }
    } else {
      ORVI_LOGE("Unknown message type: %d", static_cast<int>(message->type()));
      continue;
    }
    combos.push_back(std::move(combo));
  }
  return combos;
}

// Hands stored messages to the listener; entries whose member is missing
// are skipped. Returns how many were handed over.
int32_t ConversationImpl::handOver(const std::vector<ComboMessage>& messages) {
  const auto listener = this->listener();
  if (!listener) {
    ORVI_LOGE("local conversation(%s) popup combo messages, listener_ is null",
              local_conversation_id_.c_str());
    return 0;
  }
  int32_t delivered = 0;
  for (const auto& combo : messages) {
    switch (combo.type) {
      case MessageType::User:
        if (!combo.user_message) {
          ORVI_LOGE("local conversation(%s) popupHistoryMessages, user_message is null",
                    local_conversation_id_.c_str());
          continue;
        }
        listener->onUserMessage(*combo.user_message);
        break;
      case MessageType::System:
        if (!combo.system_message) {
          ORVI_LOGE("local conversation(%s) popupHistoryMessages, system_message is null",
                    local_conversation_id_.c_str());
          continue;
        }
        listener->onSystemMessage(*combo.system_message);
        break;
      case MessageType::Assistant:
        if (!combo.assistant_message) {
          ORVI_LOGE("local conversation(%s) popupHistoryMessages, assistant_message is null",
                    local_conversation_id_.c_str());
          continue;
        }
        listener->onAssistantMessage(*combo.assistant_message);
        break;
      default: continue;
    }
    ++delivered;
  }
  return delivered;
}

int32_t ConversationImpl::popupHistoryMessages(bool only_latest_section, int32_t cursor,
                                               int32_t count) {
  const auto self = keepAlive();
  ORVI_LOGI("only_latest_section = %d", only_latest_section);
  const auto listener = this->listener();
  if (!listener) {
    ORVI_LOGE("local conversation(%s) popup combo messages, listener_ is null",
              local_conversation_id_.c_str());
    return 0;
  }
  bool has_more = false;
  int32_t next_cursor = 0;
  engine_->clearHistory();
  for (const auto& message : storedMessages(cursor, count, &has_more, &next_cursor)) {
    engine_->recover(message);
  }
  std::vector<ComboMessage> combos =
      toComboMessages(engine_->takeHistorySection(only_latest_section));
  for (auto& combo : combos) {
    if (combo.user_message) combo.user_message->source = MessageSource::LocalHistory;
    if (combo.assistant_message) combo.assistant_message->source = MessageSource::LocalHistory;
    if (combo.system_message) combo.system_message->source = MessageSource::LocalHistory;
  }
  engine_->clearHistory();
  const int32_t delivered = handOver(combos);

  listener->onSectionStatus(SectionStatus::Completed, true, engine_->currentSection());
  if (!has_more) {
    listener->onRecoverStatus(RecoverStatus::Completed, RecoverExtra(false, std::string()));
  }
  listener->onRecoverStatus(RecoverStatus::Delivered,
                            RecoverExtra(has_more, std::to_string(next_cursor)));
  return delivered;
}

// Recovered messages carry the section they belong to and their real
// state: in a section that is still running, its newest answer is still
// streaming.
void ConversationImpl::markRecovered(const RecoveredSection& section, bool latest) {
  // A server that does not echo the local section leaves it to be found
  // from what is stored: without it the turn's answers would be stored
  // apart from their prompt.
  const bool unplaced =
      std::any_of(section.messages.begin(), section.messages.end(),
                  [](const MessagePtr& m) { return m->localSectionId().empty(); });
  const std::string local_section =
      unplaced && history_
          ? history_->findLocalSection(local_conversation_id_, section.messages, latest)
          : std::string();
  MessagePtr newest_answer;
  for (const auto& message : section.messages) {
    message->envelope().local_conversation_id = local_conversation_id_;
    if (message->localSectionId().empty()) {
      message->setSectionIds(message->sectionId(), local_section);
    }
    const SectionInfo info(message->sectionId(), message->localSectionId());
    if (auto* user = dynamic_cast<UserMessageWrapper*>(message.get())) {
      if (user->message()) user->message()->section = info;
    } else if (auto* assistant = dynamic_cast<AssistantMessageWrapper*>(message.get())) {
      if (!assistant->message()) continue;
      assistant->message()->section = info;
      newest_answer = message;
    }
  }
  if (section.status == RecoverStatus::Started && newest_answer) {
    static_cast<AssistantMessageWrapper&>(*newest_answer).message()->status =
        MessageStatus::Pending;
  }
}

void ConversationImpl::deliverRecovered(const RecoveredSection& section, bool add_missing) {
  const auto listener = this->listener();
  std::vector<MessagePtr> messages = section.messages;
  if (section.finish_system_message) messages.push_back(section.finish_system_message);
  std::vector<ComboMessage> combos = toComboMessages(messages);
  for (auto& combo : combos) {
    if (combo.user_message) combo.user_message->source = MessageSource::RemoteHistory;
    if (combo.assistant_message) combo.assistant_message->source = MessageSource::RemoteHistory;
    if (combo.system_message) combo.system_message->source = MessageSource::RemoteHistory;
  }
  if (listener) handOver(combos);
  // The server's copy of an answer supersedes what was shown of it live: a
  // checkpoint still pending would write the older text over the merge.
  for (const auto& message : section.messages) {
    if (message) checkpoints_.erase(message->envelope().message_id);
  }
  if (history_) history_->mergeMessage(local_conversation_id_, section.messages, add_missing);
}

// The log lines of one kind of recovery.
struct ConversationImpl::RecoveryLogs {
  const char* callback;
  const char* closed;  // null: nothing is logged when the conversation is gone
  const char* cancelled;
  const char* mismatch;
  const char* failed;
};

uint64_t ConversationImpl::startRecovery(Recovery& recovery, const char* busy_format) {
  const uint64_t generation = recovery_generation_.fetch_add(1) + 1;
  uint64_t idle = 0;
  if (!recovery.count.compare_exchange_strong(idle, generation)) {
    ORVI_LOGW(busy_format, local_conversation_id_.c_str());
    return 0;
  }
  return generation;
}

// The counter is reset at once, so that a late answer is known as
// cancelled; the frames held meanwhile are replayed in turn, behind any
// frame already queued.
void ConversationImpl::cancelRecovery(Recovery& recovery) {
  const auto self = keepAlive();
  const uint64_t generation = recovery.count.exchange(0);
  if (generation == 0) return;
  recovery.cancelled.store(generation);
  delivery_.submit([this] { handleStashedMessages(); });
}

// A recovery whose answer never comes (a host that drops the request) ends
// as failed once the time-out passes: the host hears Failed and the frames
// held meanwhile are delivered. The check is re-armed in steps of at most a
// second, so that a recovery that ended keeps no timer task pending for
// long (the process's timer drains its tasks at exit). The time-out is read
// at each step, so a change applies to a recovery already running.
void ConversationImpl::armRecoveryTimeout(Recovery ConversationImpl::*recovery, uint64_t generation,
                                          int64_t started_ms, const RecoveryLogs& logs) {
  constexpr int64_t kStepMs = 1000;
  const int64_t deadline_ms = started_ms + recovery_timeout_ms_.load();
  const int64_t wait = std::min(kStepMs, std::max<int64_t>(0, deadline_ms - steadyMs()));
  std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
  timer_.post(
      [weak, recovery, generation, started_ms, &logs] {
        const auto self = weak.lock();
        if (!self) return;
        Recovery& state = self.get()->*recovery;
        if (state.count.load() != generation) return;  // answered or cancelled
        if (steadyMs() < started_ms + self->recovery_timeout_ms_.load()) {
          self->armRecoveryTimeout(recovery, generation, started_ms, logs);
          return;
        }
        uint64_t expected = generation;
        if (!state.count.compare_exchange_strong(expected, 0)) return;
        state.timed_out.store(generation);
        ConversationImpl* conversation = self.get();
        conversation->delivery_.submit([conversation, &logs] {
          ORVI_LOGE("local conversation(%s) recover answer did not come in %lld ms, give up",
                    conversation->local_conversation_id_.c_str(),
                    static_cast<long long>(conversation->recovery_timeout_ms_.load()));
          ORVI_LOGE(logs.failed, conversation->local_conversation_id_.c_str());
          if (const auto listener = conversation->listener()) {
            listener->onRecoverStatus(RecoverStatus::Failed, std::nullopt);
          }
          conversation->handleStashedMessages();
        });
      },
      static_cast<uint64_t>(wait));
}

// Whether a recovery's answer is still wanted: not when that recovery was
// cancelled meanwhile (the host hears Cancelled), ended by its time-out
// (the host has heard Failed already), or a newer one runs.
bool ConversationImpl::acceptRecoveryAnswer(Recovery& recovery, uint64_t generation,
                                            const RecoveryLogs& logs) {
  const uint64_t now = recovery.count.load();
  if (now == generation) return true;
  if (now == 0 && recovery.cancelled.load() == generation) {
    ORVI_LOGI(logs.cancelled, local_conversation_id_.c_str());
    if (const auto listener = this->listener()) {
      listener->onRecoverStatus(RecoverStatus::Cancelled, std::nullopt);
    }
    return false;
  }
  if (now == 0 && recovery.timed_out.load() == generation) {
    ORVI_LOGW("local conversation(%s) recover answer came after its time-out, ignored",
              local_conversation_id_.c_str());
    return false;
  }
  ORVI_LOGI(logs.mismatch, local_conversation_id_.c_str(), static_cast<unsigned long>(now),
            static_cast<unsigned long>(generation));
  return false;
}

// The recovery is over: later frames are delivered at once (behind the
// replay of those held, which the caller runs next in the same task).
void ConversationImpl::endRecovery(Recovery& recovery, uint64_t generation) {
  uint64_t expected = generation;
  recovery.count.compare_exchange_strong(expected, 0);
}

// A recovered section that still streams becomes the section in progress:
// its assistant messages join the engine so that the deltas still to come
// apply to them. The engine keys such a section by its server id (see
// MessageEngine::recoverSectionId), and the messages are stamped to match.
void ConversationImpl::followRunningSection(const RecoveredSection& section) {
  if (section.messages.empty()) return;
  const MessagePtr& last = section.messages.back();
  engine_->recoverSectionId(last->sectionId(), last->localSectionId());
  const SectionInfo current = engine_->currentSection();
  for (const auto& message : section.messages) {
    if (message->type() != MessageKind::Assistant) continue;
    message->setSectionIds(current.section_id, current.local_section_id);
    // Its completion is timed from here: its first frame came before.
    message->envelope().received_at_ms = steadyMs();
    engine_->enqueue(message);
  }
}

bool ConversationImpl::recoverRemoteSection() {
  const auto self = keepAlive();
  const std::string conversation_id = conversationId();
  std::string latest_section_id;
  const auto frames =
      history_ ? history_->getMessages(local_conversation_id_) : std::vector<std::string>();
  for (auto it = frames.rbegin(); it != frames.rend() && latest_section_id.empty(); ++it) {
    if (const MessagePtr message = MessageProcessor::parse(*it)) {
      latest_section_id = message->sectionId();
    }
  }
  if (conversation_id.empty()) {
    ORVI_LOGE("local conversation(%s) conversation_id is empty, cannot recover remote section",
              local_conversation_id_.c_str());
    return false;
  }
  if (frames.empty()) {
    ORVI_LOGE("local conversation(%s) history messages is empty, cannot get the latest section_id",
              local_conversation_id_.c_str());
    return false;
  }
  ORVI_LOGI("local conversation(%s): conversation_id: %s, latest_section_id: %s",
            local_conversation_id_.c_str(), conversation_id.c_str(), latest_section_id.c_str());
  const auto client = restClient();
  if (!client) {
    ORVI_LOGE("local conversation(%s) cannot lock transport", local_conversation_id_.c_str());
    return false;
  }
  const uint64_t generation =
      startRecovery(recover_remote_section_count_,
                    "local conversation(%s), is recovering remote_section, don't do it again..");
  if (generation == 0) return false;
  ORVI_LOGI("local conversation(%s) recover remote section [START], count: %lu",
            local_conversation_id_.c_str(), static_cast<unsigned long>(generation));
  armRecoveryTimeout(&ConversationImpl::recover_remote_section_count_, generation, steadyMs(),
                     sectionLogs());

  std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
  client->requestRecoverSection(
      conversation_id, latest_section_id, [weak, generation](const std::string& body) {
        ORVI_LOGI(sectionLogs().callback, static_cast<unsigned long>(generation), body.c_str());
        const auto self = weak.lock();
        if (!self) return;
        ConversationImpl* conversation = self.get();
        conversation->delivery_.submit([conversation, generation, body] {
          conversation->handleSectionAnswer(generation, body);
        });
      });
  return true;
}

void ConversationImpl::handleSectionAnswer(uint64_t generation, const std::string& body) {
  if (!acceptRecoveryAnswer(recover_remote_section_count_, generation, sectionLogs())) return;
  const RecoverSectionResult result = MessageProcessor::recoverSection(body);
  ORVI_LOGI("recover section, valid: %d, status: %d, messages size: %d", result.valid,
            static_cast<int>(result.section.status),
            static_cast<int>(result.section.messages.size()));
  RecoverStatus status = result.section.status;
  if (!result.valid) {
    ORVI_LOGE("local conversation(%s) recover section failed", local_conversation_id_.c_str());
    ORVI_LOGE(sectionLogs().failed, local_conversation_id_.c_str());
    status = RecoverStatus::Failed;
  } else {
    if (!isKnownRecoverStatus(status)) {
      ORVI_LOGW(
          "local conversation(%s) recover section status invalid, status: %d, trick as "
          "`cancelled` directly.",
          local_conversation_id_.c_str(), static_cast<int>(status));
      status = RecoverStatus::Cancelled;
    }
    markRecovered(result.section, true);
    if (status == RecoverStatus::Started) followRunningSection(result.section);
    deliverRecovered(result.section, true);
    ORVI_LOGI("local conversation(%s) recover remote section [FINISH]",
              local_conversation_id_.c_str());
  }
  endRecovery(recover_remote_section_count_, generation);
  if (const auto listener = this->listener()) listener->onRecoverStatus(status, std::nullopt);
  handleStashedMessages();
}

void ConversationImpl::cancelRecoverRemoteSection() {
  ORVI_LOGI("local conversation(%s) cancel recover remote section, reset recover_count_",
            local_conversation_id_.c_str());
  cancelRecovery(recover_remote_section_count_);
}

bool ConversationImpl::recoverRemoteSections(const std::string& cursor, int32_t count) {
  const auto self = keepAlive();
  const std::string conversation_id = conversationId();
  if (conversation_id.empty()) {
    ORVI_LOGE(
        "local conversation(%s) conversation_id is empty, cannot recover remote sections by "
        "paging",
        local_conversation_id_.c_str());
    return false;
  }
  if (cursor.empty() || count < 1) {
    ORVI_LOGE(
        "local conversation(%s) recover remote sections by paging, cursor: %s, count: %d is "
        "invalid",
        local_conversation_id_.c_str(), cursor.c_str(), count);
    return false;
  }
  const auto client = restClient();
  if (!client) {
    ORVI_LOGE("local conversation(%s) cannot lock transport", local_conversation_id_.c_str());
    return false;
  }
  const uint64_t generation = startRecovery(
      recover_remote_sections_count_,
      "local conversation(%s), is recovering remote_sections by paging, don't do it again..");
  if (generation == 0) return false;
  ORVI_LOGI("local conversation(%s): conversation_id: %s, cursor: %s, count: %d",
            local_conversation_id_.c_str(), conversation_id.c_str(), cursor.c_str(), count);
  ORVI_LOGI("local conversation(%s) recover remote sections by paging [START], count: %lu",
            local_conversation_id_.c_str(), static_cast<unsigned long>(generation));
  armRecoveryTimeout(&ConversationImpl::recover_remote_sections_count_, generation, steadyMs(),
                     sectionsLogs());

  std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
  client->requestRecoverSections(
      conversation_id, cursor, count, [weak, generation](const std::string& body) {
        ORVI_LOGI(sectionsLogs().callback, static_cast<unsigned long>(generation), body.c_str());
        const auto self = weak.lock();
        if (!self) {
          ORVI_LOGI("%s", sectionsLogs().closed);
          return;
        }
        ConversationImpl* conversation = self.get();
        conversation->delivery_.submit([conversation, generation, body] {
          conversation->handleSectionsAnswer(generation, body);
        });
      });
  return true;
}

void ConversationImpl::handleSectionsAnswer(uint64_t generation, const std::string& body) {
  if (!acceptRecoveryAnswer(recover_remote_sections_count_, generation, sectionsLogs())) return;
  const RecoverSectionsResult result = MessageProcessor::recoverSections(body);
  ORVI_LOGI("recover sections, valid: %d, has_more: %d, next_cursor: %s, sections size: %d",
            result.valid, result.has_more, result.next_cursor.c_str(),
            static_cast<int>(result.sections.size()));
  RecoverStatus status = RecoverStatus::Completed;
  if (!result.valid) {
    ORVI_LOGE(sectionsLogs().failed, local_conversation_id_.c_str());
    status = RecoverStatus::Failed;
  } else {
    for (const auto& section : result.sections) {
      markRecovered(section, false);
      // Older sections the history lacks are shown, not stored: the history
      // keeps the order messages were stored in, and a section stored after
      // newer ones would pass for the latest.
      deliverRecovered(section, false);
    }
    ORVI_LOGI("local conversation(%s) recover remote sections [FINISH]",
              local_conversation_id_.c_str());
  }
  endRecovery(recover_remote_sections_count_, generation);
  if (const auto listener = this->listener()) {
    listener->onRecoverStatus(status, RecoverExtra(result.has_more, result.next_cursor));
  }
  handleStashedMessages();
}

void ConversationImpl::cancelRecoverRemoteSections() {
  ORVI_LOGI("local conversation(%s) cancel recover remote sections by paging",
            local_conversation_id_.c_str());
  cancelRecovery(recover_remote_sections_count_);
}

const ConversationImpl::RecoveryLogs& ConversationImpl::sectionLogs() {
  static const ConversationImpl::RecoveryLogs logs{
      "recover section callback, count: %lu, resp: %s",
      nullptr,
      "local conversation(%s) recover remote section is cancelled (recover_remote_section_count_ "
      "is 0), will not handle the resp data",
      "local conversation(%s) recover remote section count not match (%lu != %lu), will not "
      "handle the resp data",
      "local conversation(%s) recover remote section [FAILED]",
  };
  return logs;
}

const ConversationImpl::RecoveryLogs& ConversationImpl::sectionsLogs() {
  static const ConversationImpl::RecoveryLogs logs{
      "recover sections by paging callback, count: %lu, resp: %s",
      "conversation recover remote sections, but conversation is closed",
      "local conversation(%s) recover remote sections by paging is cancelled, will not handle the "
      "resp data",
      "local conversation(%s) recover remote sections count not match (%lu != %lu), will not "
      "handle the resp data",
      "local conversation(%s) recover remote sections [FAILED]",
  };
  return logs;
}

void ConversationImpl::fetchHistoryMessages(bool from_remote, const std::string& cursor,
                                            int32_t count,
                                            std::shared_ptr<IFetchMessageCallback> callback) {
  const auto self = keepAlive();
  if (!callback) {
    ORVI_LOGE("local conversation(%s) fetch history messages, callback is null",
              local_conversation_id_.c_str());
    return;
  }
  if (cursor.empty() || count < 1) {
    ORVI_LOGE(
        "local conversation(%s) fetch history messages, section_cursor: %s, section_count: "
        "%d is invalid",
        local_conversation_id_.c_str(), cursor.empty() ? "null" : cursor.c_str(), count);
    callback->onFailure(-1, "invalid cursor or count");
    return;
  }
  int32_t position = 0;
  if (!parseInt32(cursor, position)) {
    ORVI_LOGE("local conversation(%s) fetch history messages, cursor: %s is invalid",
              local_conversation_id_.c_str(), cursor.c_str());
    callback->onFailure(-1, "invalid cursor");
    return;
  }
  ORVI_LOGI("local conversation(%s) fetch history messages, from_remote: %d, cursor: %d, count: %d",
            local_conversation_id_.c_str(), from_remote, position, count);

  if (!from_remote) {
    bool has_more = false;
    int32_t next_cursor = 0;
    const auto messages = history_ ? storedMessages(position, count, &has_more, &next_cursor)
                                   : std::vector<MessagePtr>();
    if (messages.empty()) {
      ORVI_LOGI("local conversation(%s) fetch history messages, messages is empty",
                local_conversation_id_.c_str());
    }
    std::vector<ComboMessage> combos = toComboMessages(messages);
    ORVI_LOGI("local conversation(%s) to popup section messages count = %d",
              local_conversation_id_.c_str(), static_cast<int>(combos.size()));
    callback->onMessages(combos, has_more, has_more ? std::to_string(next_cursor) : std::string());
    return;
  }

  const std::string conversation_id = conversationId();
  const auto client = restClient();
  if (conversation_id.empty() || !client) {
    callback->onFailure(-1, "conversation is not connected to the server");
    return;
  }
  std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
  client->requestRecoverSections(
      conversation_id, cursor, count, [weak, callback](const std::string& body) {
        const auto self = weak.lock();
        if (!self) return;
        const RecoverSectionsResult result = MessageProcessor::recoverSections(body);
        if (!result.valid) {
          callback->onFailure(-1, "recover sections failed");
          return;
        }
        std::vector<MessagePtr> messages;
        for (const auto& section : result.sections) {
          messages.insert(messages.end(), section.messages.begin(), section.messages.end());
          if (section.finish_system_message) messages.push_back(section.finish_system_message);
        }
        callback->onMessages(self->toComboMessages(messages), result.has_more, result.next_cursor);
      });
}

void ConversationImpl::removeMessageBatch(const std::vector<std::string>& local_message_ids,
                                          const std::vector<std::string>& message_ids,
                                          std::shared_ptr<IMessagesDeleted> callback) {
  const auto self = keepAlive();
  if (local_message_ids.empty()) {
    ORVI_LOGE("removeMessageBatch failed, local_message_ids is empty");
    if (callback) callback->onMessagesDeleted(false);
    return;
  }
  if (message_ids.empty()) {
    ORVI_LOGI("removeMessageBatch remove local only.");
    if (history_) history_->deleteNamedMessages(local_conversation_id_, local_message_ids);
    if (callback) callback->onMessagesDeleted(true);
    return;
  }
  const auto client = restClient();
  if (!client) {
    if (callback) callback->onMessagesDeleted(false);
    return;
  }
  std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
  // The server ids name the local copies of messages without a local id.
  std::vector<std::string> named = local_message_ids;
  named.insert(named.end(), message_ids.begin(), message_ids.end());
  client->requestMessageBatchDelete(
      conversationId(), message_ids, [weak, named, callback](const std::string& body) {
        ORVI_LOGI("removeMessageBatch, data: %s", body.c_str());
        const bool success = MessageProcessor::parseConversationMsgDeleteResp(body);
        const auto self = weak.lock();
        if (success && self && self->history_) {
          self->history_->deleteNamedMessages(self->local_conversation_id_, named);
        }
        if (callback) callback->onMessagesDeleted(success);
      });
}

void ConversationImpl::updateAssistantMessageRecord(const AssistantMessage& message) {
  if (message.message_id.empty()) {
    ORVI_LOGE(
        "updateAssistantMessageRecord failed, id is empty, local_conversation_id: %s, "
        "message_id: %s",
        local_conversation_id_.c_str(), message.message_id.c_str());
    return;
  }
  auto wrapper = std::make_shared<AssistantMessageWrapper>();
  wrapper->setMessage(std::make_shared<AssistantMessage>(message));
  MessageEnvelope& ids = wrapper->envelope();
  ids.conversation_id = conversationId();
  ids.local_conversation_id = local_conversation_id_;
  ids.message_id = message.message_id;
  if (message.section)
    wrapper->setSectionIds(message.section->section_id, message.section->local_section_id);
  if (history_) history_->updateMessage(wrapper);
}

void ConversationImpl::updateUserMessageRecord(const UserMessage& message) {
  if (message.local_message_id.empty()) {
    ORVI_LOGE(
        "updateUserMessageRecord failed, id is empty, local_conversation_id: %s, "
        "message_id: %s",
        local_conversation_id_.c_str(), message.message_id.c_str());
    return;
  }
  auto wrapper = std::make_shared<UserMessageWrapper>(std::make_shared<UserMessage>(message));
  MessageEnvelope& ids = wrapper->envelope();
  ids.conversation_id = conversationId();
  ids.local_conversation_id = local_conversation_id_;
  ids.local_message_id = message.local_message_id;
  ids.message_id = message.message_id;
  if (message.section)
    wrapper->setSectionIds(message.section->section_id, message.section->local_section_id);
  if (history_) history_->updateMessage(wrapper);
}

}  // namespace orvi
