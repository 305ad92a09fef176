#!/bin/bash
# Cross-builds wifi_manager for 32-bit ARM (armhf) into build-armhf/ and
# packages it; with --test, also runs the unit tests and the end-to-end tests
# against the real wpa_supplicant under qemu-arm.
#
#   scripts/cross-armhf.sh [--test]
#
# The ARM programs run through the kernel's binfmt_misc with Debian's
# qemu-user-static (registered here when it is not yet), so the tests' own
# sandbox, the simulator and the native wpa_supplicant talk to the emulated
# daemon over their sockets as they would on the device.
set -euo pipefail
cd "$(dirname "$0")/.."

run_tests=false
[ "${1:-}" = --test ] && run_tests=true

# The armhf indexes arrive with the next update, which the package step runs
# because the armhf packages are missing.
if [ "$(id -u)" = 0 ] && ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
fi
scripts/deps.sh crossbuild-essential-armhf libwpa-client-dev:armhf libgtest-dev:armhf \
  qemu-user-static

build=${WIFIM_ARMHF_BUILD_DIR:-build-armhf}
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake -DWIFIM_WERROR=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2
(cd "$build" && cpack -G DEB >/dev/null)
echo "ARM executable: $build/wifi_manager/wifi_manager"
ls "$build"/*.deb

$run_tests || exit 0

if [ ! -e /proc/sys/fs/binfmt_misc/register ]; then
  mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
fi
if [ ! -e /proc/sys/fs/binfmt_misc/qemu-arm ]; then
  cat /usr/lib/binfmt.d/qemu-arm.conf >/proc/sys/fs/binfmt_misc/register
fi
export QEMU_LD_PREFIX=/usr/arm-linux-gnueabihf
# The unit tier, and the tests of other tiers marked for the ARM run (the
# end-to-end tests of the daemon against the real wpa_supplicant on a veth
# link): chosen by their ctest labels, so a new test is never left out.
ctest --test-dir "$build" -j4 --output-on-failure --timeout 600 -L '^(unit|arm)$'
