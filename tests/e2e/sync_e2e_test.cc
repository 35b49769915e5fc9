// The sync channel over the network transport against the emulator.
#include <gtest/gtest.h>

#include "e2e_support.h"
#include "orvi/sync_channel.h"
#include "support/sync_fakes.h"

namespace orvi {
namespace test {
namespace {

using nlohmann::json;

// The fragment a frame carries, or -1.
int fragmentIndex(const std::string& frame) {
  const json envelope = json::parse(frame, nullptr, false);
  if (!envelope.is_object() || !envelope.contains("sync_infos")) return -1;
  const json& info = envelope["sync_infos"][0];
  return info.contains("fragment") ? info["fragment"].value("index", -1) : -1;
}

TEST(SyncEndToEnd, RecordsAreAckedAndANackedFragmentIsSentAgainAlone) {
  EmulatorProcess emulator({"--sync-nack-fragment", "1"});
  ASSERT_NE(emulator.port(), 0);
  auto tap = WireTap::connect(emulator.syncUrl(), "");
  ASSERT_TRUE(tap->transport().waitConnected(std::chrono::seconds(5)));

  SyncChannelOptions options;
  // A sender thread, so that the nacked fragment goes out on the nack's own
  // round (without one it would wait for the next send).
  options.send_interval_ms = 1;
  options.fragment_size_kb = 1;
  auto channel = SyncChannel::create(options);
  auto listener = std::make_shared<RecordingSyncListener>();
  channel->listen(listener);
  auto inbound = channel->connect(tap);
  tap->addReceiver(inbound);

  for (int64_t index = 1; index <= 3; ++index)
    channel->send(SyncInfo("draft", "edit " + std::to_string(index), std::nullopt,
                           SyncInfoType::Delta, index, std::nullopt));
  ASSERT_TRUE(eventually([&] {
    return listener->count("ack draft 1") + listener->count("ack draft 2") +
               listener->count("ack draft 3") ==
           3;
  }));

  // 2,500 bytes in 1 KiB fragments: three frames, then the nacked one again.
  const size_t small_frames = tap->uplinks().size();
  channel->send(
      SyncInfo("doc", std::string(2500, 'x'), std::nullopt, SyncInfoType::Base, 7, std::nullopt));
  ASSERT_TRUE(eventually([&] { return listener->count("ack doc 7") == 1; }));
  EXPECT_EQ(listener->count("nack doc 7"), 1u);

  const auto uplinks = tap->uplinks();
  ASSERT_EQ(uplinks.size(), small_frames + 4);
  std::vector<int> fragments;
  for (size_t i = small_frames; i < uplinks.size(); ++i)
    fragments.push_back(fragmentIndex(uplinks[i]));
  EXPECT_EQ(fragments, (std::vector<int>{0, 1, 2, 1}));
  EXPECT_EQ(uplinks[small_frames + 1], uplinks.back()) << "the resend differs from the original";
  EXPECT_TRUE(emulator.stop());
}

}  // namespace
}  // namespace test
}  // namespace orvi
