// The hub and the conversation as a host first meets them: options, ids,
// opening and reopening, listing and removing on the server, recovery, and
// what happens when the host drops things while work is pending.
#include <map>
#include <string>
#include <thread>

#include "conversation_fixture.h"

namespace orvi {
namespace {

using test::ScriptedServer;
using Json = nlohmann::json;

class ConversationLifecycleTest : public test::ConversationFixture {};

TEST_F(ConversationLifecycleTest, OptionsTakeTheirDefaultsOneByOne) {
  open("defaults");
  EXPECT_EQ(log_->countContaining(
                "history_message_limited = 50, callback_user_message = 1, "
                "popup_assistant_message_after_cancel = 0, enable_tracing_event = 0, "
                "enable_sync_user_message_timestamp_by_ack = 0, block_when_recovering = 1"),
            1u);
  EXPECT_TRUE(
      log_->has("[ACK] uplink_message_ack_timeout_ms_ = 5000, enable_resend_ = 1, "
                "max_resend_uplink_message_count_ = -1"));
  log_->clear();
  ConversationOptions one;
  one.history_message_limited = 7;
  open("one-override", one);
  EXPECT_EQ(log_->countContaining("history_message_limited = 7, callback_user_message = 1, "
                                  "popup_assistant_message_after_cancel = 0"),
            1u);
  EXPECT_TRUE(
      log_->has("[ACK] uplink_message_ack_timeout_ms_ = 5000, enable_resend_ = 1, "
                "max_resend_uplink_message_count_ = -1"));

  // With callback_user_message off the host hears no user messages.
  ConversationOptions quiet;
  quiet.callback_user_message = false;
  auto listener = std::make_shared<test::RecordingListener>();
  auto conversation = open("quiet", quiet, listener);
  EXPECT_FALSE(conversation->sendMessage(prompt("x")).empty());
  EXPECT_TRUE(listener->calls().user_messages.empty());
}

TEST_F(ConversationLifecycleTest, IdsAreGeneratedOrRestoredAndOpenIsExclusive) {
  auto generated = hub_->open("", {});
  const std::string id = generated->getDetail().local_conversation_id;
  ASSERT_EQ(id.size(), 36u);
  EXPECT_EQ(id[14], '4');
  EXPECT_NE(std::string("89ab").find(id[19]), std::string::npos);

  auto first = hub_->open("lc-1", {});
  ASSERT_TRUE(first);
  EXPECT_TRUE(log_->has(
      "local_conversation_id_(lc-1) cann't find conversation_id, means new conversation"));
  EXPECT_FALSE(hub_->open("lc-1", {}));
  EXPECT_TRUE(log_->has("local conversation(lc-1) is already opened"));
  first.reset();  // the host drops it; the hub held it only weakly
  EXPECT_TRUE(hub_->open("lc-1", {}));
  EXPECT_TRUE(log_->has("local conversation(lc-1) is expired, clear.."));

  hub_->history()->addConversation("known", "srv-known", "Known");
  auto known = hub_->open("known", {});
  EXPECT_EQ(known->getDetail().conversation_id, "srv-known");
  EXPECT_TRUE(log_->has("local_conversation_id_(known) recovered conversation_id: srv-known"));

  // A second listener and a second connect are refused.
  auto conversation = open("lc-2");
  conversation->listen(std::make_shared<test::RecordingListener>());
  EXPECT_EQ(log_->countContaining("listener is already exist"), 1u);
  const auto transport = conversation->connect(std::make_shared<ScriptedServer>());
  EXPECT_EQ(transport, conversation->connect(server_));
  EXPECT_TRUE(log_->countContaining("transport is already connected, skip"));
  conversation->setBabiParams("{}");
  conversation->enableResend(false);
  EXPECT_TRUE(log_->has("local conversation(lc-2) set enable_resend: 0"));
}

class RecordingHubListener : public ConversationHubListener {
 public:
  void onConversationRemoved(bool success) override {
    std::lock_guard<std::mutex> lock(mutex);
    results.push_back(success);
  }
  std::mutex mutex;
  std::vector<bool> results;
};

class CollectingPages : public IConversations {
 public:
  void onConversations(const ConversationListInfo& page) override {
    std::lock_guard<std::mutex> lock(mutex);
    pages.push_back(page);
  }
  std::mutex mutex;
  std::vector<ConversationListInfo> pages;
};

TEST_F(ConversationLifecycleTest, ListingAndRemovingOnTheServer) {
  EXPECT_FALSE(hub_->listRemote("", 20, true, nullptr));
  EXPECT_FALSE(hub_->remove("anything"));
  EXPECT_EQ(log_->countContaining("sender is null, remote conversation list need sender set."), 2u);

  auto hub_listener = std::make_shared<RecordingHubListener>();
  hub_->listen(hub_listener);
  hub_->listen(hub_listener);
  EXPECT_TRUE(log_->has("listen conversation hub listener is already set"));
  const auto transport = hub_->connect(server_);
  EXPECT_EQ(hub_->connect(std::make_shared<ScriptedServer>()), transport);

  server_->setRestScript([](const HttpRequest& request) -> std::string {
    if (request.scene == HttpRequestScene::ConversationList) {
      return R"({"ret":"0","data":{"conversation_list":[{"local_conversation_id":"r1","conversation_id":"c-r1","create_time":1,"name":"Remote one"}],"has_more":false,"next_cursor":""}})";
    }
    const Json body = Json::parse(*request.body);
    return body["conversation_ids"][0] == "c-r1" ? R"({"ret":"0"})" : R"({"ret":"1"})";
  });
  auto pages = std::make_shared<CollectingPages>();
  EXPECT_TRUE(hub_->listRemote("", 20, true, pages));
  ASSERT_TRUE(server_->drain());
  ASSERT_EQ(pages->pages.size(), 1u);
  ASSERT_EQ(hub_->list().size(), 1u);  // the page was stored locally
  EXPECT_EQ(hub_->list()[0].conversation_id, "c-r1");
  EXPECT_EQ(*server_->requests()[0].body, R"({"cursor":"","count":20,"create_time_desc":true})");

  // An open conversation is not removed and nothing is asked.
  auto open_one = hub_->open("r1", {});
  EXPECT_FALSE(hub_->remove("r1"));
  EXPECT_EQ(server_->requests().size(), 1u);
  open_one.reset();

  // The local record goes only after the server confirmed.
  server_->hold_requests = true;
  EXPECT_TRUE(hub_->remove("r1"));
  EXPECT_EQ(hub_->list().size(), 1u);
  server_->answerHeld();
  ASSERT_TRUE(server_->drain());
  ASSERT_EQ(hub_listener->results, std::vector<bool>{true});
  EXPECT_TRUE(hub_->list().empty());
  EXPECT_EQ(server_->requests().back().scene, HttpRequestScene::ConversationBatchDelete);
  EXPECT_EQ(*server_->requests().back().body, R"({"conversation_ids":["c-r1"]})");

  // A refusal keeps it.
  hub_->history()->addConversation("kept", "c-kept", "");
  server_->hold_requests = false;
  EXPECT_TRUE(hub_->remove("kept"));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(hub_listener->results, (std::vector<bool>{true, false}));
  EXPECT_EQ(hub_->list().size(), 1u);
  // ... and removeLocal is how a host gets rid of it: never while it is
  // open, never for an id it does not store, and without asking the server.
  const size_t asked_before = server_->requests().size();
  auto kept = hub_->open("kept", {});
  EXPECT_FALSE(hub_->removeLocal("kept"));
  kept.reset();
  hub_->close("kept");
  EXPECT_FALSE(hub_->removeLocal("never-stored"));
  EXPECT_TRUE(hub_->removeLocal("kept"));
  EXPECT_TRUE(hub_->list().empty());
  EXPECT_EQ(server_->requests().size(), asked_before);
  EXPECT_EQ(hub_listener->results, (std::vector<bool>{true, false}));

  // A host that answers every request twice: each answer reaches the
  // callback once.
  server_->answers_per_request = 2;
  EXPECT_TRUE(hub_->listRemote("", 20, true, pages));
  hub_->history()->addConversation("twice", "c-r1", "");
  EXPECT_TRUE(hub_->remove("twice"));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(pages->pages.size(), 2u);
  EXPECT_EQ(hub_listener->results, (std::vector<bool>{true, false, true}));
  EXPECT_EQ(log_->countContaining("http callback answered again, ignored"), 2u);

  // One the server never named is removed locally at once: the server is
  // not asked to delete a local id.
  const size_t asked = server_->requests().size();
  hub_->history()->addConversation("local-only", "", "");
  EXPECT_TRUE(hub_->remove("local-only"));
  EXPECT_EQ(server_->requests().size(), asked);
  EXPECT_EQ(hub_listener->results, (std::vector<bool>{true, false, true, true}));
  for (const auto& info : hub_->list()) EXPECT_NE(info.local_conversation_id, "local-only");
}

TEST_F(ConversationLifecycleTest, ConfigOnceAndRetryAfterFailure) {
  auto hub = std::make_shared<ConversationHubImpl>();
  hub->config(OrviConfig(dir_.path(), 30, false), nullptr);
  EXPECT_TRUE(log_->has("init history manager failed, local history feature is unusable!!!"));
  auto sql = sqlite::SqliteExecutor::open(dir_.file("second.db"));
  hub->config(OrviConfig(dir_.path(), 30, false), sql);
  EXPECT_TRUE(log_->has("config done, cache_path = " + dir_.path()));
  hub->config(OrviConfig(dir_.path(), 30, false), sql);
  EXPECT_TRUE(log_->has("config is already set, don't config again.."));
}

// A recovery holds back frames that arrive meanwhile and delivers them in
// order afterwards; sending waits for it.
TEST_F(ConversationLifecycleTest, RecoveryHoldsLiveFramesBackAndReplaysThemInOrder) {
  hub_->history()->addConversation("lc-1", "c-1", "");
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-1"));
  });
  auto conversation = open("lc-1");
  EXPECT_FALSE(conversation->recoverRemoteSection());  // nothing stored yet
  EXPECT_TRUE(log_->has(
      "local conversation(lc-1) history messages is empty, cannot get the latest section_id"));
  conversation->sendMessage(prompt("before the restart"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.acks.size() == 1; }));
  ASSERT_TRUE(hub_->history()->flush());

  // The app restarts: a fresh hub over the same database.
  conversation.reset();
  hub_.reset();  // release the database first
  hub_ = makeHub();
  listener_ = std::make_shared<test::RecordingListener>();
  conversation = open("lc-1");

  server_->setRestScript([](const HttpRequest& request) -> std::string {
    EXPECT_EQ(*request.body, R"({"conversation_id":"c-1","section_id":"s-1"})");
    return R"({"ret":"0","errmsg":"","data":{"status":1,"message_list":[)"
           R"({"message_id":"am-9","conversation_id":"c-1","section_id":"s-1","local_section_id":"s-1",)"
           R"("role":"assistant","content":{"payload":"{\"text\":\"so far\"}","content_type":1}}]}})";
  });
  server_->hold_requests = true;
  ASSERT_TRUE(conversation->recoverRemoteSection());
  EXPECT_FALSE(conversation->recoverRemoteSection());
  EXPECT_TRUE(conversation->sendMessage(prompt("blocked")).empty());

  // Live frames of the running section arrive during the recovery.
  idl::UplinkMessage section;
  section.local_conversation_id = "lc-1";
  section.local_section_id = "s-1";
  for (const char* piece : {" and", " more"}) {
    server_->push(ScriptedServer::delta(
        section, "c-1", "s-1", "am-9",
        Json::array({{{"op", "append"}, {"path", "/text"}, {"value", piece}}})));
  }
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(log_->countContaining("is recovering remote history, stash message"), 2u);
  EXPECT_TRUE(listener_->calls().assistant_messages.empty());

  server_->answerHeld();
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.assistant_messages.size() == 3; }));
  const Calls calls = listener_->calls();
  EXPECT_EQ(calls.assistant_messages[0].source, MessageSource::RemoteHistory);
  EXPECT_EQ(Json::parse(calls.assistant_messages[1].content->content)["text"], "so far and");
  EXPECT_EQ(Json::parse(calls.assistant_messages[2].content->content)["text"], "so far and more");
  ASSERT_FALSE(calls.recover_statuses.empty());
  EXPECT_EQ(calls.recover_statuses.back().status, RecoverStatus::Started);
  EXPECT_EQ(server_->uplinks().size(), 1u);  // the blocked message never left

  // Paging older sections holds nothing back: sending and live frames go on
  // while the page is fetched.
  server_->setRestScript([](const HttpRequest&) {
    return std::string(
        R"({"ret":"0","data":{"section_list":[],"has_more":false,"next_cursor":""}})");
  });
  ASSERT_TRUE(conversation->recoverRemoteSections("0", 5));
  server_->push(
      ScriptedServer::delta(section, "c-1", "s-1", "am-9",
                            Json::array({{{"op", "append"}, {"path", "/text"}, {"value", "!"}}})));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.assistant_messages.size() == 4; }));
  EXPECT_EQ(log_->countContaining("is recovering remote history, stash message"), 2u);
  EXPECT_FALSE(conversation->sendMessage(prompt("not blocked")).empty());
  EXPECT_EQ(server_->uplinks().size(), 2u);
  server_->answerHeld();
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.recover_statuses.size() == 2; }));
  EXPECT_EQ(listener_->calls().recover_statuses.back().status, RecoverStatus::Completed);
}

