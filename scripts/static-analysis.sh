#!/bin/bash
# Static analysis of the daemon's sources: clang-tidy with the checks chosen
# in .clang-tidy, and cppcheck. Both must be silent.
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/source-files.sh
. scripts/source-files.sh
scripts/deps.sh clang-tidy cppcheck

build=${WIFIM_TIDY_BUILD_DIR:-build-tidy}
cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
# The daemon's own sources only: given no file, run-clang-tidy would take
# every file of the build, the tests included.
mapfile -t sources < <(wifim_cpp_files wifi_manager | grep '\.cpp$')
wifim_require_files clang-tidy "${#sources[@]}"

echo "clang-tidy: ${#sources[@]} files"
run-clang-tidy -quiet -p "$build" -j2 "${sources[@]}" >"$build/clang-tidy.log" 2>&1 || {
  grep -E '(warning|error):' "$build/clang-tidy.log" | sort -u
  echo "clang-tidy found problems (whole output: $build/clang-tidy.log)" >&2
  exit 1
}

# useStlAlgorithm is taste: the plain loops of the parsers read better.
echo "cppcheck"
cppcheck --enable=warning,style,performance,portability --std=c++17 --inline-suppr \
  --quiet --error-exitcode=1 --suppress=missingIncludeSystem --suppress=useStlAlgorithm \
  -I wifi_manager -I . wifi_manager/
echo "static analysis: clean"
