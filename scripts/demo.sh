#!/usr/bin/env bash
# The main job: builds Orvi and runs the example host.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

dir=build/plain
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j "${ORVI_JOBS:-$(nproc)}" --target orvi_example_host
"$dir/examples/orvi_example_host"
