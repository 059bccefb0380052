#!/usr/bin/env bash
# Builds everything in the `debug` preset (the host simulation, tests, tools
# under AddressSanitizer + UBSan, and the real kvdrv.sys through the Windows
# sub-build) and runs every test with ctest, which ends with its summary.
#
#   bash scripts/test.sh            JOBS=4 bash scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
kv_ensure_deps

JOBS=${JOBS:-2}
cmake --preset debug
cmake --build --preset debug -j "$JOBS"
ctest --preset debug
