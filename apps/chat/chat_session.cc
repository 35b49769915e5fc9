#include "chat_session.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "answer_text.h"
#include "printable.h"
#include "tools.h"
#include "worker.h"

namespace orvi_chat {
namespace {

using orvi::MessageSource;

std::string userText(const orvi::UserMessage& message) {
  if (message.action) return "[" + *message.action + "]";
  if (message.tool_result) {
    std::string text = "[tool result";
    for (const auto& result : message.tool_result->tool_call_result) {
      text += " " + result.name + " " + (result.err_msg ? *result.err_msg : result.result);
    }
    return text + "]";
  }
  return message.content ? message.content->content : std::string();
}

// How a status line names a user message: its action, "tool reply", or
// the prompt with the start of its text.
std::string userLabel(const orvi::UserMessage& message) {
  if (message.action) return *message.action;
  if (message.tool_result) return "tool reply";
  const std::string text = message.content ? message.content->content : std::string();
  constexpr size_t kShown = 30;
  if (text.size() <= kShown) return "prompt \"" + text + "\"";
  return "prompt \"" +
         text.substr(0, completePrefixLength(std::string_view(text).substr(0, kShown))) + "...\"";
}

std::string toolCallsText(const std::vector<orvi::ToolCall>& calls) {
  std::string text;
  for (const auto& call : calls)
    text += (text.empty() ? "" : ", ") + call.name + " " + call.properties;
  return text;
}

bool asksForTools(const orvi::AssistantMessage& message) {
  return message.tool_calls && !message.tool_calls->empty();
}

std::string describe(const orvi::ComboMessage& combo) {
  if (combo.user_message) {
    const orvi::UserMessage& message = *combo.user_message;
    std::string text = "you: " + userText(message);
    if (message.status == orvi::MessageStatus::Failed) return text + "  (not sent)";
    return message.message_id.empty() ? text + "  (never acknowledged)" : text;
  }
  if (combo.assistant_message) {
    const orvi::AssistantMessage& answer = *combo.assistant_message;
    if (asksForTools(answer)) return "bot: [asks for " + toolCallsText(*answer.tool_calls) + "]";
    const std::string text = answerText(answer);
    if (answer.status == orvi::MessageStatus::Completed) return "bot: " + text;
    return "bot: " + (text.empty() ? "(unfinished, no text kept)" : text + "  (unfinished)");
  }
  if (combo.system_message) {
    return "system: " + std::to_string(combo.system_message->code) + " " +
           combo.system_message->msg;
  }
  return "?";
}

const char* ackText(orvi::AckStatus status) {
  switch (status) {
    case orvi::AckStatus::Acked: return "accepted";
    case orvi::AckStatus::Timeout:
      return "not accepted in time; it may not have reached the server (type it again, or /retry)";
    case orvi::AckStatus::GivenUp: return "failed: no acknowledgement, even after resending";
    case orvi::AckStatus::Rejected: return "refused by the server";
  }
  return "?";
}

const char* sectionText(orvi::SectionStatus status) {
  switch (status) {
    case orvi::SectionStatus::Started: return "started";
    case orvi::SectionStatus::OnGoing: return "streaming";
    case orvi::SectionStatus::Completed: return "completed";
    case orvi::SectionStatus::Ended: return "ended by a system message";
    case orvi::SectionStatus::Failed: return "failed";
    case orvi::SectionStatus::Cancelled: return "cancelled";
  }
  return "?";
}

const char* recoverText(orvi::RecoverStatus status) {
  switch (status) {
    case orvi::RecoverStatus::Completed: return "completed";
    case orvi::RecoverStatus::Started: return "section still running, following it";
    case orvi::RecoverStatus::Cancelled: return "section was cancelled";
    case orvi::RecoverStatus::Delivered: return "delivered";
    case orvi::RecoverStatus::Failed: return "failed";
  }
  return "?";
}

orvi::ComboMessage combo(const orvi::UserMessage& message) {
  return orvi::ComboMessage(orvi::MessageType::User, message, std::nullopt, std::nullopt);
}
orvi::ComboMessage combo(const orvi::AssistantMessage& message) {
  return orvi::ComboMessage(orvi::MessageType::Assistant, std::nullopt, message, std::nullopt);
}
orvi::ComboMessage combo(const orvi::SystemMessage& message) {
  return orvi::ComboMessage(orvi::MessageType::System, std::nullopt, std::nullopt, message);
}

}  // namespace

std::string answerText(const orvi::AssistantMessage& message) {
  return message.content ? answerTextOf(message.content->content) : std::string();
}

// The conversation's listener. Each callback prints first and records the
// fact after, so that a script woken by the fact prints its next line below
// the one that explains it.
class ChatSession::Listener final : public orvi::ConversationListener, public ConnectionWatcher {
 public:
  // `ack_timeout` and `resends` are the conversation's: how long a message
  // waits for its acknowledgement, and how often it is sent again.
  Listener(std::shared_ptr<Terminal> terminal, std::chrono::milliseconds ack_timeout,
           int32_t resends)
      : terminal_(std::move(terminal)), ack_timeout_(ack_timeout), resends_(resends) {}

