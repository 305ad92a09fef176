#!/bin/bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each one,
# from its seed corpus in fuzz/corpus/, inside the test sandbox (the targets
# that read or write the log, the profile file or wpa_supplicant's
# configuration use the device's fixed paths).
#
#   scripts/fuzz.sh [seconds-per-target]    (default 60)
#   scripts/fuzz.sh --smoke                 (5 s each: that they build and run)
#
# New inputs go to build-fuzz/corpus/<target>; a crash leaves its input in
# build-fuzz/artifacts/ and fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
if [ "${1:-}" = --smoke ]; then
  seconds=5
elif [ -n "${1:-}" ]; then
  seconds=$1
fi

scripts/deps.sh clang libclang-rt-14-dev

build=${WIFIM_FUZZ_BUILD_DIR:-build-fuzz}
CC=clang CXX=clang++ cmake -S . -B "$build" -DWIFIM_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  >/dev/null
cmake --build "$build" -j2 >/dev/null

# The build lists its targets (fuzz/CMakeLists.txt writes them at configure time).
targets=$(cat "$build/fuzz/targets.txt")
status=0
printf '%-14s %10s %8s  %s\n' target executions seconds result
for target in $targets; do
  corpus="$build/corpus/$target"
  artifacts="$build/artifacts"
  mkdir -p "$corpus" "$artifacts"
  log="$build/fuzz_$target.log"
  result=ok
  if ! tests/sandbox/run-isolated --keep "$build" -- "$build/fuzz/fuzz_$target" \
    -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 \
    -artifact_prefix="$artifacts/$target-" "$corpus" "fuzz/corpus/$target" >"$log" 2>&1; then
    result="FAILED (see $log)"
    status=1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  printf '%-14s %10s %8s  %s\n' "$target" "${runs:-?}" "$seconds" "$result"
done
exit $status
