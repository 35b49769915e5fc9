#include "orvi/message/processor/wire_conversion.h"

#include "orvi/utils/type_converter.h"

namespace orvi {

idl::MessageContent toWire(const MessageContent& content) {
  idl::MessageContent wire;
  wire.payload = content.content;
  wire.content_type = content.content_type;
  return wire;
}

MessageContent fromWire(const idl::MessageContent& content) {
  return MessageContent(content.payload, content.content_type);
}

idl::ToolCall toWire(const ToolCall& call) {
  idl::ToolCall wire;
  wire.name = call.name;
  wire.properties = call.properties;
  wire.compose_type = normalizeComposeType(call.compose_type);
  wire.depends = call.depends;
  wire.extra = call.extra;
  return wire;
}

ToolCall fromWire(const idl::ToolCall& call) {
  return ToolCall(call.name, call.properties, std::string(),
                  normalizeComposeType(call.compose_type), call.depends, call.extra);
}

idl::ToolCallResult toWire(const ToolCallResult& result) {
  idl::ToolCallResult wire;
  wire.name = result.name;
  wire.result = result.result;
  wire.status = normalizeToolResultStatus(result.status);
  wire.err_msg = result.err_msg;
  wire.code = result.code;
  return wire;
}

ToolCallResult fromWire(const idl::ToolCallResult& result) {
  return ToolCallResult(result.name, result.result, std::string(), result.status, result.err_msg,
                        result.code);
}

idl::ToolResult toWire(const ToolResult& result) {
  idl::ToolResult wire;
  wire.patch_list = result.patch_list;
  wire.tool_call_result = toWireList<idl::ToolCallResult>(result.tool_call_result);
  wire.status = normalizeToolResultStatus(result.status);
  wire.err_msg = result.err_msg;
  wire.code = result.code;
  return wire;
}

ToolResult fromWire(const idl::ToolResult& result) {
  return ToolResult(result.patch_list, fromWireList<ToolCallResult>(result.tool_call_result),
                    result.status, result.err_msg, result.code);
}

idl::FileInfo toWire(const FileInfo& file) {
  idl::FileInfo wire;
  wire.source = file.source;
  wire.source_type = fileSourceTypeText(file.source_type);
  wire.type = file.type;
  wire.name = file.name;
  if (!file.meta_data.empty()) wire.meta_data = file.meta_data;
  if (!file.desc.empty()) wire.desc = file.desc;
  return wire;
}

FileInfo fromWire(const idl::FileInfo& file) {
  return FileInfo(file.type, file.source, toFileSourceType(file.source_type), file.name,
                  file.meta_data.value_or(std::string()), file.desc.value_or(std::string()));
}

idl::Context toWire(const Context& context) {
  idl::Context wire;
  wire.drafts = context.drafts;
  wire.draft_patch_list = context.draft_patch_list;
  wire.refer = context.refer;
  if (context.file_list) wire.file_list = toWireList<idl::FileInfo>(*context.file_list);
  return wire;
}

Context fromWire(const idl::Context& context) {
  Context out;
  out.drafts = context.drafts;
  out.draft_patch_list = context.draft_patch_list;
  out.refer = context.refer;
  if (context.file_list) out.file_list = fromWireList<FileInfo>(*context.file_list);
  return out;
}

}  // namespace orvi
