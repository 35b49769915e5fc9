// The receiving side as a host meets it against a server that streams, is
// cancelled, restarts and recovers: which frames reach the host, in which
// turn, in which order, and what tracing says about them.
#include <algorithm>
#include <map>
#include <string>
#include <thread>

#include "conversation_fixture.h"
#include "orvi/conversation/conversation_impl.h"
#include "orvi/utils/clock.h"

namespace orvi {
namespace {

using test::ScriptedServer;
using Event = idl::RemoteEventType;
using Json = nlohmann::json;
using Calls = test::RecordingListener::Calls;
using Operation = test::RecordingListener::Operation;

Json append(const std::string& text) {
  return Json::array({{{"op", "append"}, {"path", "/text"}, {"value", text}}});
}

std::string textOf(const AssistantMessage& message) {
  return Json::parse(message.content->content).value("text", "");
}

std::vector<std::string> textsOf(const Calls& calls, const std::string& id) {
  std::vector<std::string> texts;
  for (const auto& message : calls.assistant_messages) {
    if (message.message_id == id) texts.push_back(textOf(message));
  }
  return texts;
}

class ConversationReceiveTest : public test::ConversationFixture {
 protected:
  // A conversation that talked to the server before the app restarted: its
  // server id and one acknowledged prompt of section s-1 are stored.
  std::shared_ptr<Conversation> reopenAfterARestart(ConversationOptions options = {}) {
    hub_->history()->addConversation("lc-1", "c-1", "");
    server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
      s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-1"));
    });
    {
      auto before = open("lc-1", options, std::make_shared<test::RecordingListener>());
      before->sendMessage(prompt("before the restart"));
      EXPECT_TRUE(server_->drain());
      EXPECT_TRUE(hub_->history()->flush());
    }
    server_->setScript(nullptr);
    hub_.reset();  // release the database first
    hub_ = makeHub();
    return open("lc-1", options);
  }

  // Frames of the section the server still streams after the restart.
  static idl::UplinkMessage runningSection() {
    idl::UplinkMessage section;
    section.local_conversation_id = "lc-1";
    section.local_section_id = "s-1";
    return section;
  }

  static std::string runningSectionReply() {
    return R"({"ret":"0","errmsg":"","data":{"status":1,"message_list":[)"
           R"({"message_id":"um-1","local_message_id":"lm-1","conversation_id":"c-1","section_id":"s-1",)"
           R"("local_section_id":"s-1","role":"user","content":{"payload":"q","content_type":0}},)"
           R"({"message_id":"am-9","conversation_id":"c-1","section_id":"s-1","local_section_id":"s-1",)"
           R"("role":"assistant","content":{"payload":"{\"text\":\"so far\"}","content_type":1}}]}})";
  }
};

// A cancelled turn's output that still arrives after the next prompt never
// reaches the host: the previous answer is no longer patched.
TEST_F(ConversationReceiveTest, LateOutputOfAnEarlierTurnNeverReachesTheHost) {
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    const std::string& text = up.messages[0].content ? up.messages[0].content->payload : "";
    s.deliver(ScriptedServer::ack(up, "c-1", text == "second" ? "s-2" : "s-1",
                                  "um-" + up.messages[0].local_message_id));
    if (text == "first") {
      s.deliver(ScriptedServer::assistant(up, "c-1", "s-1", "am-1", {{"text", ""}}));
      s.deliver(ScriptedServer::delta(up, "c-1", "s-1", "am-1", append("a")));
    }
    if (text == "second") {
      // The service was still producing the cancelled answer.
      idl::UplinkMessage earlier = up;
      earlier.local_section_id.clear();
      for (int i = 0; i < 3; ++i) {
        s.deliver(ScriptedServer::delta(earlier, "c-1", "s-1", "am-1", append("late")));
      }
      s.deliver(ScriptedServer::assistant(up, "c-1", "s-2", "am-2", {{"text", ""}}));
      s.deliver(ScriptedServer::delta(up, "c-1", "s-2", "am-2", append("b")));
      s.deliver(ScriptedServer::system(up, "c-1", "s-2", 0, "stream_complete"));
    }
  });
  auto conversation = open("lc-1");
  conversation->sendMessage(prompt("first"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.assistant_messages.size() == 2; }));
  EXPECT_EQ(conversation->cancel(InputMessage()), 0);
  ASSERT_TRUE(server_->drain());
  conversation->sendMessage(prompt("second"));
  ASSERT_TRUE(waitFor([](const Calls& c) {
    return !c.assistant_messages.empty() &&
           c.assistant_messages.back().status == MessageStatus::Completed;
  }));
  ASSERT_TRUE(server_->drain());

  const Calls calls = listener_->calls();
  EXPECT_EQ(textsOf(calls, "am-1"), (std::vector<std::string>{"", "a"}));
  EXPECT_EQ(textsOf(calls, "am-2"), (std::vector<std::string>{"", "b", "b"}));
  EXPECT_EQ(log_->count("MessageEngine patch failed, message am-1 is not found"), 3u);
}

