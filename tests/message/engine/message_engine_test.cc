#include "orvi/message/engine/message_engine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "engine_test_support.h"
#include "orvi/message/wrapper/custom_message_wrapper.h"
#include "orvi/message/wrapper/system_message_wrapper.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using nlohmann::json;
using test::assistantFrame;
using test::deltaFrame;
using test::systemFrame;
using test::userMessage;

TEST(MessageEngineTest, PromptOpensASectionAndClearsTheLiveQueue) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  auto first = userMessage("first");
  ASSERT_EQ(engine.enqueue(first), first);
  const SectionInfo opened = engine.currentSection();
  EXPECT_TRUE(opened.section_id.empty());
  EXPECT_EQ(opened.local_section_id.size(), 36u);
  EXPECT_EQ(first->localSectionId(), opened.local_section_id);
  EXPECT_EQ(first->message()->section->local_section_id, opened.local_section_id);

  // The server's section id arrives with the first assistant message.
  auto answer = engine.enqueue(assistantFrame("a1", "{}", "srv-1", opened.local_section_id));
  ASSERT_TRUE(answer);
  EXPECT_EQ(engine.currentSection().section_id, "srv-1");
  EXPECT_EQ(engine.lastMessageByType(MessageKind::Assistant, ""), answer);

  // A cancel keeps the queue and the section; it is marked cancelled.
  auto cancel = userMessage("", std::string("cancel"));
  engine.enqueue(cancel);
  EXPECT_EQ(cancel->message()->status, MessageStatus::Cancelled);
  EXPECT_EQ(cancel->sectionId(), "srv-1");
  EXPECT_EQ(engine.lastMessageByType(MessageKind::Assistant, ""), answer);

  // The next prompt logs the queue size it clears and starts a new section.
  engine.enqueue(userMessage("second"));
  EXPECT_EQ(log->countContaining("clear message queue, current queue size: 3"), 1u);
  EXPECT_NE(engine.currentSection().local_section_id, opened.local_section_id);
  EXPECT_TRUE(engine.currentSection().section_id.empty());
  EXPECT_FALSE(engine.lastMessageByType(MessageKind::Assistant, ""));

  // A message of an open turn re-adopts its own ids.
  auto resend = userMessage("again");
  resend->setSectionIds("srv-old", "ls-old");
  engine.enqueue(resend);
  EXPECT_EQ(engine.currentSection().section_id, "srv-old");
  EXPECT_EQ(engine.currentSection().local_section_id, "ls-old");
  EXPECT_EQ(engine.lastMessageByType(MessageKind::User, resend->envelope().local_message_id),
            resend);
}

// The index of assistant messages belongs to the turn in progress: a delta
// for the previous turn's answer is dropped, the answer is no longer kept,
// and a turn's wrappers are freed by the next prompt.
TEST(MessageEngineTest, AnswersOfAnEarlierTurnAreForgottenByTheNextPrompt) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  const json append = json::parse(R"([{"op":"append","path":"/text","value":"+"}])");
  engine.enqueue(userMessage("first"));
  std::weak_ptr<MessageBase> first_answer;
  {
    auto answer = engine.enqueue(assistantFrame("a1", R"({"text":""})", "s1", ""));
    ASSERT_TRUE(answer);
    first_answer = answer;
    EXPECT_EQ(engine.enqueue(deltaFrame("a1", append)), answer);
    EXPECT_EQ(json::parse(test::payloadOf(answer))["text"], "+");
  }
  engine.enqueue(userMessage("second"));
  EXPECT_TRUE(first_answer.expired()) << "the previous turn's answer is still held";
  EXPECT_FALSE(engine.enqueue(deltaFrame("a1", append)));
  EXPECT_EQ(log->count("MessageEngine patch failed, message a1 is not found"), 1u);
  EXPECT_FALSE(engine.assistantSnapshot("a1"));

  // A cancel stays in the turn: its answer keeps streaming into the index.
  auto answer = engine.enqueue(assistantFrame("a2", R"({"text":""})", "s2", ""));
  engine.enqueue(userMessage("", std::string("cancel")));
  EXPECT_EQ(engine.enqueue(deltaFrame("a2", append)), answer);
}

