#include "orvi/report/reporter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/recording_listener.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using namespace std::chrono_literals;
using test::RecordingListener;
using Json = nlohmann::ordered_json;

std::vector<RecordingListener::TraceEvent> waitForEvents(const RecordingListener& listener,
                                                         size_t count) {
  EXPECT_TRUE(listener.waitFor([&](const auto& c) { return c.trace_events.size() >= count; }))
      << "expected " << count << " trace events";
  return listener.calls().trace_events;
}

int sectionCount(const RecordingListener::TraceEvent& event) {
  return Json::parse(event.json)["section_count"].get<int>();
}

// Section events carry wall-clock stamps: checks that the cost is their
// difference once the section has ended (0 before), keeps them in `stamps`
// and zeroes them for a byte comparison.
std::string withoutStamps(const std::string& text, std::vector<int64_t>& stamps) {
  auto json = Json::parse(text);
  stamps.push_back(json["start_ts"].get<int64_t>());
  stamps.push_back(json["end_ts"].get<int64_t>());
  const int64_t end = stamps.back();
  EXPECT_EQ(json["section_cost_ms"].get<int64_t>(), end == 0 ? 0 : end - stamps[stamps.size() - 2]);
  json["start_ts"] = json["end_ts"] = json["section_cost_ms"] = 0;
  return json.dump();
}

UserMessageReport userReport() {
  UserMessageReport r;
  r.conversation_id = "conv-1";
  r.local_conversation_id = "local-1";
  r.message.local_message_id = "lm-1";
  r.message.section = SectionInfo("sec-1", "lsec-1");
  r.message.content = MessageContent("hello \"you\"", 1);
  r.message.context =
      Context(std::nullopt, std::vector<std::string>{"p1", "p2"}, "ref",
              std::vector<FileInfo>{FileInfo(1, "v", FileSourceType::Vid, "", "", "")});
  r.message.tool_result = ToolResult({"p3"}, {ToolCallResult(), ToolCallResult()},
                                     ToolResultStatus::Succeed, std::nullopt, 0);
  r.message.reply_message_id = "am-0";
  r.opens_section = true;
  r.build_start_ms = 1000;
  r.build_end_ms = 1015;
  r.send_end_ms = 1040;
  r.sent = true;
  return r;
}

AssistantMessageReport assistantReport() {
  AssistantMessageReport r;
  r.conversation_id = "conv-1";
  r.local_conversation_id = "local-1";
  r.message.message_id = "am-1";
  r.message.content = MessageContent("hi", 2);
  r.message.tool_calls = std::vector<ToolCall>(2);
  r.message.section = SectionInfo("sec-1", "lsec-1");
  r.message.create_time = 1700000000000;
  r.message.update_time = 1700000000500;
  r.receive_time_ms = 1700000000600;
  r.receive_complete_timecost_ms = 450;
  return r;
}