TEST_F(ConversationLifecycleTest, RecoveryAnswersThatFailOrComeTooLate) {
  hub_->history()->addConversation("lc-1", "c-1", "");
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-1"));
  });
  auto conversation = open("lc-1");
  conversation->sendMessage(prompt("q"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.acks.size() == 1; }));
  ASSERT_TRUE(hub_->history()->flush());

  const struct {
    const char* reply;
    bool cancel_first;
    RecoverStatus expected;
  } cases[] = {
      {R"({"ret":"1","errmsg":"no"})", false, RecoverStatus::Failed},
      {R"({"ret":"0","data":{"status":9,"message_list":[]}})", false, RecoverStatus::Cancelled},
      {R"({"ret":"0","data":{"status":0,"message_list":[{"message_id":"late","role":"assistant","content":{"payload":"{}"}}]}})",
       true, RecoverStatus::Cancelled},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    const size_t before = listener_->calls().recover_statuses.size();
    const std::string reply = c.reply;
    server_->setRestScript([reply](const HttpRequest&) { return reply; });
    server_->hold_requests = true;
    ASSERT_TRUE(conversation->recoverRemoteSection());
    if (c.cancel_first) conversation->cancelRecoverRemoteSection();
    server_->answerHeld();
    ASSERT_TRUE(
        waitFor([&](const Calls& calls) { return calls.recover_statuses.size() == before + 1; }));
    EXPECT_EQ(listener_->calls().recover_statuses.back().status, c.expected);
  }
  EXPECT_TRUE(listener_->calls().assistant_messages.empty());  // nothing from a cancelled answer
  EXPECT_TRUE(log_->countContaining("recover section status invalid, status: 9"));

  // An answer given twice counts once: no second status, no "cancelled".
  const size_t before = listener_->calls().recover_statuses.size();
  const size_t cancelled = log_->countContaining("is cancelled");
  server_->hold_requests = false;
  server_->answers_per_request = 2;
  server_->setRestScript([](const HttpRequest&) {
    return std::string(R"({"ret":"0","data":{"status":0,"message_list":[]}})");
  });
  ASSERT_TRUE(conversation->recoverRemoteSection());
  ASSERT_TRUE(server_->drain());
  ASSERT_TRUE(
      waitFor([&](const Calls& calls) { return calls.recover_statuses.size() == before + 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(listener_->calls().recover_statuses.size(), before + 1);
  EXPECT_EQ(listener_->calls().recover_statuses.back().status, RecoverStatus::Completed);
  EXPECT_EQ(log_->countContaining("is cancelled"), cancelled);
}

class CollectingFetch : public IFetchMessageCallback {
 public:
  void onMessages(const std::vector<ComboMessage>& messages, bool more,
                  const std::string& next) override {
    std::lock_guard<std::mutex> lock(mutex);
    pages.push_back(messages);
    has_more = more;
    cursor = next;
  }
  void onFailure(int32_t, const std::string&) override { ++failures; }
  std::mutex mutex;
  std::vector<std::vector<ComboMessage>> pages;
  bool has_more = false;
  std::string cursor;
  std::atomic<int> failures{0};
};

TEST_F(ConversationLifecycleTest, FetchingHistoryPagesBackWithoutGapsOrRepeats) {
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-" + up.messages[0].local_message_id));
  });
  auto conversation = open("lc-1");
  std::vector<std::string> sent;
  for (int i = 0; i < 7; ++i)
    sent.push_back(conversation->sendMessage(prompt("m" + std::to_string(i))));
  ASSERT_TRUE(server_->drain());
  ASSERT_TRUE(hub_->history()->flush());

  auto fetch = std::make_shared<CollectingFetch>();
  conversation->fetchHistoryMessages(false, "abc", 3, fetch);
  EXPECT_TRUE(log_->has("local conversation(lc-1) fetch history messages, cursor: abc is invalid"));
  conversation->fetchHistoryMessages(false, "", 3, fetch);
  EXPECT_EQ(fetch->failures.load(), 2);

  std::vector<std::string> seen;
  std::string cursor = "0";
  do {
    conversation->fetchHistoryMessages(false, cursor, 3, fetch);
    std::vector<std::string> page;
    for (const auto& combo : fetch->pages.back())
      page.push_back(combo.user_message->local_message_id);
    seen.insert(seen.begin(), page.begin(), page.end());
    cursor = fetch->cursor;
  } while (fetch->has_more);
  EXPECT_EQ(seen, sent);
}

