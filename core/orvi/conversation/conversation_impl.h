// ConversationImpl: the object behind each Conversation that the hub opens.
//
// It owns the conversation's MessageEngine, its own Transport to the host's
// sender (which holds it only weakly), a RestApiClient over that transport,
// and, with tracing on, a Reporter. It shares the process's HistoryManager
// and DelayedTaskTimer. The host owns it through the shared_ptr that open
// returned; timer tasks and REST completions hold it weakly and do nothing
// once it is gone.
//
// Threads: host threads send; the timer thread detects missing
// acknowledgements, resends and ends recoveries that get no answer; REST
// completions arrive where the host answers. Everything on the receiving
// side (received frames, recovery answers and ends, the replay of frames
// held during a recovery) runs as tasks of delivery_, one at a time and in
// arrival order, on whichever of those threads is delivering at the time
// (see DeliveryQueue and docs/threading.md). mutex_ guards the members
// marked so; it is never held while the listener, the sender or the timer is
// called. The recovery counters and flags are atomics.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "orvi/conversation.h"
#include "orvi/conversation/delivery_queue.h"
#include "orvi/message/processor/wire_records.h"
#include "orvi/message/wrapper/message_base.h"
#include "orvi/transport/transport.h"
#include "orvi/utils/ref_contained.h"

namespace orvi {

class AssistantMessageWrapper;
class DelayedTaskTimer;
class HistoryManager;
class MessageEngine;
class Reporter;
class RestApiClient;
class UserMessageWrapper;
struct RecoveredSection;

class ConversationImpl : public Conversation, public Transport::Listener, public RefContained {
 public:
  ConversationImpl(std::string local_conversation_id, const ConversationOptions& options,
                   std::shared_ptr<HistoryManager> history);
  ~ConversationImpl() override;

  void listen(std::shared_ptr<ConversationListener> listener) override;
  std::shared_ptr<ITransport> connect(std::shared_ptr<ITransportSender> sender) override;
  std::string sendMessage(const InputMessage& message) override;
  int32_t reply(const InputMessage& message) override;
  int32_t retry(const InputMessage& message) override;
  int32_t cancel(const InputMessage& message) override;
  int32_t popupHistoryMessages(bool only_latest_section, int32_t cursor, int32_t count) override;
  void setRunMode(RunMode mode) override;
  void enableResend(bool enable) override;
  void setBabiParams(const std::string& params) override;
  bool recoverRemoteSection() override;
  void cancelRecoverRemoteSection() override;
  bool recoverRemoteSections(const std::string& cursor, int32_t count) override;
  void cancelRecoverRemoteSections() override;
  ConversationDetail getDetail() override;
  void registerCustomMessageHandler(std::shared_ptr<ICustomMessageHandler> handler) override;
  void removeMessageBatch(const std::vector<std::string>& local_message_ids,
                          const std::vector<std::string>& message_ids,
                          std::shared_ptr<IMessagesDeleted> callback) override;
  void updateAssistantMessageRecord(const AssistantMessage& message) override;
  void updateUserMessageRecord(const UserMessage& message) override;
  void fetchHistoryMessages(bool from_remote, const std::string& cursor, int32_t count,
                            std::shared_ptr<IFetchMessageCallback> callback) override;

  // Transport::Listener: every frame the host pushes for this conversation.
  void onMessageReceived(const std::string& frame) override;

  // Called by the acknowledgement time-out and by received acknowledgements.
  void onAck(const std::string& local_message_id, AckStatus status);

  const std::string& localConversationId() const { return local_conversation_id_; }
  std::string conversationId() const;
  // Whether the latest section is being recovered: sending is refused and
  // received frames are held until it ends.
  bool isRecovering() const;

  // How long a recovery waits for the server's answer before it ends as
  // failed and the frames held meanwhile are delivered (kRecoveryTimeoutMs
  // unless changed; tests shorten it).
  static constexpr int64_t kRecoveryTimeoutMs = 30000;
  void setRecoveryTimeoutMs(int64_t timeout_ms) { recovery_timeout_ms_.store(timeout_ms); }
  // How often the text of an answer still streaming is stored while the
  // host is shown it (kCheckpointIntervalMs unless changed; tests shorten it).
  static constexpr int64_t kCheckpointIntervalMs = 1000;
  void setCheckpointIntervalMs(int64_t interval_ms) { checkpoint_interval_ms_.store(interval_ms); }

 private:
  // A message waited for (and resent while it is): the frame as first
  // handed to the sender, and the record it was written from.
  struct PendingAck {
    std::shared_ptr<UserMessageWrapper> message;
    std::string frame;
    idl::UplinkMessage uplink;
    int32_t resend_count = 0;
  };
  enum class SendKind { Message, Reply, Retry, Cancel };

  // Sending.
  std::string send(const InputMessage& input, SendKind kind);
  int32_t sendInSection(const InputMessage& input, SendKind kind, const char* what);
  bool track(const std::shared_ptr<UserMessageWrapper>& message, const std::string& frame,
             bool new_prompt);
  void storeSent(const std::shared_ptr<UserMessageWrapper>& message, bool dangling);
  void armAckCheck(const std::string& local_message_id);
  bool isNotAcked(const std::string& local_message_id);
  void resend(const std::string& local_message_id);
  void clearNotAck();

  // One kind of recovery (the latest section, or pages of sections).
  // `count` is non-zero exactly while one runs and then holds its
  // generation, which its answer and its time-out carry; `cancelled` and
  // `timed_out` remember how the last ones ended, so that a late answer is
  // told apart from a stray one.
  struct Recovery {
    std::atomic<uint64_t> count{0};
    std::atomic<uint64_t> cancelled{0};
    std::atomic<uint64_t> timed_out{0};
  };
  struct RecoveryLogs;
  static const RecoveryLogs& sectionLogs();
  static const RecoveryLogs& sectionsLogs();

