// ConversationImpl: sending user messages, waiting for their
// acknowledgement, and resending them within limits.
#include <chrono>

#include "orvi/conversation/conversation_impl.h"
#include "orvi/conversation/delayed_task_timer.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/message/engine/message_engine.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "orvi/report/reporter.h"
#include "orvi/utils/clock.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

const char kCancelAction[] = "cancel";
const char kRetryAction[] = "retry";

}  // namespace

std::string ConversationImpl::sendMessage(const InputMessage& message) {
  return send(message, SendKind::Message);
}

int32_t ConversationImpl::reply(const InputMessage& message) {
  return sendInSection(message, SendKind::Reply, "reply");
}

int32_t ConversationImpl::retry(const InputMessage& message) {
  return sendInSection(message, SendKind::Retry, "retry");
}

int32_t ConversationImpl::cancel(const InputMessage& message) {
  ORVI_LOGI("local conversation(%s) cancel, just_cancelled_ = %d", local_conversation_id_.c_str(),
            just_cancelled_.load());
  just_cancelled_.store(true);
  return send(message, SendKind::Cancel).empty() ? -1 : 0;
}

// Reply and retry belong to the section in progress: refused after a cancel
// and when no section is on going.
int32_t ConversationImpl::sendInSection(const InputMessage& input, SendKind kind,
                                        const char* what) {
  const bool cancelled = just_cancelled_.load();
  if (cancelled) {
    ORVI_LOGI("local conversation(%s) %s, just_cancelled_ = %d, skip",
              local_conversation_id_.c_str(), what, cancelled);
    return -1;
  }
  if (engine_->currentSection().local_section_id.empty()) {
    ORVI_LOGI("local conversation(%s) %s, section is not on going, skip",
              local_conversation_id_.c_str(), what);
    return -2;
  }
  ORVI_LOGI("local conversation(%s) %s, just_cancelled_ = %d", local_conversation_id_.c_str(),
            what, cancelled);
  return send(input, kind).empty() ? -3 : 0;
}

std::string ConversationImpl::send(const InputMessage& input, SendKind kind) {
  if (isRecovering()) {
    if (block_when_recovering_) {
      ORVI_LOGI("local conversation(%s) is recovering remote section, do nothing",
                local_conversation_id_.c_str());
      return std::string();
    }
    ORVI_LOGI("local conversation(%s) is recovering remote section, but configed to not block, "
              "go ahead",
              local_conversation_id_.c_str());
  }

  const int64_t build_start = steadyMs();
  InputMessage prepared = input;
  if (kind == SendKind::Cancel) prepared.action = kCancelAction;
  if (kind == SendKind::Retry && !prepared.action) prepared.action = kRetryAction;
  auto message = UserMessageWrapper::fromInput(prepared, local_conversation_id_, conversationId());
  if (kind != SendKind::Message && !prepared.section) {
    // Replies, retries and cancels stay in the section in progress.
    const SectionInfo current = engine_->currentSection();
    message->setSectionIds(current.section_id, current.local_section_id);
  }
  const bool new_prompt = message->localSectionId().empty() && engine_->isPrompt(message);
  if (new_prompt) just_cancelled_.store(false);
  // Everything this thread writes to the message happens before the engine
  // makes it visible to the receiving thread; afterwards it works on copies.
  UserMessage& record = *message->message();
  if (record.create_time == 0) record.create_time = wallMs();
  if (record.status == MessageStatus::Init) record.status = MessageStatus::Completed;
  message->sync();
  if (!engine_->enqueue(message)) return std::string();
  const std::string frame = message->marshal();
  UserMessage shown = record;
  const int64_t build_end = steadyMs();
  const std::string local_message_id = shown.local_message_id;

  const auto listener = this->listener();
  if (listener && callback_user_message_) listener->onUserMessage(shown);

  // Stored (or kept for later) under the lock that the adoption of the
  // conversation id takes, so the history keeps the order of sending. A
  // message of a conversation without a server id is stored once the server
  // allocates one, so that its record carries it. Storing only queues the
  // write.
  bool dangling = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (conversation_id_.empty()) {
      dangling_messages_.push_back(message);
      dangling = true;
    } else if (history_) {
      history_->recordMessage(message);
    }
  }
  if (dangling) {
    ORVI_LOGI("local conversation(%s) set dangling message", local_conversation_id_.c_str());
  }
  waitingForAck(message, new_prompt);

  // Stored (above) and announced before the frame leaves: a fast server's
  // answer must not overtake them (an acknowledgement updates the stored
  // record; the section's output follows its start).
  if (new_prompt) {
    section_count_.fetch_add(1);
    if (listener) {
      listener->onSectionStatus(SectionStatus::Started, false,
                                SectionInfo(message->sectionId(), message->localSectionId()));
    }
  }

  bool sent = false;
  if (const auto transport = this->transport()) {
    sent = transport->sendMessage(frame);
    if (!sent) {
      ORVI_LOGE("local conversation(%s) send user message failed",
                local_conversation_id_.c_str());
      shown.status = MessageStatus::Failed;
      {
        std::lock_guard<std::mutex> lock(mutex_);  // a resend may be reading it
        record.status = MessageStatus::Failed;
      }
      if (history_ && !dangling) history_->updateMessage(message);
      if (listener && callback_user_message_) listener->onUserMessage(shown);
    }
  } else {
    ORVI_LOGE("local conversation(%s) cannot lock transport", local_conversation_id_.c_str());
  }
  if (const auto reporter = this->reporter()) {
    UserMessageReport report;
    report.conversation_id = conversationId();
    report.local_conversation_id = local_conversation_id_;
    report.message = shown;
    report.opens_section = new_prompt;
    report.build_start_ms = build_start;
    report.build_end_ms = build_end;
    report.send_end_ms = steadyMs();
    report.sent = sent;
    reporter->report(std::move(report));
  }
  return sent ? local_message_id : std::string();
}

