// Records of messages and their parts: what the host sends, what it receives,
// and the tool calls and results that travel with them. All are plain values:
// a default constructor that leaves everything empty or zero, one constructor
// taking every field in declaration order, and member-wise copy and move.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvi/enums.h"

namespace orvi {

// One piece of message text; `content` may itself be a JSON document.
struct MessageContent {
  std::string content;
  int32_t content_type = 0;

  MessageContent() = default;
  MessageContent(std::string content, int32_t content_type)
      : content(std::move(content)), content_type(content_type) {}
};

// Identifies one section: one user prompt and the assistant's answer to it.
struct SectionInfo {
  std::string section_id;        // the server's id ("section_id")
  std::string local_section_id;  // made by the library ("local_section_id")

  SectionInfo() = default;
  SectionInfo(std::string section_id, std::string local_section_id)
      : section_id(std::move(section_id)), local_section_id(std::move(local_section_id)) {}
};

// An error as the server reports it.
struct ErrorInfo {
  std::string code;
  std::string message;

  ErrorInfo() = default;
  ErrorInfo(std::string code, std::string message)
      : code(std::move(code)), message(std::move(message)) {}
};

// A file attached to a user message's context.
struct FileInfo {
  int32_t type = 0;       // the file's kind
  std::string source;     // where it is; meaning follows source_type
  FileSourceType source_type = FileSourceType::Vid;
  std::string name;
  std::string meta_data;  // empty: not sent
  std::string desc;       // empty: not sent

  FileInfo() = default;
  FileInfo(int32_t type, std::string source, FileSourceType source_type, std::string name,
           std::string meta_data, std::string desc)
      : type(type),
        source(std::move(source)),
        source_type(source_type),
        name(std::move(name)),
        meta_data(std::move(meta_data)),
        desc(std::move(desc)) {}
};

// Context sent with a user message.
struct Context {
  std::optional<std::vector<std::string>> drafts;
  std::optional<std::vector<std::string>> draft_patch_list;
  std::optional<std::string> refer;
  std::optional<std::vector<FileInfo>> file_list;

  Context() = default;
  Context(std::optional<std::vector<std::string>> drafts,
          std::optional<std::vector<std::string>> draft_patch_list,
          std::optional<std::string> refer, std::optional<std::vector<FileInfo>> file_list)
      : drafts(std::move(drafts)),
        draft_patch_list(std::move(draft_patch_list)),
        refer(std::move(refer)),
        file_list(std::move(file_list)) {}
};

// One tool invocation the assistant asks for. `id` is the host's own handle
// for the call and is not carried on the wire.
struct ToolCall {
  std::string name;
  std::string properties;  // the call's arguments as text
  std::string id;
  ToolCallComposeType compose_type = ToolCallComposeType::Node;
  std::optional<std::vector<std::string>> depends;  // calls this one waits for
  std::optional<std::string> extra;

  ToolCall() = default;
  ToolCall(std::string name, std::string properties, std::string id,
           ToolCallComposeType compose_type, std::optional<std::vector<std::string>> depends,
           std::optional<std::string> extra)
      : name(std::move(name)),
        properties(std::move(properties)),
        id(std::move(id)),
        compose_type(compose_type),
        depends(std::move(depends)),
        extra(std::move(extra)) {}
};

// The result of one tool call, given back by the host. `id` is the host's
// own handle and is not carried on the wire.
struct ToolCallResult {
  std::string name;
  std::string result;
  std::string id;
  ToolResultStatus status = ToolResultStatus::Succeed;
  std::optional<std::string> err_msg;
  int32_t code = 0;

  ToolCallResult() = default;
  ToolCallResult(std::string name, std::string result, std::string id, ToolResultStatus status,
                 std::optional<std::string> err_msg, int32_t code)
      : name(std::move(name)),
        result(std::move(result)),
        id(std::move(id)),
        status(status),
        err_msg(std::move(err_msg)),
        code(code) {}
};

// The tool results of one user turn.
struct ToolResult {
  std::vector<std::string> patch_list;
  std::vector<ToolCallResult> tool_call_result;
  ToolResultStatus status = ToolResultStatus::Succeed;
  std::optional<std::string> err_msg;
  int32_t code = 0;

  ToolResult() = default;
  ToolResult(std::vector<std::string> patch_list, std::vector<ToolCallResult> tool_call_result,
             ToolResultStatus status, std::optional<std::string> err_msg, int32_t code)
      : patch_list(std::move(patch_list)),
        tool_call_result(std::move(tool_call_result)),
        status(status),
        err_msg(std::move(err_msg)),
        code(code) {}
};

// A message from the user.
struct UserMessage {
  std::string local_message_id;  // made by the library unless the host set one
  std::string message_id;        // the server's id, empty until acknowledged
  std::optional<SectionInfo> section;
  std::optional<MessageContent> content;
  std::optional<Context> context;
  std::optional<ToolResult> tool_result;
  MessageStatus status = MessageStatus::Init;
  std::optional<std::string> action;  // absent: a prompt; "cancel"; "retry"
  std::optional<std::string> reply_message_id;
  int64_t create_time = 0;
  MessageSource source = MessageSource::Live;

