// The wrapper of a "message" frame's content: the wire message the server
// sent and the public AssistantMessage built from it once. Streamed deltas
// change the public record; marshal writes the message as it stands now.
//
// The same frame kind also carries the server's acknowledgement of a user
// message (the message echoed back with role "user"). unmarshal notes the
// role as written, and the message processor decides from it what the frame
// is (see MessageProcessor::_parseRemoteMessage).
#pragma once

#include <memory>
#include <string>

#include "orvi/message/engine/streaming_document.h"
#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/message_base.h"
#include "orvi/message_types.h"

namespace orvi {

class AssistantMessageWrapper : public MessageBase {
 public:
  // The content's "role" as the text gave it (an absent or unknown role
  // reads as "user" in the wire record, so the record alone cannot tell).
  enum class RoleText { Absent, User, Assistant, Other };

  AssistantMessageWrapper() = default;

  MessageKind type() const override { return MessageKind::Assistant; }
  // Builds the public record once; later calls leave it as it is.
  void sync() override;
  std::string marshal() const override;
  bool unmarshal(const std::string& text) override;

  const std::shared_ptr<AssistantMessage>& message() const { return message_; }
  // A new record starts a new streaming document.
  void setMessage(std::shared_ptr<AssistantMessage> message) {
    message_ = std::move(message);
    streaming_document_.reset();
  }
  const idl::Message& wire() const { return wire_; }
  RoleText roleText() const { return role_text_; }
  // An acknowledgement settles a sent user message; it is not an answer and
  // has no public record.
  bool isAcknowledgement() const { return acknowledgement_; }
  void markAcknowledgement() { acknowledgement_ = true; }
  // The parsed payload kept for delta patching (MessageEngine::patch), which
  // guards it with the engine's lock.
  StreamingDocument& streamingDocument() { return streaming_document_; }

 private:
  idl::Message wire_;
  RoleText role_text_ = RoleText::Absent;
  bool acknowledgement_ = false;
  StreamingDocument streaming_document_;
  std::shared_ptr<AssistantMessage> message_;
};

}  // namespace orvi
