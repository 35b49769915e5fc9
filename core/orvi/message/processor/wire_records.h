// The JSON records exchanged with the assistant service: conversation frames
// (uplink and downlink) and the bodies of the REST calls. Each record lists
// its keys once, in wire order, in `fields`; wire_json.h holds the reading
// and writing rules they all share. Every record has a reader and a writer,
// so that tests and the emulator can build the server's side too.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orvi/enums.h"
#include "orvi/message/processor/wire_json.h"

namespace orvi {

NLOHMANN_JSON_SERIALIZE_ENUM(ToolCallComposeType, {
                                                      {ToolCallComposeType::Node, "node"},
                                                      {ToolCallComposeType::Cluster, "cluster"},
                                                      {ToolCallComposeType::Draft, "draft"},
                                                  })

NLOHMANN_JSON_SERIALIZE_ENUM(ToolResultStatus, {
                                                   {ToolResultStatus::Succeed, "succeed"},
                                                   {ToolResultStatus::Failed, "failed"},
                                                   {ToolResultStatus::Cancelled, "cancelled"},
                                               })

namespace idl {

enum class Role : int32_t { User = 0, Assistant = 1 };
NLOHMANN_JSON_SERIALIZE_ENUM(Role, {
                                       {Role::User, "user"},
                                       {Role::Assistant, "assistant"},
                                   })

// What the "content" of a downlink frame holds.
enum class RemoteEventType : int32_t { Message = 0, Delta = 1, System = 2, Custom = 3 };
NLOHMANN_JSON_SERIALIZE_ENUM(RemoteEventType, {
                                                  {RemoteEventType::Message, "message"},
                                                  {RemoteEventType::Delta, "delta"},
                                                  {RemoteEventType::System, "system"},
                                                  {RemoteEventType::Custom, "custom"},
                                              })

template <>
struct IsStringEnum<Role> : std::true_type {};
template <>
struct IsStringEnum<RemoteEventType> : std::true_type {};
template <>
struct IsStringEnum<ToolCallComposeType> : std::true_type {};
template <>
struct IsStringEnum<ToolResultStatus> : std::true_type {};

struct MessageContent {
  using IsWireRecord = void;
  std::string payload;
  int32_t content_type = 0;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("payload", s.payload);
    v("content_type", s.content_type);
  }
};

struct ToolCall {
  using IsWireRecord = void;
  std::string name;
  std::string properties;
  ToolCallComposeType compose_type = ToolCallComposeType::Node;
  std::optional<std::vector<std::string>> depends;
  std::optional<std::string> extra;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("name", s.name);
    v("properties", s.properties);
    v("compose_type", s.compose_type);
    v("depends", s.depends);
    v("extra", s.extra);
  }
};

struct ToolCallResult {
  using IsWireRecord = void;
  std::string name;
  std::string result;
  ToolResultStatus status = ToolResultStatus::Succeed;
  std::optional<std::string> err_msg;
  int32_t code = 0;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("name", s.name);
    v("result", s.result);
    v("status", s.status);
    v("err_msg", s.err_msg);
    v("code", s.code);
  }
};

struct ToolResult {
  using IsWireRecord = void;
  std::vector<std::string> patch_list;
  std::vector<ToolCallResult> tool_call_result;
  ToolResultStatus status = ToolResultStatus::Succeed;
  std::optional<std::string> err_msg;
  int32_t code = 0;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("patch_list", s.patch_list, Write::IfNonEmpty);
    v("tool_call_result", s.tool_call_result);
    v("status", s.status);
    v("err_msg", s.err_msg);
    v("code", s.code);
  }
};

// One user or assistant message; also the stored form of a message.
struct Message {
  using IsWireRecord = void;
  std::string message_id;
  std::string local_message_id;
  Role role = Role::User;
  std::optional<MessageContent> content;
  std::optional<std::vector<ToolCall>> tool_calls;
  std::optional<ToolResult> tool_result;
  int64_t create_time = 0;
  std::optional<int64_t> update_time;
  int32_t status = 0;  // a MessageStatus
  bool is_complete = false;
  std::optional<std::string> extra;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("message_id", s.message_id);
    v("local_message_id", s.local_message_id);
    v("role", s.role);
    v("content", s.content);
    v("tool_calls", s.tool_calls);
    v("tool_result", s.tool_result);
    v("create_time", s.create_time);
    v("update_time", s.update_time);
    v("status", s.status);
    v("is_complete", s.is_complete);
    v("extra", s.extra);
  }
};