class DeletionResult : public IMessagesDeleted {
 public:
  void onMessagesDeleted(bool ok) override { results.push_back(ok); }
  std::vector<bool> results;
};

// A message is named by its local id, or, an answer having none, by its
// server id: the newest stored answer with it, as a restarted server hands
// its ids out again.
TEST_F(ConversationLifecycleTest, RemovingMessagesLocallyAndOnTheServer) {
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    const std::string local_id = up.messages[0].local_message_id;
    const std::string text = up.messages[0].content->payload;
    s.deliver(ScriptedServer::ack(up, "c-1", "s-" + local_id, "um-" + text));
    s.deliver(ScriptedServer::assistant(up, "c-1", "s-" + local_id, text == "b" ? "am-b" : "am-a",
                                        {{"text", text}}));
    s.deliver(ScriptedServer::system(up, "c-1", "s-" + local_id, 0, "stream_complete"));
  });
  server_->setRestScript([](const HttpRequest&) { return std::string(R"({"ret":"0"})"); });
  auto conversation = open("lc-1");
  std::map<std::string, std::string> local_id_of;
  for (const char* text : {"a", "b", "c"}) {
    local_id_of[text] = conversation->sendMessage(prompt(text));
    ASSERT_TRUE(server_->drain());
  }
  // What is stored: "prompt <text>" or "answer <text>" per row.
  const auto stored = [this] {
    EXPECT_TRUE(hub_->history()->flush());
    std::vector<std::string> rows;
    for (const auto& frame : hub_->history()->getMessages("lc-1")) {
      const Json json = Json::parse(frame);
      if (json.contains("messages")) {
        rows.push_back("prompt " + json["messages"][0]["content"].value("payload", ""));
      } else {
        const Json message = Json::parse(json["content"].get<std::string>());
        rows.push_back("answer " +
                       Json::parse(message["content"].value("payload", "{}")).value("text", ""));
      }
    }
    return rows;
  };
  ASSERT_EQ(stored(), (std::vector<std::string>{"prompt a", "answer a", "prompt b", "answer b",
                                                "prompt c", "answer c"}));

  auto result = std::make_shared<DeletionResult>();
  conversation->removeMessageBatch({}, {}, result);
  conversation->removeMessageBatch({local_id_of["a"], "am-a", "unknown"}, {}, result);
  EXPECT_EQ(stored(), (std::vector<std::string>{"answer a", "prompt b", "answer b", "prompt c"}));
  EXPECT_EQ(log_->countContaining("no stored message is named unknown"), 1u);
  conversation->removeMessageBatch({local_id_of["b"]}, {"um-b", "am-b"}, result);
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(stored(), (std::vector<std::string>{"answer a", "prompt c"}));
  EXPECT_EQ(result->results, (std::vector<bool>{false, true, true}));
  EXPECT_EQ(*server_->requests().back().body,
            R"({"conversation_id":"c-1","message_ids":["um-b","am-b"]})");
  EXPECT_EQ(log_->countContaining("no stored message is named"), 1u);
}

// Work still pending for a conversation the host has dropped finds it gone.
TEST_F(ConversationLifecycleTest, DroppingAConversationWithWorkPendingIsSafe) {
  hub_->history()->addConversation("lc-1", "c-1", "");
  ConversationOptions options;
  options.uplink_message_ack_timeout_ms = 10;
  options.max_resend_uplink_message_count = 3;
  options.enable_tracing_event = true;
  auto conversation = open("lc-1", options);
  conversation->sendMessage(prompt("q"));
  ASSERT_TRUE(hub_->history()->flush());
  server_->hold_requests = true;
  conversation->recoverRemoteSection();
  conversation.reset();
  server_->setRestScript(
      [](const HttpRequest&) { return std::string(R"({"ret":"0","data":{}})"); });
  server_->answerHeld();
  ASSERT_TRUE(server_->drain());
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let the armed time-outs fire
  EXPECT_EQ(server_->uplinks().size(), 1u);  // no resend of a dropped conversation
  EXPECT_TRUE(listener_->calls().acks.empty());
}

}  // namespace
}  // namespace orvi
