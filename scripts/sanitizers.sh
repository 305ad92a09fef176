#!/bin/bash
# Builds the daemon and its tests with a sanitizer and runs the whole suite.
#
#   scripts/sanitizers.sh [--build-only] [address|thread]...   (default: both)
#
# address = AddressSanitizer with UndefinedBehaviorSanitizer, thread =
# ThreadSanitizer. Every process the tests start (the daemon in its sandbox,
# the simulator, the test programs) writes its reports under the build
# directory; any report, or any failed test, fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh

build_only=false
if [ "${1:-}" = --build-only ]; then
  build_only=true
  shift
fi
kinds=("$@")
[ ${#kinds[@]} -gt 0 ] || kinds=(address thread)

status=0
for kind in "${kinds[@]}"; do
  case "$kind" in
    address) build=build-asan ;;
    thread) build=build-tsan ;;
    *) echo "unknown sanitizer: $kind (address or thread)" >&2; exit 2 ;;
  esac
  cmake -S . -B "$build" -DWIFIM_WERROR=ON -DWIFIM_SANITIZE="$kind" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" -j2
  $build_only && continue
  reports=$(readlink -f "$build")/sanitizer-reports
  rm -rf "$reports"
  mkdir -p "$reports"
  common="halt_on_error=1:log_path=$reports/$kind"
  echo "== $kind sanitizer: whole test suite"
  if ! ASAN_OPTIONS="$common:detect_leaks=1:abort_on_error=0" \
    UBSAN_OPTIONS="$common:print_stacktrace=1" \
    TSAN_OPTIONS="$common:second_deadlock_stack=1" \
    ctest --test-dir "$build" -j4 --output-on-failure --timeout 600 -LE '^radio$'; then
    status=1
  fi
  if [ -n "$(ls -A "$reports")" ]; then
    echo "== $kind sanitizer reports:" >&2
    for f in "$reports"/*; do
      echo "--- $f" >&2
      cat "$f" >&2
    done
    status=1
  else
    echo "== $kind sanitizer: no reports"
  fi
done
exit $status
