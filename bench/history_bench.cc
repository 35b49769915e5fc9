// Storing messages: 10,000 MessageRecords posted to the Cacher and written by
// orvi_sqlite on the I/O worker (in write groups, one transaction each)
// until a flush says they are all in the file, beside the floor of
// inserting the same rows with one prepared statement in one transaction.
// All use manual timing so that opening and closing each file stay outside
// the measurement; every run after the floor reports its slowdown against
// the floor measured earlier in the same run (x_floor).
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include <nlohmann/json.hpp>
#include "history_bench_support.h"

#include "orvi/history/cacher/cacher.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/logger.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/sqlite/sqlite_executor.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kMessages = 10000;

double g_floor_seconds_per_message = 0;  // set by the floor benchmark

void BM_StoreMessages_FloorOneTransaction(benchmark::State& state) {
  const auto records = orvi::bench::sampleMessages("conversation", kMessages);
  double total = 0;
  for (auto _ : state) {
    orvi::bench::ScratchDir dir;
    const std::string path = dir.file("history.db");
    if (!orvi::sqlite::SqliteExecutor::open(path)) return state.SkipWithError("open failed");
    bool ok = false;
    double seconds = 0;
    {
      orvi::bench::FloorWriter floor(path);
      const auto start = Clock::now();
      ok = floor.insert(records);
      seconds = std::chrono::duration<double>(Clock::now() - start).count();
    }
    if (!ok || orvi::bench::countMessages(path) != static_cast<int64_t>(kMessages)) {
      return state.SkipWithError("floor insert failed");
    }
    state.SetIterationTime(seconds);
    total += seconds;
  }
  g_floor_seconds_per_message = total / static_cast<double>(state.iterations() * kMessages);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kMessages));
}

// Messages per second, and the slowdown against the floor measured earlier.
void reportAgainstFloor(benchmark::State& state, double total_seconds) {
  const double per_message = total_seconds / static_cast<double>(state.iterations() * kMessages);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kMessages));
  if (g_floor_seconds_per_message > 0) {
    state.counters["x_floor"] = per_message / g_floor_seconds_per_message;
  }
}

// Between the two: the executor called directly, one transaction per record,
// which separates the cost of SQLite commits from the cost of the queue.
void BM_StoreMessages_SqliteExecutorDirect(benchmark::State& state) {
  const auto records = orvi::bench::sampleMessages("conversation", kMessages);
  double total = 0;
  for (auto _ : state) {
    orvi::bench::ScratchDir dir;
    auto sql = orvi::sqlite::SqliteExecutor::open(dir.file("history.db"));
    if (!sql) return state.SkipWithError("open failed");
    const auto start = Clock::now();
    for (const auto& record : records) {
      if (!sql->insertMessage(record)) return state.SkipWithError("insert failed");
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.SetIterationTime(seconds);
    total += seconds;
  }
  reportAgainstFloor(state, total);
}

void BM_StoreMessages_CacherToSqlite(benchmark::State& state) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  const auto records = orvi::bench::sampleMessages("conversation", kMessages);
  double total = 0;
  for (auto _ : state) {
    orvi::bench::ScratchDir dir;
    const std::string path = dir.file("history.db");
    auto sql = orvi::sqlite::SqliteExecutor::open(path);
    if (!sql) return state.SkipWithError("open failed");
    orvi::Cacher cacher(dir.path(), 30);
    cacher.registerSqlExecutor(sql);
    if (!cacher.init()) return state.SkipWithError("cacher init failed");

    const auto start = Clock::now();
    for (const auto& record : records) cacher.insertMessage(record);
    const bool drained = cacher.waitForWrites(std::chrono::minutes(5));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!drained || orvi::bench::countMessages(path) != static_cast<int64_t>(kMessages)) {
      return state.SkipWithError("not every message reached the file");
    }
    state.SetIterationTime(seconds);
    total += seconds;
  }
  reportAgainstFloor(state, total);
}

// The whole library path: message wrappers recorded through the history
// manager (conversion to records included) until they are all in the file.
void BM_StoreMessages_HistoryManagerToSqlite(benchmark::State& state) {
  orvi::ILogger::setLogLevel(orvi::LogLevel::Error);
  std::vector<orvi::MessagePtr> messages;
  for (const auto& record : orvi::bench::sampleMessages("conversation", kMessages)) {
    const nlohmann::json content = {{"message_id", record.message_id},
                                    {"role", "assistant"},
                                    {"content", {{"payload", record.content}}},
                                    {"create_time", record.create_time},
                                    {"status", 2}};
    messages.push_back(orvi::MessageProcessor::parse(
        nlohmann::json({{"conversation_id", record.conversation_id},
                        {"local_conversation_id", record.local_conversation_id},
                        {"section_id", record.section_id},
                        {"local_section_id", record.local_section_id},
                        {"event", "message"},
                        {"content", content.dump()}})
            .dump()));
  }
  double total = 0;
  for (auto _ : state) {
    orvi::bench::ScratchDir dir;
    const std::string path = dir.file("history.db");
    auto sql = orvi::sqlite::SqliteExecutor::open(path);
    if (!sql) return state.SkipWithError("open failed");
    orvi::HistoryManager history;
    if (!history.init(dir.path(), sql, 30, false)) return state.SkipWithError("init failed");

    const auto start = Clock::now();
    for (const auto& message : messages) history.recordMessage(message);
    const bool drained = history.flush();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!drained || orvi::bench::countMessages(path) != static_cast<int64_t>(kMessages)) {
      return state.SkipWithError("not every message reached the file");
    }
    state.SetIterationTime(seconds);
    total += seconds;
  }
  reportAgainstFloor(state, total);
}

}  // namespace

// The floor first: the Cacher run divides by its time.
BENCHMARK(BM_StoreMessages_FloorOneTransaction)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreMessages_SqliteExecutorDirect)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreMessages_CacherToSqlite)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreMessages_HistoryManagerToSqlite)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
