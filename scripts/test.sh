#!/bin/bash
# Builds everything with warnings as errors and runs every test: the suite,
# the radio tier (the daemon against the real 802.11 stack in a VM), the
# suite again under AddressSanitizer + UndefinedBehaviorSanitizer and
# under ThreadSanitizer, the static analysis, a short run of every fuzz
# target, and the ARM cross-build with its unit and end-to-end tests under
# emulation. Each stage's time is printed as it ends.
set -euo pipefail
cd "$(dirname "$0")/.."

run_started=$SECONDS
stage() { # name command...
  local name=$1 started=$SECONDS
  shift
  echo "== stage: $name"
  "$@"
  echo "== stage: $name took $((SECONDS - started)) s (run so far $((SECONDS - run_started)) s)"
}

# The plain build and suite. Most of the suite's time is spent waiting on
# the daemon's own timers, so the sanitizer builds compile meanwhile, and
# four tests run at once for the same reason.
suite() {
  build=${WIFIM_TEST_BUILD_DIR:-build-test}
  cmake -S . -B "$build" -DWIFIM_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" -j2
  mkdir -p "$build"
  scripts/sanitizers.sh --build-only address thread >"$build/sanitizer-build.log" 2>&1 &
  local sanitizer_build=$! suite_status=0
  ctest --test-dir "$build" -j4 --output-on-failure --timeout 300 -LE '^radio$' || suite_status=$?
  if ! wait "$sanitizer_build"; then
    cat "$build/sanitizer-build.log" >&2
    return 1
  fi
  return "$suite_status"
}

stage packages scripts/deps.sh clang-tidy cppcheck
stage format scripts/check-format.sh
stage suite suite
# The real 802.11 stack in a VM (tests/radio): one core, alone, since its
# scenarios wait on the real radios' and the daemon's own timers.
stage radio ctest --test-dir "${WIFIM_TEST_BUILD_DIR:-build-test}" -L '^radio$' --output-on-failure
stage sanitizers scripts/sanitizers.sh address thread
stage static-analysis scripts/static-analysis.sh
stage fuzz-smoke scripts/fuzz.sh --smoke
stage armhf scripts/cross-armhf.sh --test
echo "== all stages passed in $((SECONDS - run_started)) s"
