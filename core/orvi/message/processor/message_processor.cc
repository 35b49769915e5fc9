#include "orvi/message/processor/message_processor.h"

#include <exception>

#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/custom_message_wrapper.h"
#include "orvi/message/wrapper/delta_message_wrapper.h"
#include "orvi/message/wrapper/system_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "orvi/utils/json_error.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

// decompressEx's code for output past its limit.
constexpr int kInflatedPastLimit = -5;

bool isRemoteFrame(const idl::Json& json) {
  return json.is_object() && (json.contains("event") || json.contains("content"));
}

// A REST body too long to be worth parsing is refused before the parser
// builds a tree several times its size.
bool replyWithinLimit(const std::string& body) {
  if (body.size() <= kMaxReplyBytes) return true;
  ORVI_LOGE("Refused a REST reply of %zu bytes, longer than the limit of %zu bytes", body.size(),
            kMaxReplyBytes);
  return false;
}

// Parses a REST reply body into its record; false (logged) on a JSON error
// or a body over the limit.
template <typename Record>
bool readReply(const std::string& body, Record& record) {
  if (!replyWithinLimit(body)) return false;
  try {
    record = idl::fromText<Record>(body);
    return true;
  } catch (const std::exception& e) {
    ORVI_LOG_JSON_ERROR(e, body);
    return false;
  }
}

idl::DownlinkMessage frameOf(const MessageBase& message, idl::RemoteEventType event) {
  const MessageEnvelope& ids = message.envelope();
  idl::DownlinkMessage frame;
  frame.conversation_id = ids.conversation_id;
  frame.local_conversation_id = ids.local_conversation_id;
  frame.section_id = ids.section_id;
  frame.local_section_id = ids.local_section_id;
  frame.event = event;
  frame.content = message.marshal();
  if (ids.server_time != 0) frame.server_time = ids.server_time;
  frame.extra = ids.extra;
  return frame;
}

template <typename Wrapper>
const Wrapper* downcast(const MessagePtr& message, const char* what) {
  const auto* wrapper = dynamic_cast<const Wrapper*>(message.get());
  if (!wrapper) ORVI_LOGE("dynamic cast failed, %s message wrapper is invalid.", what);
  return wrapper;
}

MessageRecord recordOf(const MessageBase& message, std::string content, int64_t create_time,
                       int64_t update_time, int32_t status) {
  const MessageEnvelope& ids = message.envelope();
  return MessageRecord(ids.local_conversation_id, ids.conversation_id, ids.local_section_id,
                       ids.section_id, ids.local_message_id, ids.message_id,
                       messageKindName(message.type()), create_time, update_time,
                       std::to_string(status), std::move(content));
}

}  // namespace

MessagePtr MessageProcessor::parse(const std::string& text, size_t max_frame_bytes) {
  if (text.size() > max_frame_bytes) {
    ORVI_LOGE("Refused a frame of %zu bytes, longer than the limit of %zu bytes", text.size(),
              max_frame_bytes);
    return nullptr;
  }
  return _parseWithin(text, max_frame_bytes);
}

MessagePtr MessageProcessor::parse(const std::string& text) {
  return _parseWithin(text, kDefaultMaxDownlinkFrameBytes);
}

MessagePtr MessageProcessor::_parseWithin(const std::string& text, size_t max_inflated_bytes) {
  try {
    const idl::Json json = parseUntrustedJson(text);
    if (!isRemoteFrame(json)) return _parseLocalMessage(json);
    auto frame = json.get<idl::DownlinkMessage>();
    if (frame.compression &&
        !_unCompressContent(frame.content, *frame.compression, max_inflated_bytes)) {
      return nullptr;
    }
    return _parseRemoteMessage(frame);
  } catch (const std::exception& e) {
    // The text as it came: a tree printed back could be huge, and would not
    // show what the sender sent.
    ORVI_LOG_JSON_ERROR(e, text);
    return nullptr;
  }
}

MessagePtr MessageProcessor::_parseLocalMessage(const idl::Json& json) {
  auto wrapper = std::make_shared<UserMessageWrapper>();
  if (!wrapper->unmarshal(json)) return nullptr;
  ORVI_LOGD(
      "Parse local message: conversation_id=%s, local_conversation_id=%s, section_id=%s, "
      "local_section_id=%s",
      wrapper->envelope().conversation_id.c_str(),
      wrapper->envelope().local_conversation_id.c_str(), wrapper->sectionId().c_str(),
      wrapper->localSectionId().c_str());
  return wrapper;
}