// Acknowledgements go through the engine: they bring the server's section
// id in for the turn they belong to, and are neither queued nor indexed.
TEST(MessageEngineTest, AcknowledgementsNameTheSectionOfTheirTurnOnly) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  const auto ack = [](const std::string& local_message_id, const std::string& section_id,
                      const std::string& local_section_id) {
    return MessageProcessor::parse(test::downlinkFrame("message",
                                                       {{"message_id", "srv-" + local_message_id},
                                                        {"local_message_id", local_message_id},
                                                        {"role", "user"},
                                                        {"status", 2}},
                                                       section_id, local_section_id));
  };
  auto first = userMessage("first");
  engine.enqueue(first);
  const std::string first_section = engine.currentSection().local_section_id;
  const std::string first_id = first->envelope().local_message_id;

  // Named by its local section id.
  auto named = ack(first_id, "s1", first_section);
  ASSERT_TRUE(std::dynamic_pointer_cast<AssistantMessageWrapper>(named)->isAcknowledgement());
  EXPECT_EQ(engine.enqueue(named), named);
  EXPECT_EQ(engine.currentSection().section_id, "s1");
  EXPECT_FALSE(engine.lastMessageByType(MessageKind::Assistant, ""));

  // A reply of the turn now carries the server's section id.
  auto reply = userMessage("", std::string("retry"));
  engine.enqueue(reply);
  EXPECT_EQ(reply->sectionId(), "s1");

  // The next prompt; a late acknowledgement of the first one leaves it alone.
  auto second = userMessage("second");
  engine.enqueue(second);
  auto late = ack(first_id, "s1", first_section);
  EXPECT_EQ(engine.enqueue(late), late);
  EXPECT_TRUE(engine.currentSection().section_id.empty());
  // Also without a local section id, when its message is not of this turn...
  auto unnamed = ack(first_id, "s1", "");
  EXPECT_EQ(engine.enqueue(unnamed), unnamed);
  EXPECT_TRUE(engine.currentSection().section_id.empty());
  // ...and with the message of this turn in the live queue it names it.
  engine.enqueue(ack(second->envelope().local_message_id, "s2", ""));
  EXPECT_EQ(engine.currentSection().section_id, "s2");
}

TEST(MessageEngineTest, AssistantMessagesOfAnOlderTurnAreDropped) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  engine.enqueue(userMessage("q"));
  const std::string local = engine.currentSection().local_section_id;
  EXPECT_FALSE(engine.enqueue(assistantFrame("old", "{}", "s0", "stale-local")));
  EXPECT_EQ(log->countContaining("diff from local_section_id_(" + local + ")"), 1u);
  EXPECT_TRUE(engine.enqueue(assistantFrame("a1", "{}", "s1", "")));  // no local id: accepted
  EXPECT_FALSE(engine.enqueue(assistantFrame("", "{}", "s1", local)));
  EXPECT_TRUE(log->has("Assistant message id is empty, pls check with server RD"));

  // A frame without content passes through unqueued, after updating the id.
  auto bare = MessageProcessor::parse(R"({"event":"message","section_id":"s2"})");
  EXPECT_EQ(engine.enqueue(bare), bare);
  EXPECT_EQ(engine.currentSection().section_id, "s2");
}

