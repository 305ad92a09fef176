#!/bin/bash
# The project's own C++ sources, taken from the tree itself, so that the
# checks run the same in a clone, a release tarball or a Debian source
# package (which have no git). Build trees (build*/) and anything outside
# the source folders are never listed. Sourced by the check scripts.

# shellcheck disable=SC2034 # read by the scripts that source this file
wifim_source_folders=(wifi_manager tests fuzz bench examples)

# Prints the C++ sources and headers (*.cpp, *.h) under the given folders,
# one per line, sorted.
wifim_cpp_files() {
  local existing=()
  for folder in "$@"; do
    [ -d "$folder" ] && existing+=("$folder")
  done
  [ ${#existing[@]} -gt 0 ] || return 0
  find "${existing[@]}" -type f \( -name '*.cpp' -o -name '*.h' \) | LC_ALL=C sort
}

# Fails loudly when a check was given nothing to check: a check that finds
# no file must not pass.
wifim_require_files() { # what count
  if [ "$2" -eq 0 ]; then
    echo "$1: no file to check (run from the source tree)" >&2
    exit 1
  fi
}
