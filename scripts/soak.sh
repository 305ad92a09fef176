#!/bin/bash
# The long soak: a steady mix of every request from several clients, with bad
# frames among them, against the daemon and the simulator.
#
#   scripts/soak.sh [requests] [switches]   (defaults 200000 and 20000; CI runs
#                                            5000 and 2000 within the suite)
#
# Then the long form of the field stress: the station switched off and on
# while scans, connects and WPS run; concurrent changes of settings and
# networks checked against the profile file; and writers of the profile file
# killed with SIGKILL mid-save.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
build=${WIFIM_SOAK_BUILD_DIR:-build-soak}
cmake -S . -B "$build" -DWIFIM_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target test_soak test_field_stress test_profile_power_cut
WIFIM_SOAK_REQUESTS=${1:-200000} tests/sandbox/run-isolated --keep "$build" -- \
  "$build/tests/system/test_soak"
WIFIM_STRESS_TOGGLES=${2:-20000} WIFIM_STRESS_ROUNDS=3000 WIFIM_STRESS_SWITCH_ROUNDS=200 \
  tests/sandbox/run-isolated --keep "$build" -- "$build/tests/system/test_field_stress"
WIFIM_POWER_CUT_ROUNDS=3000 tests/sandbox/run-isolated --keep "$build" -- \
  "$build/tests/wifi_ap_info/test_profile_power_cut" --gtest_filter='*Killed*'
