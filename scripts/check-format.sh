#!/bin/bash
# Fails when a C++ source (tracked, or new and not ignored) is not formatted
# with the repo's .clang-format.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files --cached --others --exclude-standard '*.cpp' '*.h' 2>/dev/null |
                     while read -r f; do [ -f "$f" ] && echo "$f"; done)
[ ${#files[@]} -eq 0 ] && exit 0
clang-format --dry-run --Werror "${files[@]}"
