#!/bin/bash
# The radio tier: the daemon against the real 802.11 stack in a disposable VM.
#
#   tests/radio/radio.sh [--build-dir DIR] [--filter GTEST_FILTER] [--record]
#                        [--shell] [--tcg | --kvm]
#
# Debian's own kernel (linux-image-amd64, downloaded and unpacked, never
# installed) boots in qemu with an initramfs of static busybox and the radio
# modules; mac80211_hwsim gives it radios that speak real 802.11 frames to
# each other. Inside, hostapd runs the access points and wpa_supplicant
# (nl80211) the station, and the scenario program of the build tree drives
# the daemon of the same tree against them (tests/radio/guest/world.sh).
#
#   (default)   every scenario (or those of $RADIO_FILTER); gtest's JSON report lands in
#               <build>/radio/out/results.json, read by the per-scenario tests
#   --filter    only the scenarios matching this gtest filter
#   --record    re-record tests/radio/transcripts/ from the real stack
#   --shell     an interactive shell in the VM, the radio world set up
#
# The kernel package, the unpacked kernel and the initramfs are kept under
# <build>/radio/cache, so a second run downloads nothing. Needs root (package
# installs, and qemu's 9p export of the host's root). KVM is used when the
# host's KVM can boot a stock kernel, TCG otherwise. Whatever keeps the VM
# from running ends the script with a message and status 1: never a skip.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
src=$(cd "$here/../.." && pwd)
# shellcheck source=scripts/packages.sh
. "$src/scripts/packages.sh"

build=$src/build-test
filter=${RADIO_FILTER:-*}
mode=scenarios
accel=auto
while [ $# -gt 0 ]; do
    case "$1" in
        --build-dir) build=$2; shift 2 ;;
        --filter) filter=$2; shift 2 ;;
        --record) mode=record; shift ;;
        --shell) mode=shell; shift ;;
        --tcg) accel=tcg; shift ;;
        --kvm) accel=kvm; shift ;;
        *) echo "radio: unknown option $1" >&2; exit 2 ;;
    esac
done

fail() {
    echo "radio: FAILED: $*" >&2
    exit 1
}

[ "$(id -u)" = 0 ] || fail "needs root (package installs, qemu's export of the host's root)"
[ -d "$build" ] || fail "no build tree at $build (build it first: cmake -B $build && cmake --build $build)"
build=$(cd "$build" && pwd)
cache=$build/radio/cache
out=$build/radio/out
mkdir -p "$cache"
started=$SECONDS

# The host side needs qemu and the tools that make the initramfs; the guest
# runs the host's own hostapd, wpa_supplicant, iw, ip and udhcpc/udhcpd
# (busybox) from the host's root.
packages=(qemu-system-x86 hostapd wpasupplicant busybox-static udhcpc iw iproute2 cpio
          xz-utils util-linux)
wifim_install_packages "${packages[@]}" ||
    fail "the radio tier's Debian packages could not be installed"
for tool in qemu-system-x86_64 hostapd wpa_supplicant iw ip cpio xz; do
    command -v "$tool" >/dev/null || fail "$tool is missing after the package step"
done
busybox=/bin/busybox
if ldd "$busybox" >/dev/null 2>&1; then
    fail "$busybox is not static (busybox-static is needed)"
fi

for program in tests/radio/radio_scenarios tests/radio/radio_record wifi_manager/wifi_manager; do
    [ -x "$build/$program" ] || fail "$build/$program is not built"
done

# ------------------------------------------------------------------ kernel
kernel_package=$(apt-cache depends linux-image-amd64 2>/dev/null |
                 awk '/Depends: linux-image-[0-9]/ { print $2; exit }')