MessagePtr MessageProcessor::_parseRemoteMessage(const idl::DownlinkMessage& frame) {
  MessagePtr wrapper;
  switch (frame.event) {
    case idl::RemoteEventType::Message: {
      auto message = std::make_shared<AssistantMessageWrapper>();
      // A frame without content still names the message's ids and time.
      if (!frame.content.empty()) {
        if (!message->unmarshal(frame.content)) return nullptr;
        _classifyMessage(*message);
      }
      wrapper = message;
      break;
    }
    case idl::RemoteEventType::Delta:
      wrapper = std::make_shared<DeltaMessageWrapper>();
      if (!wrapper->unmarshal(frame.content)) return nullptr;
      break;
    case idl::RemoteEventType::System:
      wrapper = std::make_shared<SystemMessageWrapper>();
      if (!wrapper->unmarshal(frame.content)) return nullptr;
      wrapper->sync();
      break;
    case idl::RemoteEventType::Custom:
      wrapper = std::make_shared<CustomMessageWrapper>();
      if (!frame.content.empty() && !wrapper->unmarshal(frame.content)) return nullptr;
      break;
    default:
      ORVI_LOGE("Unknown remote event type: %d", static_cast<int>(frame.event));
      return nullptr;
  }

  MessageEnvelope& ids = wrapper->envelope();
  ids.server_time = frame.server_time.value_or(0);
  ids.conversation_id = frame.conversation_id;
  ids.local_conversation_id = frame.local_conversation_id;
  ids.section_id = frame.section_id;
  ids.local_section_id = frame.local_section_id;
  if (frame.extra) ids.extra = frame.extra;
  ORVI_LOGD(
      "Parse remote message: type=%d, conversation_id=%s, local_conversation_id=%s, "
      "section_id=%s, local_section_id=%s, extra=%s",
      static_cast<int>(wrapper->type()), ids.conversation_id.c_str(),
      ids.local_conversation_id.c_str(), ids.section_id.c_str(), ids.local_section_id.c_str(),
      ids.extra.value_or(std::string()).c_str());
  return wrapper;
}

// A "message" frame is the server's answer unless its content names the
// role "user": then it is the server's acknowledgement of a user message,
// which echoes that message back. A content without "role" is an answer
// too. A role that is neither gets no public record, so the conversation
// refuses it as an invalid assistant message, as it refuses a frame with no
// content at all.
void MessageProcessor::_classifyMessage(AssistantMessageWrapper& message) {
  using RoleText = AssistantMessageWrapper::RoleText;
  switch (message.roleText()) {
    case RoleText::User: message.markAcknowledgement(); return;
    case RoleText::Assistant:
    case RoleText::Absent: message.sync(); return;
    case RoleText::Other: return;
  }
}

bool MessageProcessor::_unCompressContent(std::string& content, const idl::Compression& compression,
                                          size_t max_bytes) {
  if (compression.algo.empty()) {
    ORVI_LOGW("Compression algo is empty");
    return true;
  }
  if (compression.algo != "gzip") {
    ORVI_LOGW("Unsupported compression algo: %s", compression.algo.c_str());
    return true;
  }
  const size_t original = content.size();
  content = utils::base64Decode(content);
  const int ret = utils::decompressEx(content, max_bytes);
  if (ret > 0) {
    ORVI_LOGI("Successfully uncompress content, original size: %zu, uncompressed size: %zu",
              original, content.size());
    return true;
  }
  ORVI_LOGE("Failed to uncompress content, ret: %d", ret);
  if (ret != kInflatedPastLimit) return true;  // what is left fails to read, and says so
  ORVI_LOGE("Refused a compressed frame: its content inflates past the limit of %zu bytes",
            max_bytes);
  return false;
}

bool MessageProcessor::isMatchAssistantMessage(const std::string& text,
                                               const std::string& message_id) {
  try {
    const idl::Json json = parseUntrustedJson(text);
    if (!isRemoteFrame(json)) return false;
    const auto content = json.find("content");
    if (content == json.end() || !content->is_object()) return false;
    const auto role = content->find("role");
    const auto id = content->find("message_id");
    return role != content->end() && *role == "assistant" && id != content->end() &&
           id->is_string() && id->get_ref<const std::string&>() == message_id;
  } catch (const std::exception& e) {
    ORVI_LOG_JSON_ERROR(e, text);
    return false;
  }
}

