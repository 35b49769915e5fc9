#!/usr/bin/env bash
# The main job: builds Orvi and its reference host, then runs orvi-chat's
# demo: a scripted conversation against the assistant emulator, inside one
# process, over real loopback sockets.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

dir=build/plain
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j "${ORVI_JOBS:-$(nproc)}" --target orvi-chat orvi-emulator
"$dir/apps/chat/orvi-chat" --demo "$@"