// The acknowledgement is where the server names the section: a reply sent
// before any assistant output carries that name.
TEST_F(ConversationReceiveTest, AReplyBeforeTheFirstAnswerCarriesTheSectionTheAckNamed) {
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-7", "um-" + up.messages[0].local_message_id));
  });
  auto conversation = open("lc-1");
  conversation->sendMessage(prompt("book a table"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.acks.size() == 1; }));
  InputMessage answer;
  answer.tool_result = ToolResult(
      {}, {ToolCallResult("slots", "19:00", "", ToolResultStatus::Succeed, std::nullopt, 0)},
      ToolResultStatus::Succeed, std::nullopt, 0);
  EXPECT_EQ(conversation->reply(answer), 0);
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.acks.size() == 2; }));

  const auto frames = wire();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0]["section_id"], "");
  EXPECT_EQ(frames[1]["section_id"], "s-7");
  EXPECT_EQ(frames[1]["local_section_id"], frames[0]["local_section_id"]);
  const Calls calls = listener_->calls();
  EXPECT_EQ(calls.user_messages[1].section->section_id, "s-7");  // the acknowledged prompt
  EXPECT_EQ(conversation->getDetail().section_id, "s-7");
}

// What a "message" frame is depends on its content's role: the echo of a
// user message is an acknowledgement, anything else the server's message,
// and what is neither is refused without touching the prompt.
TEST_F(ConversationReceiveTest, MessageFramesAreToldApartFromAcknowledgements) {
  struct Case {
    const char* name;
    std::function<std::string(const idl::UplinkMessage&)> frame;
    const char* logged;        // a line the refusal or the delivery leaves
    size_t answers_delivered;  // onAssistantMessage calls
  };
  const auto message = [](const idl::UplinkMessage& up, const Json& content) {
    return ScriptedServer::frame(up, "c-1", "s-1", Event::Message,
                                 content.is_null() ? "" : content.dump());
  };
  const Case cases[] = {
      {"no content", [&](const auto& up) { return message(up, nullptr); },
       "Invalid assistant message from server", 0},
      {"answer without role",
       [&](const auto& up) {
         return message(up,
                        {{"message_id", "am-x"}, {"content", {{"payload", R"({"text":"hi"})"}}}});
       },
       nullptr, 1},
      {"unknown role",
       [&](const auto& up) {
         return message(
             up, {{"message_id", "am-y"}, {"role", "system"}, {"content", {{"payload", "{}"}}}});
       },
       "Invalid assistant message from server", 0},
      {"echo of an unknown message",
       [&](const auto& up) {
         return message(up, {{"message_id", "um-z"},
                             {"local_message_id", "nobody"},
                             {"role", "user"},
                             {"status", 2}});
       },
       "recv ack message but last user message is null", 0},
      {"echo without a local message id",
       [&](const auto& up) {
         return message(up, {{"message_id", "um-z"}, {"role", "user"}, {"status", 2}});
       },
       "recv ack message but last user message is null", 0},
  };
  int index = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_->clear();
    const std::string id = "classify-" + std::to_string(index++);
    hub_->history()->addConversation(id, "c-1", "");
    server_ = std::make_shared<ScriptedServer>();
    server_->setScript(
        [&c](ScriptedServer& s, const idl::UplinkMessage& up) { s.deliver(c.frame(up)); });
    auto listener = std::make_shared<test::RecordingListener>();
    auto conversation = open(id, {}, listener);
    const std::string sent = conversation->sendMessage(prompt("q"));
    ASSERT_TRUE(server_->drain());
    ASSERT_TRUE(hub_->history()->flush());

    const Calls calls = listener->calls();
    EXPECT_TRUE(calls.acks.empty()) << "taken for an acknowledgement";
    ASSERT_EQ(calls.user_messages.size(), 1u);
    EXPECT_EQ(calls.assistant_messages.size(), c.answers_delivered);
    if (c.answers_delivered) {
      EXPECT_EQ(textOf(calls.assistant_messages[0]), "hi");
    }
    if (c.logged) {
      EXPECT_EQ(log_->countContaining(c.logged), 1u);
    }
    // The prompt is stored as sent, without a server id.
    const auto stored = hub_->history()->getMessages(id);
    ASSERT_FALSE(stored.empty());
    const Json prompt_record = Json::parse(stored.front());
    EXPECT_EQ(prompt_record["messages"][0]["local_message_id"], sent);
    EXPECT_EQ(prompt_record["messages"][0]["message_id"], "");
  }
}

