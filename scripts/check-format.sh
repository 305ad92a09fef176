#!/bin/bash
# Fails when a C++ source of the tree is not formatted with the repo's
# .clang-format, and when there is no source to check.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/source-files.sh
. scripts/source-files.sh
mapfile -t files < <(wifim_cpp_files "${wifim_source_folders[@]}")
wifim_require_files check-format "${#files[@]}"
echo "check-format: ${#files[@]} files"
clang-format --dry-run --Werror "${files[@]}"
