// Gzip and Base64 as the wire uses them, each beside its floor: zlib's own
// deflate/inflate with the same parameters, and a plain copy of the bytes.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstring>
#include <string>

#include "orvi/logger.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"

namespace {

// A JSON-ish payload of the given size: compressible like real frames.
std::string payload(size_t size) {
  std::string out;
  int i = 0;
  while (out.size() < size) {
    out += R"({"op":"append","path":"/text","value":"token )" + std::to_string(i++) + R"( "},)";
  }
  out.resize(size);
  return out;
}

void quiet() { orvi::ILogger::setLogLevel(orvi::LogLevel::Error); }

void BM_CompressEx(benchmark::State& state) {
  quiet();
  const std::string input = payload(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::string data = input;
    benchmark::DoNotOptimize(orvi::utils::compressEx(data));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Floor: one zlib deflate at level 9 with gzip framing into a bound-sized buffer.
void BM_CompressFloorZlib(benchmark::State& state) {
  const std::string input = payload(static_cast<size_t>(state.range(0)));
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
    deflateEnd(&s);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_DecompressEx(benchmark::State& state) {
  quiet();
  std::string compressed = payload(static_cast<size_t>(state.range(0)));
  orvi::utils::compressEx(compressed);
  for (auto _ : state) {
    std::string data = compressed;
    benchmark::DoNotOptimize(orvi::utils::decompressEx(data));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Floor: zlib inflate straight into a buffer of the known output size.
void BM_DecompressFloorZlib(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  std::string compressed = payload(size);
  orvi::utils::compressEx(compressed);
  std::string out(size, '\0');
  for (auto _ : state) {
    z_stream s;
    std::memset(&s, 0, sizeof s);
    inflateInit2(&s, 47);
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    s.avail_in = static_cast<uInt>(compressed.size());
    s.next_out = reinterpret_cast<Bytef*>(&out[0]);
    s.avail_out = static_cast<uInt>(out.size());
    inflate(&s, Z_FINISH);
    inflateEnd(&s);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_Base64Encode(benchmark::State& state) {
  const std::string input = payload(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(orvi::utils::base64Encode(input));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_Base64Decode(benchmark::State& state) {
  const std::string text = orvi::utils::base64Encode(payload(static_cast<size_t>(state.range(0))));
  for (auto _ : state) benchmark::DoNotOptimize(orvi::utils::base64Decode(text));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Floor for both Base64 directions: copying the bytes into a new string.
void BM_Base64FloorCopy(benchmark::State& state) {
  const std::string input = payload(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::string copy = input;
    benchmark::DoNotOptimize(copy);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_CompressEx)->Arg(1 << 10)->Arg(64 << 10);
BENCHMARK(BM_CompressFloorZlib)->Arg(1 << 10)->Arg(64 << 10);
BENCHMARK(BM_DecompressEx)->Arg(1 << 10)->Arg(64 << 10);
BENCHMARK(BM_DecompressFloorZlib)->Arg(1 << 10)->Arg(64 << 10);
BENCHMARK(BM_Base64Encode)->Arg(64 << 10);
BENCHMARK(BM_Base64Decode)->Arg(64 << 10);
BENCHMARK(BM_Base64FloorCopy)->Arg(64 << 10);