// Frames that arrive while a recovery runs are held, then replayed after
// the recovered section and before any frame that arrives later, also one
// pushed in the very moment the recovery ends, from inside the host's own
// callback or from another thread.
TEST_F(ConversationReceiveTest, HeldFramesAreReplayedBeforeAnyLaterOne) {
  ConversationOptions options;
  options.enable_tracing_event = true;
  auto conversation = reopenAfterARestart(options);
  const int64_t started = steadyMs();
  server_->setRestScript([](const HttpRequest&) { return runningSectionReply(); });
  server_->hold_requests = true;
  ASSERT_TRUE(conversation->recoverRemoteSection());

  const auto push = [this](const std::string& piece) {
    server_->deliver(ScriptedServer::delta(runningSection(), "c-1", "s-1", "am-9", append(piece)));
  };
  push(" a");
  push(" b");
  EXPECT_EQ(log_->countContaining("is recovering remote history, stash message"), 2u);
  EXPECT_TRUE(listener_->calls().assistant_messages.empty());

  // The moment the recovery ends, more frames arrive: one from the thread
  // that ends it (inside the callback), one from another connection.
  listener_->setHook([&](Operation operation) {
    if (operation != Operation::RecoverStatus) return;
    listener_->setHook(nullptr);
    push(" c");
    std::thread other([&] { push(" d"); });
    other.join();
  });
  server_->answerHeld();
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.assistant_messages.size() == 5; }));
  server_->deliver(ScriptedServer::system(runningSection(), "c-1", "s-1", 0, "stream_complete"));
  // Delivered in turn, perhaps by the thread still finishing the replay.
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.assistant_messages.size() == 6; }));

  const Calls calls = listener_->calls();
  EXPECT_EQ(textsOf(calls, "am-9"),
            (std::vector<std::string>{"so far", "so far a", "so far a b", "so far a b c",
                                      "so far a b c d", "so far a b c d"}));
  // The recovered answer is still streaming, and says which section it is.
  const AssistantMessage& recovered = calls.assistant_messages[0];
  EXPECT_EQ(recovered.status, MessageStatus::Pending);
  EXPECT_EQ(recovered.source, MessageSource::RemoteHistory);
  ASSERT_TRUE(recovered.section);
  EXPECT_EQ(recovered.section->section_id, "s-1");
  ASSERT_FALSE(calls.user_messages.empty());
  ASSERT_TRUE(calls.user_messages[0].section);
  EXPECT_EQ(calls.user_messages[0].section->section_id, "s-1");
  EXPECT_EQ(calls.assistant_messages.back().status, MessageStatus::Completed);
  // The recovery's end comes after the recovered messages, before the replay.
  ASSERT_EQ(calls.recover_statuses.size(), 1u);
  EXPECT_EQ(calls.recover_statuses[0].status, RecoverStatus::Started);
  std::vector<Operation> order;
  for (const auto& call : calls.sequence) {
    if (call.operation != Operation::TraceEvent) order.push_back(call.operation);
  }
  const auto status_at = std::find(order.begin(), order.end(), Operation::RecoverStatus);
  EXPECT_EQ(std::count(order.begin(), status_at, Operation::AssistantMessage), 1);

  // Traced once, complete, timed from when it joined the live turn.
  ASSERT_TRUE(waitFor([](const Calls& c) {
    return std::any_of(c.trace_events.begin(), c.trace_events.end(),
                       [](const auto& e) { return e.name == "assistant_message_event"; });
  }));
  const int64_t elapsed = steadyMs() - started;
  size_t traced = 0;
  for (const auto& event : listener_->calls().trace_events) {
    if (event.name != "assistant_message_event") continue;
    ++traced;
    const Json json = Json::parse(event.json);
    EXPECT_GE(json["receive_complete_timecost"].get<int64_t>(), 0);
    EXPECT_LE(json["receive_complete_timecost"].get<int64_t>(), elapsed);
  }
  EXPECT_EQ(traced, 1u);
}

