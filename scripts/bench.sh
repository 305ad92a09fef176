#!/bin/bash
# The benchmark: builds in Release (build-bench/), then, in a private root and
# network namespace, runs the daemon against the simulator (30 networks in
# range, 10 registered) and against the real wpa_supplicant on a veth link,
# and measures request round trips, throughput, the command-line client
# beside wpa_cli, memory, threads, idle cost and connect overhead. Prints the
# targets as ratios against their anchors, then a table of every measure, and
# writes them as JSON to build-bench/bench.json. When an ARM build is there
# (build-armhf/, from scripts/cross-armhf.sh) and qemu-arm is registered, its
# client is timed under emulation too.
#
#   scripts/bench.sh     (BENCH_IDLE_S=60, BENCH_REQUESTS=10000, BENCH_WARMUP=1000,
#                         BENCH_MIXED=10000, BENCH_LOG_REQUESTS=100000 by default;
#                         BENCH_LOAD_ONLY=1 measures only the load table)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh binutils
build=${WIFIM_BENCH_BUILD_DIR:-build-bench}
# The log keeps its counts of lines tried and written for the load measures.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DWIFIM_LOG_COUNTERS=ON >/dev/null
cmake --build "$build" -j2 --target wifi_manager wpa_sim wifim_bench
if [ -z "${BENCH_ARMHF_BUILD:-}" ] && [ -x build-armhf/wifi_manager/wifi_manager ]; then
  export BENCH_ARMHF_BUILD=$PWD/build-armhf
fi
exec tests/sandbox/run-isolated --net --keep "$PWD" -- bench/bench-inside.sh "$build"
