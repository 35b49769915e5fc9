// orvi-chat rendering a streamed answer: the library hands the host the
// whole payload again after every delta, and the host shows what the delta
// added. Answers of 500, 4,000 and 16,000 one-word deltas; only the host's
// work per delta is timed (manual time; making the payloads is not), and
// items are deltas, so items/s falling with the answer's length means a
// cost per delta that grows with it.
//
// "incremental" is what orvi-chat does (AnswerText reads the bytes a delta
// added; the terminal prints them). "whole" parses every payload twice and
// compares the whole text with what was shown, as orvi-chat did before. The
// floor, in the same run, is one copy of each payload: the least a host
// that is handed whole payloads pays per delta.
#include <benchmark/benchmark.h>

#include <chrono>
#include <ostream>
#include <streambuf>
#include <string>

#include <nlohmann/json.hpp>

#include "answer_text.h"
#include "terminal.h"

namespace {

using nlohmann::json;

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Times `render(payload, last)` for each payload of a `deltas`-word answer.
template <typename Render>
double timeAnswer(int deltas, Render render) {
  std::string text;
  std::chrono::duration<double> spent(0);
  for (int i = 0; i < deltas; ++i) {
    text += i % 7 == 0 ? "lighthouse " : "word ";
    const std::string payload = json({{"text", text}}).dump();
    const auto start = std::chrono::steady_clock::now();
    render(payload, i == deltas - 1);
    spent += std::chrono::steady_clock::now() - start;
  }
  return spent.count();
}

void BM_ChatRender_Floor_CopyPayload(benchmark::State& state) {
  for (auto _ : state) {
    state.SetIterationTime(
        timeAnswer(static_cast<int>(state.range(0)), [](const std::string& payload, bool) {
          std::string copy = payload;
          benchmark::DoNotOptimize(copy.data());
        }));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ChatRender_Incremental(benchmark::State& state) {
  NullBuffer null;
  std::ostream out(&null);
  for (auto _ : state) {
    orvi_chat::Terminal terminal(out, out);
    orvi_chat::AnswerText answer;
    state.SetIterationTime(
        timeAnswer(static_cast<int>(state.range(0)), [&](const std::string& payload, bool last) {
          const bool extends = answer.update(payload, last);
          terminal.stream("am-1", answer.text(), extends, last);
        }));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ChatRender_Whole(benchmark::State& state) {
  NullBuffer null;
  std::ostream out(&null);
  for (auto _ : state) {
    orvi_chat::Terminal terminal(out, out);
    std::string shown;
    state.SetIterationTime(
        timeAnswer(static_cast<int>(state.range(0)), [&](const std::string& payload, bool last) {
          const std::string text = orvi_chat::answerTextOf(payload);          // to show
          benchmark::DoNotOptimize(orvi_chat::answerTextOf(payload).size());  // to record
          const bool extends = text.compare(0, shown.size(), shown) == 0;
          terminal.stream("am-1", text, extends, last);
          shown = text;
        }));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_ChatRender_Floor_CopyPayload)
    ->Arg(500)
    ->Arg(4000)
    ->Arg(16000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChatRender_Incremental)
    ->Arg(500)
    ->Arg(4000)
    ->Arg(16000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChatRender_Whole)
    ->Arg(500)
    ->Arg(4000)
    ->Arg(16000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
