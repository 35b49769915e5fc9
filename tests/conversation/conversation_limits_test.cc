// A conversation refuses frames longer than its max_downlink_frame_bytes,
// and compressed content that inflates past it, and nothing else changes:
// the listener hears nothing, the history stores nothing, and the next
// frame within the limit is delivered as usual.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "orvi/conversation/conversation_impl.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "support/recording_listener.h"
#include "support/recording_log_handler.h"
#include "support/recording_sender.h"

namespace orvi {
namespace {

using Json = nlohmann::ordered_json;

std::string assistantContent(const std::string& id, size_t payload_bytes) {
  return Json{{"message_id", id},
              {"role", "assistant"},
              {"content", {{"payload", std::string(payload_bytes, ' ')}, {"content_type", 1}}},
              {"status", 0}}
      .dump();
}

std::string frame(const std::string& content, bool gzip) {
  Json json = {{"conversation_id", "c1"}, {"local_conversation_id", "lc"}, {"event", "message"}};
  if (!gzip) {
    json["content"] = content;
    return json.dump();
  }
  std::string packed = content;
  EXPECT_GT(utils::compressEx(packed), 0);
  json["content"] = utils::base64Encode(packed);
  json["compression"] = {{"algo", "gzip"}};
  return json.dump();
}

struct Host {
  explicit Host(ConversationOptions options)
      : conversation(std::make_shared<ConversationImpl>("lc", options, nullptr)) {
    conversation->listen(listener);
    transport = conversation->connect(sender);
  }
  std::shared_ptr<ConversationImpl> conversation;
  std::shared_ptr<test::RecordingListener> listener = std::make_shared<test::RecordingListener>();
  std::shared_ptr<test::RecordingSender> sender = std::make_shared<test::RecordingSender>();
  std::shared_ptr<ITransport> transport;
};

TEST(ConversationLimitsTest, FramesPastTheLimitAreRefusedAndNothingElseChanges) {
  test::ScopedLogCapture log;
  const size_t limit = 64u << 10;
  ConversationOptions options;
  options.max_downlink_frame_bytes = static_cast<int32_t>(limit);
  const struct {
    std::string frame;
    std::string line;
  } refused[] = {
      {frame(assistantContent("a-long", limit), false), "Refused a frame of "},
      {frame(assistantContent("a-bomb", 4u << 20), true),
       "Refused a compressed frame: its content inflates past the limit of 65536 bytes"},
  };
  Host host(options);
  for (const auto& c : refused) {
    log->clear();
    host.transport->onMessageReceived(c.frame);
    EXPECT_EQ(log->countContaining(c.line), 1u) << c.line;
    EXPECT_EQ(log->countContaining("Skip a invalid msg"), 1u);
    EXPECT_TRUE(host.listener->calls().sequence.empty());
    EXPECT_EQ(host.conversation->getDetail().conversation_id, "") << "adopted from a refused frame";
  }
  // Within the limit, compressed or not, the conversation goes on as before.
  host.transport->onMessageReceived(frame(assistantContent("a-fits", limit / 2), true));
  host.transport->onMessageReceived(frame(assistantContent("a-plain", 100), false));
  const auto calls = host.listener->calls();
  ASSERT_EQ(calls.assistant_messages.size(), 2u);
  EXPECT_EQ(calls.assistant_messages[0].message_id, "a-fits");
  EXPECT_EQ(calls.assistant_messages[1].message_id, "a-plain");
  EXPECT_EQ(host.conversation->getDetail().conversation_id, "c1");
}

TEST(ConversationLimitsTest, TheDefaultLimitIsSixteenMebibytes) {
  test::ScopedLogCapture log;
  const struct {
    std::optional<int32_t> option;
    size_t payload;
    bool delivered;
  } cases[] = {
      {std::nullopt, kDefaultMaxDownlinkFrameBytes - 1000, true},
      {std::nullopt, kDefaultMaxDownlinkFrameBytes, false},
      {0, kDefaultMaxDownlinkFrameBytes, false},  // 0 or less: the default
      {-5, kDefaultMaxDownlinkFrameBytes - 1000, true},
      {32 << 20, kDefaultMaxDownlinkFrameBytes, true},  // a host may allow more
  };
  for (const auto& c : cases) {
    ConversationOptions options;
    options.max_downlink_frame_bytes = c.option;
    Host host(options);
    host.transport->onMessageReceived(frame(assistantContent("a", c.payload), false));
    EXPECT_EQ(host.listener->calls().assistant_messages.size(), c.delivered ? 1u : 0u)
        << c.option.value_or(-1) << " " << c.payload;
  }
}

}  // namespace
}  // namespace orvi