TEST(ReporterTest, OneSectionProducesEveryEventWithItsMembersInOrder) {
  auto listener = std::make_shared<RecordingListener>();
  Reporter reporter(listener);
  // Each step waits, so that section events land right after their cause.
  reporter.onConversationOpen("conv-1", "local-1", 2, 3, 0, "success");
  waitForEvents(*listener, 1);
  reporter.report(userReport());
  waitForEvents(*listener, 3);
  reporter.report(assistantReport());
  waitForEvents(*listener, 5);
  reporter.onSectionCompleted();
  waitForEvents(*listener, 6);
  reporter.onConversationClose("conv-1", "local-1", 3, 4, 0, "success");
  UserMessageReport bare;  // nothing set, and the send failed
  reporter.report(bare);
  const auto events = waitForEvents(*listener, 8);
  ASSERT_EQ(events.size(), 8u);

  const std::vector<std::string> names = {
      "conversation_event", "user_message_event", "section_event",      "assistant_message_event",
      "section_event",      "section_event",      "conversation_event", "user_message_event"};
  for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(events[i].name, names[i]) << i;
  EXPECT_EQ(events[0].json,
            R"({"action":"open","conversation_id":"conv-1","local_conversation_id":"local-1",)"
            R"("section_count":2,"tool_call_count":3,"err_code":0,"err_msg":"success"})");
  EXPECT_EQ(events[1].json,
            R"({"action":"send","conversation_id":"conv-1","section_id":"sec-1",)"
            R"("local_section_id":"lsec-1","local_conversation_id":"local-1",)"
            R"("local_message_id":"lm-1","reply_message_id":"am-0","message_content_type":1,)"
            R"("message_content_payload":"hello \"you\"","patch_count":3,"files_count":1,)"
            R"("refer":"ref","tool_call_count":2,"build_message_cost_ms":15,)"
            R"("send_message_cost_ms":25,"err_code":0,"err_msg":"success"})");
  EXPECT_EQ(events[3].json,
            R"({"action":"receive","conversation_id":"conv-1","section_id":"sec-1",)"
            R"("local_section_id":"lsec-1","local_conversation_id":"local-1","message_id":"am-1",)"
            R"("message_content_type":2,"message_content_payload":"hi","tool_call_count":2,)"
            R"("create_time":1700000000000,"update_time":1700000000500,)"
            R"("receive_time":1700000000600,"receive_complete_timecost":450})");
  EXPECT_EQ(events[6].json,
            R"({"action":"close","conversation_id":"conv-1","local_conversation_id":"local-1",)"
            R"("section_count":3,"tool_call_count":4,"err_code":0,"err_msg":"success"})");
  EXPECT_EQ(events[7].json,
            R"({"action":"send","conversation_id":"","section_id":"","local_section_id":"",)"
            R"("local_conversation_id":"","local_message_id":"","reply_message_id":"",)"
            R"("message_content_type":0,"message_content_payload":"","patch_count":0,)"
            R"("files_count":0,"refer":"","tool_call_count":0,"build_message_cost_ms":0,)"
            R"("send_message_cost_ms":0,"err_code":-1000,"err_msg":"send fail"})");

  const std::string ids =
      R"("section_id":"sec-1","local_section_id":"lsec-1","conversation_id":"conv-1",)"
      R"("local_conversation_id":"local-1","user_message_count":1,"assistant_message_count":)";
  const std::string zeroed = R"(,"start_ts":0,"end_ts":0,"section_cost_ms":0})";
  std::vector<int64_t> stamps;  // start, end of each section event
  EXPECT_EQ(withoutStamps(events[2].json, stamps),
            R"({"action":"init",)" + ids + R"(0,"tool_call_count":0)" + zeroed);
  EXPECT_EQ(withoutStamps(events[4].json, stamps),
            R"({"action":"init",)" + ids + R"(1,"tool_call_count":2)" + zeroed);
  EXPECT_EQ(withoutStamps(events[5].json, stamps),
            R"({"action":"finish",)" + ids + R"(1,"tool_call_count":2)" + zeroed);
  EXPECT_GT(stamps[0], 0);
  EXPECT_EQ(stamps[2], stamps[0]);
  EXPECT_EQ(stamps[4], stamps[0]);
  EXPECT_EQ(stamps[1], 0);
  EXPECT_EQ(stamps[3], 0);
  EXPECT_GE(stamps[5], stamps[4]);
}

TEST(ReporterTest, EventsArriveOnOneReportThreadInEachPostersOrder) {
  auto listener = std::make_shared<RecordingListener>();
  Reporter reporter(listener);
  std::vector<std::thread> posters;
  for (int p = 0; p < 2; ++p) {
    posters.emplace_back([&, p] {
      for (int i = 0; i < 20; ++i) reporter.onConversationOpen("", std::to_string(p), i, 0, 0, "");
    });
  }
  std::vector<std::thread::id> posting = {std::this_thread::get_id(), posters[0].get_id(),
                                          posters[1].get_id()};
  for (auto& poster : posters) poster.join();

  waitForEvents(*listener, 40);
  const auto calls = listener->calls();
  int next[2] = {0, 0};
  for (const auto& event : calls.trace_events) {
    const int poster =
        std::stoi(Json::parse(event.json)["local_conversation_id"].get<std::string>());
    EXPECT_EQ(sectionCount(event), next[poster]++) << "poster " << poster;
  }
  const std::thread::id report_thread = calls.sequence.front().thread;
  EXPECT_EQ(std::count(posting.begin(), posting.end(), report_thread), 0);
  for (const auto& call : calls.sequence) EXPECT_EQ(call.thread, report_thread);
}

