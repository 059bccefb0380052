#!/usr/bin/env bash
# The main job: builds the `release` preset's kvcam, then streams three
# seconds (of the simulation's time) from the built-in virtual camera through
# kvdrv's capture pin: the simulation loads kvdrv, plugs the camera into the
# simulated USB bus, starts it, and a client runs the capture pin as a video
# application does. The frames go to out/stream.y4m (play it with
# `ffplay out/stream.y4m`) and the last one to out/last.png. Extra arguments
# go to kvcam stream, e.g.
#   bash scripts/demo.sh --format rgb24                # the camera's motion JPEG, decoded by the driver
#   bash scripts/demo.sh --camera trust_webcam         # a real camera's descriptors
#   bash scripts/demo.sh --source picture.png          # what the camera sends
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kv_ensure_deps

JOBS=${JOBS:-2}
cmake --preset release
cmake --build --preset release -j "$JOBS" --target kvcam
mkdir -p out
build/release/tools/kvcam stream --seconds 3 --output out/stream.y4m --snapshot out/last.png "$@"
echo "wrote out/stream.y4m (play it: ffplay out/stream.y4m) and out/last.png"