struct FileInfo {
  using IsWireRecord = void;
  std::string source;
  std::string source_type;  // "vid", "uri" or "url"; see type_converter.h
  int32_t type = 0;
  std::string name;
  std::optional<std::string> meta_data;
  std::optional<std::string> desc;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("source", s.source);
    v("source_type", s.source_type);
    v("type", s.type);
    v("name", s.name);
    v("meta_data", s.meta_data);
    v("desc", s.desc);
  }
};

struct Context {
  using IsWireRecord = void;
  std::optional<std::vector<std::string>> drafts;
  std::optional<std::vector<std::string>> draft_patch_list;
  std::optional<std::string> refer;
  std::optional<std::vector<FileInfo>> file_list;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("drafts", s.drafts);
    v("draft_patch_list", s.draft_patch_list);
    v("refer", s.refer);
    v("file_list", s.file_list);
  }
};

struct Options {
  using IsWireRecord = void;
  std::optional<std::string> run_mode;  // "callee" or "caller"
  std::optional<std::string> babi_params;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("run_mode", s.run_mode);
    v("babi_params", s.babi_params);
  }
};

// The frame sent for a user message; also the stored form of one.
struct UplinkMessage {
  using IsWireRecord = void;
  std::string conversation_id;
  std::string local_conversation_id;
  std::string reply_message_id;
  std::string section_id;
  std::string local_section_id;
  std::vector<Message> messages;
  Context context;
  std::optional<std::string> action;
  std::optional<std::string> extra;
  std::optional<Options> options;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("conversation_id", s.conversation_id);
    v("local_conversation_id", s.local_conversation_id);
    v("reply_message_id", s.reply_message_id);
    v("section_id", s.section_id);
    v("local_section_id", s.local_section_id);
    v("messages", s.messages);
    v("context", s.context);
    v("action", s.action);
    v("extra", s.extra);
    v("options", s.options);
  }
};

struct Compression {
  using IsWireRecord = void;
  std::string algo;  // only "gzip" is understood
  std::optional<std::string> messages;
  std::optional<std::string> context;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("algo", s.algo);
    v("messages", s.messages);
    v("context", s.context);
  }
};

// Every frame the service pushes.
struct DownlinkMessage {
  using IsWireRecord = void;
  std::string conversation_id;
  std::string local_conversation_id;
  std::string section_id;
  std::string local_section_id;
  RemoteEventType event = RemoteEventType::Message;
  std::string content;  // JSON text by event; Base64 of gzip when compressed
  std::optional<int64_t> server_time;
  std::optional<std::string> extra;
  std::optional<Compression> compression;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("conversation_id", s.conversation_id);
    v("local_conversation_id", s.local_conversation_id);
    v("section_id", s.section_id);
    v("local_section_id", s.local_section_id);
    v("event", s.event);
    v("content", s.content);
    v("server_time", s.server_time);
    v("extra", s.extra);
    v("compression", s.compression);
  }
};

// An incremental change to an assistant message.
struct DeltaContent {
  using IsWireRecord = void;
  std::string message_id;
  std::string json_patch;  // a JSON Patch array as text

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("message_id", s.message_id);
    v("json_patch", s.json_patch);
  }
};

struct SystemContent {
  using IsWireRecord = void;
  int32_t code = 0;
  std::string msg;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("code", s.code);
    v("msg", s.msg);
  }
};

// REST bodies.

struct BaseResponse {
  using IsWireRecord = void;
  std::string ret;  // "0" means success
  std::string err_msg;
  int64_t server_time = 0;
  std::string log_id;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("ret", s.ret);
    v("err_msg", s.err_msg);
    v("server_time", s.server_time);
    v("log_id", s.log_id);
  }
};

struct ConversationInfo {
  using IsWireRecord = void;
  std::string local_conversation_id;
  std::string conversation_id;
  int64_t create_time = 0;
  int64_t update_time = 0;
  std::string name;
  int32_t msg_count = 0;
  std::string extra;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("local_conversation_id", s.local_conversation_id);
    v("conversation_id", s.conversation_id);
    v("create_time", s.create_time);
    v("update_time", s.update_time);
    v("name", s.name);
    v("msg_count", s.msg_count);
    v("extra", s.extra);
  }
};

