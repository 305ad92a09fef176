#!/bin/bash
# The main job: builds the daemon and runs it against the real wpa_supplicant
# on a virtual wired link, in a private root and network namespace, walking
# through the requests with the daemon's own client. With --hold it stays
# running for requests typed by hand.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target wifi_manager
exec tests/sandbox/run-isolated --net --keep "$PWD" -- scripts/demo-inside.sh build/wifi_manager/wifi_manager "${1:-}"
