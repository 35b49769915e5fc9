// Streaming an assistant answer: one message followed by 2,000 "append"
// deltas of 4 to 16 bytes to one text field, over a small payload and over
// payloads that start at 100 KB and 1 MB; the same stream appending to a
// field that sits before the large one; and one delta that mixes "append"
// and "replace". Times are per delta (items = deltas).
//
// Two floors are measured in the same run over the final document of the
// stream: one copy of the payload string (what handing the host a complete
// payload costs at least, per delta) and one compact dump of the document
// (what serialising the whole document again would cost, per delta).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/logger.h"
#include "orvi/message/engine/message_engine.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"

namespace {

using nlohmann::json;

constexpr int kDeltas = 2000;

std::string downlink(const std::string& event, const json& content) {
  return json({{"conversation_id", "c"},
               {"local_conversation_id", "lc"},
               {"section_id", "s"},
               {"local_section_id", ""},
               {"event", event},
               {"content", content.dump()}})
      .dump();
}

// Keys print sorted: "cards" comes before "text" in the payload text.
json initialDocument(size_t prefill) {
  return {{"text", std::string(prefill, 'p')}, {"cards", json::array({{{"title", "t"}}})}};
}

std::vector<orvi::MessagePtr> appendDeltas(const std::string& path) {
  std::mt19937 engine(42);
  std::uniform_int_distribution<int> length(4, 16);
  std::vector<orvi::MessagePtr> deltas;
  for (int i = 0; i < kDeltas; ++i) {
    const json operations = json::array(
        {{{"op", "append"}, {"path", path}, {"value", std::string(length(engine), 'a' + i % 26)}}});
    deltas.push_back(orvi::MessageProcessor::parse(
        downlink("delta", {{"message_id", "m1"}, {"json_patch", operations.dump()}})));
  }
  return deltas;
}

orvi::MessagePtr assistant(size_t prefill) {
  return orvi::MessageProcessor::parse(
      downlink("message", {{"message_id", "m1"},
                           {"role", "assistant"},
                           {"content", {{"payload", initialDocument(prefill).dump()}}}}));
}

const std::string& payloadOf(const orvi::MessagePtr& message) {
  return std::static_pointer_cast<orvi::AssistantMessageWrapper>(message)
      ->message()
      ->content->content;
}

void runStream(benchmark::State& state, const std::string& path) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  const size_t prefill = static_cast<size_t>(state.range(0));
  const auto deltas = appendDeltas(path);
  for (auto _ : state) {
    state.PauseTiming();
    orvi::MessageEngine engine("lc");
    engine.enqueue(assistant(prefill));
    state.ResumeTiming();
    for (const auto& delta : deltas) benchmark::DoNotOptimize(engine.enqueue(delta));
  }
  state.SetItemsProcessed(state.iterations() * kDeltas);
}

void BM_DeltaStream(benchmark::State& state) {
  runStream(state, "/text");
}

// The target string sits before the large one, so each delta also moves the
// text that follows it.
void BM_DeltaStreamHeadTarget(benchmark::State& state) {
  runStream(state, "/cards/0/title");
}

// The payload at the end of the stream.
std::string finalPayload(size_t prefill) {
  orvi::MessageEngine engine("lc");
  auto message = engine.enqueue(assistant(prefill));
  for (const auto& delta : appendDeltas("/text")) engine.enqueue(delta);
  return payloadOf(message);
}

// Floor: one copy of the final payload per delta.
void BM_DeltaStreamFloorCopy(benchmark::State& state) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  const std::string payload = finalPayload(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    for (int i = 0; i < kDeltas; ++i) {
      std::string copy = payload;
      benchmark::DoNotOptimize(copy.data());
      benchmark::ClobberMemory();
    }
  }
  state.SetItemsProcessed(state.iterations() * kDeltas);
}

// One compact dump of the final document per delta.
void BM_DeltaStreamFloorDump(benchmark::State& state) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  const json final_document = json::parse(finalPayload(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    for (int i = 0; i < kDeltas; ++i) benchmark::DoNotOptimize(final_document.dump());
  }
  state.SetItemsProcessed(state.iterations() * kDeltas);
}

// The append runs before the replace, so the document keeps its size from
// one iteration to the next.
void BM_MixedDelta(benchmark::State& state) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  const json operations =
      json::parse(R"([{"op":"replace","path":"/cards/0/title","value":"new title"},)"
                  R"({"op":"append","path":"/cards/0/title","value":" and more"}])");
  const auto delta = orvi::MessageProcessor::parse(
      downlink("delta", {{"message_id", "m1"}, {"json_patch", operations.dump()}}));
  orvi::MessageEngine engine("lc");
  engine.enqueue(assistant(static_cast<size_t>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(engine.enqueue(delta));
  state.SetItemsProcessed(state.iterations());
}

void BM_MixedDeltaFloorDump(benchmark::State& state) {
  const json document = initialDocument(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(document.dump());
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_DeltaStream)->Arg(0)->Arg(100 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeltaStreamHeadTarget)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeltaStreamFloorCopy)
    ->Arg(0)
    ->Arg(100 << 10)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeltaStreamFloorDump)
    ->Arg(0)
    ->Arg(100 << 10)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MixedDelta)->Arg(1 << 10)->Arg(100 << 10);
BENCHMARK(BM_MixedDeltaFloorDump)->Arg(1 << 10)->Arg(100 << 10);
