// The wrapper of a system message ("stream_complete", "section_complete",
// errors): the wire code and text, and the public SystemMessage built once.
#pragma once

#include <memory>
#include <string>

#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/message_base.h"
#include "orvi/message_types.h"

namespace orvi {

class SystemMessageWrapper : public MessageBase {
 public:
  SystemMessageWrapper() = default;

  MessageKind type() const override { return MessageKind::System; }
  void sync() override;
  std::string marshal() const override { return idl::toText(wire_); }
  bool unmarshal(const std::string& text) override;

  const std::shared_ptr<SystemMessage>& message() const { return message_; }
  const idl::SystemContent& wire() const { return wire_; }

 private:
  idl::SystemContent wire_;
  std::shared_ptr<SystemMessage> message_;
};

}  // namespace orvi
