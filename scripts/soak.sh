#!/bin/bash
# The long soak: a steady mix of every request from several clients, with bad
# frames among them, against the daemon and the simulator.
#
#   scripts/soak.sh [requests]     (default 200000; CI runs 5000)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
build=${WIFIM_SOAK_BUILD_DIR:-build-soak}
cmake -S . -B "$build" -DWIFIM_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target test_soak
WIFIM_SOAK_REQUESTS=${1:-200000} tests/sandbox/run-isolated --keep "$build" -- \
  "$build/tests/service_funs/test_soak"
