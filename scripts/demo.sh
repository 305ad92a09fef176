#!/bin/bash
# The main job: builds the daemon and the wpa_supplicant simulator and runs
# the daemon against a small simulated radio world, in a private root and
# network namespace, walking through every request with the daemon's own
# client. With --hold it stays running for requests typed by hand.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target wifi_manager wpa_sim
exec tests/sandbox/run-isolated --net --keep "$PWD" -- scripts/demo-inside.sh \
  build/wifi_manager/wifi_manager build/tests/wpa_sim/wpa_sim "${1:-}"
