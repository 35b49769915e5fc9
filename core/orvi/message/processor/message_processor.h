// MessageProcessor turns text from the host into message wrappers and public
// records, and wrappers into stored records. It is stateless: every function
// may be called from any thread at once, and every JSON failure is caught,
// logged with the offending text and turned into an empty result, so a bad
// frame never escapes to the caller.
//
// Everything it reads is outside input: nesting is bounded by
// parseUntrustedJson, live frames and their inflated content by the
// conversation's max_downlink_frame_bytes, REST replies by kMaxReplyBytes
// (docs/hostile-input.md).
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvi/conversation_types.h"
#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/message_base.h"

namespace orvi {

class AssistantMessageWrapper;
// The default cap on a live downlink frame, and on its content once inflated.
constexpr size_t kDefaultMaxDownlinkFrameBytes = 16u << 20;
// REST reply bodies longer than this are refused unread.
constexpr size_t kMaxReplyBytes = 64u << 20;

// One section brought back from the server: its messages as wrappers, in
// the server's order, and the system message that closed it, if any.
struct RecoveredSection {
  RecoverStatus status = RecoverStatus::Completed;
  std::vector<MessagePtr> messages;
  MessagePtr finish_system_message;
};

struct RecoverSectionResult {
  bool valid = false;  // the reply parsed and its "ret" was "0"
  RecoveredSection section;
};

struct RecoverSectionsResult {
  bool valid = false;
  bool has_more = false;
  std::string next_cursor;
  std::vector<RecoveredSection> sections;
};

class MessageProcessor {
 public:
  // A frame is remote when it is a JSON object with an "event" or a
  // "content" key, and local (a stored user message) otherwise. Null when
  // nothing usable.
  //
  // A frame the host pushes: refused (null, with an error line) when the
  // text, or its compressed content once inflated, is longer than
  // `max_frame_bytes`.
  static MessagePtr parse(const std::string& text, size_t max_frame_bytes);
  // A frame read back from the store: written by the library, so of any
  // length, but compressed content still inflates to
  // kDefaultMaxDownlinkFrameBytes at most.
  static MessagePtr parse(const std::string& text);

  // Throws the JSON library's type error for a badly typed member.
  static MessagePtr _parseLocalMessage(const idl::Json& json);
  static MessagePtr _parseRemoteMessage(const idl::DownlinkMessage& frame);
  // Replaces Base64-of-gzip content by its plain text; any other algorithm
  // is logged and left alone. False (logged) only when the content would
  // inflate past `max_bytes`: the frame is then refused.
  static bool _unCompressContent(std::string& content, const idl::Compression& compression,
                                 size_t max_bytes = kDefaultMaxDownlinkFrameBytes);

  // Whether `text` is a frame whose "content" object is an assistant message
  // with the given server id.
  static bool isMatchAssistantMessage(const std::string& text, const std::string& message_id);

  // The stored form of a message (docs/record-layout.md). An empty record
  // (empty type) when the message cannot or need not be stored.
  static MessageRecord message2Record(const MessagePtr& message);

  // REST replies; a body longer than kMaxReplyBytes is refused unread.
  static RecoverSectionResult recoverSection(const std::string& body);
  static RecoverSectionsResult recoverSections(const std::string& body);
  // A failed reply comes back with `error` set.
  static ConversationListInfo parseConversationListResp(const std::string& body);
  static bool parseConversationMsgDeleteResp(const std::string& body);
  static bool parseConversationBatchDeleteResp(const std::string& body);

 private:
  static void _classifyMessage(AssistantMessageWrapper& message);
  static std::string _marshalRemoteMessage(const MessagePtr& message, idl::RemoteEventType event);
  static RecoveredSection _toRecoveredSection(const idl::RecoverSectionData& data);
  static MessagePtr _wrapRecoveredMessage(const idl::RecoverMessage& message);
  static bool _parseDeleteResp(const std::string& body);
  static MessagePtr _parseWithin(const std::string& text, size_t max_inflated_bytes);
};

}  // namespace orvi
