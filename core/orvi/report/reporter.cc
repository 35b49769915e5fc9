#include "orvi/report/reporter.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include <nlohmann/json.hpp>

#include "orvi/utils/clock.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

using Json = nlohmann::ordered_json;  // members stay in the order they are set

constexpr int32_t kSendFailCode = -1000;

// Host text may hold invalid UTF-8; it is replaced rather than failing the
// event.
std::string compact(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

template <typename T>
int32_t sizeOf(const std::optional<std::vector<T>>& list) {
  return list ? static_cast<int32_t>(list->size()) : 0;
}

// The two content members shared by both message events.
void putContent(Json& json, const std::optional<MessageContent>& content) {
  json["message_content_type"] = content ? content->content_type : 0;
  json["message_content_payload"] = content ? content->content : std::string();
}

Json conversationEvent(const char* action, const std::string& conversation_id,
                       const std::string& local_conversation_id, int32_t section_count,
                       int32_t tool_call_count, int32_t err_code, const std::string& err_msg) {
  Json json;
  json["action"] = action;
  json["conversation_id"] = conversation_id;
  json["local_conversation_id"] = local_conversation_id;
  json["section_count"] = section_count;
  json["tool_call_count"] = tool_call_count;
  json["err_code"] = err_code;
  json["err_msg"] = err_msg;
  return json;
}

Json userMessageEvent(const UserMessageReport& report) {
  const UserMessage& message = report.message;
  const SectionInfo section = message.section.value_or(SectionInfo());
  const Context context = message.context.value_or(Context());
  int32_t patch_count = sizeOf(context.draft_patch_list);
  int32_t tool_call_count = 0;
  if (message.tool_result) {
    patch_count += static_cast<int32_t>(message.tool_result->patch_list.size());
    tool_call_count = static_cast<int32_t>(message.tool_result->tool_call_result.size());
  }
  Json json;
  json["action"] = message.action.value_or("send");
  json["conversation_id"] = report.conversation_id;
  json["section_id"] = section.section_id;
  json["local_section_id"] = section.local_section_id;
  json["local_conversation_id"] = report.local_conversation_id;
  json["local_message_id"] = message.local_message_id;
  json["reply_message_id"] = message.reply_message_id.value_or("");
  putContent(json, message.content);
  json["patch_count"] = patch_count;
  json["files_count"] = sizeOf(context.file_list);
  json["refer"] = context.refer.value_or("");
  json["tool_call_count"] = tool_call_count;
  json["build_message_cost_ms"] = report.build_end_ms - report.build_start_ms;
  json["send_message_cost_ms"] = report.send_end_ms - report.build_end_ms;
  json["err_code"] = report.sent ? 0 : kSendFailCode;
  json["err_msg"] = report.sent ? "success" : "send fail";
  return json;
}

Json assistantMessageEvent(const AssistantMessageReport& report) {
  const AssistantMessage& message = report.message;
  const SectionInfo section = message.section.value_or(SectionInfo());
  Json json;
  json["action"] = "receive";
  json["conversation_id"] = report.conversation_id;
  json["section_id"] = section.section_id;
  json["local_section_id"] = section.local_section_id;
  json["local_conversation_id"] = report.local_conversation_id;
  json["message_id"] = message.message_id;
  putContent(json, message.content);
  json["tool_call_count"] = sizeOf(message.tool_calls);
  json["create_time"] = message.create_time;
  json["update_time"] = message.update_time;
  json["receive_time"] = report.receive_time_ms;
  json["receive_complete_timecost"] = report.receive_complete_timecost_ms;
  return json;
}

Json sectionEvent(const SectionState& section) {
  Json json;
  json["action"] = section.action == SectionState::Action::Finish ? "finish" : "init";
  json["section_id"] = section.section_id;
  json["local_section_id"] = section.local_section_id;
  json["conversation_id"] = section.conversation_id;
  json["local_conversation_id"] = section.local_conversation_id;
  json["user_message_count"] = section.user_message_count;
  json["assistant_message_count"] = section.assistant_message_count;
  json["tool_call_count"] = section.tool_call_count;
  json["start_ts"] = section.start_ts;
  json["end_ts"] = section.end_ts;
  // From the prompt to the latest fact counted; 0 for a section whose start
  // this reporter did not see.
  json["section_cost_ms"] =
      section.start_steady_ms != 0
          ? std::max<int64_t>(0, section.end_steady_ms - section.start_steady_ms)
          : 0;
  return json;
}

// The server allocates the conversation id after the first prompt went out,
// so the section takes the ids from whichever later report carries them.
void adoptConversationIds(SectionState& section, const std::string& conversation_id,
                          const std::string& local_conversation_id) {
  if (!conversation_id.empty()) section.conversation_id = conversation_id;
  if (!local_conversation_id.empty()) section.local_conversation_id = local_conversation_id;
}

}  // namespace

