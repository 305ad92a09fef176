#!/bin/bash
# The daemon stopped by a real systemd through the shipped unit
# (examples/init/wifi_manager.service: Type=simple with -F, KillMode=mixed):
# systemd sends SIGTERM to the supervisor alone and, once it has exited,
# SIGKILL to whatever is left of the service. The worker must have written
# the profile file back, removed the request socket and logged "Program
# close" by then.
#
#   tests/systemd/stop_under_systemd.sh --build-dir DIR
#
# systemd boots in a container (systemd-nspawn, from systemd-container) on a
# minimal Debian 12 root made by debootstrap and kept under
# DIR/systemd/root, so a second run downloads nothing. The build tree and
# the source tree are mounted into it read-only. Needs root. Whatever keeps
# the container from running ends the script with a message and status 1:
# never a skip. Each boot starts from the root as made: what the container
# writes goes to a memory overlay (--volatile=overlay).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
src=$(cd "$here/../.." && pwd)
# shellcheck source=scripts/packages.sh
. "$src/scripts/packages.sh"

build=
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build=$2; shift 2 ;;
    *) echo "systemd: unknown option $1" >&2; exit 2 ;;
  esac
done
fail() {
  echo "systemd: FAILED: $*" >&2
  exit 1
}
[ "$(id -u)" = 0 ] || fail "needs root (debootstrap, systemd-nspawn)"
if [ -z "$build" ] || ! [ -d "$build" ]; then
  fail "no build tree given (--build-dir)"
fi
build=$(cd "$build" && pwd)
for program in wifi_manager/wifi_manager tests/wpa_sim/wpa_sim; do
  [ -x "$build/$program" ] || fail "$build/$program is not built"
done
wifim_install_packages systemd-container debootstrap ||
  fail "systemd-container and debootstrap could not be installed"

# The container's root: Debian 12 with systemd, made once. A registry that
# fails mid-way is tried again, from scratch, twice more.
root=$build/systemd/root
if ! [ -x "$root/lib/systemd/systemd" ]; then
  made=false
  for attempt in 1 2 3; do
    rm -rf "$root"
    mkdir -p "$root"
    if debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,procps bookworm \
      "$root" http://deb.debian.org/debian >"$build/systemd/debootstrap.log" 2>&1; then
      made=true
      break
    fi
    echo "warning: debootstrap failed (attempt $attempt of 3)" >&2
    sleep 10
  done
  $made || fail "debootstrap could not make the container's root (see $build/systemd/debootstrap.log)"
fi

# The scenario runs as a oneshot unit once the container has booted.
cp "$here/guest-stop.sh" "$root/usr/local/sbin/wifim-guest-stop"
cat >"$root/etc/systemd/system/wifim-guest-stop.service" <<'UNIT'
[Unit]
Description=wifi_manager stopped by systemd
After=multi-user.target
[Service]
Type=oneshot
ExecStart=/usr/local/sbin/wifim-guest-stop
[Install]
WantedBy=multi-user.target
UNIT
mkdir -p "$root/etc/systemd/system/multi-user.target.wants" "$root/out" "$root/build" "$root/src"
ln -sf /etc/systemd/system/wifim-guest-stop.service \
  "$root/etc/systemd/system/multi-user.target.wants/wifim-guest-stop.service"
out=$build/systemd/out
rm -rf "$out"
mkdir -p "$out"

started=$SECONDS
timeout 300 systemd-nspawn -q -D "$root" --boot --register=no --keep-unit --volatile=overlay \
  --bind-ro="$build:/build" --bind-ro="$src:/src" --bind="$out:/out" \
  >"$build/systemd/console.log" 2>&1 || true
echo "systemd: container ran for $((SECONDS - started)) s"
[ -f "$out/result" ] || fail "the container did not run the scenario (see $build/systemd/console.log)"
cat "$out/result"

failures=0
expect() { # line, as the guest wrote it
  if grep -qx "$1" "$out/result"; then
    echo "ok: $1"
  else
    echo "FAILED: expected the line '$1'" >&2
    failures=$((failures + 1))
  fi
}
expect "done"
expect "stop-exit=0"
expect "Result=success"
expect "profile=written-back"
expect "socket=removed"
expect "program-close-lines=1"
expect "workers-left=0"
grep -q "<result>0</result>" "$out/answer" || {
  echo "FAILED: the daemon did not answer before the stop" >&2
  failures=$((failures + 1))
}
if [ "$failures" -ne 0 ]; then
  echo "--- the daemon's log" >&2
  cat "$out/wifi_manager.log" >&2 || true
  echo "--- the unit's journal" >&2
  cat "$out/journal" >&2 || true
  exit 1
fi
echo "systemd: the worker ended in order before systemd's SIGKILL"