  void attach(const std::shared_ptr<orvi::Conversation>& conversation) {
    std::lock_guard<std::mutex> lock(mutex_);
    conversation_ = conversation;
  }
  void stopWorker() { worker_.stop(); }
  // While set, recovery statuses come from a local popup and are not shown.
  void setPoppingUp(bool popping) { popping_up_.store(popping); }
  // While set, the latest section is being recovered: its answers stream in
  // place like live ones instead of being listed.
  void setFollowing(bool following) { following_.store(following); }

  SessionFacts facts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return facts_;
  }
  bool waitFor(const std::function<bool(const SessionFacts&)>& condition,
               std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return condition(facts_); });
  }
  std::optional<orvi::RecoverExtra> lastPopupPage() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return last_popup_page_;
  }
  // The cursor of the next older page of the server's sections; empty when
  // paging starts over at the newest.
  std::string remoteCursor() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return remote_cursor_;
  }
  bool answerInProgress() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return turn_busy_;
  }
  size_t unsettled() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return unsettledLocked();
  }
  bool waitSettled(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return unsettledLocked() == 0; });
  }

  // A prompt typed by the user: sent at once, or queued behind the answer
  // in progress and the prompts queued before it.
  bool submitPrompt(const std::string& text) {
    bool queued = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queued = turn_busy_ || !queued_prompts_.empty();
      if (queued) {
        queued_prompts_.push_back(text);
      } else {
        turn_busy_ = true;
      }
    }
    if (!queued) return sendPrompt(text);
    terminal_->line("queued", text);
    terminal_->line("queued", "sent when the answer in progress ends (/cancel ends it now)");
    return true;
  }

  void onConnection(bool up) override {
    bool newly_cut = false;
    bool recover = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (up) {
        std::swap(recover, cut_);
      } else {
        // The transport reports every failed reconnection too; the cut is
        // said once.
        newly_cut = !cut_ && turn_busy_ && !turn_section_.empty();
        cut_ = cut_ || newly_cut;
      }
    }
    if (newly_cut) {
      terminal_->line("bot",
                      "(the connection dropped mid-answer; the rest follows when it is back)");
    }
    if (!recover) return;
    worker_.post([this] {
      terminal_->line("recover", "connection is back: fetching the rest of the answer");
      if (!startFollowing()) {
        terminal_->line("recover", "could not start; /recover tries again");
        endTurn();
      }
    });
  }

  // Recovers the latest section, its answer streaming in place.
  bool startFollowing() {
    const auto conversation = lockConversation();
    if (!conversation) return false;
    setFollowing(true);
    if (conversation->recoverRemoteSection()) return true;
    setFollowing(false);
    return false;
  }

  void onAck(const std::string& local_message_id, orvi::AckStatus status) override {
    std::string label = "message";
    bool quiet = false;
    bool refused_then_accepted = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto it = sent_.find(local_message_id);
      if (it != sent_.end()) {
        SentMessage& sent = it->second;
        label = sent.label;
        // A message the sender refused was reported as not sent already,
        // unless a resend got through after all; one whose answer arrived
        // evidently reached the server.
        refused_then_accepted = sent.not_sent && status == orvi::AckStatus::Acked;
        quiet = (sent.not_sent && !refused_then_accepted) ||
                (status == orvi::AckStatus::Timeout &&
                 answered_sections_.count(sent.local_section_id) > 0);
        sent.settled = true;
      }
    }
    if (refused_then_accepted) {
      terminal_->line("ack",
                      label + " accepted after all: sent again once the connection was back");
    } else if (!quiet) {
      terminal_->line("ack", label + " " + ackText(status));
    }
    record([&](SessionFacts& facts) { facts.acks[local_message_id] = status; });
  }

  void onUserMessage(const orvi::UserMessage& message) override {
    if (message.source != MessageSource::Live) {
      if (following_.load() && knows(message.local_message_id)) return;
      return fromHistory(combo(message), message.source);
    }
    // The library reports a message before it leaves; when the sender
    // refuses it, it reports it again as failed.
    bool refused = false;
    bool first_report = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      first_report = sent_.count(message.local_message_id) == 0;
      SentMessage& sent = sent_[message.local_message_id];
      sent.label = userLabel(message);
      if (message.section) sent.local_section_id = message.section->local_section_id;
      refused = message.status == orvi::MessageStatus::Failed && !sent.not_sent;
      sent.not_sent = sent.not_sent || refused;
      refusals_ += refused;
    }
    if (refused) terminal_->line("ack", userLabel(message) + " not sent: no connection");
    if (first_report) watchAcknowledgement(message.local_message_id, 1);
    changed_.notify_all();
  }

  void onAssistantMessage(const orvi::AssistantMessage& message) override {
    const bool streams = message.source == MessageSource::Live ||
                         (message.source == MessageSource::RemoteHistory && following_.load());
    if (!streams) return fromHistory(combo(message), message.source);
    const bool tools = asksForTools(message);
    const bool complete = message.status == orvi::MessageStatus::Completed;
    const std::string section = message.section ? message.section->local_section_id : "";
    bool first_sight = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      first_sight = !tools || tool_messages_.insert(message.message_id).second;
      answered_sections_.insert(section);
    }
    if (tools) {
      if (first_sight) terminal_->line("bot", "asks for " + toolCallsText(*message.tool_calls));
      // A tool call recovered from the server was run when it first came.
      if (first_sight && message.source == MessageSource::Live) postToolCalls(message);
    } else {
      // Deliveries of one conversation never overlap, so the answers being
      // streamed need no lock.
      AnswerText& answer = streaming_[message.message_id];
      const bool extends =
          answer.update(message.content ? message.content->content : std::string(), complete);
      terminal_->stream(message.message_id, answer.text(), extends, complete);
      if (complete) {
        const std::string text = answer.text();
        streaming_.erase(message.message_id);
        record([&](SessionFacts& facts) { facts.answers[message.message_id].text = text; });
      }
    }
    record([&](SessionFacts& facts) {
      AnswerFacts& answer = facts.answers[message.message_id];
      answer.local_section_id = section;
      answer.status = message.status;
      answer.asks_for_tools = tools;
      ++answer.updates;
    });
  }

  void onSystemMessage(const orvi::SystemMessage& message) override {
    if (message.source != MessageSource::Live && !following_.load()) {
      return fromHistory(combo(message), message.source);
    }
    terminal_->line("system", std::to_string(message.code) + " " + message.msg);
  }

  void onSectionStatus(orvi::SectionStatus status, bool from_history,
                       const orvi::SectionInfo& section) override {
    if (from_history) return;  // the end of a popup, not a turn
    terminal_->line("section", sectionText(status));
    bool ends_turn = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (status == orvi::SectionStatus::Started) {
        if (turn_busy_ && turn_section_.empty()) turn_section_ = section.local_section_id;
      } else if (status != orvi::SectionStatus::OnGoing) {
        ends_turn = turn_busy_ && section.local_section_id == turn_section_;
      }
    }
    // The turn ends before the fact is recorded, so that whoever waits on
    // the fact finds the next prompt free to go.
    if (ends_turn) endTurn();
    record([&](SessionFacts& facts) {
      if (status == orvi::SectionStatus::Started) {
        facts.started_sections.push_back(section.local_section_id);
      }
      facts.section_status[section.local_section_id] = status;
    });
  }

  void onRecoverStatus(orvi::RecoverStatus status,
                       const std::optional<orvi::RecoverExtra>& extra) override {
    if (popping_up_.load()) {
      if (status == orvi::RecoverStatus::Delivered && extra) {
        std::lock_guard<std::mutex> lock(mutex_);
        last_popup_page_ = extra;
      }
      return;
    }
    if (extra) return remotePageEnded(status, *extra);
    if (status != orvi::RecoverStatus::Started) setFollowing(false);
    std::string text = recoverText(status);
    bool ends_turn = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // A section still running goes on live and ends like any other.
      ends_turn = turn_busy_ && status != orvi::RecoverStatus::Started;
    }
    if (ends_turn && status == orvi::RecoverStatus::Failed) {
      text += ": the server could not return the rest; the answer stays cut";
    }
    terminal_->line("recover", text);
    if (ends_turn) endTurn();
    record([&](SessionFacts& facts) { facts.recover_statuses.push_back(status); });
  }

  void onTraceEvent(const std::string&, const std::string&) override {}

 private:
  // What the listener knows of a message this session sent.
  struct SentMessage {
    std::string label;  // how its status line names it
    std::string local_section_id;
    bool not_sent = false;  // the sender refused it
    bool settled = false;   // it has its outcome
  };

  // Says so when the message still waits for its acknowledgement a little
  // after the library's time-out, at which the library sends it again while
  // resends are left.
  void watchAcknowledgement(const std::string& local_message_id, int32_t round) {
    constexpr std::chrono::milliseconds kAfterTheLibrary(200);
    worker_.postAfter(ack_timeout_ + kAfterTheLibrary, [this, local_message_id, round] {
      std::string label;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = sent_.find(local_message_id);
        const bool waiting = it != sent_.end() && !it->second.settled && !it->second.not_sent &&
                             answered_sections_.count(it->second.local_section_id) == 0;
        if (!waiting) return;
        label = it->second.label;
      }
      const bool resent = round <= resends_;
      terminal_->line("ack",
                      label + (resent ? " not accepted yet; sent again" : " not accepted yet"));
      if (resent) watchAcknowledgement(local_message_id, round + 1);
    });
  }

  size_t unsettledLocked() const {
    size_t count = 0;
    for (const auto& entry : sent_) count += !entry.second.settled && !entry.second.not_sent;
    return count;
  }

  bool knows(const std::string& local_message_id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_.count(local_message_id) > 0;
  }

  std::shared_ptr<orvi::Conversation> lockConversation() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return conversation_.lock();
  }

  // Sends a prompt for which the turn is already reserved.
  bool sendPrompt(const std::string& text) {
    terminal_->line("you", text);
    orvi::InputMessage message;
    message.content = orvi::MessageContent(text, 0);
    const auto conversation = lockConversation();
    const size_t refusals_before = refusals();
    if (conversation && !conversation->sendMessage(message).empty()) return true;
    // A refusal by the sender has been said; a recovery in progress refuses
    // before the message exists.
    if (refusals() == refusals_before) {
      terminal_->line("ack", "prompt not sent: a recovery is running, or the conversation closed");
    }
    endTurn();
    return false;
  }

  size_t refusals() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return refusals_;
  }

  // The turn in progress is over: the next queued prompt, if any, goes out
  // from the worker.
  void endTurn() {
    std::string next;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      turn_busy_ = false;
      turn_section_.clear();
      cut_ = false;
      if (queued_prompts_.empty()) return;
      next = std::move(queued_prompts_.front());
      queued_prompts_.pop_front();
      turn_busy_ = true;
    }
    worker_.post([this, next] { sendPrompt(next); });
  }

  void remotePageEnded(orvi::RecoverStatus status, const orvi::RecoverExtra& page) {
    std::string text = recoverText(status);
    if (status == orvi::RecoverStatus::Failed) {
      text += " (the server did not send the page; /remote-history tries again)";
    } else {
      text +=
          page.has_more ? " (older sections: repeat the command)" : " (start of the conversation)";
      std::lock_guard<std::mutex> lock(mutex_);
      remote_cursor_ = page.has_more ? page.next_cursor : std::string();
    }
    terminal_->line("recover", text);
    record([&](SessionFacts& facts) { facts.recover_statuses.push_back(status); });
  }

  void record(const std::function<void(SessionFacts&)>& change) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      change(facts_);
    }
    changed_.notify_all();
  }

  void fromHistory(const orvi::ComboMessage& message, MessageSource source) {
    const bool local = source == MessageSource::LocalHistory;
    terminal_->line(local ? "history" : "remote", describe(message));
    record([&](SessionFacts& facts) {
      (local ? facts.local_history : facts.remote_history).push_back(message);
    });
  }

  // Runs the calls on the worker and replies with all their results.
  void postToolCalls(const orvi::AssistantMessage& message) {
    std::weak_ptr<orvi::Conversation> conversation;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      conversation = conversation_;
    }
    const std::string section = message.section ? message.section->local_section_id : "";
    worker_.post([this, conversation, section, message] {
      std::vector<orvi::ToolCallResult> results;
      std::string shown;
      for (const auto& call : *message.tool_calls) {
        results.push_back(runTool(call));
        const auto& result = results.back();
        shown += (shown.empty() ? "" : ", ") + call.name + " -> " +
                 (result.err_msg ? "error: " + *result.err_msg : result.result);
      }
      const auto target = conversation.lock();
      if (!target) return;
      terminal_->line("tool", shown);
      const int32_t sent = target->reply(toolReply(message.message_id, results));
      if (sent != 0) {
        terminal_->line("tool", "reply refused (" + std::to_string(sent) + ")");
        return;
      }
      record([&](SessionFacts& facts) { facts.tool_replies[section] = shown; });
    });
  }

  const std::shared_ptr<Terminal> terminal_;
  const std::chrono::milliseconds ack_timeout_;
  const int32_t resends_;
  std::atomic<bool> popping_up_{false};
  std::atomic<bool> following_{false};
  std::map<std::string, AnswerText> streaming_;  // by message id; delivery threads only

  mutable std::mutex mutex_;  // guards the members below
  mutable std::condition_variable changed_;
  SessionFacts facts_;
  std::map<std::string, SentMessage> sent_;  // by local message id
  std::set<std::string> answered_sections_;  // local ids of sections an answer came for
  std::set<std::string> tool_messages_;      // assistant messages whose calls were run
  size_t refusals_ = 0;                      // messages the sender refused, so far
  bool turn_busy_ = false;                   // a prompt is out and its answer not over
  std::string turn_section_;                 // its local section, once started
  bool cut_ = false;                         // the connection dropped during that answer
  std::deque<std::string> queued_prompts_;
  std::optional<orvi::RecoverExtra> last_popup_page_;
  std::string remote_cursor_;
  std::weak_ptr<orvi::Conversation> conversation_;

  Worker worker_;  // last: its jobs use the members above, so it stops first
};

