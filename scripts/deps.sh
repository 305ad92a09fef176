#!/bin/bash
# Installs the Debian 12 packages the build, the tests and the demo need,
# and any named as arguments. As root, missing packages are installed with
# apt-get (see packages.sh for how a flaky registry is survived); otherwise
# the missing ones are listed and the script fails.
set -euo pipefail
here=$(dirname "$0")
# shellcheck source=scripts/packages.sh
. "$here/packages.sh"

packages=(
  build-essential cmake g++ pkg-config
  libsimpleini-dev libwpa-client-dev
  libgtest-dev googletest
  wpasupplicant iproute2 util-linux procps
  clang-format shellcheck
)
wifim_install_packages "${packages[@]}" "$@"
