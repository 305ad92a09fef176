#!/bin/bash
# The source checks on a tree without git (a release tarball, a Debian
# source package): the format check takes its files from the tree itself,
# checks them, and fails loudly when there is nothing to check, as does the
# list of files the static analysis is given.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$here/../..

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# 0 when the command succeeds, 1 when it fails, whatever its own status.
outcome() {
  "$@" >/dev/null 2>&1 && echo 0 || echo 1
}

expect() { # description expected-outcome actual-outcome
  if [ "$2" = "$3" ]; then
    echo "ok: $1"
  else
    echo "FAILED: $1 (exit status $3, expected $2)" >&2
    failures=$((failures + 1))
  fi
}

# A tree with the check scripts and the format settings, but no git and no
# sources yet.
tree=$work/tree
mkdir -p "$tree/scripts"
cp "$src/scripts/check-format.sh" "$src/scripts/source-files.sh" "$tree/scripts/"
cp "$src/.clang-format" "$tree/"

expect "the format check fails when the tree holds no source" 1 \
  "$(outcome "$tree/scripts/check-format.sh")"
out=$("$tree/scripts/check-format.sh" 2>&1)
case "$out" in
  *"no file to check"*) echo "ok: it says why" ;;
  *) echo "FAILED: no reason given: $out" >&2; failures=$((failures + 1)) ;;
esac

# One badly formatted source, outside git's view: found and refused.
mkdir -p "$tree/wifi_manager/module" "$tree/build-test/wifi_manager"
printf 'int  f( ){return 1 ;}\n' >"$tree/wifi_manager/module/bad.cpp"
expect "a badly formatted source in a tree without git is refused" 1 \
  "$(outcome "$tree/scripts/check-format.sh")"

# Formatted, it passes; a build tree's copies are never looked at.
printf 'int  f( ){return 1 ;}\n' >"$tree/build-test/wifi_manager/generated.cpp"
clang-format -i "$tree/wifi_manager/module/bad.cpp"
expect "the formatted tree passes, its build tree not checked" 0 \
  "$(outcome "$tree/scripts/check-format.sh")"

# The list the static analysis takes: the daemon's sources, nothing of a
# build tree.
listed=$(cd "$tree" && bash -c '. scripts/source-files.sh && wifim_cpp_files wifi_manager')
if [ "$listed" = "wifi_manager/module/bad.cpp" ]; then
  echo "ok: the daemon's sources are listed from the tree"
else
  echo "FAILED: listed: $listed" >&2
  failures=$((failures + 1))
fi
require_none() {
  (cd "$tree" && bash -c '. scripts/source-files.sh && wifim_require_files clang-tidy 0')
}
expect "a check given no file fails" 1 "$(outcome require_none)"
empty=$(require_none 2>&1)
case "$empty" in
  *"clang-tidy: no file to check"*) echo "ok: it names the check" ;;
  *) echo "FAILED: $empty" >&2; failures=$((failures + 1)) ;;
esac

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed" >&2
  exit 1
fi
echo "all checks passed"