// One page of the local fetchHistoryMessages: prints it and keeps the
// cursor of the page before it.
class ChatSession::PagePrinter final : public orvi::IFetchMessageCallback {
 public:
  PagePrinter(std::shared_ptr<Terminal> terminal, std::string tag)
      : terminal_(std::move(terminal)), tag_(std::move(tag)) {}

  // The cursor of the next older page; empty when paging starts over.
  std::string next() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return next_;
  }
  void setNext(std::string cursor) {
    std::lock_guard<std::mutex> lock(mutex_);
    next_ = std::move(cursor);
  }

  void onMessages(const std::vector<orvi::ComboMessage>& messages, bool has_more,
                  const std::string& next_cursor) override {
    for (const auto& message : messages) terminal_->line(tag_, describe(message));
    atPageEnd(has_more, next_cursor);
  }
  void onFailure(int32_t code, const std::string& message) override {
    terminal_->line(tag_, "failed (" + std::to_string(code) + "): " + message);
  }

  void atPageEnd(bool has_more, const std::string& next_cursor) {
    setNext(has_more ? next_cursor : std::string());
    terminal_->line(
        tag_, has_more ? "(older messages: repeat the command)" : "(start of the conversation)");
  }

 private:
  const std::shared_ptr<Terminal> terminal_;
  const std::string tag_;
  mutable std::mutex mutex_;  // guards next_
  std::string next_;
};

