#include "orvi/report/reporter.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/utils/clock.h"
#include "support/recording_listener.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using test::RecordingListener;
using Json = nlohmann::ordered_json;

std::vector<RecordingListener::TraceEvent> waitForEvents(const RecordingListener& listener,
                                                         size_t count) {
  EXPECT_TRUE(listener.waitFor([&](const auto& c) { return c.trace_events.size() >= count; }))
      << "expected " << count << " trace events";
  return listener.calls().trace_events;
}

// The event as "name json"; section events carry wall-clock stamps, which
// are checked against each other and zeroed for a byte comparison.
std::string shown(const RecordingListener::TraceEvent& event) {
  if (event.name != "section_event") return event.name + " " + event.json;
  auto json = Json::parse(event.json);
  const int64_t start = json["start_ts"], end = json["end_ts"];
  EXPECT_GT(start, 0);
  EXPECT_GE(end, start);  // the moment of the latest fact counted
  EXPECT_GE(json["section_cost_ms"].get<int64_t>(), 0);
  json["start_ts"] = json["end_ts"] = json["section_cost_ms"] = 0;
  return event.name + " " + json.dump();
}

TEST(ReporterTest, OneSectionProducesEveryEventWithItsMembersInOrderThenDropsWithWarnings) {
  test::ScopedLogCapture log;
  auto listener = std::make_shared<RecordingListener>();
  auto reporter = std::make_unique<Reporter>(listener);
  const SectionInfo section("sec-1", "lsec-1");
  // Each step waits, so that section events land right after their cause.
  reporter->onConversationOpen("conv-1", "local-1", 2, 3, 0, "success");
  waitForEvents(*listener, 1);
  reporter->report(UserMessageReport{
      "conv-1", "local-1",
      UserMessage("lm-1", "", section, MessageContent("hello \"you\"", 1),
                  Context(std::nullopt, std::vector<std::string>{"p1", "p2"}, "ref",
                          std::vector<FileInfo>{FileInfo(1, "v", FileSourceType::Vid, "", "", "")}),
                  ToolResult({"p3"}, {ToolCallResult(), ToolCallResult()},
                             ToolResultStatus::Succeed, std::nullopt, 0),
                  MessageStatus::Init, std::nullopt, "am-0", 0, MessageSource::Live),
      true, 1000, 1015, 1040, true, 1700000000000});
  waitForEvents(*listener, 3);
  reporter->report(
      AssistantMessageReport{"conv-1", "local-1",
                             AssistantMessage("am-1", MessageStatus::Init, MessageContent("hi", 2),
                                              std::vector<ToolCall>(2), section, 1700000000000,
                                              1700000000500, MessageSource::Live, std::nullopt),
                             1700000000600, 450, 1640});
  waitForEvents(*listener, 5);
  reporter->onSectionCompleted();
  waitForEvents(*listener, 6);
  reporter->onConversationClose("conv-1", "local-1", 3, 4, 0, "success");
  reporter->report(UserMessageReport());  // nothing set, and the send failed
  const auto events = waitForEvents(*listener, 8);

  const std::string section_ids =
      R"(","section_id":"sec-1","local_section_id":"lsec-1","conversation_id":"conv-1",)"
      R"("local_conversation_id":"local-1","user_message_count":1,"assistant_message_count":)";
  const std::string zeroed = R"(,"start_ts":0,"end_ts":0,"section_cost_ms":0})";
  const std::vector<std::string> expected = {
      R"(conversation_event {"action":"open","conversation_id":"conv-1",)"
      R"("local_conversation_id":"local-1","section_count":2,"tool_call_count":3,"err_code":0,)"
      R"("err_msg":"success"})",
      R"(user_message_event {"action":"send","conversation_id":"conv-1","section_id":"sec-1",)"
      R"("local_section_id":"lsec-1","local_conversation_id":"local-1","local_message_id":"lm-1",)"
      R"("reply_message_id":"am-0","message_content_type":1,)"
      R"("message_content_payload":"hello \"you\"","patch_count":3,"files_count":1,"refer":"ref",)"
      R"("tool_call_count":2,"build_message_cost_ms":15,"send_message_cost_ms":25,"err_code":0,)"
      R"("err_msg":"success"})",
      R"(section_event {"action":"init)" + section_ids + R"(0,"tool_call_count":0)" + zeroed,
      R"(assistant_message_event {"action":"receive","conversation_id":"conv-1",)"
      R"("section_id":"sec-1","local_section_id":"lsec-1","local_conversation_id":"local-1",)"
      R"("message_id":"am-1","message_content_type":2,"message_content_payload":"hi",)"
      R"("tool_call_count":2,"create_time":1700000000000,"update_time":1700000000500,)"
      R"("receive_time":1700000000600,"receive_complete_timecost":450})",
      R"(section_event {"action":"init)" + section_ids + R"(1,"tool_call_count":2)" + zeroed,
      R"(section_event {"action":"finish)" + section_ids + R"(1,"tool_call_count":2)" + zeroed,
      R"(conversation_event {"action":"close","conversation_id":"conv-1",)"
      R"("local_conversation_id":"local-1","section_count":3,"tool_call_count":4,"err_code":0,)"
      R"("err_msg":"success"})",
      R"(user_message_event {"action":"send","conversation_id":"","section_id":"",)"
      R"("local_section_id":"","local_conversation_id":"","local_message_id":"",)"
      R"("reply_message_id":"","message_content_type":0,"message_content_payload":"",)"
      R"("patch_count":0,"files_count":0,"refer":"","tool_call_count":0,)"
      R"("build_message_cost_ms":0,"send_message_cost_ms":0,"err_code":-1000,)"
      R"("err_msg":"send fail"})",
  };
  ASSERT_EQ(events.size(), expected.size());
  for (size_t i = 0; i < events.size(); ++i) EXPECT_EQ(shown(events[i]), expected[i]);
  // The section starts when its prompt was sent, and each event measures up
  // to its own fact, on the steady clock.
  const auto stamps = [&](size_t i) {
    const auto json = Json::parse(events[i].json);
    return std::vector<int64_t>{json["start_ts"], json["end_ts"], json["section_cost_ms"]};
  };
  EXPECT_EQ(stamps(2), (std::vector<int64_t>{1700000000000, 1700000000000, 0}));
  EXPECT_EQ(stamps(4), (std::vector<int64_t>{1700000000000, 1700000000600, 600}));
  EXPECT_GE(stamps(5)[2], 600);

  listener.reset();  // the host drops its listener: every later event is dropped
  reporter->onConversationClose("", "", 0, 0, 0, "");
  reporter->report(UserMessageReport{"", "", UserMessage(), true});  // and a section event
  reporter->report(AssistantMessageReport());                        // and a section event
  reporter->onSectionEvent();
  reporter.reset();  // drains before it returns, so every warning is in
  EXPECT_EQ(log->count("Reporter::onConversationClose, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::report user message, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::report assistant message, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::onSectionEvent, tracer is expired"), 3u);
}

