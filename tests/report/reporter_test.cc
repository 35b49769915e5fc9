#include "orvi/report/reporter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
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
using OrderedJson = nlohmann::ordered_json;
using Event = RecordingListener::TraceEvent;

std::vector<Event> waitForEvents(const RecordingListener& listener, size_t count) {
  EXPECT_TRUE(listener.waitFor([&](const auto& c) { return c.trace_events.size() >= count; }))
      << "expected " << count << " trace events";
  return listener.calls().trace_events;
}

// Section events carry wall-clock stamps. Checks that the cost is their
// difference and zeroes all three so the rest compares byte for byte.
std::string withoutStamps(const std::string& json, int64_t& start_ts, int64_t& end_ts) {
  auto parsed = OrderedJson::parse(json);
  start_ts = parsed["start_ts"].get<int64_t>();
  end_ts = parsed["end_ts"].get<int64_t>();
  EXPECT_EQ(parsed["section_cost_ms"].get<int64_t>(), end_ts - start_ts) << json;
  parsed["start_ts"] = 0;
  parsed["end_ts"] = 0;
  parsed["section_cost_ms"] = 0;
  return parsed.dump();
}

UserMessageReport representativeUserReport() {
  UserMessageReport report;
  report.conversation_id = "conv-1";
  report.local_conversation_id = "local-1";
  report.message.local_message_id = "lm-1";
  report.message.section = SectionInfo("sec-1", "lsec-1");
  report.message.content = MessageContent("hello \"you\"", 1);
  report.message.context =
      Context(std::nullopt, std::vector<std::string>{"p1", "p2"}, std::string("ref"),
              std::vector<FileInfo>{FileInfo(1, "vid-9", FileSourceType::Vid, "a.png", "", "")});
  report.message.tool_result =
      ToolResult({"p3"},
                 {ToolCallResult("search", "{}", "t1", ToolResultStatus::Succeed, {}, 0),
                  ToolCallResult("open", "{}", "t2", ToolResultStatus::Failed, {}, 3)},
                 ToolResultStatus::Succeed, std::nullopt, 0);
  report.message.reply_message_id = "am-0";
  report.opens_section = true;
  report.build_start_ms = 1000;
  report.build_end_ms = 1015;
  report.send_end_ms = 1040;
  report.sent = true;
  return report;
}

AssistantMessageReport representativeAssistantReport() {
  AssistantMessageReport report;
  report.conversation_id = "conv-1";
  report.local_conversation_id = "local-1";
  report.message.message_id = "am-1";
  report.message.content = MessageContent("hi", 2);
  report.message.tool_calls = std::vector<ToolCall>{
      ToolCall("search", "{}", "", ToolCallComposeType::Node, std::nullopt, std::nullopt),
      ToolCall("open", "{}", "", ToolCallComposeType::Draft, std::nullopt, std::nullopt)};
  report.message.section = SectionInfo("sec-1", "lsec-1");
  report.message.create_time = 1700000000000;
  report.message.update_time = 1700000000500;
  report.receive_time_ms = 1700000000600;
  report.receive_complete_timecost_ms = 450;
  return report;
}