std::unique_ptr<ChatSession> ChatSession::open(const std::string& local_id,
                                               const orvi::ConversationOptions& options,
                                               const std::shared_ptr<orvi::net::NetTransport>& net,
                                               const std::shared_ptr<Terminal>& terminal,
                                               std::string* error) {
  auto hub = orvi::ConversationHub::instance();
  auto conversation = hub->open(local_id, options);
  if (!conversation) {
    if (error) *error = "the hub refused to open '" + local_id + "' (is it open already?)";
    return nullptr;
  }
  constexpr int32_t kLibraryAckTimeoutMs = 5000;
  auto listener = std::make_shared<Listener>(
      terminal,
      std::chrono::milliseconds(
          options.uplink_message_ack_timeout_ms.value_or(kLibraryAckTimeoutMs)),
      options.max_resend_uplink_message_count.value_or(-1));
  listener->attach(conversation);
  conversation->listen(listener);
  auto inbound = conversation->connect(net);
  net->addReceiver(inbound);
  const std::string id = conversation->getDetail().local_conversation_id;
  return std::unique_ptr<ChatSession>(new ChatSession(
      id, std::move(conversation), std::move(listener), std::move(inbound), net, terminal));
}

ChatSession::ChatSession(std::string local_id, std::shared_ptr<orvi::Conversation> conversation,
                         std::shared_ptr<Listener> listener,
                         std::shared_ptr<orvi::ITransport> inbound,
                         std::shared_ptr<orvi::net::NetTransport> net,
                         std::shared_ptr<Terminal> terminal)
    : local_id_(std::move(local_id)),
      conversation_(std::move(conversation)),
      listener_(std::move(listener)),
      inbound_(std::move(inbound)),
      net_(std::move(net)),
      terminal_(std::move(terminal)),
      local_pages_(std::make_shared<PagePrinter>(terminal_, "history")) {}

