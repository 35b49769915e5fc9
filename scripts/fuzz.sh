#!/usr/bin/env bash
# Builds every libFuzzer target with clang (AddressSanitizer,
# UndefinedBehaviorSanitizer, assertions live) into build/fuzz and runs each
# on its corpus with the wire-key dictionary, one after the other. Usage:
#   bash scripts/fuzz.sh [seconds]     each target for `seconds` (default 60)
# Environment:
#   ORVI_FUZZ_TARGETS="parse rest"     a subset (default: every fuzz/*_fuzzer.cc)
#   ORVI_FUZZ_RUNS=N                   stop each target after N executions instead
#   ORVI_FUZZ_MERGE=1                  merge what the run kept into fuzz/corpus/<target>
# A run stops at the first crash, leak, time-out (10 s per input) or RSS over
# 2 GiB; the input is left in build/fuzz/artifacts. The summary table at the
# end (executions, seconds, peak RSS per target) is the one in
# docs/hostile-input.md.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
dir=build/fuzz
cc=clang-14
cxx=clang++-14
command -v "$cxx" >/dev/null || { cc=clang; cxx=clang++; }

echo "== orvi: fuzz build ($cxx)"
cmake -S . -B "$dir" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" \
  -DCMAKE_CXX_FLAGS="-fno-sanitize-recover=all" \
  -DORVI_FUZZ=ON -DORVI_BUILD_TESTS=OFF -DORVI_BUILD_EXAMPLES=OFF >/dev/null

if [ -n "${ORVI_FUZZ_TARGETS:-}" ]; then
  read -r -a targets <<<"$ORVI_FUZZ_TARGETS"
else
  targets=()
  for source in fuzz/*_fuzzer.cc; do
    name=$(basename "$source" _fuzzer.cc)
    targets+=("$name")
  done
fi
binaries=()
for name in "${targets[@]}"; do binaries+=("orvi_${name}_fuzzer"); done
cmake --build "$dir" -j "${ORVI_JOBS:-2}" --target "${binaries[@]}"

limit=(-max_total_time="$seconds")
[ -n "${ORVI_FUZZ_RUNS:-}" ] && limit=(-runs="$ORVI_FUZZ_RUNS")
mkdir -p "$dir/artifacts"
rows=()
failed=0
for name in "${targets[@]}"; do
  work="$dir/corpus/$name"
  log="$dir/$name.log"
  mkdir -p "$work"
  echo "== orvi: fuzzing $name (${limit[*]})"
  start=$(date +%s)
  status=passed
  if ! "$dir/fuzz/orvi_${name}_fuzzer" "${limit[@]}" -rss_limit_mb=2048 -malloc_limit_mb=2048 \
      -timeout=10 -print_final_stats=1 -dict=fuzz/orvi.dict \
      -artifact_prefix="$dir/artifacts/$name-" "$work" "fuzz/corpus/$name" >"$log" 2>&1; then
    # Kept beside the artifact: the next run of this target reuses $log.
    kept="$dir/artifacts/$name-$(date +%Y%m%d-%H%M%S).log"
    cp "$log" "$kept"
    status="FAILED, see $kept"
    failed=1
  fi
  elapsed=$(($(date +%s) - start))
  stat() { sed -n "s/^stat::$1: *//p" "$log" | tail -1; }
  rows+=("| $name | $(stat number_of_executed_units) | $elapsed | $(stat average_exec_per_sec) | $(stat peak_rss_mb) | $status |")
  tail -n 3 "$log" | sed 's/^/   /'
  if [ "${ORVI_FUZZ_MERGE:-0}" = 1 ]; then
    "$dir/fuzz/orvi_${name}_fuzzer" -merge=1 -rss_limit_mb=2048 -timeout=10 \
      "fuzz/corpus/$name" "$work" >>"$log" 2>&1
  fi
done

echo
echo "| target | executions | seconds | executions/s | peak RSS (MB) | result |"
echo "|---|---|---|---|---|---|"
printf '%s\n' "${rows[@]}"
exit "$failed"