  UserMessage() = default;
  UserMessage(std::string local_message_id, std::string message_id,
              std::optional<SectionInfo> section, std::optional<MessageContent> content,
              std::optional<Context> context, std::optional<ToolResult> tool_result,
              MessageStatus status, std::optional<std::string> action,
              std::optional<std::string> reply_message_id, int64_t create_time,
              MessageSource source)
      : local_message_id(std::move(local_message_id)),
        message_id(std::move(message_id)),
        section(std::move(section)),
        content(std::move(content)),
        context(std::move(context)),
        tool_result(std::move(tool_result)),
        status(status),
        action(std::move(action)),
        reply_message_id(std::move(reply_message_id)),
        create_time(create_time),
        source(source) {}
};

// A message from the assistant.
struct AssistantMessage {
  std::string message_id;
  MessageStatus status = MessageStatus::Init;
  std::optional<MessageContent> content;
  std::optional<std::vector<ToolCall>> tool_calls;
  std::optional<SectionInfo> section;
  int64_t create_time = 0;
  int64_t update_time = 0;
  MessageSource source = MessageSource::Live;
  std::optional<std::string> extra;

  AssistantMessage() = default;
  AssistantMessage(std::string message_id, MessageStatus status,
                   std::optional<MessageContent> content,
                   std::optional<std::vector<ToolCall>> tool_calls,
                   std::optional<SectionInfo> section, int64_t create_time, int64_t update_time,
                   MessageSource source, std::optional<std::string> extra)
      : message_id(std::move(message_id)),
        status(status),
        content(std::move(content)),
        tool_calls(std::move(tool_calls)),
        section(std::move(section)),
        create_time(create_time),
        update_time(update_time),
        source(source),
        extra(std::move(extra)) {}
};

// A message from the system side, such as "section_complete" or an error.
struct SystemMessage {
  int32_t code = 0;
  std::string msg;
  std::optional<SectionInfo> section;
  MessageSource source = MessageSource::Live;

  SystemMessage() = default;
  SystemMessage(int32_t code, std::string msg, std::optional<SectionInfo> section,
                MessageSource source)
      : code(code), msg(std::move(msg)), section(std::move(section)), source(source) {}
};

// A message of the host's own kind, handled by an ICustomMessageHandler.
struct CustomMessage {
  bool is_complete = false;
  std::string message_id;
  MessageContent content;

  CustomMessage() = default;
  CustomMessage(bool is_complete, std::string message_id, MessageContent content)
      : is_complete(is_complete), message_id(std::move(message_id)), content(std::move(content)) {}
};

// One entry of a mixed list: exactly the member that `type` names is set.
struct ComboMessage {
  MessageType type = MessageType::User;
  std::optional<UserMessage> user_message;
  std::optional<AssistantMessage> assistant_message;
  std::optional<SystemMessage> system_message;

  ComboMessage() = default;
  ComboMessage(MessageType type, std::optional<UserMessage> user_message,
               std::optional<AssistantMessage> assistant_message,
               std::optional<SystemMessage> system_message)
      : type(type),
        user_message(std::move(user_message)),
        assistant_message(std::move(assistant_message)),
        system_message(std::move(system_message)) {}
};

// What the host gives to Conversation::sendMessage, reply, retry and cancel.
struct InputMessage {
  std::string local_message_id;  // empty: the library makes one
  std::optional<MessageContent> content;
  std::optional<Context> context;
  std::optional<ToolResult> tool_result;
  std::optional<std::string> action;
  std::optional<std::string> reply_message_id;
  std::optional<SectionInfo> section;  // the section a reply or retry belongs to
  std::optional<std::string> extra;    // opaque text passed to the server
  std::optional<bool> is_complete;

  InputMessage() = default;
  InputMessage(std::string local_message_id, std::optional<MessageContent> content,
               std::optional<Context> context, std::optional<ToolResult> tool_result,
               std::optional<std::string> action, std::optional<std::string> reply_message_id,
               std::optional<SectionInfo> section, std::optional<std::string> extra,
               std::optional<bool> is_complete)
      : local_message_id(std::move(local_message_id)),
        content(std::move(content)),
        context(std::move(context)),
        tool_result(std::move(tool_result)),
        action(std::move(action)),
        reply_message_id(std::move(reply_message_id)),
        section(std::move(section)),
        extra(std::move(extra)),
        is_complete(is_complete) {}
};

}  // namespace orvi
