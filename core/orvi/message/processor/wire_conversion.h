// Conversions between the public records the host sees and the wire records
// that travel. Enum values the wire cannot express are normalised on the way
// out (see type_converter.h); host-only fields (ToolCall::id) stay behind.
#pragma once

#include <vector>

#include "orvi/message/processor/wire_records.h"
#include "orvi/message_types.h"

namespace orvi {

idl::MessageContent toWire(const MessageContent& content);
MessageContent fromWire(const idl::MessageContent& content);

idl::ToolCall toWire(const ToolCall& call);
ToolCall fromWire(const idl::ToolCall& call);

idl::ToolCallResult toWire(const ToolCallResult& result);
ToolCallResult fromWire(const idl::ToolCallResult& result);

idl::ToolResult toWire(const ToolResult& result);
ToolResult fromWire(const idl::ToolResult& result);

idl::FileInfo toWire(const FileInfo& file);
FileInfo fromWire(const idl::FileInfo& file);

idl::Context toWire(const Context& context);
Context fromWire(const idl::Context& context);

template <typename Wire, typename Public>
std::vector<Wire> toWireList(const std::vector<Public>& items) {
  std::vector<Wire> out;
  out.reserve(items.size());
  for (const auto& item : items) out.push_back(toWire(item));
  return out;
}

template <typename Public, typename Wire>
std::vector<Public> fromWireList(const std::vector<Wire>& items) {
  std::vector<Public> out;
  out.reserve(items.size());
  for (const auto& item : items) out.push_back(fromWire(item));
  return out;
}

}  // namespace orvi
