// Sync downlink from a hostile server: every line of the input is pushed
// into a sync channel's transport, after the channel has sent one record
// (so acknowledgements and refusals have something to settle). Nothing may
// crash, hang or throw.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "orvi/sync_channel.h"
#include "support/recording_sender.h"
#include "support/sync_fakes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvi::fuzz::quietLogs();
  orvi::SyncChannelOptions options;
  options.send_interval_ms = 0;  // no sender thread: every step runs here
  options.compression_algo = "gzip";
  options.fragment_size_kb = 1;
  auto channel = orvi::SyncChannel::create(options);
  auto listener = std::make_shared<orvi::test::RecordingSyncListener>();
  auto sender = std::make_shared<orvi::test::RecordingSender>();
  channel->listen(listener);
  const std::shared_ptr<orvi::ITransport> transport = channel->connect(sender);
  channel->send(orvi::SyncInfo("doc", std::string(3000, 'x'), std::nullopt,
                               orvi::SyncInfoType::Base, 6, std::nullopt));
  channel->send(
      orvi::SyncInfo("small", "y", std::nullopt, orvi::SyncInfoType::Reply, 1, std::string("e")));
  for (const auto& line : orvi::fuzz::linesOf(orvi::fuzz::asText(data, size))) {
    transport->onMessageReceived(line);
  }
  channel->flush();
  return 0;
}
