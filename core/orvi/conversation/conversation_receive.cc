// ConversationImpl: frames from the server, acknowledgements, adoption of
// the server's conversation id, and stashing while a recovery runs.
#include <algorithm>
#include <chrono>

#include "orvi/conversation/conversation_impl.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/message/engine/message_engine.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/system_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "orvi/report/reporter.h"
#include "orvi/utils/clock.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

bool isSectionComplete(const SystemMessage& message) {
  return message.code == 0 && message.msg == "section_complete";
}

}  // namespace

// Parsed on the pushing thread; handled in turn with every other frame and
// recovery answer of this conversation (see DeliveryQueue).
void ConversationImpl::onMessageReceived(const std::string& frame) {
  ORVI_LOGD("onMessageReceived: %s", frame.c_str());
  const MessagePtr message = MessageProcessor::parse(frame, max_downlink_frame_bytes_);
  if (!message) {
    ORVI_LOGE("Skip a invalid msg, original json: %s", textForLog(frame).c_str());
    return;
  }
  message->envelope().received_at_ms = steadyMs();
  const auto self = keepAlive();
  delivery_.submit([this, message] { recvMessage(message, false); });
}

void ConversationImpl::recvMessage(const MessagePtr& message, bool from_stash) {
  if (!message) {
    ORVI_LOGE("message is nullptr");
    return;
  }
  const std::string& owner = message->envelope().local_conversation_id;
  if (owner != local_conversation_id_) {
    ORVI_LOGE("Skip a msg with different local conversation id, expect: %s, but: %s",
              local_conversation_id_.c_str(), owner.c_str());
    return;
  }
  // Frames held during a recovery are replayed before any later one: until
  // the replay has run, a frame joins the held ones.
  if (!from_stash && (isRecovering() || engine_->hasStashed())) {
    if (block_when_recovering_) {
      ORVI_LOGI("local conversation(%s) is recovering remote history, stash message",
                local_conversation_id_.c_str());
      engine_->stash(message);
      return;
    }
    ORVI_LOGI(
        "local conversation(%s) is recovering remote history, but configed to not block, "
        "go ahead",
        local_conversation_id_.c_str());
  }

  const MessagePtr result = engine_->enqueue(message);
  if (!result) {
    ORVI_LOGE("local conversation(%s) enqueue message failed", local_conversation_id_.c_str());
    return;
  }
  adoptConversationId(message);
  // Stored before the host sees it: a host that answers at once (a tool
  // result, say) must find its reply stored after the message it answers.
  recordReceived(message, result);
  if (dispatch(result) && message->type() == MessageKind::Delta) checkpoint(result);
}

// The user message an acknowledgement names: in the live queue (this
// turn), else among the messages still waiting for their outcome (a late
// acknowledgement of an earlier turn's prompt), else among those kept until
// the server allocates the conversation id. `dangling` tells the last case:
// such a message is not stored yet.
MessagePtr ConversationImpl::acknowledgedMessage(const std::string& local_message_id,
                                                 bool* dangling) {
  *dangling = false;
  // Without a local message id there is nothing to match: never the newest
  // message by default.
  if (local_message_id.empty()) return nullptr;
  MessagePtr found = engine_->lastMessageByType(MessageKind::User, local_message_id);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!found) {
    const auto waiting = unsettled_.find(local_message_id);
    if (waiting != unsettled_.end()) found = waiting->second;
  }
  for (const auto& kept : dangling_messages_) {
    if (kept->envelope().local_message_id != local_message_id) continue;
    found = kept;
    *dangling = true;
  }
  return found;
}