TEST(ReporterTest, OneSectionProducesEveryEventWithItsMembersInOrder) {
  auto listener = std::make_shared<RecordingListener>();
  Reporter reporter(listener);
  reporter.onConversationOpen("conv-1", "local-1", 2, 3, 0, "success");
  waitForEvents(*listener, 1);
  reporter.report(representativeUserReport());
  waitForEvents(*listener, 3);
  reporter.report(representativeAssistantReport());
  waitForEvents(*listener, 5);
  reporter.onSectionCompleted();
  waitForEvents(*listener, 6);
  reporter.onConversationClose("conv-1", "local-1", 3, 4, 0, "success");
  const auto events = waitForEvents(*listener, 7);
  ASSERT_EQ(events.size(), 7u);

  const std::vector<std::string> names = {
      "conversation_event", "user_message_event", "section_event",     "assistant_message_event",
      "section_event",      "section_event",      "conversation_event"};
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

  const std::string ids =
      R"("section_id":"sec-1","local_section_id":"lsec-1","conversation_id":"conv-1",)"
      R"("local_conversation_id":"local-1",)";
  const std::string stamps = R"("start_ts":0,"end_ts":0,"section_cost_ms":0})";
  int64_t start[3] = {};
  int64_t end[3] = {};
  EXPECT_EQ(withoutStamps(events[2].json, start[0], end[0]),
            R"({"action":"init",)" + ids +
                R"("user_message_count":1,"assistant_message_count":0,"tool_call_count":0,)" +
                stamps);
  EXPECT_EQ(withoutStamps(events[4].json, start[1], end[1]),
            R"({"action":"init",)" + ids +
                R"("user_message_count":1,"assistant_message_count":1,"tool_call_count":2,)" +
                stamps);
  EXPECT_EQ(withoutStamps(events[5].json, start[2], end[2]),
            R"({"action":"finish",)" + ids +
                R"("user_message_count":1,"assistant_message_count":1,"tool_call_count":2,)" +
                stamps);
  EXPECT_GT(start[0], 0);
  EXPECT_EQ(start[1], start[0]);
  EXPECT_EQ(start[2], start[0]);
  EXPECT_EQ(end[0], 0);
  EXPECT_EQ(end[1], 0);
  EXPECT_GE(end[2], start[2]);
}

TEST(ReporterTest, UserMessageEventFollowsTheMessageAndTheSendResult) {
  struct Variant {
    const char* name;
    std::function<void(UserMessageReport&)> change;
    const char* expected;  // the members that must differ from the representative case
  };
  const std::vector<Variant> variants = {
      {"send failure", [](UserMessageReport& r) { r.sent = false; },
       R"({"err_code":-1000,"err_msg":"send fail"})"},
      {"action kept", [](UserMessageReport& r) { r.message.action = "retry"; },
       R"({"action":"retry","err_code":0})"},
      {"bare message", [](UserMessageReport& r) { r.message = UserMessage(); },
       R"({"action":"send","section_id":"","local_section_id":"","local_message_id":"",)"
       R"("reply_message_id":"","message_content_type":0,"message_content_payload":"",)"
       R"("patch_count":0,"files_count":0,"refer":"","tool_call_count":0})"},
      {"patches from the tool result only",
       [](UserMessageReport& r) { r.message.context = Context(); },
       R"({"patch_count":1,"files_count":0,"refer":""})"},
  };
  auto listener = std::make_shared<RecordingListener>();
  Reporter reporter(listener);
  for (size_t i = 0; i < variants.size(); ++i) {
    SCOPED_TRACE(variants[i].name);
    UserMessageReport report = representativeUserReport();
    report.opens_section = false;  // no section events in between
    variants[i].change(report);
    reporter.report(report);
    const auto events = waitForEvents(*listener, i + 1);
    ASSERT_EQ(events.size(), i + 1);
    const auto got = OrderedJson::parse(events[i].json);
    const auto expected = OrderedJson::parse(variants[i].expected);
    for (const auto& member : expected.items()) {
      EXPECT_EQ(got.at(member.key()), member.value()) << member.key();
    }
  }
}

