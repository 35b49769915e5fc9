// MessageBase: every message in flight, in either direction, is held in a
// wrapper derived from it and owned through std::shared_ptr<MessageBase>.
// A wrapper carries the message's wire record and, where the message has
// one, the public record the host sees; `sync` brings the two into agreement
// in the direction the message travels.
//
// The envelope (ids, server time, extra) is common to all kinds. Wrappers
// are not thread-safe: the conversation and its engine serialise access.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace orvi {

enum class MessageKind : int32_t {
  User = 0,
  Assistant = 1,
  Delta = 2,
  System = 3,
  Custom = 4,
};

// "user", "assistant", "delta", "system", "custom"; empty for other values.
const char* messageKindName(MessageKind kind);

// Identifiers and metadata of the frame a message came in or goes out with.
struct MessageEnvelope {
  int64_t server_time = 0;
  std::string conversation_id;
  std::string local_conversation_id;
  std::string message_id;
  std::string local_message_id;
  std::string section_id;
  std::string local_section_id;
  std::optional<std::string> extra;
  // Steady-clock milliseconds of when the library took the message in and
  // when it last changed it (streamed deltas); used by tracing.
  int64_t received_at_ms = 0;
  int64_t updated_at_ms = 0;
};

class MessageBase {
 public:
  virtual ~MessageBase();

  // Wrappers alive in the process. A conversation keeps only its current
  // turn, so the count stays flat however long it runs (tests measure it).
  static int64_t liveCount();

  virtual MessageKind type() const = 0;
  // Brings wire and public record into agreement (see each wrapper).
  virtual void sync() = 0;
  // The wire record as compact JSON.
  virtual std::string marshal() const = 0;
  // Fills the wire record from JSON text; false (and a log line) on failure.
  virtual bool unmarshal(const std::string& text) = 0;

  MessageEnvelope& envelope() { return envelope_; }
  const MessageEnvelope& envelope() const { return envelope_; }

  const std::string& sectionId() const { return envelope_.section_id; }
  const std::string& localSectionId() const { return envelope_.local_section_id; }
  void setSectionIds(std::string section_id, std::string local_section_id) {
    envelope_.section_id = std::move(section_id);
    envelope_.local_section_id = std::move(local_section_id);
  }

 protected:
  MessageBase();
  MessageBase(const MessageBase& other);
  MessageBase& operator=(const MessageBase&) = default;

 private:
  MessageEnvelope envelope_;
};

using MessagePtr = std::shared_ptr<MessageBase>;

}  // namespace orvi