[ -n "$kernel_package" ] || fail "apt-cache does not know linux-image-amd64 (no package index?)"
kernel_version=${kernel_package#linux-image-}
kernel_dir=$cache/kernel-$kernel_version
initrd=$cache/initrd-$kernel_version.cpio

download_kernel() {
    local deb
    deb=$(find "$cache" -maxdepth 1 -name "${kernel_package}_*.deb" | tail -1)
    if [ -z "$deb" ]; then
        echo "radio: downloading $kernel_package" >&2
        (cd "$cache" && wifim_apt_retry apt-get download "$kernel_package") ||
            fail "could not download $kernel_package"
        deb=$(find "$cache" -maxdepth 1 -name "${kernel_package}_*.deb" | tail -1)
        [ -n "$deb" ] || fail "apt-get download left no $kernel_package package"
    fi
    echo "$deb"
}

# The ELF vmlinux inside Debian's xz bzImage: qemu boots it through its PVH
# entry, which spares the guest its own decompression (seconds under TCG).
extract_vmlinux() { # bzImage out
    local offset
    offset=$(LC_ALL=C grep -abo $'\xfd7zXZ' "$1" | head -1 | cut -d: -f1 || true)
    [ -n "$offset" ] || return 1
    tail -c +$((offset + 1)) "$1" | xz -dc --single-stream >"$2" 2>/dev/null || true
    [ "$(head -c 4 "$2" | od -An -c | tr -d ' ')" = '177ELF' ]
}

# The modules the radios need. The Debian package has no modules.dep, so
# the closure comes from each module's own depends= field.
modules=(virtio_pci virtio_rng 9pnet_virtio 9p overlay
         cfg80211 mac80211 mac80211_hwsim
         ctr ccm gcm ghash-generic cmac seqiv ecb aesni_intel
         libarc4 michael_mic)

build_initramfs() { # unpacked-package initramfs-dir
    local modsrc=$1/lib/modules/$kernel_version ir=$2 m
    declare -A seen=()
    add_module() {
        local name=${1//-/_} file dep
        [ -n "${seen[$name]:-}" ] && return 0
        seen[$name]=1
        file=$(find "$modsrc/kernel" \( -name "$name.ko" -o -name "${name//_/-}.ko" \) | head -1)
        if [ -z "$file" ]; then
            grep -q -e "/$name.ko\$" -e "/${name//_/-}.ko\$" "$modsrc/modules.builtin" ||
                echo "radio: note: module $name is neither a module nor built in"
            return 0
        fi
        mkdir -p "$ir/lib/modules/$kernel_version/$(dirname "${file#"$modsrc"/}")"
        cp "$file" "$ir/lib/modules/$kernel_version/${file#"$modsrc"/}"
        for dep in $(grep -a -o 'depends=[^[:cntrl:]]*' "$file" | head -1 | cut -d= -f2 | tr ',' ' '); do
            add_module "$dep"
        done
    }
    mkdir -p "$ir"/{bin,sbin,etc,proc,sys,dev,lib/modules/"$kernel_version"}
    cp "$busybox" "$ir/bin/busybox"
    for m in $("$busybox" --list); do
        [ -e "$ir/bin/$m" ] || ln -s busybox "$ir/bin/$m"
    done
    ln -s ../bin/busybox "$ir/sbin/modprobe"
    mknod -m 600 "$ir/dev/console" c 5 1
    mknod -m 666 "$ir/dev/null" c 1 3
    install -m 755 "$here/guest/init" "$ir/init"
    for m in "${modules[@]}"; do
        add_module "$m"
    done
    printf '%s\n' "${modules[@]}" | grep -v '^mac80211_hwsim$' >"$ir/etc/preload-modules"
    cp "$modsrc/modules.builtin" "$modsrc/modules.order" "$ir/lib/modules/$kernel_version/"
    "$busybox" depmod -b "$ir" "$kernel_version"
    (cd "$ir" && find . | cpio -o -H newc --quiet) >"$initrd.new"
    mv "$initrd.new" "$initrd"
}

if [ ! -f "$kernel_dir/vmlinux" ] || [ ! -f "$initrd" ] || [ "$here/guest/init" -nt "$initrd" ] ||
    [ "$0" -nt "$initrd" ]; then
    step=$SECONDS
    deb=$(download_kernel)
    unpacked=$cache/unpacked
    rm -rf "$unpacked" "$kernel_dir" "$cache/initramfs"
    mkdir -p "$kernel_dir"
    dpkg-deb -x "$deb" "$unpacked"
    extract_vmlinux "$unpacked/boot/vmlinuz-$kernel_version" "$kernel_dir/vmlinux.new" ||
        fail "no ELF kernel found inside $unpacked/boot/vmlinuz-$kernel_version"
    build_initramfs "$unpacked" "$cache/initramfs"
    mv "$kernel_dir/vmlinux.new" "$kernel_dir/vmlinux"
    rm -rf "$unpacked" "$cache/initramfs"
    echo "radio: kernel $kernel_version and initramfs ready in $((SECONDS - step)) s" \
        "($(du -h "$initrd" | cut -f1) initramfs)"
fi

# ------------------------------------------------------------------ boot
rm -rf "$out"
mkdir -p "$out"
{
    printf 'RADIO_MODE=%q\n' "$mode"
    printf 'RADIO_FILTER=%q\n' "$filter"
} >"$out/guest.env"

# A /dev/kvm backed by kvm_pvm (software nested virtualisation) runs only
# guest kernels made for it: a stock kernel hangs in early boot there. Such
# a KVM shows no vmx/svm flag.
if [ "$accel" = auto ]; then
    if [ -w /dev/kvm ] && grep -qw -E 'vmx|svm' /proc/cpuinfo && [ ! -d /sys/module/kvm_pvm ]; then
        accel=kvm
    else
        accel=tcg
    fi
fi
append="console=ttyS0 loglevel=4 panic=-1 random.trust_cpu=on radio_radios=6"
append="$append radio_src=$src radio_build=$build radio_out=$out"
[ "$mode" = shell ] && append="$append radio_shell=1"

qemu_command() { # accel
    local accel_options
    # shellcheck disable=SC2054 # the commas belong to qemu's own options
    if [ "$1" = kvm ]; then
        # Nested KVM may refuse MSR 0x10a, which qemu then aborts on.
        accel_options=(-accel kvm -cpu host,-arch-capabilities)
    else
        accel_options=(-accel tcg -cpu max)
    fi
    # shellcheck disable=SC2054
    qemu=(qemu-system-x86_64 "${accel_options[@]}" -M pc -smp 1 -m 1024
          -nodefaults -no-user-config -display none -vga none -no-reboot
          -kernel "$kernel_dir/vmlinux" -initrd "$initrd" -append "$append"
          -chardev stdio,id=con,signal=off -serial chardev:con
          -fsdev local,id=hostroot,path=/,security_model=none,readonly=on,multidevs=remap
          -device virtio-9p-pci,fsdev=hostroot,mount_tag=hostroot
          -fsdev local,id=src,path="$src",security_model=none,readonly=on,multidevs=remap
          -device virtio-9p-pci,fsdev=src,mount_tag=src
          -fsdev local,id=build,path="$build",security_model=none,multidevs=remap
          -device virtio-9p-pci,fsdev=build,mount_tag=build
          -device virtio-rng-pci)
}

if [ "$mode" = shell ]; then
    qemu_command "$accel"
    exec "${qemu[@]}"
fi

now_ms() { local t=$EPOCHREALTIME; echo $((${t/./} / 1000)); }

# Boots once; the console is copied to console.log with host times. Returns
# 3 when the guest printed nothing within the boot allowance (a KVM that
# cannot run the kernel), 4 when the run as a whole overran.
boot() { # accel
    local boot_allowance=60 run_allowance=1500 qemu_pid watchdog line t boot_start
    [ "$1" = tcg ] && boot_allowance=180
    qemu_command "$1"
    echo "radio: booting $kernel_version with $1 (boot allowance ${boot_allowance}s)"
    rm -f "$out/.init" "$out/.ready" "$out/.done" "$out/.overrun" "$out/console.fifo"
    mkfifo "$out/console.fifo"
    boot_start=$(now_ms)
    "${qemu[@]}" </dev/null >"$out/console.fifo" 2>"$out/qemu-stderr.txt" &
    qemu_pid=$!
    (
        waited=0
        while kill -0 "$qemu_pid" 2>/dev/null; do
            sleep 1
            waited=$((waited + 1))
            if [ ! -f "$out/.init" ] && [ "$waited" -ge "$boot_allowance" ]; then
                echo "radio: no output from the guest after ${boot_allowance}s: stopping qemu"
                touch "$out/.no-boot"
                kill "$qemu_pid"
                exit 0
            fi
            if [ "$waited" -ge "$run_allowance" ]; then
                echo "radio: the run overran ${run_allowance}s: stopping qemu"
                touch "$out/.overrun"
                kill "$qemu_pid"
                exit 0
            fi
        done
    ) &
    watchdog=$!
    while IFS= read -r line; do
        line=${line%$'\r'}
        t=$(($(now_ms) - boot_start))
        printf '%8d %s\n' "$t" "$line" >>"$out/console.log"
        case $line in
            RADIO-INIT*) echo "$t" >"$out/.init" ;;
            RADIO-READY*) echo "$t" >"$out/.ready" ;;
            RADIO-DONE*) echo "$t" >"$out/.done" ;;
        esac
        case $line in
            RADIO-* | init:* | radio:* | '[ RUN'* | '[       OK'* | '[  FAILED'* | '[  PASSED'* | \
                *'Kernel panic'*) printf '[%6.1fs] %s\n' "$(echo "$t" | awk '{ print $1 / 1000 }')" "$line" ;;
        esac
    done <"$out/console.fifo"
    wait "$qemu_pid" || true
    kill "$watchdog" 2>/dev/null || true
    wait "$watchdog" 2>/dev/null || true
    rm -f "$out/console.fifo"
    [ -f "$out/.no-boot" ] && return 3
    [ -f "$out/.overrun" ] && return 4
    return 0
}

