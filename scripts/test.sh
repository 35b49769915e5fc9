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

run_variant() {
  local name=$1; shift
  local dir=build/$name
  echo "== orvi: $name build"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVI_BUILD_TESTS=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "== orvi: $name tests"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300)
}

for variant in "${variants[@]}"; do
  case $variant in
    plain) run_variant plain -DORVI_BUILD_BENCHMARKS=ON -DORVI_SANITIZE= ;;
    asan)
      run_variant asan -DORVI_SANITIZE=address,undefined -DORVI_BUILD_EXAMPLES=OFF \
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g"
      ;;
    tsan)
      # ThreadSanitizer's shadow memory needs the classic address layout on
      # kernels with high mmap randomisation.
      export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
      if setarch "$(uname -m)" -R true 2>/dev/null; then
        setarch "$(uname -m)" -R bash -c "$(declare -f run_variant); jobs=$jobs; run_variant tsan -DORVI_SANITIZE=thread -DORVI_BUILD_EXAMPLES=OFF"
      else
        run_variant tsan -DORVI_SANITIZE=thread -DORVI_BUILD_EXAMPLES=OFF
      fi
      ;;
  esac
done
echo "== orvi: all test builds passed (${variants[*]})"
