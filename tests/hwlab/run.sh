#!/usr/bin/env bash
# The hardware lab: lynx-dfu against an emulated camera of the family, through the real
# Linux kernel (vhci-hcd, usbfs, uvcvideo, uevents) in a qemu VM with no network. Installs
# nothing; the packages it needs and the kernel cache it keeps: tests/hwlab/README.md.
#
#   tests/hwlab/run.sh [--build DIR] [--bench] [--keep] [--record DIR] [--case NAME]...
#
# --build DIR  the native build whose app/lynx-dfu is tested (default: build/default)
# --bench      run the measurements of bench/hwlab instead of the sessions
# --keep       keep the work directory and print where it is
# --record DIR copy every case's actual output and device log to DIR, for review
# --case NAME  run only this case of tests/hwlab/cases (may be given more than once)
# Exits non-zero on any failure.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/../.." && pwd)"
build="$repo/build/default"
mode=sessions
keep=0
record=""
only=()
while [ $# -gt 0 ]; do
    case "$1" in
        --build) build="$(cd "$2" && pwd)"; shift 2 ;;
        --bench) mode=bench; shift ;;
        --keep) keep=1; shift ;;
        --record) mkdir -p "$2"; record="$(cd "$2" && pwd)"; shift 2 ;;
        --case) [ -d "$here/cases/$2" ] || { echo "no case $2" >&2; exit 2; }; only+=("$2"); shift 2 ;;
        *) echo "usage: $0 [--build DIR] [--bench] [--keep] [--record DIR] [--case NAME]..." >&2; exit 2 ;;
    esac
done

fail() { echo "hwlab: $*" >&2; exit 1; }

for tool in qemu-system-x86_64 dfu-util v4l2-compliance v4l2-ctl cmake apt-get dpkg; do
    command -v "$tool" >/dev/null || fail "missing $tool (scripts/setup.sh --test installs it)"
done
busybox=/bin/busybox
[ -x "$busybox" ] && "$busybox" --list | grep -x cpio >/dev/null || fail "missing a static busybox with cpio (busybox-static)"
lynx="$build/app/lynx-dfu"
[ -x "$lynx" ] || fail "no $lynx: build first (cmake --preset default && cmake --build build/default)"

# --- the kernel and the udev daemon -------------------------------------------------------
cache="${LYNX_HWLAB_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/lynx-dfu/hwlab}"
mkdir -p "$cache"

# fetch PACKAGE DIR: the package unpacked into DIR, once; said aloud, as the kernel is 400 MB.
fetch() {
    [ -d "$2" ] && return 0
    echo "hwlab: fetching the Debian package $1 into the cache $cache (once; kept for later runs)"
    (cd "$cache" && rm -f "$1"_*.deb && apt-get download "$1" >/dev/null 2>&1) || fail "apt-get download $1 failed"
    rm -rf "$2.tmp" && dpkg -x "$cache/$1"_*.deb "$2.tmp" && mv "$2.tmp" "$2"
    rm -f "$cache/$1"_*.deb
    echo "hwlab: $1 unpacked in $2 ($(du -sh "$2" | cut -f1)); remove $cache to free it"
}

kpkg="$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')"
[ -n "$kpkg" ] || fail "apt knows no linux-image-amd64 (run apt-get update)"
kroot="$cache/$kpkg"
[ -d "$kroot/boot" ] || rm -rf "$kroot"
fetch "$kpkg" "$kroot"
uver="$(apt-cache policy udev 2>/dev/null | awk '/Candidate:/ {print $2; exit}')"
[ -n "$uver" ] && [ "$uver" != "(none)" ] || fail "apt knows no udev (run apt-get update)"
uroot="$cache/udev_$uver"
fetch udev "$uroot"
[ -x "$uroot/bin/udevadm" ] || fail "no udevadm in the udev package"
kver="$(ls "$kroot/lib/modules" | head -n1)"
vmlinuz="$kroot/boot/vmlinuz-$kver"
[ -f "$vmlinuz" ] || fail "no kernel image in $kpkg"
[ -f "$kroot/lib/modules/$kver/modules.dep" ] || "$busybox" depmod -b "$kroot" "$kver"

# --- the initramfs -----------------------------------------------------------------------
work="$(mktemp -d /tmp/hwlab.XXXXXX)"
cleanup() { if [ "$keep" = 1 ]; then echo "hwlab: work directory $work"; else rm -rf "$work"; fi; }
trap cleanup EXIT
root="$work/root"
# No /var/lib: the settings store must make the folders above it, as on a minimal system.
mkdir -p "$root"/{bin,hwlab,proc,sys,dev,tmp,run,etc/udev/rules.d,lib/udev/rules.d,lib/systemd,lib/modules/"$kver"}

# The device: the product's virtual camera, built with the tool.
[ -x "$build/platform/lynx-virtual-camera" ] || fail "no $build/platform/lynx-virtual-camera"
cp "$build/platform/lynx-virtual-camera" "$root/hwlab/lynx-virtual-camera"
# The probe is built by the build under test, with its flags and sanitizers.
probe="$build/tests/hwlab/arrival-probe"
cmake --build "$build" --target hwlab_arrival_probe >/dev/null || fail "could not build the probe in $build"
cp "$probe" "$root/hwlab/arrival-probe"