void ConversationImpl::handleAck(const AssistantMessageWrapper& ack) {
  ORVI_LOGD("ACK MESSAGE");
  const idl::Message& wire = ack.wire();
  bool dangling = false;
  const MessagePtr last = acknowledgedMessage(wire.local_message_id, &dangling);
  if (!last) {
    ORVI_LOGE("local conversation(%s) recv ack message but last user message is null",
              local_conversation_id_.c_str());
    return;
  }
  auto user = std::dynamic_pointer_cast<UserMessageWrapper>(last);
  if (!user || !user->message()) {
    ORVI_LOGE("local conversation(%s) recv ack message but last user message is not user message",
              local_conversation_id_.c_str());
    return;
  }
  const int64_t server_time =
      ack.envelope().server_time != 0 ? ack.envelope().server_time : wire.create_time;
  const bool rejected = wire.status == static_cast<int32_t>(MessageStatus::Failed);
  bool duplicate = false;
  int64_t old_create_time = 0;
  UserMessage updated;
  {
    // A timer resend may be reading the message meanwhile.
    std::lock_guard<std::mutex> lock(mutex_);
    UserMessage& record = *user->message();
    duplicate = !wire.message_id.empty() && record.message_id == wire.message_id;
    if (!duplicate) {
      if (!wire.message_id.empty()) {
        record.message_id = wire.message_id;
        user->envelope().message_id = wire.message_id;
      }
      old_create_time = record.create_time;
      if (enable_sync_user_message_timestamp_by_ack_ && server_time != 0) {
        record.create_time = server_time;
      }
      if (user->sectionId().empty() && !ack.sectionId().empty()) {
        // The acknowledgement is where the server first names the prompt's section.
        user->setSectionIds(ack.sectionId(), user->localSectionId());
        record.section = SectionInfo(user->sectionId(), user->localSectionId());
      }
      // Accepted after all (a send the host's sender refused, resent since)
      // or refused by the server.
      if (rejected) {
        record.status = MessageStatus::Failed;
      } else if (record.status == MessageStatus::Failed) {
        record.status = MessageStatus::Completed;
      }
    }
    updated = record;
  }
  if (duplicate) {
    ORVI_LOGW("local conversation(%s) duplicate ack of local_message_id: %s, ignored",
              local_conversation_id_.c_str(), updated.local_message_id.c_str());
    return;
  }
  if (updated.create_time != old_create_time) {
    ORVI_LOGI("Sync UserMessage(%s) create_time from %lld to %lld",
              updated.local_message_id.c_str(), static_cast<long long>(old_create_time),
              static_cast<long long>(updated.create_time));
  }
  // Stored before the host hears of it, so a host that reacts to the
  // acknowledgement finds the history up to date.
  if (!dangling && history_) history_->updateMessage(user);
  onAck(updated.local_message_id, rejected ? AckStatus::Rejected : AckStatus::Acked);

  const auto listener = this->listener();
  if (listener) listener->onUserMessage(updated);
  if (updated.action && *updated.action == "cancel") {
    ORVI_LOGI("ACK MESSAGE for cancel, local_section_id: %s, section_id: %s",
              user->localSectionId().c_str(), user->sectionId().c_str());
    if (listener) {
      listener->onSectionStatus(SectionStatus::Cancelled, false,
                                SectionInfo(user->sectionId(), user->localSectionId()));
    }
  }
}

void ConversationImpl::adoptConversationId(const MessagePtr& message) {
  const std::string& incoming = message->envelope().conversation_id;
  if (incoming.empty()) return;
  std::vector<std::shared_ptr<UserMessageWrapper>> dangling;
  std::string current;
  bool adopted = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (conversation_id_.empty()) {
      conversation_id_ = incoming;
      dangling.swap(dangling_messages_);
      for (const auto& message : dangling) {
        message->envelope().conversation_id = incoming;
        if (history_) history_->recordMessage(message);  // in sending order
      }
      adopted = true;
    } else {
      current = conversation_id_;
    }
  }
  if (!adopted) {
    if (current != incoming) {
      ORVI_LOGE("local conversation(%s) recv inconsistent conversation_id: %s -> %s",
                local_conversation_id_.c_str(), current.c_str(), incoming.c_str());
    }
    return;
  }
  ORVI_LOGI("[OHHHHH] local conversation(%s) is allocated conversation_id: %s",
            local_conversation_id_.c_str(), incoming.c_str());
  if (!history_) return;
  ConversationInfo info;
  if (history_->findConversation(local_conversation_id_, info)) {
    info.conversation_id = incoming;
    history_->updateConversation(info);
  } else {
    history_->addConversation(local_conversation_id_, incoming, name_);
  }
  if (!dangling.empty()) {
    ORVI_LOGI("local conversation(%s) record dangling message", local_conversation_id_.c_str());
  }
}

// Returns whether an assistant message was shown to the host.
bool ConversationImpl::dispatch(const MessagePtr& message) {
  const auto listener = this->listener();
  switch (message->type()) {
    case MessageKind::Assistant: {
      const auto* assistant = dynamic_cast<const AssistantMessageWrapper*>(message.get());
      if (assistant && assistant->isAcknowledgement()) {
        handleAck(*assistant);
        return false;
      }
      if (!assistant || !assistant->message()) {
        ORVI_LOGE("Invalid assistant message from server");
        return false;
      }
      if (just_cancelled_.load() && !popup_assistant_message_after_cancel_) {
        ORVI_LOGI(
            "local conversation(%s) recv message after cancel, just_cancelled_ = %d, "
            "popup_assistant_message_after_cancel_ = %d, skip",
            local_conversation_id_.c_str(), 1, popup_assistant_message_after_cancel_);
        return false;
      }
      const auto snapshot = engine_->assistantSnapshot(assistant->message()->message_id);
      const AssistantMessage& delivered = snapshot ? *snapshot : *assistant->message();
      if (listener) listener->onAssistantMessage(delivered);
      reportCompleted(delivered, message->envelope().received_at_ms);
      return true;
    }
    case MessageKind::System: {
      const auto* system = dynamic_cast<const SystemMessageWrapper*>(message.get());
      if (!system || !system->message()) {
        ORVI_LOGE("Invalid system message from server");
        return false;
      }
      const SystemMessage& record = *system->message();
      const SectionInfo section(system->sectionId(), system->localSectionId());
      if (isSectionComplete(record)) {
        if (listener) listener->onSectionStatus(SectionStatus::Completed, false, section);
        if (const auto reporter = this->reporter()) reporter->onSectionCompleted();
        return false;
      }
      clearNotAck();
      if (listener) {
        listener->onSystemMessage(record);
        listener->onSectionStatus(SectionStatus::Ended, false, section);
      }
      return false;
    }
    default: ORVI_LOGE("Unknown message type: %d", static_cast<int>(message->type()));
  }
  return false;
}

