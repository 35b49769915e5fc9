#include "chat_session.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

#include <nlohmann/json.hpp>

#include "tool_runner.h"
#include "tools.h"

namespace orvi_chat {
namespace {

using orvi::MessageSource;

std::string shortId(const std::string& id) {
  return id.substr(0, 8);
}

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

// What kind of user message an acknowledgement settles, for the ack line.
std::string userKind(const orvi::UserMessage& message) {
  if (message.action) return *message.action;
  return message.tool_result ? "tool reply" : "prompt";
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
  if (combo.user_message) return "you: " + userText(*combo.user_message);
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
    case orvi::AckStatus::Timeout: return "not acknowledged in time";
    case orvi::AckStatus::GivenUp: return "given up (no acknowledgement)";
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
  if (!message.content) return std::string();
  const auto payload = nlohmann::json::parse(message.content->content, nullptr, false);
  if (payload.is_object()) {
    const auto text = payload.find("text");
    if (text != payload.end() && text->is_string()) return text->get<std::string>();
  }
  return message.content->content;
}

// The conversation's listener. Each callback prints first and records the
// fact after, so that a script woken by the fact prints its next line below
// the one that explains it.
class ChatSession::Listener final : public orvi::ConversationListener {
 public:
  explicit Listener(std::shared_ptr<Terminal> terminal) : terminal_(std::move(terminal)) {}

  void attach(const std::shared_ptr<orvi::Conversation>& conversation) {
    std::lock_guard<std::mutex> lock(mutex_);
    conversation_ = conversation;
  }
  void stopTools() { tools_.stop(); }
  // While set, recovery statuses come from a local popup and are not shown.
  void setPoppingUp(bool popping) { popping_up_.store(popping); }

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

  void onAck(const std::string& local_message_id, orvi::AckStatus status) override {
    std::string kind;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto it = kinds_.find(local_message_id);
      kind = it == kinds_.end() ? "message" : it->second;
    }
    terminal_->line("ack", kind + " " + shortId(local_message_id) + " " + ackText(status));
    record([&](SessionFacts& facts) { facts.acks[local_message_id] = status; });
  }

  void onUserMessage(const orvi::UserMessage& message) override {
    if (message.source != MessageSource::Live) return fromHistory(combo(message), message.source);
    std::lock_guard<std::mutex> lock(mutex_);
    kinds_.emplace(message.local_message_id, userKind(message));
  }

  void onAssistantMessage(const orvi::AssistantMessage& message) override {
    if (message.source != MessageSource::Live) return fromHistory(combo(message), message.source);
    const bool tools = asksForTools(message);
    bool first_sight = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      first_sight = !tools || tool_messages_.insert(message.message_id).second;
    }
    if (!tools) {
      terminal_->stream(message.message_id, answerText(message),
                        message.status == orvi::MessageStatus::Completed);
    } else if (first_sight) {
      terminal_->line("bot", "asks for " + toolCallsText(*message.tool_calls));
      postToolCalls(message);
    }
    record([&](SessionFacts& facts) {
      AnswerFacts& answer = facts.answers[message.message_id];
      if (message.section) answer.local_section_id = message.section->local_section_id;
      answer.text = answerText(message);
      answer.status = message.status;
      answer.asks_for_tools = tools;
      ++answer.updates;
    });
  }

  void onSystemMessage(const orvi::SystemMessage& message) override {
    if (message.source != MessageSource::Live) return fromHistory(combo(message), message.source);
    terminal_->line("system", std::to_string(message.code) + " " + message.msg);
  }

  void onSectionStatus(orvi::SectionStatus status, bool from_history,
                       const orvi::SectionInfo& section) override {
    if (from_history) return;  // the end of a popup, not a turn
    terminal_->line("section", sectionText(status));
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
    std::string text = recoverText(status);
    if (extra) {  // a page of recoverRemoteSections
      text += extra->has_more ? " (older sections: repeat the command)"
                              : " (start of the conversation)";
      std::lock_guard<std::mutex> lock(mutex_);
      remote_cursor_ = extra->has_more ? extra->next_cursor : std::string();
    }
    terminal_->line("recover", text);
    record([&](SessionFacts& facts) { facts.recover_statuses.push_back(status); });
  }

  void onTraceEvent(const std::string&, const std::string&) override {}

 private:
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

  // Runs the calls on the tool thread and replies with all their results.
  void postToolCalls(const orvi::AssistantMessage& message) {
    std::weak_ptr<orvi::Conversation> conversation;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      conversation = conversation_;
    }
    const std::string section = message.section ? message.section->local_section_id : "";
    tools_.post([this, conversation, section, message] {
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
  std::atomic<bool> popping_up_{false};

  mutable std::mutex mutex_;  // guards the members below
  mutable std::condition_variable changed_;
  SessionFacts facts_;
  std::map<std::string, std::string> kinds_;  // local message id -> prompt, cancel, ...
  std::set<std::string> tool_messages_;       // assistant messages whose calls were run
  std::optional<orvi::RecoverExtra> last_popup_page_;
  std::string remote_cursor_;
  std::weak_ptr<orvi::Conversation> conversation_;

  ToolRunner tools_;  // last: its jobs use the members above, so it stops first
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
  auto listener = std::make_shared<Listener>(terminal);
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
  listener_->stopTools();
  net_->removeReceiver(inbound_);
  orvi::ConversationHub::instance()->close(local_id_);
}

bool ChatSession::prompt(const std::string& text) {
  orvi::InputMessage message;
  message.content = orvi::MessageContent(text, 0);
  if (!conversation_->sendMessage(message).empty()) return true;
  terminal_->line("you", "not sent (no connection, or a recovery is running)");
  return false;
}

bool ChatSession::cancel() {
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
  if (conversation_->recoverRemoteSection()) return true;
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

SessionFacts ChatSession::facts() const {
  return listener_->facts();
}

bool ChatSession::waitFor(const std::function<bool(const SessionFacts&)>& condition,
                          std::chrono::milliseconds timeout) const {
  return listener_->waitFor(condition, timeout);
}

}  // namespace orvi_chat