MessageRecord MessageProcessor::message2Record(const MessagePtr& message) {
  if (!message) return MessageRecord();
  const MessageEnvelope& ids = message->envelope();
  switch (message->type()) {
    case MessageKind::User: {
      const auto* user = downcast<UserMessageWrapper>(message, "user");
      if (!user) return MessageRecord();
      if (!user->message()) {
        ORVI_LOGE(
            "user message wrapper message is empty. local_conversation_id: %s, "
            "local_section_id: %s",
            ids.local_conversation_id.c_str(), ids.local_section_id.c_str());
        return MessageRecord();
      }
      const idl::UplinkMessage uplink = user->uplink();
      if (uplink.messages.empty()) {
        ORVI_LOGE(
            "user message wrapper messages is empty. local_conversation_id: %s, "
            "local_section_id: %s",
            ids.local_conversation_id.c_str(), ids.local_section_id.c_str());
        return MessageRecord();
      }
      const UserMessage& record = *user->message();
      return recordOf(*user, idl::toText(uplink), record.create_time, record.create_time,
                      static_cast<int32_t>(record.status));
    }
    case MessageKind::Assistant: {
      const auto* assistant = downcast<AssistantMessageWrapper>(message, "assistant");
      if (!assistant) return MessageRecord();
      const auto& record = assistant->message();
      const int64_t created = record ? record->create_time : assistant->wire().create_time;
      const int64_t updated = record ? record->update_time : created;
      const int32_t status = record ? static_cast<int32_t>(record->status) : 0;
      idl::DownlinkMessage frame = frameOf(*assistant, idl::RemoteEventType::Message);
      // A frame that named only ids is stored as such, so it reads back the same.
      if (!record) frame.content.clear();
      return recordOf(*assistant, idl::toText(frame), created, updated, status);
    }
    case MessageKind::Delta: {
      if (!downcast<DeltaMessageWrapper>(message, "delta")) return MessageRecord();
      const std::string frame = _marshalRemoteMessage(message, idl::RemoteEventType::Delta);
      return recordOf(*message, frame, ids.server_time, ids.server_time, 0);
    }
    case MessageKind::System: {
      if (!downcast<SystemMessageWrapper>(message, "system")) return MessageRecord();
      const std::string frame = _marshalRemoteMessage(message, idl::RemoteEventType::System);
      return recordOf(*message, frame, ids.server_time, ids.server_time, 0);
    }
    case MessageKind::Custom:
      // Custom messages are handed to the host's handler, never stored as
      // themselves; what the handler makes of them is stored as an
      // assistant message.
      downcast<CustomMessageWrapper>(message, "custom");
      return MessageRecord();
  }
  ORVI_LOGE("unexpected message type: %d", static_cast<int>(message->type()));
  return MessageRecord();
}

std::string MessageProcessor::_marshalRemoteMessage(const MessagePtr& message,
                                                    idl::RemoteEventType event) {
  if (event != idl::RemoteEventType::Delta && event != idl::RemoteEventType::System) {
    ORVI_LOGE("remote message event type is invalid for marshal, event: %d",
              static_cast<int>(event));
    return std::string();
  }
  return idl::toText(frameOf(*message, event));
}

MessagePtr MessageProcessor::_wrapRecoveredMessage(const idl::RecoverMessage& recovered) {
  idl::Message message;
  message.message_id = recovered.message_id;
  message.local_message_id = recovered.local_message_id;
  message.role = recovered.role;
  message.content = recovered.content;
  message.tool_calls = recovered.tool_calls;
  message.tool_result = recovered.tool_result;
  message.create_time = recovered.create_time;
  message.update_time = recovered.update_time;
  // A recovered message is a finished one.
  message.status = static_cast<int32_t>(MessageStatus::Completed);
  message.is_complete = true;

  if (recovered.role == idl::Role::User) {
    idl::UplinkMessage uplink;
    uplink.conversation_id = recovered.conversation_id;
    uplink.reply_message_id = recovered.reply_message_id;
    uplink.section_id = recovered.section_id;
    uplink.local_section_id = recovered.local_section_id;
    uplink.action = recovered.action;
    uplink.messages.push_back(std::move(message));
    idl::Json json;
    idl::detail::writeValue(json, uplink);
    return _parseLocalMessage(json);
  }
  idl::DownlinkMessage frame;
  frame.conversation_id = recovered.conversation_id;
  frame.section_id = recovered.section_id;
  frame.local_section_id = recovered.local_section_id;
  frame.event = idl::RemoteEventType::Message;
  frame.content = idl::toText(message);
  return _parseRemoteMessage(frame);
}