ChatSession::~ChatSession() {
  listener_->stopWorker();
  net_->removeReceiver(inbound_);
  orvi::ConversationHub::instance()->close(local_id_);
}

bool ChatSession::prompt(const std::string& text) {
  return listener_->submitPrompt(text);
}

bool ChatSession::cancel() {
  if (!listener_->answerInProgress()) {
    terminal_->line("cancel", "nothing to cancel: no answer is in progress");
    return false;
  }
  if (conversation_->cancel(orvi::InputMessage()) == 0) return true;
  terminal_->line("cancel", "not sent (no connection)");
  return false;
}

bool ChatSession::retry() {
  const int32_t result = conversation_->retry(orvi::InputMessage());
  if (result == 0) return true;
  terminal_->line("retry", result == -3 ? "not sent (no connection)"
                                        : "nothing to retry (no turn in progress, or it was "
                                          "cancelled)");
  return false;
}

bool ChatSession::recoverLatestSection() {
  if (listener_->startFollowing()) return true;
  terminal_->line("recover",
                  "not started (no server id or no stored message yet, or one is running)");
  return false;
}

int ChatSession::restore(bool only_latest_section) {
  listener_->setPoppingUp(true);
  const int delivered = conversation_->popupHistoryMessages(only_latest_section, 0, 0);
  listener_->setPoppingUp(false);
  return delivered;
}

