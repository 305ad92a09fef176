# shellcheck shell=bash
# The one package step of every script that installs Debian packages
# (sourced, not run). The registry is not always consistent: an index can be
# mid-sync for an hour ("File has unexpected size ... Mirror sync in
# progress?"), and apt-get update then fails although every package we need
# still resolves from the indexes that did arrive. So a failed update is only
# a warning, retried a few times; what decides is whether the install of the
# packages that are missing succeeds. A failed install is retried once after
# another update; then the step fails, naming the packages it could not get.
#
#   wifim_install_packages PACKAGE...   (returns 0 when all are installed)
#   wifim_apt_update                    (never fails)
#   wifim_apt_retry COMMAND...          (runs an apt command, retried once)
#
# The commands and the pause are settings, so that the logic can be tested
# without a registry: WIFIM_APT_GET, WIFIM_DPKG_QUERY, WIFIM_APT_UPDATE_ATTEMPTS,
# WIFIM_APT_PAUSE_S.

WIFIM_APT_GET=${WIFIM_APT_GET:-apt-get}
WIFIM_DPKG_QUERY=${WIFIM_DPKG_QUERY:-dpkg-query}
WIFIM_APT_UPDATE_ATTEMPTS=${WIFIM_APT_UPDATE_ATTEMPTS:-3}
WIFIM_APT_PAUSE_S=${WIFIM_APT_PAUSE_S:-10}
# Another apt (a second script, the machine's own updater) may hold dpkg's
# lock for a while: wait for it rather than fail.
WIFIM_APT_LOCK_WAIT=(-o DPkg::Lock::Timeout=600)

wifim_package_installed() {
  # shellcheck disable=SC2016 # ${Status} is dpkg-query's own field syntax
  "$WIFIM_DPKG_QUERY" -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

# Prints, one a line, the packages of the arguments that are not installed.
wifim_missing_packages() {
  local p
  for p in "$@"; do
    wifim_package_installed "$p" || echo "$p"
  done
}

wifim_apt_update() {
  local attempt
  export DEBIAN_FRONTEND=noninteractive
  for ((attempt = 1; attempt <= WIFIM_APT_UPDATE_ATTEMPTS; attempt++)); do
    if "$WIFIM_APT_GET" "${WIFIM_APT_LOCK_WAIT[@]}" update -qq; then
      return 0
    fi
    echo "warning: apt-get update failed (attempt $attempt of $WIFIM_APT_UPDATE_ATTEMPTS)" >&2
    if ((attempt < WIFIM_APT_UPDATE_ATTEMPTS)); then
      sleep "$WIFIM_APT_PAUSE_S"
    fi
  done
  echo "warning: going on with the package indexes that did arrive" >&2
  return 0
}

# Runs an apt command; when it fails, updates the indexes and runs it once
# more. Its output is shown only when the second run fails too.
wifim_apt_retry() {
  local log
  log=$(mktemp)
  export DEBIAN_FRONTEND=noninteractive
  if "$@" >"$log" 2>&1; then
    rm -f "$log"
    return 0
  fi
  echo "warning: '$*' failed; updating the package indexes and trying once more" >&2
  wifim_apt_update
  if "$@" >"$log" 2>&1; then
    rm -f "$log"
    return 0
  fi
  cat "$log" >&2
  rm -f "$log"
  return 1
}

wifim_install_packages() {
  local missing still
  mapfile -t missing < <(wifim_missing_packages "$@")
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" != 0 ]; then
    echo "missing Debian packages: ${missing[*]}" >&2
    echo "install them as root: apt-get install ${missing[*]}" >&2
    return 1
  fi
  wifim_apt_update
  wifim_apt_retry "$WIFIM_APT_GET" "${WIFIM_APT_LOCK_WAIT[@]}" install -y -qq \
    --no-install-recommends "${missing[@]}" || true
  mapfile -t still < <(wifim_missing_packages "${missing[@]}")
  if [ ${#still[@]} -gt 0 ]; then
    echo "could not install these Debian packages: ${still[*]}" >&2
    return 1
  fi
  return 0
}
