#!/bin/bash
# The benchmark: builds in Release (build-bench/), then, in a private root and
# network namespace, runs the daemon against the simulator (30 networks in
# range, 10 registered) and against the real wpa_supplicant on a veth link,
# and measures request round trips, throughput, the command-line client
# beside wpa_cli, memory, threads, idle cost and connect overhead. Prints a
# table and writes it as JSON to build-bench/bench.json.
#
#   scripts/bench.sh            (BENCH_IDLE_S=60 and BENCH_REQUESTS=10000 by default)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh binutils
build=${WIFIM_BENCH_BUILD_DIR:-build-bench}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j2 --target wifi_manager wpa_sim wifim_bench
exec tests/sandbox/run-isolated --net --keep "$PWD" -- bench/bench-inside.sh "$build"
