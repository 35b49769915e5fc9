// What a host feels of the sync channel, each figure beside a floor or a
// second size measured in the same run:
// - draining a backlog of 50k and of 400k records (the ratio shows whether
//   the drain is linear: near 8);
// - dropping a channel that still holds 100k unsent records;
// - 1 KiB records per second from SyncChannel::send to the host's sender,
//   without and with gzip, and the time each send keeps the host's thread;
//   the floor builds and prints the same envelopes with the JSON library;
// - peak memory while one 50 MB record is fragmented, as a multiple of it;
// - gzip + Base64 of one 200 KiB record against a bare zlib deflate.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orvi/logger.h"
#include "orvi/sync/sync_gzip_encoder.h"
#include "orvi/sync/sync_message_processor.h"
#include "orvi/sync_channel.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

void quiet() {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
}

double secondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

// CPU seconds of the whole process (every thread), user and system.
double processCpuSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
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
    uint64_t n = 0;
    for (const auto& r : results.results) n += r.indexes.size();
    std::lock_guard<std::mutex> lock(mutex_);
    (success ? sent : failed).fetch_add(n);
    changed_.notify_all();
  }
  // Sleeps rather than spins, so that process CPU time counts the channel only.
  void waitForSent(uint64_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return sent.load() >= n; });
  }
  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> failed{0};

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
};

orvi::SyncInfo draftRecord(int64_t index, const std::string& content) {
  return orvi::SyncInfo("draft-" + std::to_string(index), content, std::nullopt,
                        orvi::SyncInfoType::Delta, index, std::nullopt);
}

struct Rig {
  std::shared_ptr<CountingSender> sender = std::make_shared<CountingSender>();
  std::shared_ptr<CountingListener> listener = std::make_shared<CountingListener>();
  std::shared_ptr<orvi::SyncChannel> channel;

  explicit Rig(const orvi::SyncChannelOptions& options)
      : channel(orvi::SyncChannel::create(options)) {
    channel->listen(listener);
    channel->connect(sender);
  }
};

// A sender thread that wakes only when flushed: records pile up as a backlog.
orvi::SyncChannelOptions backlogOptions() {
  return orvi::SyncChannelOptions(600000, std::numeric_limits<int32_t>::max(), std::nullopt,
                                  std::nullopt, std::nullopt, std::nullopt);
}

// Seconds from flush until every one of `count` queued records is reported sent.
double drainSeconds(int64_t count) {
  Rig rig(backlogOptions());
  const std::string content = draftText(100, 3);
  for (int64_t i = 0; i < count; ++i) rig.channel->send(draftRecord(i, content));
  const auto start = SteadyClock::now();
  rig.channel->flush();
  rig.listener->waitForSent(static_cast<uint64_t>(count));
  return secondsSince(start);
}

// The best of five drains of each size; the first, untimed, warms the heap.
void BM_SyncBacklogDrain(benchmark::State& state) {
  quiet();
  double small = 0, large = 0;
  for (auto _ : state) {
    drainSeconds(50000);
    small = large = 1e9;
    for (int i = 0; i < 5; ++i) {
      small = std::min(small, drainSeconds(50000));
      large = std::min(large, drainSeconds(400000));
    }
    state.SetIterationTime(small + large);
  }
  state.counters["ms_50k"] = small * 1e3;
  state.counters["ms_400k"] = large * 1e3;
  state.counters["ratio"] = large / small;
}

void BM_SyncDropBacklog(benchmark::State& state) {
  quiet();
  const std::string content = draftText(100, 4);
  uint64_t reported = 0;
  for (auto _ : state) {
    Rig rig(backlogOptions());
    for (int64_t i = 0; i < state.range(0); ++i) rig.channel->send(draftRecord(i, content));
    const auto start = SteadyClock::now();
    rig.channel.reset();
    state.SetIterationTime(secondsSince(start));
    reported = rig.listener->failed.load();
  }
  state.counters["reported_failed"] = static_cast<double>(reported);
}