// A recovery whose answer never comes ends as failed after its time-out:
// the frames held meanwhile are delivered, sending works again, and the
// answer, should it come after all, changes nothing.
TEST_F(ConversationReceiveTest, ARecoveryWithoutAnswerEndsAfterItsTimeOut) {
  auto conversation = reopenAfterARestart();
  server_->setRestScript([](const HttpRequest&) { return runningSectionReply(); });
  server_->hold_requests = true;
  ASSERT_TRUE(conversation->recoverRemoteSection());
  EXPECT_TRUE(conversation->sendMessage(prompt("blocked")).empty());
  server_->deliver(ScriptedServer::system(runningSection(), "c-1", "s-1", 503, "busy"));
  EXPECT_TRUE(listener_->calls().system_messages.empty());
  // The host's request is lost; the (shortened) time-out ends the wait.
  const auto impl = std::dynamic_pointer_cast<ConversationImpl>(conversation);
  ASSERT_TRUE(impl);
  impl->setRecoveryTimeoutMs(0);

  ASSERT_TRUE(waitFor([](const Calls& c) { return !c.system_messages.empty(); }));
  Calls calls = listener_->calls();
  ASSERT_EQ(calls.recover_statuses.size(), 1u);
  EXPECT_EQ(calls.recover_statuses[0].status, RecoverStatus::Failed);
  EXPECT_EQ(calls.system_messages[0].code, 503);
  EXPECT_TRUE(log_->has("local conversation(lc-1) recover remote section [FAILED]"));
  EXPECT_FALSE(conversation->sendMessage(prompt("free again")).empty());

  server_->answerHeld();
  ASSERT_TRUE(server_->drain());
  calls = listener_->calls();
  EXPECT_EQ(calls.recover_statuses.size(), 1u);
  EXPECT_TRUE(calls.assistant_messages.empty());
  EXPECT_TRUE(
      log_->has("local conversation(lc-1) recover answer came after its time-out, ignored"));
  // A new recovery can start, and a cancelled one is told as such.
  impl->setRecoveryTimeoutMs(ConversationImpl::kRecoveryTimeoutMs);
  ASSERT_TRUE(conversation->recoverRemoteSection());
  conversation->cancelRecoverRemoteSection();
  server_->answerHeld();
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.recover_statuses.size() == 2; }));
  EXPECT_EQ(listener_->calls().recover_statuses[1].status, RecoverStatus::Cancelled);
}

// Trace events name each fact once: one event per finished answer however
// often the server repeats it, one "finish" per section, and costs that are
// never negative.
TEST_F(ConversationReceiveTest, TraceEventsReportEachFactOnce) {
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-1"));
    idl::Message done;
    done.message_id = "am-1";
    done.role = idl::Role::Assistant;
    done.content = idl::MessageContent{R"({"text":"whole"})", 1};
    done.status = 2;
    const std::string answer =
        ScriptedServer::frame(up, "c-1", "s-1", Event::Message, idl::toText(done));
    s.deliver(answer);
    s.deliver(answer);  // repeated
    s.deliver(ScriptedServer::system(up, "c-1", "s-1", 0, "stream_complete"));
    s.deliver(ScriptedServer::system(up, "c-1", "s-1", 0, "section_complete"));
    s.deliver(ScriptedServer::system(up, "c-1", "s-1", 0, "section_complete"));  // repeated
  });
  ConversationOptions options;
  options.enable_tracing_event = true;
  auto conversation = open("lc-1", options);
  conversation->sendMessage(prompt("q"));
  ASSERT_TRUE(server_->drain());
  const auto finished = [](const Calls& c) {
    return std::count_if(c.trace_events.begin(), c.trace_events.end(), [](const auto& e) {
             return e.name == "section_event" && Json::parse(e.json)["action"] == "finish";
           }) >= 1;
  };
  ASSERT_TRUE(waitFor(finished));
  conversation.reset();  // drains the reporter
  const Calls calls = listener_->calls();

  std::map<std::string, int> counts;
  for (const auto& event : calls.trace_events) {
    const Json json = Json::parse(event.json);
    const std::string key =
        event.name + (json.contains("action") ? "/" + json["action"].get<std::string>() : "");
    ++counts[key];
    if (event.name != "section_event") continue;
    EXPECT_GE(json["section_cost_ms"].get<int64_t>(), 0) << event.json;
    EXPECT_GE(json["end_ts"].get<int64_t>(), json["start_ts"].get<int64_t>()) << event.json;
    EXPECT_GT(json["start_ts"].get<int64_t>(), 0) << event.json;
  }
  EXPECT_EQ(counts["assistant_message_event/receive"], 1);
  EXPECT_EQ(counts["user_message_event/send"], 1);
  EXPECT_EQ(counts["section_event/finish"], 1);
  EXPECT_EQ(counts["section_event/init"], 2);  // the prompt, then the answer
  EXPECT_EQ(counts["conversation_event/open"], 1);
  EXPECT_EQ(counts["conversation_event/close"], 1);
}