set +e
boot "$accel"
status=$?
if [ "$status" = 3 ] && [ "$accel" = kvm ]; then
    echo "radio: this KVM cannot boot the kernel: falling back to TCG"
    mv "$out/console.log" "$out/console-kvm.log"
    rm -f "$out/.no-boot"
    accel=tcg
    boot tcg
    status=$?
fi
set -e
[ "$status" = 3 ] && fail "the VM did not boot (no console output); see $out/console.log and $out/qemu-stderr.txt"
[ "$status" = 4 ] && fail "the VM overran its time; see $out/console.log"
[ -f "$out/.ready" ] || fail "the guest did not get ready (modules, 9p, overlay); see $out/console.log"
guest_status=$(sed -n 's/.*RADIO-DONE rc=\([0-9]*\).*/\1/p' "$out/console.log" | tail -1)
[ -n "$guest_status" ] || fail "the guest did not finish; see $out/console.log"
{
    echo "accel=$accel"
    echo "boot_to_ready_s=$(awk '{ print $1 / 1000 }' "$out/.ready")"
    echo "ready_to_done_s=$(awk -v r="$(cat "$out/.ready")" '{ print ($1 - r) / 1000 }' "$out/.done")"
    echo "whole_run_s=$((SECONDS - started))"
} | tee "$out/timing.txt"

if [ "$mode" = record ] && [ "$guest_status" = 0 ]; then
    mkdir -p "$here/transcripts"
    cp "$out"/transcripts/*.txt "$here/transcripts/"
    echo "radio: transcripts written to $here/transcripts/"
fi
if [ "$guest_status" != 0 ]; then
    echo "radio: the guest ended with status $guest_status; see $out/console.log" >&2
fi
exit "$guest_status"