RecoveredSection MessageProcessor::_toRecoveredSection(const idl::RecoverSectionData& data) {
  RecoveredSection section;
  section.status = data.status;
  for (const auto& recovered : data.message_list) {
    if (auto wrapper = _wrapRecoveredMessage(recovered)) section.messages.push_back(wrapper);
  }
  if (data.finish_system_message) {
    auto finish = std::make_shared<SystemMessageWrapper>();
    if (finish->unmarshal(idl::toText(*data.finish_system_message))) {
      finish->sync();
      if (!section.messages.empty()) {
        const MessageEnvelope& ids = section.messages.back()->envelope();
        finish->envelope().conversation_id = ids.conversation_id;
        finish->setSectionIds(ids.section_id, ids.local_section_id);
      }
      section.finish_system_message = finish;
    }
  }
  return section;
}

RecoverSectionResult MessageProcessor::recoverSection(const std::string& body) {
  RecoverSectionResult result;
  idl::RecoverSectionResponse reply;
  if (!readReply(body, reply)) return result;
  ORVI_LOGI("Recover section, ret: %s, errmsg: %s, log_id: %s", reply.ret.c_str(),
            reply.errmsg.c_str(), reply.log_id.c_str());
  if (reply.ret != "0") return result;
  try {
    result.section = _toRecoveredSection(reply.data);
    result.valid = true;
  } catch (const std::exception& e) {
    ORVI_LOG_JSON_ERROR(e, body);
    result = RecoverSectionResult();
  }
  return result;
}

RecoverSectionsResult MessageProcessor::recoverSections(const std::string& body) {
  RecoverSectionsResult result;
  idl::RecoverSectionsResponse reply;
  if (!readReply(body, reply)) return result;
  ORVI_LOGI(
      "Recover sections, ret: %s, errmsg: %s, log_id: %s, section size: %zu, has_more: %d, "
      "next_cursor: %s",
      reply.ret.c_str(), reply.errmsg.c_str(), reply.log_id.c_str(), reply.data.section_list.size(),
      reply.data.has_more ? 1 : 0, reply.data.next_cursor.c_str());
  if (reply.ret != "0") return result;
  try {
    for (const auto& data : reply.data.section_list) {
      result.sections.push_back(_toRecoveredSection(data));
    }
  } catch (const std::exception& e) {
    ORVI_LOG_JSON_ERROR(e, body);
    return RecoverSectionsResult();
  }
  result.valid = true;
  result.has_more = reply.data.has_more;
  result.next_cursor = reply.data.next_cursor;
  return result;
}

ConversationListInfo MessageProcessor::parseConversationListResp(const std::string& body) {
  ConversationListInfo page;
  if (!replyWithinLimit(body)) {
    page.error = ErrorInfo("-1", "reply longer than " + std::to_string(kMaxReplyBytes) + " bytes");
    return page;
  }
  idl::ConversationListResponse reply;
  try {
    reply = idl::fromText<idl::ConversationListResponse>(body);
  } catch (const std::exception& e) {
    ORVI_LOGE("Error: %s, original json error.", e.what());
    page.error = ErrorInfo("-1", e.what());
    return page;
  }
  if (reply.ret != "0") {
    ORVI_LOGE("conversation list response invalid, ret: %s, err_msg: %s, log_id: %s",
              reply.ret.c_str(), reply.err_msg.c_str(), reply.log_id.c_str());
    page.error = ErrorInfo(reply.ret, reply.err_msg);
    return page;
  }
  ORVI_LOGI(
      "conversation list parse, ret: %s, err_msg: %s, log_id: %s, has_more: %d, next_cursor: %s",
      reply.ret.c_str(), reply.err_msg.c_str(), reply.log_id.c_str(), reply.data.has_more ? 1 : 0,
      reply.data.next_cursor.c_str());
  for (const auto& info : reply.data.conversation_list) {
    page.conversations.emplace_back(info.local_conversation_id, info.conversation_id, info.name,
                                    info.create_time, info.update_time, info.msg_count, info.extra);
  }
  page.has_more = reply.data.has_more;
  page.next_cursor = reply.data.next_cursor;
  return page;
}

bool MessageProcessor::parseConversationMsgDeleteResp(const std::string& body) {
  return _parseDeleteResp(body);
}

bool MessageProcessor::parseConversationBatchDeleteResp(const std::string& body) {
  return _parseDeleteResp(body);
}

bool MessageProcessor::_parseDeleteResp(const std::string& body) {
  idl::BaseResponse reply;
  if (!readReply(body, reply)) return false;
  ORVI_LOGI("Delete messages, ret: %s, errmsg: %s, log_id: %s", reply.ret.c_str(),
            reply.err_msg.c_str(), reply.log_id.c_str());
  return reply.ret == "0";
}

}  // namespace orvi