// An assistant message is traced once, when it is first delivered complete
// (a repeated frame or a later "stream_complete" is not a new fact). Its
// cost runs from its first frame; a message recovered from the server is
// stamped when it joined the live turn.
void ConversationImpl::reportCompleted(const AssistantMessage& message, int64_t first_frame_ms) {
  if (message.status != MessageStatus::Completed) return;
  const auto reporter = this->reporter();
  if (!reporter) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!reported_assistant_ids_.insert(message.message_id).second) return;
  }
  AssistantMessageReport report;
  report.conversation_id = conversationId();
  report.local_conversation_id = local_conversation_id_;
  report.message = message;
  report.receive_time_ms = wallMs();
  report.receive_steady_ms = steadyMs();
  report.receive_complete_timecost_ms =
      first_frame_ms > 0 ? std::max<int64_t>(0, report.receive_steady_ms - first_frame_ms) : 0;
  reporter->report(std::move(report));
}

// What the history keeps of received traffic is what the host was shown:
// each assistant message once, rewritten whole when its stream completes
// (its deltas are folded into it; while it streams, checkpoints keep the
// text shown so far), and the system messages that went to onSystemMessage. The two completion
// signals are not kept, nor are acknowledgements (they update the stored user message) or frames
// refused as invalid.
void ConversationImpl::recordReceived(const MessagePtr& message, const MessagePtr& result) {
  if (!history_) return;
  switch (message->type()) {
    case MessageKind::Assistant:
    case MessageKind::Custom: {
      const auto* assistant = dynamic_cast<const AssistantMessageWrapper*>(result.get());
      if (assistant && !assistant->isAcknowledgement() && assistant->message()) {
        history_->recordMessage(result);
      }
      return;
    }
    case MessageKind::System: {
      if (result != message) {
        checkpoints_.erase(result->envelope().message_id);
        history_->updateMessage(result);  // "stream_complete": the finished answer
        return;
      }
      storeCheckpoints();  // the section ended or failed: nothing more will stream
      const auto* system = dynamic_cast<const SystemMessageWrapper*>(message.get());
      if (system && system->message() && !isSectionComplete(*system->message())) {
        history_->recordMessage(message);
      }
      return;
    }
    default: return;
  }
}

// A streamed answer's text is stored as the host was shown it, at most once
// per checkpoint interval; what is shown in between is stored by the next
// checkpoint, at the stream's end, at a system message, at cancel, or when
// the conversation goes. So a crash loses at most one interval of text.
void ConversationImpl::checkpoint(const MessagePtr& answer) {
  if (!history_) return;
  Checkpoint& entry = checkpoints_[answer->envelope().message_id];
  entry.answer = answer;
  const int64_t now = steadyMs();
  if (entry.stored_ms != 0 && now - entry.stored_ms < checkpoint_interval_ms_.load()) {
    entry.dirty = true;
    return;
  }
  history_->updateMessage(answer);
  entry.stored_ms = now;
  entry.dirty = false;
}

void ConversationImpl::storeCheckpoints() {
  for (const auto& [id, entry] : checkpoints_) {
    if (entry.dirty && history_) history_->updateMessage(entry.answer);
  }
  checkpoints_.clear();
}

// Runs as a delivery task, so nothing else is delivered meanwhile; frames
// that arrive during the replay wait behind it. A recovery started again in
// between keeps them held for its own end.
void ConversationImpl::handleStashedMessages() {
  if (isRecovering()) return;
  int count = 0;
  while (const MessagePtr message = engine_->popStashed()) {
    recvMessage(message, true);
    ++count;
  }
  ORVI_LOGI("local conversation(%s) handle stashed message, count: %d",
            local_conversation_id_.c_str(), count);
  ORVI_LOGI("local conversation(%s) handle all stashed messages, reset recover_count_",
            local_conversation_id_.c_str());
}

}  // namespace orvi
