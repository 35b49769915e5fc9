// Enumerations of the public API. Each has a fixed 32-bit underlying type and
// a std::hash specialisation so it can key an unordered container.
#pragma once

#include <cstdint>
#include <functional>

namespace orvi {

// The kind of a ComboMessage. Readers skip entries of any other value.
enum class MessageType : int32_t { User = 0, System = 1, Assistant = 2 };

// Lifecycle of a message. Travels on the wire as its number.
enum class MessageStatus : int32_t {
  Init = 0,       // nothing happened yet
  Pending = 1,    // assistant output still streaming
  Completed = 2,  // user message sent / assistant message complete
  Cancelled = 3,  // user message that cancels the turn in progress
  Failed = 4,     // user message the sender refused
};

// Where a message handed to the host came from.
enum class MessageSource : int32_t { Live = 0, LocalHistory = 1, RemoteHistory = 2 };

enum class ToolCallComposeType : int32_t { Node = 0, Cluster = 1, Draft = 2 };

enum class ToolResultStatus : int32_t { Succeed = 0, Failed = 1, Cancelled = 2 };

// State of a section (one prompt and its answers) as ConversationListener
// reports it.
enum class SectionStatus : int32_t {
  Started = 0,    // a new prompt was sent
  OnGoing = 1,    // the answer is streaming
  Completed = 2,  // "section_complete", or a section handed over from history
  Ended = 3,      // closed by another system message
  Failed = 4,
  Cancelled = 5,  // the server acknowledged a cancel
};

// Outcome of a remote section recovery. Values the library does not
// understand are reported as Cancelled.
enum class RecoverStatus : int32_t {
  Completed = 0,  // nothing more to recover
  Started = 1,
  Cancelled = 2,
  Delivered = 3,  // messages were handed to the listener
  Failed = 4,
};

enum class RunMode : int32_t { Default = 0, Callee = 1, Caller = 2 };

enum class SyncInfoType : int32_t { Base = 0, Delta = 1, Reply = 2 };

enum class FileSourceType : int32_t { Vid = 0, Uri = 1, Url = 2 };

// Which REST call an HttpRequest is. The host maps it to a URL.
enum class HttpRequestScene : int32_t {
  RecoverSection = 0,
  RecoverSections = 1,
  ConversationList = 2,
  MessageBatchDelete = 3,
  ConversationBatchDelete = 4,
};

// Every request the library issues uses Post.
enum class HttpMethod : int32_t { Get = 0, Post = 1 };

// Result of waiting for the server's acknowledgement of an uplink message.
enum class AckStatus : int32_t {
  Acked = 0,
  Timeout = 1,   // no acknowledgement in time
  GivenUp = 2,   // no acknowledgement, and no further resend
  Rejected = 3,  // the server acknowledged the message but refused it
};

enum class LogLevel : int32_t { Debug = 0, Info = 1, Warn = 2, Error = 3 };

}  // namespace orvi

#define ORVI_DECLARE_ENUM_HASH(E)                                  \
  template <>                                                      \
  struct hash<orvi::E> {                                           \
    size_t operator()(orvi::E value) const noexcept {              \
      return hash<int32_t>()(static_cast<int32_t>(value));         \
    }                                                              \
  };

namespace std {
ORVI_DECLARE_ENUM_HASH(MessageType)
ORVI_DECLARE_ENUM_HASH(MessageStatus)
ORVI_DECLARE_ENUM_HASH(MessageSource)
ORVI_DECLARE_ENUM_HASH(ToolCallComposeType)
ORVI_DECLARE_ENUM_HASH(ToolResultStatus)
ORVI_DECLARE_ENUM_HASH(SectionStatus)
ORVI_DECLARE_ENUM_HASH(RecoverStatus)
ORVI_DECLARE_ENUM_HASH(RunMode)
ORVI_DECLARE_ENUM_HASH(SyncInfoType)
ORVI_DECLARE_ENUM_HASH(FileSourceType)
ORVI_DECLARE_ENUM_HASH(HttpRequestScene)
ORVI_DECLARE_ENUM_HASH(HttpMethod)
ORVI_DECLARE_ENUM_HASH(AckStatus)
ORVI_DECLARE_ENUM_HASH(LogLevel)
}  // namespace std

#undef ORVI_DECLARE_ENUM_HASH