Reporter::Reporter(std::weak_ptr<ConversationListener> tracer)
    : core_(std::make_shared<Core>(std::move(tracer))),
      report_thread_(&Reporter::reportWorker, core_) {
  ORVI_LOGI("Reporter ctor, report_thread_ id: %lu, this = %p",
            static_cast<unsigned long>(std::hash<std::thread::id>()(report_thread_.get_id())),
            static_cast<void*>(this));
}

Reporter::~Reporter() {
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    core_->stop = true;
  }
  core_->wake.notify_one();
  if (report_thread_.get_id() == std::this_thread::get_id()) {
    // Destroyed inside one of its own tasks (the host dropped the last
    // reference from onTraceEvent): joining would deadlock. The thread holds
    // the core itself and drains the rest once this task returns.
    report_thread_.detach();
  } else if (report_thread_.joinable()) {
    report_thread_.join();
  } else {
    ORVI_LOGW("Reporter dtor, report_thread_ is not joinable, this = %p", static_cast<void*>(this));
  }
  ORVI_LOGI("Reporter dtor: %p", static_cast<void*>(this));
}

void Reporter::onConversationOpen(const std::string& conversation_id,
                                  const std::string& local_conversation_id, int32_t section_count,
                                  int32_t tool_call_count, int32_t err_code,
                                  const std::string& err_msg) {
  ORVI_LOGI("[EVENT] conversation_event OPEN: conversation_id: %s, local_conversation_id: %s",
            conversation_id.c_str(), local_conversation_id.c_str());
  postConversationEvent("open", "Reporter::onConversationOpen, tracer is expired", conversation_id,
                        local_conversation_id, section_count, tool_call_count, err_code, err_msg);
}

void Reporter::onConversationClose(const std::string& conversation_id,
                                   const std::string& local_conversation_id, int32_t section_count,
                                   int32_t tool_call_count, int32_t err_code,
                                   const std::string& err_msg) {
  ORVI_LOGI("[EVENT] conversation_event CLOSE: conversation_id: %s, local_conversation_id: %s",
            conversation_id.c_str(), local_conversation_id.c_str());
  postConversationEvent("close", "Reporter::onConversationClose, tracer is expired",
                        conversation_id, local_conversation_id, section_count, tool_call_count,
                        err_code, err_msg);
}

void Reporter::postConversationEvent(const char* action, const char* expired_warning,
                                     const std::string& conversation_id,
                                     const std::string& local_conversation_id,
                                     int32_t section_count, int32_t tool_call_count,
                                     int32_t err_code, const std::string& err_msg) {
  Core* core = core_.get();
  post([=] {
    const Json json = conversationEvent(action, conversation_id, local_conversation_id,
                                        section_count, tool_call_count, err_code, err_msg);
    core->deliver("conversation_event", compact(json), expired_warning, false);
  });
}

void Reporter::report(UserMessageReport report) {
  ORVI_LOGD("[EVENT] post a UserMessageEvent task");
  Core* core = core_.get();
  post([core, report = std::move(report)] {
    SectionState& section = core->section;
    if (report.opens_section) {
      section = SectionState();
      if (report.message.section) {
        section.section_id = report.message.section->section_id;
        section.local_section_id = report.message.section->local_section_id;
      }
      section.start_ts = section.end_ts = report.send_end_wall_ms;
      section.start_steady_ms = section.end_steady_ms = report.send_end_ms;
    }
    adoptConversationIds(section, report.conversation_id, report.local_conversation_id);
    ++section.user_message_count;
    if (report.opens_section) core->postSectionEvent();
    core->deliver("user_message_event", compact(userMessageEvent(report)),
                  "Reporter::report user message, tracer is expired", true);
  });
}