cp "$busybox" "$root/bin/busybox"
cp "$here/guest/init" "$root/init"
cp "$here/guest/sessions.sh" "$here/guest/devices.sh" "$here/guest/interrupted.sh" "$repo/bench/hwlab/bench.sh" "$root/hwlab/"
if [ ${#only[@]} -eq 0 ]; then
    cp -r "$here/cases" "$root/hwlab/cases"
else
    mkdir -p "$root/hwlab/cases"
    for name in "${only[@]}"; do cp -r "$here/cases/$name" "$root/hwlab/cases/"; done
fi
cp "$lynx" "$root/hwlab/lynx-dfu"
# Tools that nobody here wrote: dfu-util, and v4l-utils' compliance suite and capture tool.
for tool in dfu-util v4l2-compliance v4l2-ctl; do cp "$(command -v "$tool")" "$root/hwlab/$tool"; done
cp "$repo/lab/sample-firmware.bin" "$root/hwlab/fw-small.bin"
(yes "Lynx LX20 firmware image, 2 MiB, for the hardware lab" || true) | head -c 2097152 > "$root/hwlab/fw-2m.bin"
printf 'root:x:0:0:root:/:/bin/sh\noperator:x:1000:1000:operator:/tmp:/bin/sh\nvisitor:x:1001:1001:visitor:/tmp:/bin/sh\n' > "$root/etc/passwd"
printf 'root:x:0:\noperator:x:1000:\nvisitor:x:1001:\nplugdev:x:46:operator\nvideo:x:44:\n' > "$root/etc/group"

# Debian's udev daemon with Debian's default rules and ours, which alone decide who may open
# the family's device nodes in the VM.
cp "$uroot/bin/udevadm" "$root/bin/udevadm"
ln -s /bin/udevadm "$root/lib/systemd/systemd-udevd"
cp "$uroot/lib/udev/rules.d/50-udev-default.rules" "$root/lib/udev/rules.d/"
cp "$repo/platform/linux/70-lynx-dfu.rules" "$root/lib/udev/rules.d/"

# The programs' shared libraries, as the dynamic loader finds them.
for program in "$root/hwlab/lynx-dfu" "$root/hwlab/dfu-util" "$root/hwlab/arrival-probe" \
               "$root/hwlab/v4l2-compliance" "$root/hwlab/v4l2-ctl" \
               "$root/hwlab/lynx-virtual-camera" "$root/bin/udevadm"; do
    for lib in $(ldd "$program" | grep -o '/[^ )]*'); do
        [ -e "$root$lib" ] && continue
        mkdir -p "$root$(dirname "$lib")"
        cp -L "$lib" "$root$lib"
    done
done

# vhci-hcd, uvcvideo and what they need, with the module index busybox modprobe reads.
mods="$kroot/lib/modules/$kver"
cp "$mods"/modules.dep "$mods"/modules.order "$mods"/modules.builtin "$root/lib/modules/$kver/"
need="$(grep -E '^kernel/drivers/(usb/usbip/vhci-hcd|media/usb/uvc/uvcvideo)\.ko:' "$mods/modules.dep" | tr ' :' '\n\n' | sort -u)"
[ -n "$need" ] || fail "vhci-hcd or uvcvideo missing from $kpkg"
for module in $need; do
    mkdir -p "$root/lib/modules/$kver/$(dirname "$module")"
    cp "$mods/$module" "$root/lib/modules/$kver/$module"
done
echo "$mode" > "$root/hwlab/mode"
[ -n "$record" ] && touch "$root/hwlab/record"

(cd "$root" && find . | "$busybox" cpio -o -H newc 2>/dev/null | gzip -1) > "$work/initrd.gz"

# --- the VM ------------------------------------------------------------------------------
# Software emulation: it boots in seconds, and needs no /dev/kvm (containers, chroots, CI
# runners have none, or one that hangs).
echo "hwlab: booting $kpkg ($mode)"
start=$(date +%s)
status=0
timeout 900 qemu-system-x86_64 -accel tcg -m 768 -smp 1 -nographic -no-reboot -nic none \
    -kernel "$vmlinuz" -initrd "$work/initrd.gz" \
    -append "console=ttyS0 quiet loglevel=1 panic=-1" </dev/null >"$work/console.txt" 2>&1 || status=$?
tr -d '\r' < "$work/console.txt" | sed -e 's/^.*HWLAB: /HWLAB: /' | sed -n '/^HWLAB/,$p' | sed '/^HWLAB-RECORD-BEGIN/,/^HWLAB-RECORD-END/d' || true
if [ -n "$record" ]; then
    tr -d '\r' < "$work/console.txt" | sed -n '/^HWLAB-RECORD-BEGIN/,/^HWLAB-RECORD-END/p' |
        sed '1d;$d' | base64 -d | tar xz -C "$record" || fail "could not unpack the recording"
fi
echo "hwlab: VM ran $(( $(date +%s) - start )) s, qemu status $status"
[ "$status" = 0 ] || fail "qemu failed or timed out"
summary="$(tr -d '\r' < "$work/console.txt" | grep '^HWLAB: SUMMARY' || true)"
[ -n "$summary" ] || fail "the VM gave no summary"
echo "$summary" | grep -q ' failed 0$' || fail "$summary"
echo "hwlab: passed"
