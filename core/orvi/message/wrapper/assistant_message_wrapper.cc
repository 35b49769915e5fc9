#include "orvi/message/wrapper/assistant_message_wrapper.h"

#include <exception>

#include "orvi/message/processor/wire_conversion.h"
#include "orvi/utils/json_error.h"

namespace orvi {

void AssistantMessageWrapper::sync() {
  if (message_) return;
  auto message = std::make_shared<AssistantMessage>();
  message->message_id = wire_.message_id;
  // On the wire 0 means the answer is still streaming.
  message->status = wire_.status == 0 ? MessageStatus::Pending : MessageStatus::Completed;
  if (wire_.content) message->content = fromWire(*wire_.content);
  if (wire_.tool_calls) message->tool_calls = fromWireList<ToolCall>(*wire_.tool_calls);
  message->create_time = wire_.create_time;
  message->update_time = wire_.update_time.value_or(wire_.create_time);
  message->extra = wire_.extra;
  message_ = std::move(message);
}

std::string AssistantMessageWrapper::marshal() const {
  if (!message_) return idl::toText(wire_);
  idl::Message wire = wire_;
  // Written out whatever the frame said (a content without "role" reads as
  // "user"), so that a stored answer is read back as an answer.
  wire.role = idl::Role::Assistant;
  wire.message_id = message_->message_id;
  wire.status =
      message_->status == MessageStatus::Pending ? 0 : static_cast<int32_t>(message_->status);
  wire.content.reset();
  if (message_->content) wire.content = toWire(*message_->content);
  wire.tool_calls.reset();
  if (message_->tool_calls) wire.tool_calls = toWireList<idl::ToolCall>(*message_->tool_calls);
  wire.create_time = message_->create_time;
  wire.update_time = message_->update_time;
  wire.extra = message_->extra;
  return idl::toText(wire);
}

namespace {

AssistantMessageWrapper::RoleText roleTextOf(const idl::Json& json) {
  using RoleText = AssistantMessageWrapper::RoleText;
  if (!json.is_object()) return RoleText::Absent;
  const auto role = json.find("role");
  if (role == json.end()) return RoleText::Absent;
  if (*role == "user") return RoleText::User;
  if (*role == "assistant") return RoleText::Assistant;
  return RoleText::Other;
}

}  // namespace

bool AssistantMessageWrapper::unmarshal(const std::string& text) {
  try {
    const idl::Json json = parseUntrustedJson(text);
    idl::Message wire;
    idl::detail::readValue(json, wire);
    role_text_ = roleTextOf(json);
    wire_ = std::move(wire);
  } catch (const std::exception& e) {
    ORVI_LOG_JSON_ERROR(e, text);
    return false;
  }
  envelope().message_id = wire_.message_id;
  envelope().local_message_id = wire_.local_message_id;
  return true;
}

}  // namespace orvi