// History keeps the text of an answer as the host was shown it while it
// streams: checkpoints at most once per interval, the rest at cancel, at a
// system message, or when the conversation goes, and nothing of the
// cancelled turn's later output.
TEST_F(ConversationReceiveTest, StreamedTextIsStoredAsShownWhileItStreams) {
  const auto storedAnswer = [this](const std::string& conversation_id, const std::string& id) {
    EXPECT_TRUE(hub_->history()->flush());
    for (const auto& record : hub_->history()->getMessages(conversation_id)) {
      const Json json = Json::parse(record);
      if (!json.contains("content") || !json["content"].is_string()) continue;
      const Json message = Json::parse(json["content"].get<std::string>());
      if (message.value("message_id", "") != id) continue;
      return Json::parse(message["content"]["payload"].get<std::string>()).value("text", "");
    }
    return std::string("(not stored)");
  };
  const auto checkpointEvery = [](const std::shared_ptr<Conversation>& conversation,
                                  int64_t interval_ms) {
    if (const auto impl = std::dynamic_pointer_cast<ConversationImpl>(conversation)) {
      impl->setCheckpointIntervalMs(interval_ms);
    } else {
      ADD_FAILURE() << "not a ConversationImpl";
    }
  };
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    if (up.action) {  // the cancel
      s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-c"));
      s.deliver(ScriptedServer::delta(up, "c-1", "s-1", "am-1", append(" unseen")));
      return;
    }
    s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-1"));
    s.deliver(ScriptedServer::assistant(up, "c-1", "s-1", "am-1", {{"text", ""}}));
    for (const char* piece : {"one", " two", " three"}) {
      s.deliver(ScriptedServer::delta(up, "c-1", "s-1", "am-1", append(piece)));
    }
  });

  // Each delta stored as it is shown: a kill now keeps all of it.
  auto conversation = open("every", {});
  checkpointEvery(conversation, 0);
  conversation->sendMessage(prompt("q"));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(storedAnswer("every", "am-1"), "one two three");

  // A long interval stores the first delta only; cancel stores what was
  // shown since, and not what the cancelled turn sends after it.
  auto listener = std::make_shared<test::RecordingListener>();
  auto cancelled = open("cancelled", {}, listener);
  checkpointEvery(cancelled, 60000);
  cancelled->sendMessage(prompt("q"));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(storedAnswer("cancelled", "am-1"), "one");
  EXPECT_EQ(cancelled->cancel(InputMessage()), 0);
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(storedAnswer("cancelled", "am-1"), "one two three");
  EXPECT_EQ(textsOf(listener->calls(), "am-1").back(), "one two three");

  // Dropped mid-answer: what was shown is stored as it goes.
  auto dropped = open("dropped", {}, std::make_shared<test::RecordingListener>());
  checkpointEvery(dropped, 60000);
  dropped->sendMessage(prompt("q"));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(storedAnswer("dropped", "am-1"), "one");
  dropped.reset();
  EXPECT_EQ(storedAnswer("dropped", "am-1"), "one two three");

  // Cut mid-answer and recovered: the server's whole answer is stored, and
  // the text shown before the cut does not come back over it when the
  // conversation goes.
  auto recovering = std::make_shared<test::RecordingListener>();
  auto recovered = open("recovered", {}, recovering);
  checkpointEvery(recovered, 60000);
  recovered->sendMessage(prompt("q"));
  ASSERT_TRUE(server_->drain());
  EXPECT_EQ(storedAnswer("recovered", "am-1"), "one");
  server_->setRestScript([](const HttpRequest&) {
    return R"({"ret":"0","errmsg":"","data":{"status":0,"message_list":[)"
           R"({"message_id":"am-1","conversation_id":"c-1","section_id":"s-1","role":"assistant",)"
           R"("content":{"payload":"{\"text\":\"one two three four\"}","content_type":1}}]}})";
  });
  ASSERT_TRUE(recovered->recoverRemoteSection());
  ASSERT_TRUE(recovering->waitFor([](const Calls& c) { return !c.recover_statuses.empty(); }));
  recovered.reset();
  EXPECT_EQ(storedAnswer("recovered", "am-1"), "one two three four");
}

