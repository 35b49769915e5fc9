// ConversationImpl: sending user messages, waiting for their
// acknowledgement, and resending them within limits.
//
// Every message the engine accepts ends with exactly one outcome reported to
// onAck: Acked or Rejected by the server, GivenUp when no resend is left,
// or Timeout (no resends configured, or no longer waited for because a newer
// prompt or a system message came). unsettled_ holds the messages still
// without one; whoever removes a message from it, under mutex_, reports.
#include <algorithm>
#include <optional>

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
  {
    // What the host was shown of the answer being cancelled is stored now;
    // later output of the cancelled turn is not shown, so not stored.
    const auto self = keepAlive();
    delivery_.submit([this] { storeCheckpoints(); });
  }
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
  ORVI_LOGI("local conversation(%s) %s, just_cancelled_ = %d", local_conversation_id_.c_str(), what,
            cancelled);
  return send(input, kind).empty() ? -3 : 0;
}

// The order a host sees: the user message at once, then the frame goes to
// the sender, then the message is stored and its section announced. Frames
// that arrive from the moment the message is tracked (its acknowledgement,
// its answer) wait on a hold until all that is done, so they never overtake
// it; they are delivered when the hold is released, on this thread if no
// other is delivering.
std::string ConversationImpl::send(const InputMessage& input, SendKind kind) {
  const auto self = keepAlive();  // the host may drop its reference in a callback below
  if (isRecovering()) {
    if (block_when_recovering_) {
      ORVI_LOGI("local conversation(%s) is recovering remote section, do nothing",
                local_conversation_id_.c_str());
      return std::string();
    }
    ORVI_LOGI(
        "local conversation(%s) is recovering remote section, but configed to not block, "
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
  // makes it visible to the receiving side; afterwards the record changes
  // only under mutex_.
  UserMessage& record = *message->message();
  if (record.create_time == 0) record.create_time = wallMs();
  if (record.status == MessageStatus::Init) record.status = MessageStatus::Completed;
  message->sync();

  std::optional<DeliveryQueue::Hold> hold;
  bool dangling = false;
  std::string frame;
  {
    // One critical section from the engine's decision (a new prompt drops
    // the previous turn) to the tracking of the acknowledgement, so that two
    // threads sending at once cannot untrack each other's prompt.
    std::lock_guard<std::mutex> sending(send_mutex_);
    if (!engine_->enqueue(message)) return std::string();
    frame = message->marshal();
    hold.emplace(delivery_.hold());
    dangling = track(message, frame, new_prompt);
  }
  UserMessage shown = record;
  const int64_t build_end = steadyMs();
  const std::string local_message_id = shown.local_message_id;

  const auto listener = this->listener();
  if (listener && callback_user_message_) listener->onUserMessage(shown);
  if (new_prompt) {
    ORVI_LOGI("local conversation(%s) clear not ack messages by new prompt",
              local_conversation_id_.c_str());
  }
  if (dangling) {
    // Stored again once the server allocates the conversation id, so that
    // its record carries it.
    ORVI_LOGI("local conversation(%s) set dangling message", local_conversation_id_.c_str());
  }
  armAckCheck(local_message_id);

  bool sent = false;
  if (const auto transport = this->transport()) {
    sent = transport->sendMessage(frame);
    if (!sent) {
      ORVI_LOGE("local conversation(%s) send user message failed", local_conversation_id_.c_str());
      shown.status = MessageStatus::Failed;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        record.status = MessageStatus::Failed;
      }
      if (listener && callback_user_message_) listener->onUserMessage(shown);
    }
  } else {
    ORVI_LOGE("local conversation(%s) cannot lock transport", local_conversation_id_.c_str());
  }
  if (history_) storeSent(message, dangling);
  if (new_prompt) {
    section_count_.fetch_add(1);
    if (listener) {
      listener->onSectionStatus(SectionStatus::Started, false,
                                SectionInfo(message->sectionId(), message->localSectionId()));
    }
  }
  if (const auto reporter = this->reporter()) {
    // Posted before the hold ends, so the section starts before its answers
    // are counted.
    UserMessageReport report;
    report.conversation_id = conversationId();
    report.local_conversation_id = local_conversation_id_;
    report.message = shown;
    report.opens_section = new_prompt;
    report.build_start_ms = build_start;
    report.build_end_ms = build_end;
    report.send_end_ms = steadyMs();
    report.send_end_wall_ms = wallMs();
    report.sent = sent;
    reporter->report(std::move(report));
  }
  hold.reset();  // what arrived meanwhile is delivered now
  return sent ? local_message_id : std::string();
}

// A message is stored from the moment it is sent, also before the server
// has named the conversation (the conversation is stored with it then, so
// that a restart finds both). Until its acknowledgement the stored record has
// no server message id: that is how a prompt that never reached the server
// shows after a restart. The acknowledgement, and the adoption of the
// conversation id, rewrite the same row.
void ConversationImpl::storeSent(const std::shared_ptr<UserMessageWrapper>& message,
                                 bool dangling) {
  ConversationInfo stored;
  if (dangling && !history_->findConversation(local_conversation_id_, stored)) {
    history_->addConversation(local_conversation_id_, std::string(), name_);
  }
  history_->recordMessage(message);
}

// Called with send_mutex_ held. Only the latest prompt is waited for (and
// resent); every message waits for its outcome. Returns whether the message
// is kept until the server allocates the conversation id.
bool ConversationImpl::track(const std::shared_ptr<UserMessageWrapper>& message,
                             const std::string& frame, bool new_prompt) {
  const std::string& id = message->message()->local_message_id;
  std::lock_guard<std::mutex> lock(mutex_);
  if (new_prompt) {
    not_ack_messages_.clear();
    reported_assistant_ids_.clear();
  }
  not_ack_messages_[id] = PendingAck{message, frame, message->uplink(), 0};
  unsettled_[id] = message;
  if (!conversation_id_.empty()) return false;
  dangling_messages_.push_back(message);
  return true;
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

// Whether the message still waits for its outcome.
bool ConversationImpl::isNotAcked(const std::string& local_message_id) {
  size_t waiting = 0;
  bool unsettled = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    waiting = not_ack_messages_.size();
    unsettled = unsettled_.count(local_message_id) > 0;
  }
  ORVI_LOGD("local conversation(%s) not_ack_messages_ size: %zu", local_conversation_id_.c_str(),
            waiting);
  return unsettled;
}

void ConversationImpl::clearNotAck() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    not_ack_messages_.clear();
  }
  ORVI_LOGI("local conversation(%s) clear not ack messages", local_conversation_id_.c_str());
}

