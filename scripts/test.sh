#!/usr/bin/env bash
# Builds Orvi and runs its tests three times: a plain build, then with
# AddressSanitizer and UndefinedBehaviorSanitizer, then with ThreadSanitizer.
# The sanitizer build also leaves assertions on (no NDEBUG), in Orvi and in
# the header-only dependencies compiled into it, so that an assert inside
# one cannot hide behind a release build.
# Missing Debian packages are installed first (as root). Usage:
#   bash scripts/test.sh            all three builds
#   bash scripts/test.sh --quick    the plain build only
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=${ORVI_JOBS:-$(nproc)}
variants=(plain asan tsan)
[ "${1:-}" = "--quick" ] && variants=(plain)

# Line tables are all that test failures and sanitizer reports need; full
# debug info would make the builds about a third slower. The sanitizer
# builds are optimised at -O1, as the sanitizers recommend, the library
# only: what is built around it (tests, apps, adapters) at -O0, which
# compiles a third faster.
plain_flags="-O2 -g1 -DNDEBUG"
sanitizer_flags="-O1 -g1"
outside_core=-DORVI_OUTSIDE_CORE_CXX_FLAGS=-O0

run_variant() {
  local name=$1; shift
  local dir=build/$name
  echo "== orvi: $name build (at ${SECONDS}s)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVI_BUILD_TESTS=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "== orvi: $name tests (at ${SECONDS}s)"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300)
}

for variant in "${variants[@]}"; do
  case $variant in
    plain)
      run_variant plain -DORVI_BUILD_BENCHMARKS=ON -DORVI_SANITIZE= \
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$plain_flags"
      ;;
    asan)
      run_variant asan -DORVI_SANITIZE=address,undefined -DORVI_BUILD_EXAMPLES=OFF \
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$sanitizer_flags" "$outside_core"
      ;;
    tsan)
      # ThreadSanitizer's shadow memory needs the classic address layout on
      # kernels with high mmap randomisation.
      export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
      if setarch "$(uname -m)" -R true 2>/dev/null; then
        setarch "$(uname -m)" -R bash -c "$(declare -f run_variant); jobs=$jobs; SECONDS=$SECONDS; run_variant tsan -DORVI_SANITIZE=thread -DORVI_BUILD_EXAMPLES=OFF -DCMAKE_CXX_FLAGS_RELWITHDEBINFO='$sanitizer_flags -DNDEBUG' $outside_core"
      else
        run_variant tsan -DORVI_SANITIZE=thread -DORVI_BUILD_EXAMPLES=OFF \
          -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$sanitizer_flags -DNDEBUG" "$outside_core"
      fi
      ;;
  esac
done
echo "== orvi: all test builds passed (${variants[*]}) in ${SECONDS}s"
