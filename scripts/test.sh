#!/bin/bash
# Builds everything with warnings as errors and runs every test: the suite,
# the suite again under AddressSanitizer + UndefinedBehaviorSanitizer and
# under ThreadSanitizer, the static analysis, a short run of every fuzz
# target, and the ARM cross-build with its unit and end-to-end tests under
# emulation.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh clang-tidy cppcheck

scripts/check-format.sh

build=${WIFIM_TEST_BUILD_DIR:-build-test}
cmake -S . -B "$build" -DWIFIM_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2

# Most of the suite's time is spent waiting on the daemon's own timers, so
# the sanitizer builds compile meanwhile. Four tests run at once for the
# same reason.
mkdir -p "$build"
scripts/sanitizers.sh --build-only address thread >"$build/sanitizer-build.log" 2>&1 &
sanitizer_build=$!
suite_status=0
ctest --test-dir "$build" -j4 --output-on-failure --timeout 300 || suite_status=$?
if ! wait "$sanitizer_build"; then
  cat "$build/sanitizer-build.log" >&2
  exit 1
fi
[ "$suite_status" -eq 0 ] || exit "$suite_status"

scripts/sanitizers.sh address thread
scripts/static-analysis.sh
scripts/fuzz.sh --smoke
scripts/cross-armhf.sh --test
