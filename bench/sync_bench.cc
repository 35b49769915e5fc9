// The sync channel's two costs a host feels, each beside its floor:
// - records per second from SyncChannel::send to the host's sender, 1 KiB
//   records, default options (batches of up to 200 KiB), against building
//   and printing the same envelopes directly with the JSON library;
// - gzip + Base64 of one 200 KiB record at push time, against a bare zlib
//   level-9 deflate of the same bytes.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orvi/logger.h"
#include "orvi/sync/sync_message_processor.h"
#include "orvi/sync_channel.h"

namespace {

void quiet() {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
}

// Draft-like text: words drawn at random, with some JSON punctuation that
// the wire has to escape.
std::string draftText(size_t size, uint32_t seed) {
  static const char* words[] = {"the",       "draft", "reply", "\"quoted\"", "section",
                                "assistant", "note",  "edit",  "summary",    "of",
                                "and",       "to",    "with",  "line\n",     "tool",
                                "result",    "value", "{key}", "user",       "change"};
  std::mt19937 rng(seed);
  std::string out;
  while (out.size() < size) {
    out += words[rng() % (sizeof words / sizeof *words)];
    out += ' ';
  }
  out.resize(size);
  return out;
}

class CountingSender : public orvi::ITransportSender {
 public:
  bool sendMessage(const std::string& message) override {
    frames.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(message.size(), std::memory_order_relaxed);
    return true;
  }
  void httpRequest(const orvi::HttpRequest&, std::shared_ptr<orvi::HttpCallback>) override {}
  std::atomic<uint64_t> frames{0};
  std::atomic<uint64_t> bytes{0};
};

class CountingListener : public orvi::SyncChannelListener {
 public:
  void onAck(const std::string&, int64_t) override {}
  void onNack(const std::string&, int64_t) override {}
  void onQuery(const orvi::SyncDownlinkMessage&, const std::string&) override {}
  void onCollect(const orvi::SyncDownlinkMessage&) override {}
  void onSendResult(bool success, const orvi::SentResults& results) override {
    if (!success) return;
    uint64_t n = 0;
    for (const auto& r : results.results) n += r.indexes.size();
    records.fetch_add(n, std::memory_order_release);
  }
  std::atomic<uint64_t> records{0};
};

constexpr int kRecordsPerIteration = 2000;

void BM_SyncSendToTransport(benchmark::State& state) {
  quiet();
  auto sender = std::make_shared<CountingSender>();
  auto listener = std::make_shared<CountingListener>();
  auto channel = orvi::SyncChannel::create(orvi::SyncChannelOptions());
  channel->listen(listener);
  channel->connect(sender);
  const std::string content = draftText(1024, 1);
  uint64_t sent = 0;
  for (auto _ : state) {
    for (int i = 0; i < kRecordsPerIteration; ++i) {
      channel->send(orvi::SyncInfo("draft-" + std::to_string(i), content, std::nullopt,
                                   orvi::SyncInfoType::Delta, static_cast<int64_t>(sent + i),
                                   std::nullopt));
    }
    // The last records would otherwise wait out the interval.
    channel->flush();
    sent += kRecordsPerIteration;
    while (listener->records.load(std::memory_order_acquire) < sent) std::this_thread::yield();
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  state.counters["records_per_frame"] =
      static_cast<double>(sent) / static_cast<double>(sender->frames.load());
}

// Floor: the same records marshalled into envelopes of the same batch size
// by the JSON library alone, on one thread, with no queue or handoff.
void BM_SyncSendFloorJson(benchmark::State& state) {
  const std::string content = draftText(1024, 1);
  // (1024 + 300) bytes per record against 200 KiB - 100: 154 per envelope.
  constexpr int kPerFrame = 154;
  CountingSender sender;
  uint64_t sent = 0;
  for (auto _ : state) {
    for (int first = 0; first < kRecordsPerIteration; first += kPerFrame) {
      nlohmann::ordered_json infos = nlohmann::ordered_json::array();
      for (int i = first; i < std::min(first + kPerFrame, kRecordsPerIteration); ++i) {
        infos.push_back({{"id", "draft-" + std::to_string(i)},
                         {"content", content},
                         {"type", "delta"},
                         {"index", static_cast<int64_t>(sent + i)}});
      }
      nlohmann::ordered_json envelope = {{"version", 0}, {"sync_infos", std::move(infos)}};
      sender.sendMessage(envelope.dump());
    }
    sent += kRecordsPerIteration;
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
}

constexpr size_t kLargeRecord = 200 * 1024;

void BM_SyncCompressRecord200K(benchmark::State& state) {
  quiet();
  orvi::idl::SyncInfo record;
  record.id = "draft";
  record.type = "delta";
  record.content = draftText(kLargeRecord, 2);
  record.compression = "gzip";
  size_t final_size = 0;
  for (auto _ : state) {
    orvi::idl::SyncInfo copy = record;
    orvi::SyncMessageProcessor::tryCompress(copy);
    final_size = copy.content.size();
    benchmark::DoNotOptimize(copy);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLargeRecord));
  state.counters["base64_bytes"] = static_cast<double>(final_size);
}

// Floor: zlib level 9 with gzip framing into a bound-sized buffer, no Base64.
void BM_SyncCompressFloorZlib200K(benchmark::State& state) {
  const std::string input = draftText(kLargeRecord, 2);
  size_t compressed = 0;
  for (auto _ : state) {
    z_stream s;
    std::memset(&s, 0, sizeof s);
    deflateInit2(&s, 9, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&s, input.size()), '\0');
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    s.avail_in = static_cast<uInt>(input.size());
    s.next_out = reinterpret_cast<Bytef*>(&out[0]);
    s.avail_out = static_cast<uInt>(out.size());
    deflate(&s, Z_FINISH);
    compressed = out.size() - s.avail_out;
    deflateEnd(&s);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLargeRecord));
  state.counters["gzip_bytes"] = static_cast<double>(compressed);
}

}  // namespace

BENCHMARK(BM_SyncSendToTransport)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncSendFloorJson)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncCompressRecord200K)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncCompressFloorZlib200K)->Unit(benchmark::kMillisecond);
