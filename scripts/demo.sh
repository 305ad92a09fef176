#!/bin/bash
# The main job: builds the daemon, starts it in the foreground in a private
# filesystem root, and sends it a request with its own client.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target wifi_manager
exec tests/sandbox/run-isolated --keep "$PWD" -- scripts/demo-inside.sh build/wifi_manager/wifi_manager
