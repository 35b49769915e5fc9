// Builders of real frames for engine tests: messages go through the message
// processor exactly as they arrive from the network.
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "orvi/message/engine/message_engine.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"

namespace orvi {
namespace test {

inline std::string downlinkFrame(const std::string& event, const nlohmann::json& content,
                                 const std::string& section_id = "s1",
                                 const std::string& local_section_id = "") {
  return nlohmann::json({{"conversation_id", "c1"},
                         {"local_conversation_id", "lc1"},
                         {"section_id", section_id},
                         {"local_section_id", local_section_id},
                         {"event", event},
                         {"content", content.dump()}})
      .dump();
}

inline MessagePtr assistantFrame(const std::string& id, const std::string& payload,
                                 const std::string& section_id = "s1",
                                 const std::string& local_section_id = "") {
  return MessageProcessor::parse(downlinkFrame(
      "message",
      {{"message_id", id}, {"role", "assistant"}, {"content", {{"payload", payload}}}},
      section_id, local_section_id));
}

inline MessagePtr deltaFrame(const std::string& id, const nlohmann::json& operations) {
  return MessageProcessor::parse(
      downlinkFrame("delta", {{"message_id", id}, {"json_patch", operations.dump()}}));
}

inline MessagePtr systemFrame(int code, const std::string& msg, const std::string& section_id,
                              const std::string& local_section_id) {
  return MessageProcessor::parse(
      downlinkFrame("system", {{"code", code}, {"msg", msg}}, section_id, local_section_id));
}

inline std::shared_ptr<UserMessageWrapper> userMessage(const std::string& text,
                                                       std::optional<std::string> action = {}) {
  InputMessage input;
  if (!text.empty()) input.content = MessageContent(text, 0);
  input.action = std::move(action);
  auto wrapper = UserMessageWrapper::fromInput(input, "lc1", "c1");
  wrapper->sync();
  return wrapper;
}

inline std::string payloadOf(const MessagePtr& message) {
  auto assistant = std::dynamic_pointer_cast<AssistantMessageWrapper>(message);
  return assistant && assistant->message() && assistant->message()->content
             ? assistant->message()->content->content
             : std::string("<none>");
}

}  // namespace test
}  // namespace orvi
