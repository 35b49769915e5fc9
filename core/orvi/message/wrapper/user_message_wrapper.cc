#include "orvi/message/wrapper/user_message_wrapper.h"

#include "orvi/message/processor/wire_conversion.h"
#include "orvi/message/wrapper/wire_text.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/unique_id.h"

namespace orvi {

UserMessageWrapper::UserMessageWrapper(std::shared_ptr<UserMessage> message)
    : message_(std::move(message)) {}

std::shared_ptr<UserMessageWrapper> UserMessageWrapper::fromInput(
    const InputMessage& input, const std::string& local_conversation_id,
    const std::string& conversation_id) {
  auto message = std::make_shared<UserMessage>();
  message->local_message_id = input.local_message_id;
  message->section = input.section;
  message->content = input.content;
  message->context = input.context;
  message->tool_result = input.tool_result;
  message->action = input.action;
  message->reply_message_id = input.reply_message_id;

  auto wrapper = std::make_shared<UserMessageWrapper>(std::move(message));
  wrapper->uplink_.extra = input.extra;
  wrapper->is_complete_ = input.is_complete.value_or(true);
  auto& envelope = wrapper->envelope();
  envelope.local_conversation_id = local_conversation_id;
  envelope.conversation_id = conversation_id;
  envelope.extra = input.extra;
  if (input.section) {
    wrapper->setSectionIds(input.section->section_id, input.section->local_section_id);
  }
  return wrapper;
}

void UserMessageWrapper::sync() {
  if (!message_) return;
  if (message_->local_message_id.empty()) {
    message_->local_message_id = generateUniqueId();
  } else {
    ORVI_LOGI("user message(%s) has already message id, skip generate",
              message_->local_message_id.c_str());
  }
  if (message_->action) {
    ORVI_LOGI("user message(%s) action(%s) section_id(%s)", message_->local_message_id.c_str(),
              message_->action->c_str(), sectionId().c_str());
  }
  envelope().local_message_id = message_->local_message_id;
  envelope().message_id = message_->message_id;
  uplink_ = uplink();
}

idl::UplinkMessage UserMessageWrapper::uplink() const {
  idl::UplinkMessage uplink = uplink_;
  const MessageEnvelope& ids = envelope();
  uplink.conversation_id = ids.conversation_id;
  uplink.local_conversation_id = ids.local_conversation_id;
  uplink.section_id = ids.section_id;
  uplink.local_section_id = ids.local_section_id;
  if (!message_) return uplink;

  idl::Message wire;
  wire.message_id = message_->message_id;
  wire.local_message_id = message_->local_message_id;
  wire.role = idl::Role::User;
  if (message_->content) wire.content = toWire(*message_->content);
  if (message_->tool_result) wire.tool_result = toWire(*message_->tool_result);
  wire.create_time = message_->create_time;
  wire.status = static_cast<int32_t>(message_->status);
  wire.is_complete = is_complete_;
  uplink.messages = {std::move(wire)};
  uplink.context = message_->context ? toWire(*message_->context) : idl::Context();
  uplink.action = message_->action;
  uplink.reply_message_id = message_->reply_message_id.value_or(std::string());
  return uplink;
}

std::string UserMessageWrapper::marshal() const {
  return idl::toText(uplink());
}

bool UserMessageWrapper::unmarshal(const std::string& text) {
  idl::UplinkMessage uplink;
  if (!readWireText(text, uplink)) return false;
  if (adoptUplink(std::move(uplink))) return true;
  ORVI_LOGE("messages is empty");
  return false;
}

bool UserMessageWrapper::unmarshal(const idl::Json& json) {
  if (adoptUplink(json.get<idl::UplinkMessage>())) return true;
  ORVI_LOGE("messages is empty");
  return false;
}

// Rebuilds the public record from a stored or recovered frame; false when
// the frame holds no message.
bool UserMessageWrapper::adoptUplink(idl::UplinkMessage uplink) {
  if (uplink.messages.empty()) return false;
  uplink_ = std::move(uplink);
  const idl::Message& wire = uplink_.messages.front();
  is_complete_ = wire.is_complete;

  auto message = std::make_shared<UserMessage>();
  message->local_message_id = wire.local_message_id;
  message->message_id = wire.message_id;
  message->section = SectionInfo(uplink_.section_id, uplink_.local_section_id);
  if (wire.content) message->content = fromWire(*wire.content);
  const idl::Context& context = uplink_.context;
  if (context.drafts || context.draft_patch_list || context.refer || context.file_list) {
    message->context = fromWire(context);
  }
  if (wire.tool_result) message->tool_result = fromWire(*wire.tool_result);
  message->status = static_cast<MessageStatus>(wire.status);
  message->action = uplink_.action;
  if (!uplink_.reply_message_id.empty()) message->reply_message_id = uplink_.reply_message_id;
  message->create_time = wire.create_time;
  message_ = std::move(message);

  MessageEnvelope& ids = envelope();
  ids.conversation_id = uplink_.conversation_id;
  ids.local_conversation_id = uplink_.local_conversation_id;
  ids.section_id = uplink_.section_id;
  ids.local_section_id = uplink_.local_section_id;
  ids.message_id = wire.message_id;
  ids.local_message_id = wire.local_message_id;
  ids.extra = uplink_.extra;
  return true;
}

idl::Options& UserMessageWrapper::options() {
  if (!uplink_.options) uplink_.options = idl::Options();
  return *uplink_.options;
}

void UserMessageWrapper::setRunMode(const std::string& run_mode) {
  options().run_mode = run_mode;
}

void UserMessageWrapper::setBabiParams(const std::string& babi_params) {
  options().babi_params = babi_params;
}

}  // namespace orvi