TEST(ReporterTest, WithoutTracerEveryEventIsDroppedWithOneWarning) {
  test::ScopedLogCapture log;
  {
    // The conversation reports a missing listener through this very event.
    Reporter reporter{std::weak_ptr<ConversationListener>()};
    reporter.onConversationOpen("", "local-1", 0, 0, -2000, "listener is null");
  }
  EXPECT_EQ(log->count("Reporter::onConversationOpen, tracer is expired"), 1u);

  auto listener = std::make_shared<RecordingListener>();
  {
    Reporter reporter(listener);
    reporter.onConversationOpen("conv-1", "local-1", 0, 0, 0, "success");
    waitForEvents(*listener, 1);
    listener.reset();  // the host drops its listener
    reporter.onConversationClose("conv-1", "local-1", 0, 0, 0, "success");
    reporter.report(userReport());       // opens a section: one more event
    reporter.report(assistantReport());  // one more section event
    reporter.onSectionCompleted();
    reporter.onSectionEvent();
  }  // destruction drains, so every warning is in
  EXPECT_EQ(log->count("Reporter::onConversationOpen, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::onConversationClose, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::report user message, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::report assistant message, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::onSectionEvent, tracer is expired"), 4u);
}

// Holds the report thread inside the first delivery until released.
struct Latch {
  // True for the first caller, once released.
  bool holdFirst() {
    std::unique_lock<std::mutex> lock(mutex);
    if (entered) return false;
    entered = true;
    changed.notify_all();
    changed.wait(lock, [&] { return released; });
    return true;
  }
  void waitEntered() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return entered; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    changed.notify_all();
  }
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;   // guarded by mutex
  bool released = false;  // guarded by mutex
};

TEST(ReporterTest, DestructionDeliversQueuedEventsFirst) {
  auto listener = std::make_shared<RecordingListener>();
  auto reporter = std::make_unique<Reporter>(listener);
  Latch latch;
  listener->setHook([&](RecordingListener::Operation) {
    // The pause gives the destructor time to raise its stop flag while
    // events are still queued; the test holds without it, only less sharply.
    if (latch.holdFirst()) std::this_thread::sleep_for(10ms);
  });
  reporter->onConversationOpen("", "", 0, 0, 0, "");
  latch.waitEntered();
  for (int i = 1; i < 5; ++i) reporter->onConversationOpen("", "", i, 0, 0, "");
  latch.release();
  reporter.reset();

  const auto events = listener->calls().trace_events;
  ASSERT_EQ(events.size(), 5u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(sectionCount(events[i]), i);
}

TEST(ReporterTest, ReporterDestroyedInsideADeliveryStillDeliversTheRest) {
  test::ScopedLogCapture log;
  auto listener = std::make_shared<RecordingListener>();
  auto reporter = std::make_unique<Reporter>(listener);
  Latch all_posted;
  listener->setHook([&](RecordingListener::Operation) {
    // The host drops the conversation from its callback, on the report thread.
    if (all_posted.holdFirst()) reporter.reset();
  });
  for (int i = 0; i < 3; ++i) reporter->onConversationOpen("", "", i, 0, 0, "");
  all_posted.release();

  const auto events = waitForEvents(*listener, 3);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(sectionCount(events[2]), 2);
  EXPECT_EQ(log->countContaining("Reporter dtor: "), 1u);
}

}  // namespace
}  // namespace orvi