constexpr int kRecordsPerIteration = 2000;

// arg 0: plain; arg 1: "gzip".
void BM_SyncSendToTransport(benchmark::State& state) {
  quiet();
  const bool gzip = state.range(0) != 0;
  Rig rig(orvi::SyncChannelOptions(std::nullopt, std::nullopt,
                                   gzip ? std::optional<std::string>("gzip") : std::nullopt,
                                   std::nullopt, std::nullopt, std::nullopt));
  const std::string content = draftText(1024, 1);
  uint64_t sent = 0;
  double in_send = 0;
  const double cpu_start = processCpuSeconds();
  for (auto _ : state) {
    const auto start = SteadyClock::now();
    for (int i = 0; i < kRecordsPerIteration; ++i) {
      rig.channel->send(draftRecord(static_cast<int64_t>(sent) + i, content));
    }
    in_send += secondsSince(start);
    // The last records would otherwise wait out the interval.
    rig.channel->flush();
    sent += kRecordsPerIteration;
    rig.listener->waitForSent(sent);
  }
  state.SetItemsProcessed(static_cast<int64_t>(sent));
  state.counters["records_per_frame"] =
      static_cast<double>(sent) / static_cast<double>(rig.sender->frames.load());
  state.counters["send_us"] = in_send * 1e6 / static_cast<double>(sent);
  // All threads' CPU per record: what the rate would be on an idle core.
  state.counters["cpu_us"] = (processCpuSeconds() - cpu_start) * 1e6 / static_cast<double>(sent);
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
        infos.push_back({{"id", "draft-" + std::to_string(sent + i)},
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

long statusKb(const char* key) {
  std::ifstream status("/proc/self/status");
  const size_t key_length = std::strlen(key);
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, key_length, key) == 0) return std::stol(line.substr(key_length));
  }
  return -1;
}

// Peak resident memory while one 50 MB record is sent without a sender
// thread (so fragmentation runs inside send), above what the host holds.
void BM_SyncFragmentPeakMemory(benchmark::State& state) {
  quiet();
  constexpr size_t kRecordBytes = 50u << 20;
  double peak_mb = 0;
  for (auto _ : state) {
    Rig rig(orvi::SyncChannelOptions(0, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                                     std::nullopt));
    const orvi::SyncInfo record("big", draftText(kRecordBytes, 5), std::nullopt,
                                orvi::SyncInfoType::Base, 1, std::nullopt);
    // Free heap pages from earlier benchmarks would hide new allocations.
    malloc_trim(0);
    // Writing 5 resets the peak (VmHWM) to the current resident size.
    std::ofstream("/proc/self/clear_refs") << "5";
    const long base_kb = statusKb("VmRSS:");
    const auto start = SteadyClock::now();
    rig.channel->send(record);
    state.SetIterationTime(secondsSince(start));
    peak_mb = static_cast<double>(statusKb("VmHWM:") - base_kb) / 1024.0;
    benchmark::DoNotOptimize(rig.sender->frames.load());
  }
  state.counters["peak_mb"] = peak_mb;
  state.counters["peak_x_record"] = peak_mb / 50.0;
}

constexpr size_t kLargeRecord = 200 * 1024;

void BM_SyncCompressRecord200K(benchmark::State& state) {
  quiet();
  orvi::idl::SyncInfo record;
  record.id = "draft";
  record.type = "delta";
  record.content = draftText(kLargeRecord, 2);
  record.compression = "gzip";
  orvi::SyncGzipEncoder encoder;
  size_t final_size = 0;
  for (auto _ : state) {
    orvi::idl::SyncInfo copy = record;
    orvi::SyncMessageProcessor::tryCompress(copy, encoder);
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

BENCHMARK(BM_SyncBacklogDrain)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncDropBacklog)
    ->Arg(100000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncSendToTransport)
    ->ArgName("gzip")
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncSendFloorJson)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncFragmentPeakMemory)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncCompressRecord200K)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SyncCompressFloorZlib200K)->Unit(benchmark::kMillisecond);