// A server that restarted hands out its ids again, and one that does not
// echo local ids leaves the client to place what it recovers: the
// recovered answer is stored once, in its own turn after its prompt, and
// the earlier turn with the same ids keeps its own answer.
TEST_F(ConversationReceiveTest, ARecoveredTurnIsStoredInItsOwnTurnWhenTheServerReusesIds) {
  hub_->history()->addConversation("lc-1", "c-1", "");
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-1", "um-1"));  // the same ids in each run
    if (up.messages[0].content->payload != "first") return;    // the second is never answered
    s.deliver(ScriptedServer::assistant(up, "c-1", "s-1", "am-1", {{"text", "old"}}));
    s.deliver(ScriptedServer::system(up, "c-1", "s-1", 0, "stream_complete"));
  });
  {
    auto before = open("lc-1", {}, std::make_shared<test::RecordingListener>());
    before->sendMessage(prompt("first"));
    ASSERT_TRUE(server_->drain());
    before->sendMessage(prompt("second"));
    ASSERT_TRUE(server_->drain());
    ASSERT_TRUE(hub_->history()->flush());
  }
  hub_.reset();
  hub_ = makeHub();
  server_->setScript(nullptr);
  server_->setRestScript([](const HttpRequest&) {
    return R"({"ret":"0","errmsg":"","data":{"status":0,"message_list":[)"
           R"({"message_id":"um-1","conversation_id":"c-1","section_id":"s-1","role":"user",)"
           R"("content":{"payload":"second","content_type":0}},)"
           R"({"message_id":"am-1","conversation_id":"c-1","section_id":"s-1","role":"assistant",)"
           R"("content":{"payload":"{\"text\":\"new\"}","content_type":1}}]}})";
  });
  auto conversation = open("lc-1");
  for (int recovery = 0; recovery < 2; ++recovery) {  // the second finds it all stored
    ASSERT_TRUE(conversation->recoverRemoteSection());
    ASSERT_TRUE(waitFor([&](const Calls& c) {
      return c.recover_statuses.size() == static_cast<size_t>(recovery + 1);
    }));
  }
  ASSERT_TRUE(hub_->history()->flush());

  std::string error;
  const auto store = sqlite::SqliteExecutor::open(dir_.file("history.db"), &error);
  ASSERT_TRUE(store) << error;
  MessageQueryResult rows;
  ASSERT_TRUE(store->queryMessages(rows, "lc-1", 1, std::nullopt, std::nullopt));
  std::vector<std::string> turns;  // "type:text" per row, and its turn
  std::map<std::string, std::string> prompt_of_section;
  for (const MessageRecord& row : rows.messages) {
    const Json frame = Json::parse(row.content);
    std::string text;
    if (row.type == "user") {
      text = frame["messages"][0]["content"].value("payload", "");
      prompt_of_section[row.local_section_id] = text;
    } else {
      const Json message = Json::parse(frame["content"].get<std::string>());
      text = Json::parse(message["content"].value("payload", "{}")).value("text", "");
    }
    const auto turn = prompt_of_section.find(row.local_section_id);
    turns.push_back(row.type + ":" + text + " in " +
                    (turn == prompt_of_section.end() ? "no turn" : turn->second));
    EXPECT_EQ(row.type == "user", !row.local_message_id.empty()) << turns.back();
  }
  EXPECT_EQ(turns, (std::vector<std::string>{"user:first in first", "assistant:old in first",
                                             "user:second in second", "assistant:new in second"}));
}

