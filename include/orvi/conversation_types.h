// Records of conversations, local history and queries. Plain values like the
// message records: optional settings stay empty here and take their effective
// defaults in the code that reads them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvi/message_types.h"

namespace orvi {

// The options a conversation is opened with. An empty field takes the default
// in its comment when the conversation is created.
struct ConversationOptions {
  std::optional<std::string> name;                                 // empty
  std::optional<bool> enable_tracing_event;                        // false
  std::optional<int32_t> history_message_limited;                  // 50
  std::optional<bool> callback_user_message;                       // true
  std::optional<bool> popup_assistant_message_after_cancel;        // false
  std::optional<bool> enable_sync_user_message_timestamp_by_ack;   // false
  std::optional<bool> block_when_recovering;                       // true
  std::optional<bool> enable_resend;                               // true
  std::optional<int32_t> uplink_message_ack_timeout_ms;            // 5000
  std::optional<int32_t> max_resend_uplink_message_count;          // -1: never resend
  // The longest frame the conversation accepts from the server, and the
  // most its compressed content may inflate to; longer ones are refused
  // with an error line. 16 MiB; 0 or less: the default.
  std::optional<int32_t> max_downlink_frame_bytes;

  ConversationOptions() = default;
  ConversationOptions(std::optional<std::string> name, std::optional<bool> enable_tracing_event,
                      std::optional<int32_t> history_message_limited,
                      std::optional<bool> callback_user_message,
                      std::optional<bool> popup_assistant_message_after_cancel,
                      std::optional<bool> enable_sync_user_message_timestamp_by_ack,
                      std::optional<bool> block_when_recovering, std::optional<bool> enable_resend,
                      std::optional<int32_t> uplink_message_ack_timeout_ms,
                      std::optional<int32_t> max_resend_uplink_message_count,
                      std::optional<int32_t> max_downlink_frame_bytes = std::nullopt)
      : name(std::move(name)),
        enable_tracing_event(enable_tracing_event),
        history_message_limited(history_message_limited),
        callback_user_message(callback_user_message),
        popup_assistant_message_after_cancel(popup_assistant_message_after_cancel),
        enable_sync_user_message_timestamp_by_ack(enable_sync_user_message_timestamp_by_ack),
        block_when_recovering(block_when_recovering),
        enable_resend(enable_resend),
        uplink_message_ack_timeout_ms(uplink_message_ack_timeout_ms),
        max_resend_uplink_message_count(max_resend_uplink_message_count),
        max_downlink_frame_bytes(max_downlink_frame_bytes) {}
};

// The global configuration, given once to ConversationHub::config.
struct OrviConfig {
  std::string cache_path;      // directory of the local history
  int64_t retention_days = 0;  // conversations created longer ago are deleted at start-up
  bool enable_merge = false;   // merge incoming messages into stored ones

  OrviConfig() = default;
  OrviConfig(std::string cache_path, int64_t retention_days, bool enable_merge)
      : cache_path(std::move(cache_path)),
        retention_days(retention_days),
        enable_merge(enable_merge) {}
};

// One conversation as the local history and the server list it.
struct ConversationInfo {
  std::string local_conversation_id;
  std::string conversation_id;  // the server's id; empty until it allocates one
  std::string name;
  int64_t create_time = 0;
  std::optional<int64_t> update_time;
  std::optional<int32_t> message_count;
  std::string extra;

  ConversationInfo() = default;
  ConversationInfo(std::string local_conversation_id, std::string conversation_id,
                   std::string name, int64_t create_time, std::optional<int64_t> update_time,
                   std::optional<int32_t> message_count, std::string extra)
      : local_conversation_id(std::move(local_conversation_id)),
        conversation_id(std::move(conversation_id)),
        name(std::move(name)),
        create_time(create_time),
        update_time(update_time),
        message_count(message_count),
        extra(std::move(extra)) {}
};

// A snapshot of an open conversation's identity.
struct ConversationDetail {
  std::string local_conversation_id;
  std::string conversation_id;
  std::string name;
  std::string section_id;  // the server id of the section in progress, if any

  ConversationDetail() = default;
  ConversationDetail(std::string local_conversation_id, std::string conversation_id,
                     std::string name, std::string section_id)
      : local_conversation_id(std::move(local_conversation_id)),
        conversation_id(std::move(conversation_id)),
        name(std::move(name)),
        section_id(std::move(section_id)) {}
};

// One page of the server's conversation list.
struct ConversationListInfo {
  std::vector<ConversationInfo> conversations;
  bool has_more = false;
  std::string next_cursor;
  std::optional<ErrorInfo> error;

  ConversationListInfo() = default;
  ConversationListInfo(std::vector<ConversationInfo> conversations, bool has_more,
                       std::string next_cursor, std::optional<ErrorInfo> error)
      : conversations(std::move(conversations)),
        has_more(has_more),
        next_cursor(std::move(next_cursor)),
        error(std::move(error)) {}
};

// One page of the local conversation list, as an ISqlExecutor returns it.
struct ConversationListQueryResult {
  std::vector<ConversationInfo> conversations;
  int32_t count = 0;
  bool has_more = false;

  ConversationListQueryResult() = default;
  ConversationListQueryResult(std::vector<ConversationInfo> conversations, int32_t count,
                              bool has_more)
      : conversations(std::move(conversations)), count(count), has_more(has_more) {}
};

// One stored message. docs/record-layout.md says what each column holds;
// `content` is the message's stored frame, which the library parses back.
struct MessageRecord {
  std::string local_conversation_id;
  std::string conversation_id;
  std::string local_section_id;
  std::string section_id;
  std::string local_message_id;
  std::string message_id;
  std::string type;  // "user", "assistant", "delta", "system" or "custom"
  int64_t create_time = 0;
  int64_t update_time = 0;
  std::string status;
  std::string content;

  MessageRecord() = default;
  MessageRecord(std::string local_conversation_id, std::string conversation_id,
                std::string local_section_id, std::string section_id,
                std::string local_message_id, std::string message_id, std::string type,
                int64_t create_time, int64_t update_time, std::string status, std::string content)
      : local_conversation_id(std::move(local_conversation_id)),
        conversation_id(std::move(conversation_id)),
        local_section_id(std::move(local_section_id)),
        section_id(std::move(section_id)),
        local_message_id(std::move(local_message_id)),
        message_id(std::move(message_id)),
        type(std::move(type)),
        create_time(create_time),
        update_time(update_time),
        status(std::move(status)),
        content(std::move(content)) {}
};

// One page of stored messages, as an ISqlExecutor returns it.
struct MessageQueryResult {
  std::vector<MessageRecord> messages;
  int32_t count = 0;
  bool has_more = false;

  MessageQueryResult() = default;
  MessageQueryResult(std::vector<MessageRecord> messages, int32_t count, bool has_more)
      : messages(std::move(messages)), count(count), has_more(has_more) {}
};

// Paging state that comes with a recovery status.
struct RecoverExtra {
  bool has_more = false;
  std::string next_cursor;

  RecoverExtra() = default;
  RecoverExtra(bool has_more, std::string next_cursor)
      : has_more(has_more), next_cursor(std::move(next_cursor)) {}
};

}  // namespace orvi
