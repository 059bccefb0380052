#!/usr/bin/env bash
# The main job: builds the `release` preset's kvcam and the real kvdrv.sys,
# then describes the driver with `kvcam driver` (PE headers, sections and
# the kernel functions it imports). Extra arguments go to kvcam driver,
# e.g. `bash scripts/demo.sh --json`.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kv_ensure_deps

JOBS=${JOBS:-2}
cmake --preset release
cmake --build --preset release -j "$JOBS" --target kvcam kvdrv_windows
exec build/release/tools/kvcam driver "$@"
