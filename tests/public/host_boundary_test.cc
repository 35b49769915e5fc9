// A host that implements every interface the library calls out to. If a
// slot is added, removed or changes its signature, this stops compiling
// (every override is checked and every class is instantiated).
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

#include "orvi/orvi.h"

namespace orvi {
namespace {

struct Host final : ILogHandler,
                    ITransportSender,
                    HttpCallback,
                    ConversationListener,
                    ConversationHubListener,
                    IConversations,
                    IFetchMessageCallback,
                    IMessagesDeleted,
                    ICustomMessageHandler,
                    ISqlExecutor,
                    IFileUploader,
                    FileUploadStatusCallback,
                    SyncChannelListener {
  int calls = 0;

  void log(LogLevel, const std::string&) override { ++calls; }
  bool sendMessage(const std::string&) override { return ++calls > 0; }
  void httpRequest(const HttpRequest&, std::shared_ptr<HttpCallback>) override { ++calls; }
  void onResponse(const HttpResponse&) override { ++calls; }

  void onAck(const std::string&, AckStatus) override { ++calls; }
  void onAssistantMessage(const AssistantMessage&) override { ++calls; }
  void onUserMessage(const UserMessage&) override { ++calls; }
  void onSystemMessage(const SystemMessage&) override { ++calls; }
  void onSectionStatus(SectionStatus, bool, const SectionInfo&) override { ++calls; }
  void onRecoverStatus(RecoverStatus, const std::optional<RecoverExtra>&) override { ++calls; }
  void onTraceEvent(const std::string&, const std::string&) override { ++calls; }

  void onConversationRemoved(bool) override { ++calls; }
  void onConversations(const ConversationListInfo&) override { ++calls; }
  void onMessages(const std::vector<ComboMessage>&, bool, const std::string&) override { ++calls; }
  void onFailure(int32_t, const std::string&) override { ++calls; }
  void onMessagesDeleted(bool) override { ++calls; }
  void onCustomMessage(const CustomMessage& in, std::optional<CustomMessage>& out) override {
    out = in;
  }

  bool queryConversations(ConversationListQueryResult&, int32_t, std::optional<int32_t>,
                          std::optional<int32_t>) override { return true; }
  bool saveConversations(const std::vector<ConversationInfo>&) override { return true; }
  bool deleteConversations(const std::vector<std::string>&) override { return true; }
  bool updateConversations(const std::vector<ConversationInfo>&) override { return true; }
  bool queryMessages(MessageQueryResult&, const std::string&, int32_t, std::optional<int32_t>,
                     std::optional<int32_t>) override { return true; }
  bool insertMessage(const MessageRecord&) override { return true; }
  bool removeMessages(const std::string&, const std::string&, const std::string&,
                      const std::string&) override { return true; }
  bool updateMessage(const MessageRecord&) override { return true; }
  bool isMigrated() override { return false; }
  bool setMigrated(bool) override { return true; }

  void upload(const SyncInfo&, std::shared_ptr<FileUploadStatusCallback>) override { ++calls; }
  void onUploadProgress(int32_t) override { ++calls; }
  void onUploadSuccess(int32_t, const std::string&, const std::string&) override { ++calls; }
  void onUploadFailed(int32_t, const std::string&) override { ++calls; }
  void onUploadCanceled() override { ++calls; }

  void onAck(const std::string&, int64_t) override { ++calls; }
  void onNack(const std::string&, int64_t) override { ++calls; }
  void onQuery(const SyncDownlinkMessage&, const std::string&) override { ++calls; }
  void onCollect(const SyncDownlinkMessage&) override { ++calls; }
  void onSendResult(bool, const SentResults&) override { ++calls; }
};

TEST(PublicBoundaryTest, HostImplementsEveryHostInterfaceThroughSharedPointers) {
  auto host = std::make_shared<Host>();
  std::shared_ptr<ConversationListener> listener = host;
  std::shared_ptr<ISqlExecutor> executor = host;
  std::shared_ptr<ITransportSender> sender = host;
  std::shared_ptr<SyncChannelListener> sync_listener = host;
  listener->onSectionStatus(SectionStatus::Completed, true, SectionInfo("s", "ls"));
  sender->sendMessage("x");
  sync_listener->onSendResult(true, SentResults({SentResult("id", {1, 2})}));
  EXPECT_EQ(host->calls, 3);
  EXPECT_FALSE(executor->isMigrated());
}

// The library-implemented interfaces are abstract and only reachable through
// shared pointers handed out by the library.
static_assert(std::is_abstract<Conversation>::value, "");
static_assert(std::is_abstract<ConversationHub>::value, "");
static_assert(std::is_abstract<SyncChannel>::value, "");
static_assert(std::is_abstract<ITransport>::value, "");
static_assert(std::has_virtual_destructor<ILogger>::value, "");

// Values that travel on the wire or index public tables.
static_assert(static_cast<int>(MessageType::System) == 1 &&
                  static_cast<int>(MessageType::Assistant) == 2, "");
static_assert(static_cast<int>(SectionStatus::Completed) == 2 &&
                  static_cast<int>(SectionStatus::Ended) == 3 &&
                  static_cast<int>(SectionStatus::Cancelled) == 5, "");
static_assert(static_cast<int>(RecoverStatus::Cancelled) == 2, "");
static_assert(static_cast<int>(FileSourceType::Url) == 2, "");
static_assert(static_cast<int>(HttpRequestScene::ConversationBatchDelete) == 4, "");
static_assert(static_cast<int>(HttpMethod::Post) == 1, "");
static_assert(static_cast<int>(LogLevel::Error) == 3, "");
static_assert(std::is_same<std::underlying_type<AckStatus>::type, int32_t>::value, "");

TEST(PublicBoundaryTest, EveryEnumerationKeysAnUnorderedContainer) {
  std::unordered_map<MessageStatus, int> statuses{{MessageStatus::Completed, 1}};
  std::unordered_set<SyncInfoType> types{SyncInfoType::Base, SyncInfoType::Reply, SyncInfoType::Base};
  EXPECT_EQ(statuses.at(MessageStatus::Completed), 1);
  EXPECT_EQ(types.size(), 2u);
  EXPECT_NE(std::hash<LogLevel>()(LogLevel::Warn), std::hash<LogLevel>()(LogLevel::Error));
}

// Constructors take every field in declaration order; a swapped pair of
// same-typed parameters would compile silently, so check where each lands.
TEST(PublicBoundaryTest, AllFieldsConstructorsPlaceEveryField) {
  const SectionInfo section("server", "local");
  EXPECT_EQ(section.section_id, "server");
  EXPECT_EQ(section.local_section_id, "local");

  const ConversationOptions options(std::string("n"), true, 7, false, true, true, false, false,
                                    1234, 3);
  EXPECT_EQ(*options.name, "n");
  EXPECT_TRUE(*options.enable_tracing_event);
  EXPECT_EQ(*options.history_message_limited, 7);
  EXPECT_FALSE(*options.callback_user_message);
  EXPECT_TRUE(*options.popup_assistant_message_after_cancel);
  EXPECT_TRUE(*options.enable_sync_user_message_timestamp_by_ack);
  EXPECT_FALSE(*options.block_when_recovering);
  EXPECT_FALSE(*options.enable_resend);
  EXPECT_EQ(*options.uplink_message_ack_timeout_ms, 1234);
  EXPECT_EQ(*options.max_resend_uplink_message_count, 3);

  const MessageRecord record("lc", "c", "ls", "s", "lm", "m", "user", 1, 2, "st", "body");
  EXPECT_EQ(record.local_conversation_id + record.conversation_id + record.local_section_id +
                record.section_id + record.local_message_id + record.message_id + record.type,
            "lccls" "s" "lmmuser");
  EXPECT_EQ(record.create_time, 1);
  EXPECT_EQ(record.update_time, 2);
  EXPECT_EQ(record.status, "st");
  EXPECT_EQ(record.content, "body");

  const SyncInfo info("id", "body", std::string("uri"), SyncInfoType::Reply, 5, std::string("x"));
  EXPECT_EQ(info.id + info.content + *info.content_type + *info.extra, "idbodyurix");
}

}  // namespace
}  // namespace orvi
