// One open conversation of orvi-chat: the library's Conversation, the
// listener that prints what it reports and records the facts a script can
// wait on, and the tool runner that answers the assistant's tool calls.
//
// One turn runs at a time: a prompt typed while an answer is in progress
// is queued, shown as such, and sent when that answer ends (completes, is
// cancelled, fails or is recovered). When the connection drops mid-answer
// the answer is marked as cut, and once the connection is back the latest
// section is recovered from the server and the answer continues in place.
// Every prompt gets one status line: accepted, refused, not sent, or not
// accepted in time (unless its answer came, which says it arrived).
//
// ChatHost owns the one open session; its operations are called from the
// main thread. The listener runs on the network I/O thread (frames and HTTP
// answers), on the main thread (library calls that report synchronously:
// sendMessage, cancel, popupHistoryMessages) and on the session's worker
// thread (tool replies, queued prompts, recoveries after a reconnect). The
// listener's state is guarded by one mutex that is never held during a
// library call or while printing; printing is serialized by the Terminal.
//
// Closing (the destructor): the worker stops first and drops what is
// queued, then the conversation leaves the network's receivers and the hub,
// and is released.
#pragma once

#include <orvi/net/net_transport.h>
#include <orvi/orvi.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "terminal.h"

namespace orvi_chat {

// A live assistant message as last reported.
struct AnswerFacts {
  std::string local_section_id;
  std::string text;  // set when the answer completes
  orvi::MessageStatus status = orvi::MessageStatus::Init;
  int updates = 0;  // deliveries so far: the first frame, then one per delta
  bool asks_for_tools = false;
};

// What the listener has seen since the session opened.
struct SessionFacts {
  std::vector<std::string> started_sections;                  // local ids, in order
  std::map<std::string, orvi::SectionStatus> section_status;  // latest live one, by local id
  std::map<std::string, orvi::AckStatus> acks;                // by local message id
  std::map<std::string, AnswerFacts> answers;                 // by message id
  std::map<std::string, std::string> tool_replies;            // local section id -> results sent
  std::vector<orvi::ComboMessage> local_history;              // handed over from the database
  std::vector<orvi::ComboMessage> remote_history;             // handed over from the server
  std::vector<orvi::RecoverStatus> recover_statuses;          // of remote recoveries
};

// What a session hears of the network connection.
class ConnectionWatcher {
 public:
  virtual ~ConnectionWatcher() = default;
  virtual void onConnection(bool up) = 0;
};

// The visible text of an assistant message: the "text" of its JSON payload,
// or the payload itself when it has none.
std::string answerText(const orvi::AssistantMessage& message);

class ChatSession {
 public:
  // Opens `local_id` (empty: a new conversation), listens, and connects it to
  // `net`. Returns nullptr, with the reason in *error, when the hub refuses.
  static std::unique_ptr<ChatSession> open(const std::string& local_id,
                                           const orvi::ConversationOptions& options,
                                           const std::shared_ptr<orvi::net::NetTransport>& net,
                                           const std::shared_ptr<Terminal>& terminal,
                                           std::string* error);
  ~ChatSession();
  ChatSession(const ChatSession&) = delete;
  ChatSession& operator=(const ChatSession&) = delete;

  const std::string& localId() const { return local_id_; }
  orvi::ConversationDetail detail() const { return conversation_->getDetail(); }

  // Each returns whether the library accepted the request, and prints why
  // not when it did not.
  // Sends `text`, or queues it while an answer is in progress.
  bool prompt(const std::string& text);
  // Cancels the answer in progress; false, said on screen, when none is.
  bool cancel();
  bool retry();
  bool recoverLatestSection();
  // Hands stored messages to the listener: the latest section only, or the
  // newest messages up to the conversation's limit. Returns how many.
  int restore(bool only_latest_section);
  // Pages back through the local history, `count` messages a page: the
  // first call starts at the newest, each further call shows the page before.
  void historyPage(int count);
  // The same against the server's history, `count` sections a page.
  void remoteHistoryPage(int count);

  // Messages sent and still without an outcome from the server.
  size_t unsettledMessages() const;
  // Waits until every sent message has its outcome, or `timeout` passes.
  bool waitSettled(std::chrono::milliseconds timeout) const;
  // Told of the network connection by ChatHost, which holds it weakly and
  // calls it on the I/O thread, so the session may close meanwhile.
  std::weak_ptr<ConnectionWatcher> connectionWatcher() const;

  SessionFacts facts() const;
  // Waits until `condition` holds for the facts, or `timeout` passes.
  bool waitFor(const std::function<bool(const SessionFacts&)>& condition,
               std::chrono::milliseconds timeout) const;

 private:
  class Listener;
  class PagePrinter;

  ChatSession(std::string local_id, std::shared_ptr<orvi::Conversation> conversation,
              std::shared_ptr<Listener> listener, std::shared_ptr<orvi::ITransport> inbound,
              std::shared_ptr<orvi::net::NetTransport> net, std::shared_ptr<Terminal> terminal);

  const std::string local_id_;
  std::shared_ptr<orvi::Conversation> conversation_;
  std::shared_ptr<Listener> listener_;
  std::shared_ptr<orvi::ITransport> inbound_;  // the net adapter holds it only weakly
  std::shared_ptr<orvi::net::NetTransport> net_;
  std::shared_ptr<Terminal> terminal_;
  std::shared_ptr<PagePrinter> local_pages_;  // the local paging cursor
};

}  // namespace orvi_chat
