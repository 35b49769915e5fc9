// The wrapper of a user message: the public UserMessage the host gave (or
// one rebuilt from a stored frame) and the uplink frame that carries it.
// Frame-only settings (run mode, babi params, completeness, extra) live in
// the uplink record; ids live in the envelope.
#pragma once

#include <memory>
#include <string>

#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/message_base.h"
#include "orvi/message_types.h"

namespace orvi {

class UserMessageWrapper : public MessageBase {
 public:
  // An empty wrapper, to be filled by unmarshal.
  UserMessageWrapper() = default;
  explicit UserMessageWrapper(std::shared_ptr<UserMessage> message);

  // A wrapper for a message the host is sending: the public record is built
  // from `input`, and the frame-only fields are taken over.
  static std::shared_ptr<UserMessageWrapper> fromInput(const InputMessage& input,
                                                       const std::string& local_conversation_id,
                                                       const std::string& conversation_id);

  MessageKind type() const override { return MessageKind::User; }
  // Public record to wire record; gives the message a fresh local message id
  // when it has none.
  void sync() override;
  // The uplink frame as it stands now (ids and public fields included).
  std::string marshal() const override;
  bool unmarshal(const std::string& text) override;
  // As above, from JSON already parsed. A badly typed member throws the
  // JSON library's type error: the caller holds the text the tree came from
  // and logs that, never a re-serialisation of the tree.
  bool unmarshal(const idl::Json& json);

  const std::shared_ptr<UserMessage>& message() const { return message_; }
  // The uplink frame as marshal writes it: the stored wire record with the
  // current ids and public fields applied.
  idl::UplinkMessage uplink() const;

  void setRunMode(const std::string& run_mode);
  void setBabiParams(const std::string& babi_params);

 private:
  bool adoptUplink(idl::UplinkMessage uplink);
  idl::Options& options();

  idl::UplinkMessage uplink_;
  bool is_complete_ = true;
  std::shared_ptr<UserMessage> message_;
};

}  // namespace orvi
