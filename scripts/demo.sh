#!/usr/bin/env bash
# The main job: builds the `release` preset's kvcam, then runs `kvcam info`
# on the built-in virtual camera: the simulation loads kvdrv, plugs the
# camera into the simulated USB bus and starts it, and kvcam shows the
# device (speed, interfaces and pipes), the start's result, the capture and
# still pins' formats as a client reads them, and the filter's pins and
# topology. Extra arguments go to kvcam info, e.g.
#   bash scripts/demo.sh --verbose                  # with the driver's debug log
#   bash scripts/demo.sh --camera trust_webcam      # a real camera's descriptors
#   bash scripts/demo.sh --registry settings.reg    # settings kept between runs
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kv_ensure_deps

JOBS=${JOBS:-2}
cmake --preset release
cmake --build --preset release -j "$JOBS" --target kvcam
exec build/release/tools/kvcam info "$@"
