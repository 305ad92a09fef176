#!/bin/bash
# Builds everything with warnings as errors and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh

scripts/check-format.sh

build=${WIFIM_TEST_BUILD_DIR:-build-test}
cmake -S . -B "$build" -DWIFIM_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2
ctest --test-dir "$build" -j2 --output-on-failure --timeout 300