void ConversationImpl::onAck(const std::string& local_message_id, AckStatus status) {
  ORVI_LOGD("local conversation(%s) onAck, local_message_id: %s, status: %d",
            local_conversation_id_.c_str(), local_message_id.c_str(), static_cast<int>(status));
  enum class Step { Nothing, Report, ResendDisabled, LimitReached, Resend };
  Step step = Step::Nothing;
  AckStatus outcome = status;
  int32_t count = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto waiting = not_ack_messages_.find(local_message_id);
    const bool unsettled = unsettled_.count(local_message_id) > 0;
    if (status != AckStatus::Timeout) {
      // The server's word is final, a refusal included: nothing is resent.
      if (waiting != not_ack_messages_.end()) not_ack_messages_.erase(waiting);
      if (unsettled) step = Step::Report;
    } else if (!unsettled) {
      // Settled meanwhile (acknowledged while the check ran).
    } else if (waiting == not_ack_messages_.end()) {
      // No longer waited for: a newer prompt or a system message came.
      step = Step::Report;
    } else if (!enable_resend_.load()) {
      not_ack_messages_.erase(waiting);
      step = Step::ResendDisabled;
      outcome = AckStatus::GivenUp;
    } else {
      count = ++waiting->second.resend_count;
      // Signed on purpose: with the default maximum of -1 the first time-out
      // already exceeds it, so by default nothing is resent automatically.
      if (count > max_resend_uplink_message_count_) {
        not_ack_messages_.erase(waiting);
        step = Step::LimitReached;
        outcome = max_resend_uplink_message_count_ >= 0 ? AckStatus::GivenUp : AckStatus::Timeout;
      } else {
        step = Step::Resend;
      }
    }
    if (step != Step::Nothing && step != Step::Resend) unsettled_.erase(local_message_id);
  }

  switch (step) {
    case Step::Nothing: return;
    case Step::ResendDisabled:
      ORVI_LOGW("local conversation(%s) auto resend disabled, skip resend for local_message_id: %s",
                local_conversation_id_.c_str(), local_message_id.c_str());
      break;
    case Step::LimitReached:
      ORVI_LOGW(
          "local conversation(%s) reach max resend uplink message count, current resend count: "
          "%d, max_resend_uplink_message_count_: %d, local_message_id: %s",
          local_conversation_id_.c_str(), count, max_resend_uplink_message_count_,
          local_message_id.c_str());
      if (outcome == AckStatus::Timeout) {
        ORVI_LOGW(
            "local conversation(%s) prompt message sent but not acked, TIMEOUT! "
            "local_message_id: %s",
            local_conversation_id_.c_str(), local_message_id.c_str());
      }
      break;
    case Step::Resend: {
      ORVI_LOGW(
          "local conversation(%s) try auto resend uplink message, resend_count: %d, "
          "local_message_id: %s",
          local_conversation_id_.c_str(), count, local_message_id.c_str());
      armAckCheck(local_message_id);
      std::weak_ptr<ConversationImpl> weak = sharedFromThis(this);
      timer_.post(
          [weak, local_message_id] {
            if (const auto self = weak.lock()) self->resend(local_message_id);
          },
          0);
      return;
    }
    case Step::Report: break;
  }
  if (const auto listener = this->listener()) listener->onAck(local_message_id, outcome);
}

// The frame first handed to the sender, byte for byte. Only a message sent
// before the server allocated the conversation id goes out again with that
// id, so that the server can place it.
void ConversationImpl::resend(const std::string& local_message_id) {
  std::string frame;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = not_ack_messages_.find(local_message_id);
    if (entry == not_ack_messages_.end()) return;
    const PendingAck& pending = entry->second;
    if (pending.uplink.conversation_id.empty() && !conversation_id_.empty()) {
      idl::UplinkMessage named = pending.uplink;
      named.conversation_id = conversation_id_;
      frame = idl::toText(named);
    } else {
      frame = pending.frame;
    }
  }
  const auto transport = this->transport();
  if (!transport) return;
  const bool result = transport->sendMessage(frame);
  ORVI_LOGW("retry send local_message_id(%s) result: %d", local_message_id.c_str(), result);
}

}  // namespace orvi