TEST(MessageEngineTest, StreamAndSectionCompletion) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  EXPECT_FALSE(engine.enqueue(systemFrame(0, "stream_complete", "s1", "")));

  engine.enqueue(userMessage("q"));
  const std::string local = engine.currentSection().local_section_id;
  auto answer = engine.enqueue(assistantFrame("a1", "{}", "s1", local));
  auto complete = engine.enqueue(systemFrame(0, "stream_complete", "s1", local));
  EXPECT_EQ(complete, answer);
  EXPECT_EQ(std::dynamic_pointer_cast<AssistantMessageWrapper>(answer)->message()->status,
            MessageStatus::Completed);
  EXPECT_TRUE(log->has("Assistant message a1 status 1 -> 2"));

  // "section_complete" without a local id is only warned about.
  auto unnamed = engine.enqueue(systemFrame(0, "section_complete", "s1", ""));
  EXPECT_EQ(unnamed->type(), MessageKind::System);
  EXPECT_EQ(engine.currentSection().local_section_id, local);
  EXPECT_EQ(log->countContaining("system message takes local section id() diff"), 1u);

  engine.enqueue(systemFrame(0, "section_complete", "s1", local));
  EXPECT_TRUE(engine.currentSection().section_id.empty());
  EXPECT_TRUE(engine.currentSection().local_section_id.empty());

  auto error = engine.enqueue(systemFrame(42, "quota", "s1", local));
  ASSERT_TRUE(error);
  EXPECT_TRUE(log->has("System message: code = 42, msg = quota"));
  EXPECT_EQ(std::dynamic_pointer_cast<SystemMessageWrapper>(error)->message()->section->section_id,
            "s1");
}

class EchoHandler : public ICustomMessageHandler {
 public:
  explicit EchoHandler(MessageEngine* engine) : engine_(engine) {}
  void onCustomMessage(const CustomMessage& message,
                       std::optional<CustomMessage>& handled) override {
    // Calling back into the engine proves no engine lock is held here.
    engine_->lastMessageByType(MessageKind::Assistant, "");
    ++calls;
    if (message.content.content == "drop") return;
    handled = message;
    handled->content.content = R"({"card":"rendered"})";
  }
  int calls = 0;

 private:
  MessageEngine* engine_;
};

TEST(MessageEngineTest, CustomMessagesGoThroughTheHostHandler) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  const auto custom = [](const std::string& payload) {
    return MessageProcessor::parse(test::downlinkFrame(
        "custom", {{"message_id", "c1"}, {"content", {{"payload", payload}}}}, "s9"));
  };
  EXPECT_FALSE(engine.enqueue(custom("x")));
  EXPECT_TRUE(log->has("Custom message handler is not registered"));
  EXPECT_FALSE(engine.enqueue(custom("")));
  EXPECT_TRUE(log->has("Custom message content is empty"));

  auto handler = std::make_shared<EchoHandler>(&engine);
  engine.registerCustomMessageHandler(handler);
  auto result = std::dynamic_pointer_cast<AssistantMessageWrapper>(engine.enqueue(custom("x")));
  ASSERT_TRUE(result && result->message());
  EXPECT_EQ(result->message()->message_id, "c1");
  EXPECT_EQ(result->message()->status, MessageStatus::Completed);
  EXPECT_EQ(result->message()->content->content, R"({"card":"rendered"})");
  EXPECT_EQ(engine.currentSection().section_id, "s9");
  // The handled message is indexed like any assistant message.
  engine.enqueue(deltaFrame("c1", json::parse(R"([{"op":"add","path":"/more","value":true}])")));
  EXPECT_EQ(json::parse(test::payloadOf(result))["more"], true);

  EXPECT_FALSE(engine.enqueue(custom("drop")));
  EXPECT_EQ(handler->calls, 2);
}

