#!/bin/bash
# Installs the Debian 12 packages the build, the tests and the demo need.
# As root, missing packages are installed with apt-get; otherwise the missing
# ones are listed and the script fails.
set -euo pipefail

packages=(
  build-essential cmake g++ pkg-config
  libsimpleini-dev libwpa-client-dev
  libgtest-dev googletest
  wpasupplicant iproute2 util-linux procps
  clang-format shellcheck
)
if [ $# -gt 0 ]; then
  packages+=("$@")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" != 0 ]; then
  echo "missing Debian packages: ${missing[*]}" >&2
  echo "install them as root: apt-get install ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
