// The wrapper of a message of the host's own kind. It is handed to the host's
// ICustomMessageHandler and never sent or stored as itself, so marshal gives
// the empty string.
#pragma once

#include <memory>
#include <string>

#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/message_base.h"
#include "orvi/message_types.h"

namespace orvi {

class CustomMessageWrapper : public MessageBase {
 public:
  CustomMessageWrapper() = default;

  MessageKind type() const override { return MessageKind::Custom; }
  void sync() override;
  std::string marshal() const override { return std::string(); }
  bool unmarshal(const std::string& text) override;

  const std::shared_ptr<CustomMessage>& message() const { return message_; }
  const idl::Message& wire() const { return wire_; }

 private:
  idl::Message wire_;
  std::shared_ptr<CustomMessage> message_;
};

}  // namespace orvi
