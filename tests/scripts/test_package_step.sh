#!/bin/bash
# The package step (scripts/packages.sh) against a stand-in apt-get and
# dpkg-query: a registry whose index update fails, an install that fails
# once, one that fails for good, and nothing to install. No registry and no
# root privileges are touched: the stand-ins keep their state in a
# directory of their own.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
packages_sh=$here/../../scripts/packages.sh

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# apt-get stand-in: logs every call; "update" exits with the code in
# update_rc; "install" takes its exit code from the next line of
# install_plan (0 when the plan is used up) and, on success, marks its
# packages installed.
cat >"$work/apt-get" <<'STUB'
#!/bin/bash
# dpkg's lock options come first; the command is the first other word.
while [ "$1" = -o ]; do shift 2; done
echo "$*" >>"$STUB_DIR/calls"
case "$1" in
  update)
    echo "E: Failed to fetch .../binary-armhf/Packages.xz  File has unexpected size (334084 != 349884). Mirror sync in progress?" >&2
    exit "$(cat "$STUB_DIR/update_rc")" ;;
  install)
    rc=$(head -n 1 "$STUB_DIR/install_plan" 2>/dev/null)
    sed -i '1d' "$STUB_DIR/install_plan" 2>/dev/null
    rc=${rc:-0}
    if [ "$rc" = 0 ]; then
      for a in "$@"; do
        case "$a" in install|-*) ;; *) echo "$a" >>"$STUB_DIR/installed" ;; esac
      done
    else
      echo "E: Unable to locate package $*" >&2
    fi
    exit "$rc" ;;
esac
exit 0
STUB
# dpkg-query stand-in: a package is installed when it is listed.
cat >"$work/dpkg-query" <<'STUB'
#!/bin/bash
pkg=${!#}
if grep -qx -- "$pkg" "$STUB_DIR/installed" 2>/dev/null; then
  printf 'install ok installed'
  exit 0
fi
exit 1
STUB
chmod +x "$work/apt-get" "$work/dpkg-query"

# run_step NAME UPDATE_RC INSTALL_PLAN PREINSTALLED PACKAGE...
# Runs the package step in a subshell; leaves its exit code in step_rc and
# its standard error in $STUB_DIR/stderr.
run_step() {
  local name=$1 update_rc=$2 plan=$3 pre=$4
  shift 4
  export STUB_DIR=$work/$name
  mkdir -p "$STUB_DIR"
  echo "$update_rc" >"$STUB_DIR/update_rc"
  # The plan and the preinstalled list are blank-separated words.
  # shellcheck disable=SC2086
  printf '%s\n' $plan >"$STUB_DIR/install_plan"
  # shellcheck disable=SC2086
  printf '%s\n' $pre >"$STUB_DIR/installed"
  : >"$STUB_DIR/calls"
  (
    WIFIM_APT_GET=$work/apt-get WIFIM_DPKG_QUERY=$work/dpkg-query \
      WIFIM_APT_UPDATE_ATTEMPTS=3 WIFIM_APT_PAUSE_S=0
    # shellcheck source=scripts/packages.sh
    . "$packages_sh"
    wifim_install_packages "$@"
  ) 2>"$STUB_DIR/stderr"
  step_rc=$?
}

expect() { # description condition...
  local what=$1
  shift
  if "$@"; then
    echo "ok: $what"
  else
    echo "FAIL: $what" >&2
    failures=$((failures + 1))
  fi
}
calls_of() { grep -c "^$1" "$STUB_DIR/calls"; }
stderr_has() { grep -qF -- "$1" "$STUB_DIR/stderr"; }
installed() { grep -qx -- "$1" "$STUB_DIR/installed"; }

# 1. Every index update fails, the install succeeds: a warning per failed
#    update, three attempts, then the install, and the step succeeds.
run_step update_fails 100 "0" "" crossbuild-essential-armhf libwpa-client-dev:armhf
expect "failed update: the step succeeds" test "$step_rc" = 0
expect "failed update: tried three times" test "$(calls_of update)" = 3
expect "failed update: installed once" test "$(calls_of install)" = 1
expect "failed update: warned" stderr_has "warning: apt-get update failed (attempt 3 of 3)"
expect "failed update: packages installed" installed libwpa-client-dev:armhf

# 2. The install fails once: one more update, a second install, success.
run_step install_once 0 "100 0" "" qemu-user-static
expect "install failing once: the step succeeds" test "$step_rc" = 0
expect "install failing once: updated again before the retry" test "$(calls_of update)" = 2
expect "install failing once: installed twice" test "$(calls_of install)" = 2
expect "install failing once: said it retries" stderr_has "trying once more"

# 3. The install fails for good: the step fails and names what it could
#    not get, not what was there already.
run_step install_fails 100 "100 100" "cmake" cmake libgtest-dev:armhf hostapd
expect "install failing: the step fails" test "$step_rc" != 0
expect "install failing: installed twice, not more" test "$(calls_of install)" = 2
expect "install failing: names the packages" \
  stderr_has "could not install these Debian packages: libgtest-dev:armhf hostapd"
expect "install failing: the install's own error is shown" stderr_has "E: Unable to locate package"

# 4. Everything is installed already: the registry is not asked at all.
run_step nothing_missing 100 "" "cmake g++" cmake g++
expect "nothing missing: the step succeeds" test "$step_rc" = 0
expect "nothing missing: no apt-get call" test ! -s "$STUB_DIR/calls"

[ "$failures" = 0 ] || { echo "$failures check(s) failed" >&2; exit 1; }
echo "package step: all checks passed"