void ConversationImpl::waitingForAck(const std::shared_ptr<UserMessageWrapper>& message,
                                     bool new_prompt) {
  const std::string id = message->message()->local_message_id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (new_prompt) {
      // Only the latest prompt is ever waited for.
      not_ack_messages_.clear();
      ORVI_LOGI("local conversation(%s) clear not ack messages by new prompt",
                local_conversation_id_.c_str());
    }
    not_ack_messages_[id] = PendingAck{message, 0};
  }
  armAckCheck(id);
}

void ConversationImpl::armAckCheck(const std::string& local_message_id) {
  std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
  timer_.post(
      [weak, local_message_id] {
        const auto self = weak.lock();
        if (!self || !self->isNotAcked(local_message_id)) return;
        ORVI_LOGI("local conversation(%s) delay detect ack timeout, local_message_id: %s",
                  self->local_conversation_id_.c_str(), local_message_id.c_str());
        self->onAck(local_message_id, AckStatus::Timeout);
      },
      static_cast<uint64_t>(std::max(uplink_message_ack_timeout_ms_, 0)));
}

bool ConversationImpl::isNotAcked(const std::string& local_message_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  ORVI_LOGD("local conversation(%s) not_ack_messages_ size: %zu", local_conversation_id_.c_str(),
            not_ack_messages_.size());
  return not_ack_messages_.count(local_message_id) > 0;
}

void ConversationImpl::clearNotAck() {
  std::lock_guard<std::mutex> lock(mutex_);
  not_ack_messages_.clear();
  ORVI_LOGI("local conversation(%s) clear not ack messages", local_conversation_id_.c_str());
}

void ConversationImpl::onAck(const std::string& local_message_id, AckStatus status) {
  ORVI_LOGD("local conversation(%s) onAck, local_message_id: %s, status: %d",
            local_conversation_id_.c_str(), local_message_id.c_str(), static_cast<int>(status));
  AckStatus reported = status;
  bool resend_now = false;
  if (status == AckStatus::Acked) {
    std::lock_guard<std::mutex> lock(mutex_);
    not_ack_messages_.erase(local_message_id);
  } else if (status == AckStatus::Timeout) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = not_ack_messages_.find(local_message_id);
    if (entry == not_ack_messages_.end()) {
      // Acknowledged meanwhile, or dropped by a newer prompt.
    } else if (!enable_resend_.load()) {
      ORVI_LOGW("local conversation(%s) auto resend disabled, skip resend for local_message_id: %s",
                local_conversation_id_.c_str(), local_message_id.c_str());
      not_ack_messages_.erase(entry);
      reported = AckStatus::GivenUp;
    } else {
      const int32_t count = ++entry->second.resend_count;
      // Signed on purpose: with the default maximum of -1 the first time-out
      // already exceeds it, so by default nothing is resent automatically.
      if (count > max_resend_uplink_message_count_) {
        ORVI_LOGW(
            "local conversation(%s) reach max resend uplink message count, current resend count: "
            "%d, max_resend_uplink_message_count_: %d, local_message_id: %s",
            local_conversation_id_.c_str(), count, max_resend_uplink_message_count_,
            local_message_id.c_str());
        not_ack_messages_.erase(entry);
        if (max_resend_uplink_message_count_ >= 0) {
          reported = AckStatus::GivenUp;
        } else {
          ORVI_LOGW("local conversation(%s) prompt message sent but not acked, TIMEOUT! "
                    "local_message_id: %s",
                    local_conversation_id_.c_str(), local_message_id.c_str());
        }
      } else {
        ORVI_LOGW(
            "local conversation(%s) try auto resend uplink message, resend_count: %d, "
            "local_message_id: %s",
            local_conversation_id_.c_str(), count, local_message_id.c_str());
        resend_now = true;
      }
    }
  }

  if (resend_now) {
    armAckCheck(local_message_id);
    std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
    timer_.post(
        [weak, local_message_id] {
          if (const auto self = weak.lock()) self->resend(local_message_id);
        },
        0);
    return;
  }
  if (const auto listener = this->listener()) listener->onAck(local_message_id, reported);
}

void ConversationImpl::resend(const std::string& local_message_id) {
  std::string frame;
  {
    // An acknowledgement may be updating the message on another thread.
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = not_ack_messages_.find(local_message_id);
    if (entry == not_ack_messages_.end()) return;
    frame = entry->second.message->marshal();
  }
  const auto transport = this->transport();
  if (!transport) return;
  const bool result = transport->sendMessage(frame);
  ORVI_LOGW("retry send local_message_id(%s) result: %d", local_message_id.c_str(), result);
}

}  // namespace orvi