void Reporter::report(AssistantMessageReport report) {
  ORVI_LOGD("[EVENT] post a AssistantMessageEvent task");
  Core* core = core_.get();
  post([core, report = std::move(report)] {
    SectionState& section = core->section;
    adoptConversationIds(section, report.conversation_id, report.local_conversation_id);
    ++section.assistant_message_count;
    section.tool_call_count += sizeOf(report.message.tool_calls);
    section.end_ts = report.receive_time_ms;
    section.end_steady_ms = report.receive_steady_ms;
    core->postSectionEvent();
    core->deliver("assistant_message_event", compact(assistantMessageEvent(report)),
                  "Reporter::report assistant message, tracer is expired", true);
  });
}

void Reporter::onSectionCompleted() {
  ORVI_LOGD("[EVENT] onSectionCompleted");
  // The section belongs to the report thread; the end is stamped now, at
  // the call, and applied there.
  const int64_t end_ts = wallMs();
  const int64_t end_steady_ms = steadyMs();
  Core* core = core_.get();
  post([core, end_ts, end_steady_ms] {
    SectionState& section = core->section;
    // A repeated completion is not a second end, and a section whose start
    // was not seen here has nothing to measure.
    if (section.action == SectionState::Action::Finish || section.start_steady_ms == 0) return;
    section.action = SectionState::Action::Finish;
    section.end_ts = end_ts;
    section.end_steady_ms = end_steady_ms;
    core->postSectionEvent();
  });
}

void Reporter::onSectionEvent() {
  ORVI_LOGD("[EVENT] post a SectionEvent task");
  // Read on the report thread, so the event shows every message posted
  // before this call.
  Core* core = core_.get();
  post([core] {
    core->deliver("section_event", compact(sectionEvent(core->section)),
                  "Reporter::onSectionEvent, tracer is expired", true);
  });
}

void Reporter::Core::post(Task task) {
  std::lock_guard<std::mutex> lock(mutex);
  tasks.push_back(std::move(task));
  // Notified under the lock: a reporter destroyed on its own thread leaves
  // the core to that thread, which may end as soon as the lock is released.
  wake.notify_one();
}

void Reporter::Core::postSectionEvent() {
  ORVI_LOGD("[EVENT] post a SectionEvent task");
  post([this, json = compact(sectionEvent(section))] {
    deliver("section_event", json, "Reporter::onSectionEvent, tracer is expired", true);
  });
}

void Reporter::Core::deliver(const char* name, const std::string& json, const char* expired_warning,
                             bool log_json) {
  auto listener = tracer.lock();
  if (!listener) {
    ORVI_LOGW("%s", expired_warning);
    return;
  }
  if (log_json) ORVI_LOGD("[EVENT] %s: %s", name, json.c_str());
  listener->onTraceEvent(name, json);
}

void Reporter::reportWorker(std::shared_ptr<Core> core) {
  std::unique_lock<std::mutex> lock(core->mutex);
  for (;;) {
    core->wake.wait(lock, [&] { return core->stop || !core->tasks.empty(); });
    // Stopping drains: the thread ends only once the queue is empty.
    if (core->tasks.empty()) break;
    Task task = std::move(core->tasks.front());
    core->tasks.pop_front();
    lock.unlock();
    if (!task) {
      ORVI_LOGW("reportWorker get empty task..");
    } else {
      // A throwing host tracer must not take the process down with the thread.
      try {
        task();
      } catch (const std::exception& e) {
        ORVI_LOGE("reportWorker task failed: %s", e.what());
      } catch (...) {
        ORVI_LOGE("reportWorker task failed with an unknown exception");
      }
    }
    task = nullptr;  // release what the task captured before taking the lock
    lock.lock();
  }
  lock.unlock();
  ORVI_LOGW("Report tasks empty, reportWorker stop..");
  ORVI_LOGI("reportWorker exit..");
}

}  // namespace orvi