// A page of older sections updates what the history holds of them and adds
// nothing: the history keeps messages in the order they were stored, and an
// old section stored after the newest would be taken for the latest one by
// the next recovery. Nor is a page placed by its server section id alone:
// after a server restart that id may name a later turn.
TEST_F(ConversationReceiveTest, PagedRecoveryUpdatesStoredSectionsAndAddsNoOlderOnes) {
  hub_->history()->addConversation("lc-1", "c-1", "");
  server_->setScript([](ScriptedServer& s, const idl::UplinkMessage& up) {
    s.deliver(ScriptedServer::ack(up, "c-1", "s-2", "um-2"));
    s.deliver(ScriptedServer::assistant(up, "c-1", "s-2", "am-2", {{"text", "partial"}}));
  });
  auto conversation = open("lc-1");
  conversation->sendMessage(prompt("newest"));
  ASSERT_TRUE(waitFor([](const Calls& c) { return !c.assistant_messages.empty(); }));
  ASSERT_TRUE(hub_->history()->flush());
  const std::string local_section =
      listener_->calls().assistant_messages[0].section->local_section_id;

  bool earlier_run = false;  // the next page is from before a server restart
  server_->setRestScript([&](const HttpRequest& request) -> std::string {
    if (request.scene == HttpRequestScene::RecoverSection) return R"({"ret":"1","errmsg":"-"})";
    const auto message = [](const char* id, const char* section, const char* role,
                            const std::string& payload) {
      return Json{{"message_id", id},
                  {"conversation_id", "c-1"},
                  {"section_id", section},
                  {"role", role},
                  {"content", {{"payload", payload}, {"content_type", 1}}}};
    };
    if (earlier_run) {  // the same ids, another turn, no local ids echoed
      const Json reused = {
          {"status", 0},
          {"message_list",
           {message("am-2", "s-2", "assistant", R"({"text":"from an earlier run"})")}}};
      return Json{{"ret", "0"},
                  {"data", {{"section_list", {reused}}, {"has_more", false}, {"next_cursor", ""}}}}
          .dump();
    }
    const Json older = {{"status", 0},
                        {"message_list",
                         {message("um-1", "s-1", "user", "older"),
                          message("am-1", "s-1", "assistant", R"({"text":"old answer"})")}}};
    Json newest = {{"status", 0},
                   {"message_list", {message("am-2", "s-2", "assistant", R"({"text":"whole"})")}}};
    newest["message_list"][0]["local_section_id"] = local_section;
    return Json{
        {"ret", "0"},
        {"data", {{"section_list", {older, newest}}, {"has_more", false}, {"next_cursor", ""}}}}
        .dump();
  });
  ASSERT_TRUE(conversation->recoverRemoteSections("0", 5));
  ASSERT_TRUE(waitFor([](const Calls& c) { return !c.recover_statuses.empty(); }));
  earlier_run = true;
  ASSERT_TRUE(conversation->recoverRemoteSections("7", 5));
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.recover_statuses.size() == 2; }));
  ASSERT_TRUE(hub_->history()->flush());

  std::vector<std::string> stored;  // "type:text" per row, in stored order
  for (const auto& record : hub_->history()->getMessages("lc-1")) {
    const Json frame = Json::parse(record);
    if (frame.contains("messages")) {
      stored.push_back("user:" + frame["messages"][0]["content"].value("payload", ""));
    } else {
      const Json message = Json::parse(frame["content"].get<std::string>());
      stored.push_back("assistant:" +
                       Json::parse(message["content"].value("payload", "{}")).value("text", ""));
    }
  }
  EXPECT_EQ(stored, (std::vector<std::string>{"user:newest", "assistant:whole"}));

  // The latest stored section is still the newest one.
  ASSERT_TRUE(conversation->recoverRemoteSection());
  ASSERT_TRUE(waitFor([](const Calls& c) { return c.recover_statuses.size() == 3; }));
  const auto request = server_->requests().back();
  EXPECT_EQ(Json::parse(*request.body).value("section_id", ""), "s-2");
}

}  // namespace
}  // namespace orvi
