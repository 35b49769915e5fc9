#include "rest_service.h"

#include <algorithm>
#include <utility>

#include "inbound_json.h"

namespace orvi {
namespace emulator {
namespace {

using Json = nlohmann::ordered_json;

std::string stringMember(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

int32_t countMember(const Json& object, int32_t fallback) {
  const auto it = object.find("count");
  if (it == object.end() || !it->is_number_integer()) return fallback;
  const int64_t count = it->get<int64_t>();
  return count > 0 && count <= 1000 ? static_cast<int32_t>(count) : fallback;
}

// "0" complete, 1 running, 2 cancelled.
int32_t recoverStatus(SectionState state) {
  switch (state) {
    case SectionState::Complete: return 0;
    case SectionState::Running: return 1;
    case SectionState::Cancelled: return 2;
  }
  return 2;
}

Json messageJson(const Conversation& conversation, const Section& section,
                 const StoredMessage& message) {
  Json json = {{"message_id", message.message_id},
               {"reply_message_id", message.reply_message_id},
               {"local_message_id", message.local_message_id},
               {"conversation_id", conversation.id},
               {"section_id", section.id},
               {"local_section_id", section.local_id},
               {"role", message.assistant ? "assistant" : "user"}};
  if (!message.action.empty()) json["action"] = message.action;
  if (message.assistant) {
    json["content"] = {{"payload", Json{{"text", message.text}}.dump()}, {"content_type", 1}};
    if (!message.tool_calls.is_null()) json["tool_calls"] = message.tool_calls;
  } else {
    for (const char* key : {"content", "tool_result"}) {
      const auto it = message.wire.find(key);
      if (it != message.wire.end() && it->is_object()) json[key] = *it;
    }
  }
  json["create_time"] = message.create_time;
  return json;
}

// A decimal cursor; anything but a number within `size` reads as 0.
size_t offsetOf(const std::string& cursor, size_t size) {
  size_t offset = 0;
  for (const char c : cursor) {
    if (c < '0' || c > '9') return 0;
    offset = offset * 10 + static_cast<size_t>(c - '0');
    if (offset > size) return 0;
  }
  return offset;
}

Json sectionJson(const Conversation& conversation, const Section& section) {
  Json json = {{"status", recoverStatus(section.state)}};
  if (section.state == SectionState::Complete) {
    json["finish_system_message"] = {{"code", 0}, {"msg", "section_complete"}};
  }
  Json list = Json::array();
  for (const auto& message : section.messages) {
    list.push_back(messageJson(conversation, section, message));
  }
  json["message_list"] = std::move(list);
  return json;
}

// The members every reply starts with; "ret" "0" is a success.
Json head(const char* msg_key, const std::string& ret, const std::string& msg,
          const std::string& log_id) {
  return {{"ret", ret}, {msg_key, msg}, {"log_id", log_id}};
}

}  // namespace

RestReply RestService::handle(const std::string& path, const std::string& body) {
  std::string (RestService::*scene)(const std::string&) = nullptr;
  if (path == "/api/recover_section") scene = &RestService::recoverSection;
  if (path == "/api/recover_sections") scene = &RestService::recoverSections;
  if (path == "/api/conversation_list") scene = &RestService::conversationList;
  if (path == "/api/delete_messages") scene = &RestService::deleteMessages;
  if (path == "/api/delete_conversations") scene = &RestService::deleteConversations;
  if (scene == nullptr) return {404, "{\"ret\":\"404\",\"err_msg\":\"no such path\"}"};
  return {200, (this->*scene)(body)};
}

std::string RestService::recoverSection(const std::string& body) {
  const std::string log_id = nextLogId();
  const Json request = parseInbound(body);
  if (!request.is_object()) return head("errmsg", "400", "bad request body", log_id).dump();
  Conversation* conversation = store_.find(stringMember(request, "conversation_id"));
  if (conversation == nullptr || conversation->sections.empty()) {
    return head("errmsg", "404", "unknown conversation", log_id).dump();
  }
  // An empty section id asks for the latest section.
  const std::string section_id = stringMember(request, "section_id");
  const Section* section = section_id.empty() ? &conversation->sections.back()
                                              : conversation->findSection(section_id, "");
  if (section == nullptr) return head("errmsg", "404", "unknown section", log_id).dump();
  Json reply = head("errmsg", "0", "", log_id);
  reply["data"] = sectionJson(*conversation, *section);
  return reply.dump();
}

std::string RestService::recoverSections(const std::string& body) {
  const std::string log_id = nextLogId();
  const Json request = parseInbound(body);
  if (!request.is_object()) return head("errmsg", "400", "bad request body", log_id).dump();
  Conversation* conversation = store_.find(stringMember(request, "conversation_id"));
  if (conversation == nullptr) return head("errmsg", "404", "unknown conversation", log_id).dump();
  // The cursor is the position (from 1, oldest first) of the oldest section
  // already delivered; "0" or empty: none. A page holds the `count` sections
  // before it, oldest first. Positions never move, so sections added while a
  // client pages cause no gap or repeat; and the cursor is a decimal number
  // because the client's history fetch reads it as one.
  const auto& sections = conversation->sections;
  const std::string cursor = stringMember(request, "cursor");
  size_t end = sections.size();
  if (!cursor.empty() && cursor != "0") {
    end = offsetOf(cursor, sections.size());
    if (end == 0) return head("errmsg", "404", "unknown cursor", log_id).dump();
    --end;
  }
  const size_t begin = end - std::min(end, static_cast<size_t>(countMember(request, 10)));
  Json list = Json::array();
  for (size_t i = begin; i < end; ++i) list.push_back(sectionJson(*conversation, sections[i]));
  Json reply = head("errmsg", "0", "", log_id);
  reply["data"] = {{"section_list", std::move(list)},
                   {"has_more", begin > 0},
                   {"next_cursor", begin > 0 ? std::to_string(begin + 1) : std::string()}};
  return reply.dump();
}

std::string RestService::conversationList(const std::string& body) {
  const std::string log_id = nextLogId();
  const Json request = parseInbound(body);
  if (!request.is_object()) return head("err_msg", "400", "bad request body", log_id).dump();
  // The cursor is the offset of the page in the requested order.
  std::vector<const Conversation*> ordered;
  for (const auto& conversation : store_.conversations()) ordered.push_back(&conversation);
  const auto desc = request.find("create_time_desc");
  if (desc != request.end() && desc->is_boolean() && desc->get<bool>()) {
    std::reverse(ordered.begin(), ordered.end());
  }
  const size_t offset = offsetOf(stringMember(request, "cursor"), ordered.size());
  const size_t end = std::min(ordered.size(), offset + countMember(request, 20));
  Json list = Json::array();
  for (size_t i = offset; i < end; ++i) {
    const Conversation& c = *ordered[i];
    list.push_back({{"local_conversation_id", c.local_id},
                    {"conversation_id", c.id},
                    {"create_time", c.create_time},
                    {"update_time", c.update_time},
                    {"name", c.name},
                    {"msg_count", c.messageCount()},
                    {"extra", ""}});
  }
  Json reply = head("err_msg", "0", "", log_id);
  reply["data"] = {{"conversation_list", std::move(list)},
                   {"has_more", end < ordered.size()},
                   {"next_cursor", end < ordered.size() ? std::to_string(end) : std::string()}};
  return reply.dump();
}

std::string RestService::deleteMessages(const std::string& body) {
  const std::string log_id = nextLogId();
  const Json request = parseInbound(body);
  const auto ids = request.is_object() ? request.find("message_ids") : request.end();
  if (!request.is_object() || ids == request.end() || !ids->is_array()) {
    return head("err_msg", "400", "bad request body", log_id).dump();
  }
  Conversation* conversation = store_.find(stringMember(request, "conversation_id"));
  if (conversation == nullptr) return head("err_msg", "404", "unknown conversation", log_id).dump();
  for (const auto& id : *ids) {
    if (!id.is_string()) continue;
    const std::string message_id = id.get<std::string>();
    for (auto& section : conversation->sections) {
      auto& messages = section.messages;
      messages.erase(
          std::remove_if(messages.begin(), messages.end(),
                         [&](const StoredMessage& m) { return m.message_id == message_id; }),
          messages.end());
    }
  }
  Json reply = {{"ret", "0"}, {"err_msg", ""}, {"server_time", now_ms_()}, {"log_id", log_id}};
  return reply.dump();
}

std::string RestService::deleteConversations(const std::string& body) {
  const std::string log_id = nextLogId();
  const Json request = parseInbound(body);
  const auto ids = request.is_object() ? request.find("conversation_ids") : request.end();
  if (!request.is_object() || ids == request.end() || !ids->is_array()) {
    return head("err_msg", "400", "bad request body", log_id).dump();
  }
  // Every known one is deleted; one unknown id fails the call.
  bool all_known = true;
  for (const auto& id : *ids) {
    all_known = id.is_string() && store_.erase(id.get<std::string>()) && all_known;
  }
  if (!all_known) return head("err_msg", "404", "unknown conversation", log_id).dump();
  Json reply = {{"ret", "0"}, {"err_msg", ""}, {"server_time", now_ms_()}, {"log_id", log_id}};
  return reply.dump();
}

std::string RestService::nextLogId() {
  return "L" + std::to_string(++last_log_id_);
}

}  // namespace emulator
}  // namespace orvi
