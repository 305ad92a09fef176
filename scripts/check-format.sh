#!/bin/bash
# Fails when a C++ source is not formatted with the repo's .clang-format.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h' 2>/dev/null || find wifi_manager tests -name '*.cpp' -o -name '*.h')
[ ${#files[@]} -eq 0 ] && exit 0
clang-format --dry-run --Werror "${files[@]}"