struct ConversationListRequest {
  using IsWireRecord = void;
  std::string cursor;
  int32_t count = 0;
  bool create_time_desc = false;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("cursor", s.cursor);
    v("count", s.count);
    v("create_time_desc", s.create_time_desc);
  }
};

struct ConversationListData {
  using IsWireRecord = void;
  std::vector<ConversationInfo> conversation_list;
  bool has_more = false;
  std::string next_cursor;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("conversation_list", s.conversation_list);
    v("has_more", s.has_more);
    v("next_cursor", s.next_cursor);
  }
};

struct ConversationListResponse {
  using IsWireRecord = void;
  std::string ret;
  std::string err_msg;
  std::string log_id;
  ConversationListData data;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("ret", s.ret);
    v("err_msg", s.err_msg);
    v("log_id", s.log_id);
    v("data", s.data);
  }
};

struct MessageBatchDeleteRequest {
  using IsWireRecord = void;
  std::string conversation_id;
  std::vector<std::string> message_ids;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("conversation_id", s.conversation_id);
    v("message_ids", s.message_ids, Write::IfNonEmpty);
  }
};

struct ConversationBatchDeleteRequest {
  using IsWireRecord = void;
  std::vector<std::string> conversation_ids;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("conversation_ids", s.conversation_ids);
  }
};

struct RecoverSectionRequest {
  using IsWireRecord = void;
  std::string conversation_id;
  std::string section_id;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("conversation_id", s.conversation_id);
    v("section_id", s.section_id);
  }
};

struct RecoverSectionsRequest {
  using IsWireRecord = void;
  std::string conversation_id;
  std::string cursor;
  int32_t count = 0;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("conversation_id", s.conversation_id);
    v("cursor", s.cursor);
    v("count", s.count);
  }
};

// One message of a recovered section.
struct RecoverMessage {
  using IsWireRecord = void;
  std::string message_id;
  std::string reply_message_id;
  std::string local_message_id;
  std::string conversation_id;
  std::string section_id;
  std::string local_section_id;
  Role role = Role::User;
  std::optional<std::string> action;
  std::optional<MessageContent> content;
  std::optional<std::vector<ToolCall>> tool_calls;
  std::optional<ToolResult> tool_result;
  int64_t create_time = 0;
  std::optional<int64_t> update_time;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("message_id", s.message_id);
    v("reply_message_id", s.reply_message_id);
    v("local_message_id", s.local_message_id);
    v("conversation_id", s.conversation_id);
    v("section_id", s.section_id);
    v("local_section_id", s.local_section_id);
    v("role", s.role);
    v("action", s.action);
    v("content", s.content);
    v("tool_calls", s.tool_calls);
    v("tool_result", s.tool_result);
    v("create_time", s.create_time);
    v("update_time", s.update_time);
  }
};

struct RecoverSectionData {
  using IsWireRecord = void;
  RecoverStatus status = RecoverStatus::Completed;
  std::optional<SystemContent> finish_system_message;
  std::vector<RecoverMessage> message_list;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("status", s.status);
    v("finish_system_message", s.finish_system_message);
    v("message_list", s.message_list);
  }
};

// Note "errmsg": the recover replies spell it without the underscore.
struct RecoverSectionResponse {
  using IsWireRecord = void;
  std::string ret;
  std::string errmsg;
  std::string log_id;
  RecoverSectionData data;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("ret", s.ret);
    v("errmsg", s.errmsg);
    v("log_id", s.log_id);
    v("data", s.data);
  }
};

struct RecoverSectionsData {
  using IsWireRecord = void;
  std::vector<RecoverSectionData> section_list;
  bool has_more = false;
  std::string next_cursor;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("section_list", s.section_list);
    v("has_more", s.has_more);
    v("next_cursor", s.next_cursor);
  }
};

struct RecoverSectionsResponse {
  using IsWireRecord = void;
  std::string ret;
  std::string errmsg;
  std::string log_id;
  RecoverSectionsData data;

  template <typename Self, typename V>
  static void fields(Self& s, V&& v) {
    v("ret", s.ret);
    v("errmsg", s.errmsg);
    v("log_id", s.log_id);
    v("data", s.data);
  }
};

}  // namespace idl
}  // namespace orvi