void ChatSession::historyPage(int count) {
  const std::string cursor = local_pages_->next();
  if (!cursor.empty()) {
    conversation_->fetchHistoryMessages(false, cursor, count, local_pages_);
    return;
  }
  // The newest page goes to the listener like any restored history; its
  // cursor comes back with the Delivered recovery status.
  listener_->setPoppingUp(true);
  const int delivered = conversation_->popupHistoryMessages(false, 0, count);
  listener_->setPoppingUp(false);
  const auto page = listener_->lastPopupPage();
  if (delivered == 0) {
    terminal_->line("history", "(no stored messages)");
    return;
  }
  local_pages_->atPageEnd(page && page->has_more, page ? page->next_cursor : std::string());
}

// The server's cursors are its own texts (a section id, say), which only
// recoverRemoteSections takes; its pages come to the listener like any
// recovered section, and the next cursor with the recovery status.
void ChatSession::remoteHistoryPage(int count) {
  const std::string cursor = listener_->remoteCursor();
  if (conversation_->recoverRemoteSections(cursor.empty() ? "0" : cursor, count)) return;
  terminal_->line("remote", "not started (no server id yet, or a recovery is running)");
}

size_t ChatSession::unsettledMessages() const {
  return listener_->unsettled();
}

bool ChatSession::waitSettled(std::chrono::milliseconds timeout) const {
  return listener_->waitSettled(timeout);
}

std::weak_ptr<ConnectionWatcher> ChatSession::connectionWatcher() const {
  return listener_;
}

SessionFacts ChatSession::facts() const {
  return listener_->facts();
}

bool ChatSession::waitFor(const std::function<bool(const SessionFacts&)>& condition,
                          std::chrono::milliseconds timeout) const {
  return listener_->waitFor(condition, timeout);
}

}  // namespace orvi_chat