// A section finishes once, however often its completion is reported; one
// whose start this reporter never saw has nothing to finish; and a wall
// clock set back meanwhile never makes a cost negative.
TEST(ReporterTest, SectionsFinishOnceWithCostsThatAreNeverNegative) {
  auto listener = std::make_shared<RecordingListener>();
  auto reporter = std::make_unique<Reporter>(listener);
  reporter->onSectionCompleted();  // no section yet
  UserMessageReport prompt;
  prompt.message.section = SectionInfo("s", "ls");
  prompt.opens_section = true;
  prompt.sent = true;
  prompt.send_end_ms = steadyMs();
  prompt.send_end_wall_ms = wallMs() + 3600 * 1000;  // the wall clock is set back after this
  reporter->report(prompt);
  reporter->onSectionCompleted();
  reporter->onSectionCompleted();
  reporter.reset();  // drains

  std::vector<std::string> actions;
  for (const auto& event : listener->calls().trace_events) {
    if (event.name != "section_event") continue;
    const auto json = Json::parse(event.json);
    actions.push_back(json["action"]);
    EXPECT_GE(json["section_cost_ms"].get<int64_t>(), 0) << event.json;
  }
  EXPECT_EQ(actions, (std::vector<std::string>{"init", "finish"}));
}

// The host drops the conversation inside the first delivery, once both
// posters have queued all their events: the report thread cannot join
// itself, yet every event still arrives, in each poster's order, on it alone.
TEST(ReporterTest, ReporterDestroyedInsideADeliveryStillDeliversQueuedEventsInOrder) {
  auto listener = std::make_shared<RecordingListener>();
  auto reporter = std::make_unique<Reporter>(listener);
  std::promise<void> all_posted;
  std::shared_future<void> posted = all_posted.get_future().share();
  listener->setHook([&](RecordingListener::Operation) {
    posted.wait();
    reporter.reset();
  });
  const auto post = [&](int poster) {
    for (int i = 0; i < 20; ++i)
      reporter->onConversationOpen("", std::to_string(poster), i, 0, 0, "");
  };
  std::thread other(post, 1);
  post(0);
  const std::thread::id other_id = other.get_id();
  other.join();
  all_posted.set_value();

  const auto events = waitForEvents(*listener, 40);
  ASSERT_EQ(events.size(), 40u);
  int next[2] = {0, 0};
  for (const auto& event : events) {
    const auto json = Json::parse(event.json);
    const int poster = std::stoi(json["local_conversation_id"].get<std::string>());
    EXPECT_EQ(json["section_count"].get<int>(), next[poster]++) << "poster " << poster;
  }
  const auto calls = listener->calls();
  const std::thread::id report_thread = calls.sequence.front().thread;
  EXPECT_NE(report_thread, std::this_thread::get_id());
  EXPECT_NE(report_thread, other_id);
  for (const auto& call : calls.sequence) EXPECT_EQ(call.thread, report_thread);
}

}  // namespace
}  // namespace orvi