TEST(MessageEngineTest, HistoryKeepsSectionsAndTakesTheLatestOne) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  const auto user = [](const std::string& text, const std::string& section,
                       const std::string& local) {
    auto message = userMessage(text);
    message->setSectionIds(section, local);
    return message;
  };
  // Section A, then section B whose prompt was stored before its server id.
  auto a_user = user("a", "sA", "lA");
  auto a_answer = assistantFrame("a1", "{}", "sA", "lA");
  auto b_user = user("b", "", "lB");
  auto b_answer = assistantFrame("b1", "{}", "sB", "lB");
  auto b_more = assistantFrame("b2", "{}", "sB", "lB");
  for (const auto& m : {MessagePtr(a_user), a_answer, MessagePtr(b_user), b_answer, b_more}) {
    EXPECT_EQ(engine.recover(m), m);
  }
  EXPECT_FALSE(engine.recover(assistantFrame("a1", "{}", "sA", "lA")));
  EXPECT_TRUE(log->has("MessageEngine recover cancel, message is exist"));
  EXPECT_FALSE(engine.recover(nullptr));

  const auto latest = engine.takeHistorySection(true);
  ASSERT_EQ(latest.size(), 3u);
  EXPECT_EQ(latest[0], b_user);
  EXPECT_EQ(latest[2], b_more);
  const auto rest = engine.takeHistorySection(false);
  ASSERT_EQ(rest.size(), 2u);
  EXPECT_EQ(rest[0], a_user);
  EXPECT_TRUE(engine.takeHistorySection(false).empty());

  // A newest user prompt without a server section id is taken alone.
  engine.recover(user("x", "sA", "lA"));
  auto prompt = user("y", "", "lY");
  engine.recover(prompt);
  const auto only = engine.takeHistorySection(true);
  ASSERT_EQ(only.size(), 1u);
  EXPECT_EQ(only[0], prompt);
  EXPECT_TRUE(log->has("the latest message is user message prompt, stop.."));
  engine.clearHistory();
  EXPECT_TRUE(engine.takeHistorySection(false).empty());
}

TEST(MessageEngineTest, RecoverSectionIdFillsOnlyEmptyIdsWithTheServerId) {
  test::ScopedLogCapture log;
  MessageEngine engine("lc1");
  engine.recoverSectionId("srv", "ignored-local");
  EXPECT_EQ(engine.currentSection().section_id, "srv");
  EXPECT_EQ(engine.currentSection().local_section_id, "srv");  // not "ignored-local"
  engine.recoverSectionId("other", "other-local");
  EXPECT_EQ(engine.currentSection().section_id, "srv");
  EXPECT_TRUE(log->has(
      "Attempt to recover local_section_id other-local for local_conversation_id lc1, but it is "
      "already set to srv"));
}

TEST(MessageEngineTest, RunModeAndBabiParamsReachTheUplink) {
  MessageEngine engine("lc1");
  engine.setRunMode(RunMode::Caller);
  engine.setBabiParams(R"({"k":1})");
  auto message = userMessage("q");
  engine.enqueue(message);
  const auto uplink = message->uplink();
  ASSERT_TRUE(uplink.options);
  EXPECT_EQ(*uplink.options->run_mode, "caller");
  EXPECT_EQ(*uplink.options->babi_params, R"({"k":1})");
  EXPECT_TRUE(engine.isPrompt(message));
  EXPECT_FALSE(engine.isPrompt(userMessage("", std::string("retry"))));
  EXPECT_FALSE(engine.isPrompt(assistantFrame("a", "{}")));
}

// Deltas arrive on the host's delivery thread while another thread reads the
// message being streamed; every read sees a whole payload.
TEST(MessageEngineTest, ReadersSeeConsistentPayloadsWhileDeltasStream) {
  test::ScopedLogCapture log;
  ILogger::setLogLevel(LogLevel::Warn);
  MessageEngine engine("lc1");
  engine.enqueue(assistantFrame("a1", R"({"text":""})"));
  std::atomic<bool> done{false};
  size_t longest = 0;
  std::thread reader([&] {
    while (!done.load()) {
      if (auto snapshot = engine.assistantSnapshot("a1")) {
        const auto text = json::parse(snapshot->content->content)["text"].get<std::string>();
        EXPECT_EQ(text.size() % 3, 0u);
        longest = std::max(longest, text.size());
      }
      engine.lastMessageByType(MessageKind::Assistant, "");
    }
  });
  const auto append =
      deltaFrame("a1", json::parse(R"([{"op":"append","path":"/text","value":"abc"}])"));
  for (int i = 0; i < 2000; ++i) engine.enqueue(append);
  done = true;
  reader.join();
  EXPECT_EQ(json::parse(engine.assistantSnapshot("a1")->content->content)["text"]
                .get<std::string>()
                .size(),
            6000u);
  EXPECT_LE(longest, 6000u);
}

}  // namespace
}  // namespace orvi