TEST(ReporterTest, EventsArriveOnOneReportThreadInEachPostersOrder) {
  constexpr int kPosters = 3;
  constexpr int kPerPoster = 20;
  auto listener = std::make_shared<RecordingListener>();
  Reporter reporter(listener);
  std::set<std::thread::id> posting_threads;
  std::mutex posting_mutex;
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      {
        std::lock_guard<std::mutex> lock(posting_mutex);
        posting_threads.insert(std::this_thread::get_id());
      }
      for (int i = 0; i < kPerPoster; ++i) {
        reporter.onConversationOpen("conv", "poster-" + std::to_string(p), i, 0, 0, "success");
      }
    });
  }
  for (auto& poster : posters) poster.join();
  posting_threads.insert(std::this_thread::get_id());

  waitForEvents(*listener, kPosters * kPerPoster);
  const auto calls = listener->calls();
  ASSERT_EQ(calls.trace_events.size(), static_cast<size_t>(kPosters * kPerPoster));
  std::vector<int> next(kPosters, 0);
  for (const auto& event : calls.trace_events) {
    const auto json = OrderedJson::parse(event.json);
    const int poster = std::stoi(json["local_conversation_id"].get<std::string>().substr(7));
    EXPECT_EQ(json["section_count"].get<int>(), next[poster]++) << "poster " << poster;
  }
  const std::thread::id report_thread = calls.sequence.front().thread;
  EXPECT_EQ(posting_threads.count(report_thread), 0u);
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
    reporter.report(representativeUserReport());       // opens a section: one more event
    reporter.report(representativeAssistantReport());  // one more section event
    reporter.onSectionCompleted();
    reporter.onSectionEvent();
  }  // destruction drains, so every warning is in
  EXPECT_EQ(log->count("Reporter::onConversationOpen, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::onConversationClose, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::report user message, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::report assistant message, tracer is expired"), 1u);
  EXPECT_EQ(log->count("Reporter::onSectionEvent, tracer is expired"), 4u);
  EXPECT_EQ(log->count("reportWorker exit.."), 2u);
}

TEST(ReporterTest, DestructionDeliversQueuedEventsFirst) {
  auto listener = std::make_shared<RecordingListener>();
  auto reporter = std::make_unique<Reporter>(listener);
  std::mutex mutex;
  std::condition_variable changed;
  bool held = false;        // guarded by mutex
  bool destroying = false;  // guarded by mutex
  listener->setHook([&](RecordingListener::Operation) {
    std::unique_lock<std::mutex> lock(mutex);
    if (held) return;
    held = true;
    changed.notify_all();
    changed.wait(lock, [&] { return destroying; });
    lock.unlock();
    // Gives the destructor time to raise its stop flag while events are
    // still queued; the test holds without it, only less sharply.
    std::this_thread::sleep_for(20ms);
  });

  reporter->onConversationOpen("conv", "local", 0, 0, 0, "success");
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return held; });
  }
  for (int i = 1; i < 5; ++i) reporter->onConversationOpen("conv", "local", i, 0, 0, "success");
  {
    std::lock_guard<std::mutex> lock(mutex);
    destroying = true;
  }
  changed.notify_all();
  reporter.reset();

  const auto events = listener->calls().trace_events;
  ASSERT_EQ(events.size(), 5u);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(OrderedJson::parse(events[i].json)["section_count"].get<int>(), i);
  }
}

TEST(ReporterTest, ReporterDestroyedInsideADeliveryStillDeliversTheRest) {
  test::ScopedLogCapture log;
  auto listener = std::make_shared<RecordingListener>();
  auto reporter = std::make_unique<Reporter>(listener);
  std::mutex mutex;
  std::condition_variable changed;
  bool all_posted = false;  // guarded by mutex
  bool released = false;    // guarded by mutex
  listener->setHook([&](RecordingListener::Operation) {
    std::unique_lock<std::mutex> lock(mutex);
    if (released) return;
    changed.wait(lock, [&] { return all_posted; });
    released = true;
    reporter.reset();  // the host drops the conversation from its callback
  });
  for (int i = 0; i < 3; ++i) reporter->onConversationOpen("conv", "local", i, 0, 0, "success");
  {
    std::lock_guard<std::mutex> lock(mutex);
    all_posted = true;
  }
  changed.notify_all();

  const auto events = waitForEvents(*listener, 3);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(OrderedJson::parse(events[2].json)["section_count"].get<int>(), 2);
  EXPECT_EQ(log->countContaining("Reporter dtor: "), 1u);
}

}  // namespace
}  // namespace orvi
