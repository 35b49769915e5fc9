// Downlink frame parsing, each frame kind beside its floor: a bare
// nlohmann::json::parse of the same bytes, measured in the same run.
#include <benchmark/benchmark.h>

#include <string>

#include <nlohmann/json.hpp>

#include "orvi/logger.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"

namespace {

std::string frame(const std::string& event, const std::string& content,
                  const nlohmann::json& extra = nlohmann::json::object()) {
  nlohmann::json f = {{"conversation_id", "7f3a9c2e-1b4d-4e8f-9a6b-2c5d8e1f4a7b"},
                      {"local_conversation_id", "0d1e2f3a-4b5c-4d6e-8f7a-9b0c1d2e3f4a"},
                      {"section_id", "sec-20261122-000042"},
                      {"local_section_id", "5a6b7c8d-9e0f-4a1b-8c2d-3e4f5a6b7c8d"},
                      {"event", event},
                      {"content", content},
                      {"server_time", 1795305600123}};
  f.update(extra);
  return f.dump();
}

// A typical first assistant frame: a JSON payload of a few hundred bytes.
std::string assistantContent() {
  nlohmann::json payload = {{"text", std::string(400, 'w')}, {"cards", nlohmann::json::array()}};
  nlohmann::json message = {
      {"message_id", "msg-9f8e7d6c5b4a"},
      {"local_message_id", ""},
      {"role", "assistant"},
      {"content", {{"payload", payload.dump()}, {"content_type", 1}}},
      {"create_time", 1795305600100},
      {"status", 0},
      {"is_complete", false}};
  return message.dump();
}

const std::string& messageFrame() {
  static const std::string f = frame("message", assistantContent());
  return f;
}

const std::string& deltaFrame() {
  static const std::string f = frame(
      "delta",
      R"({"message_id":"msg-9f8e7d6c5b4a","json_patch":"[{\"op\":\"append\",\"path\":\"/text\",\"value\":\" token\"}]"})");
  return f;
}

const std::string& gzipFrame() {
  static const std::string f = [] {
    std::string packed = assistantContent();
    orvi::utils::compressEx(packed);
    return frame("message", orvi::utils::base64Encode(packed), {{"compression", {{"algo", "gzip"}}}});
  }();
  return f;
}

void BM_Parse(benchmark::State& state, const std::string& (*text)()) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  const std::string& bytes = text();
  for (auto _ : state) benchmark::DoNotOptimize(orvi::MessageProcessor::parse(bytes));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

void BM_FloorJsonParse(benchmark::State& state, const std::string& (*text)()) {
  const std::string& bytes = text();
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(bytes));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

// The part no parser of this wire can avoid: the frame, then the JSON text
// its "content" carries (unpacked first when compressed).
void BM_FloorFrameAndContent(benchmark::State& state, const std::string& (*text)()) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  const std::string& bytes = text();
  for (auto _ : state) {
    const auto outer = nlohmann::json::parse(bytes);
    std::string content = outer.at("content").get<std::string>();
    if (outer.contains("compression")) {
      content = orvi::utils::base64Decode(content);
      orvi::utils::decompressEx(content);
    }
    benchmark::DoNotOptimize(nlohmann::json::parse(content));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

}  // namespace

BENCHMARK_CAPTURE(BM_Parse, message, messageFrame);
BENCHMARK_CAPTURE(BM_FloorJsonParse, message, messageFrame);
BENCHMARK_CAPTURE(BM_FloorFrameAndContent, message, messageFrame);
BENCHMARK_CAPTURE(BM_Parse, delta, deltaFrame);
BENCHMARK_CAPTURE(BM_FloorJsonParse, delta, deltaFrame);
BENCHMARK_CAPTURE(BM_FloorFrameAndContent, delta, deltaFrame);
BENCHMARK_CAPTURE(BM_Parse, gzip, gzipFrame);
BENCHMARK_CAPTURE(BM_FloorJsonParse, gzip, gzipFrame);
BENCHMARK_CAPTURE(BM_FloorFrameAndContent, gzip, gzipFrame);
