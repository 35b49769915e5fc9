// The wrapper of a delta: the id of the assistant message it changes and a
// JSON Patch array, as text. It has no public record; the message engine
// applies it to its target.
#pragma once

#include <string>

#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/message_base.h"

namespace orvi {

class DeltaMessageWrapper : public MessageBase {
 public:
  DeltaMessageWrapper() = default;

  MessageKind type() const override { return MessageKind::Delta; }
  void sync() override {}
  std::string marshal() const override { return idl::toText(wire_); }
  bool unmarshal(const std::string& text) override;

  const std::string& targetMessageId() const { return wire_.message_id; }
  const std::string& jsonPatch() const { return wire_.json_patch; }

 private:
  idl::DeltaContent wire_;
};

}  // namespace orvi