  // Receiving.
  void recvMessage(const MessagePtr& message, bool from_stash);
  MessagePtr acknowledgedMessage(const std::string& local_message_id, bool* dangling);
  void handleAck(const AssistantMessageWrapper& ack);
  void adoptConversationId(const MessagePtr& message);
  bool dispatch(const MessagePtr& message);
  void reportCompleted(const AssistantMessage& message, int64_t first_frame_ms);
  void recordReceived(const MessagePtr& message, const MessagePtr& result);
  void handleStashedMessages();
  void checkpoint(const MessagePtr& answer);
  void storeCheckpoints();

  // Recovery and history.
  // `latest`: the section is the conversation's latest one, so a server
  // section id may place it (ids repeat after a server restart; only the
  // newest stored use of one is this section).
  void markRecovered(const RecoveredSection& section, bool latest);
  // Hands a recovered section to the host and merges it into the history;
  // with `add_missing` false only the messages already stored are updated.
  void deliverRecovered(const RecoveredSection& section, bool add_missing);
  void followRunningSection(const RecoveredSection& section);
  uint64_t startRecovery(Recovery& recovery, const char* busy_format);
  void cancelRecovery(Recovery& recovery);
  void armRecoveryTimeout(Recovery ConversationImpl::*recovery, uint64_t generation,
                          int64_t started_ms, const RecoveryLogs& logs);
  bool acceptRecoveryAnswer(Recovery& recovery, uint64_t generation, const RecoveryLogs& logs);
  void endRecovery(Recovery& recovery, uint64_t generation);
  void handleSectionAnswer(uint64_t generation, const std::string& body);
  void handleSectionsAnswer(uint64_t generation, const std::string& body);
  std::vector<MessagePtr> storedMessages(int32_t cursor, int32_t count, bool* has_more,
                                         int32_t* next_cursor);
  std::vector<ComboMessage> toComboMessages(const std::vector<MessagePtr>& messages);
  int32_t handOver(const std::vector<ComboMessage>& messages);
  std::shared_ptr<RestApiClient> restClient();

  // A strong reference for the length of a call that runs host code, which
  // may drop the host's last reference meanwhile.
  std::shared_ptr<RefContained> keepAlive() { return weak_from_this().lock(); }
  std::shared_ptr<ConversationListener> listener() const;
  std::shared_ptr<Transport> transport() const;
  std::shared_ptr<Reporter> reporter() const;

  // Settings, fixed at construction from ConversationOptions.
  const int32_t history_message_limited_;
  const bool callback_user_message_;
  const bool popup_assistant_message_after_cancel_;
  const bool enable_tracing_event_;
  const bool enable_sync_user_message_timestamp_by_ack_;
  const bool block_when_recovering_;
  const int32_t uplink_message_ack_timeout_ms_;
  std::atomic<bool> enable_resend_;
  const int32_t max_resend_uplink_message_count_;
  const size_t max_downlink_frame_bytes_;  // frames longer, or inflating further, are refused

  const std::string local_conversation_id_;
  const std::string name_;
  std::shared_ptr<HistoryManager> history_;
  std::shared_ptr<MessageEngine> engine_;
  DelayedTaskTimer& timer_;

  std::atomic<bool> just_cancelled_{false};
  Recovery recover_remote_section_count_;
  Recovery recover_remote_sections_count_;
  std::atomic<uint64_t> recovery_generation_{0};
  std::atomic<int64_t> recovery_timeout_ms_{kRecoveryTimeoutMs};
  std::atomic<int64_t> checkpoint_interval_ms_{kCheckpointIntervalMs};
  std::atomic<int32_t> section_count_{0};

  DeliveryQueue delivery_;

  // Answers still streaming, by message id: when each was last stored and
  // whether the host has been shown more since. Touched by delivery tasks
  // only (and the destructor), which never run side by side.
  struct Checkpoint {
    MessagePtr answer;
    int64_t stored_ms = 0;
    bool dirty = false;
  };
  std::unordered_map<std::string, Checkpoint> checkpoints_;

  // Serialises the engine's decision on a sent message with its tracking.
  std::mutex send_mutex_;
  mutable std::mutex mutex_;
  std::string conversation_id_;                     // guarded by mutex_
  std::shared_ptr<ConversationListener> listener_;  // guarded by mutex_
  std::shared_ptr<Reporter> reporter_;              // guarded by mutex_
  std::shared_ptr<ITransportSender> sender_;        // guarded by mutex_
  std::shared_ptr<Transport> transport_;            // guarded by mutex_
  std::shared_ptr<RestApiClient> rest_client_;      // guarded by mutex_
  // Sent before the server allocated the conversation id; stored once it has.
  std::vector<std::shared_ptr<UserMessageWrapper>> dangling_messages_;  // guarded by mutex_
  // Waited for: the latest prompt and what was sent in its turn.
  std::unordered_map<std::string, PendingAck> not_ack_messages_;  // guarded by mutex_
  // Every sent message still without its outcome (see conversation_send.cc).
  std::unordered_map<std::string, std::shared_ptr<UserMessageWrapper>>
      unsettled_;  // guarded by mutex_
  // Assistant messages of the turn in progress already traced as complete.
  std::unordered_set<std::string> reported_assistant_ids_;  // guarded by mutex_
};

}  // namespace orvi
