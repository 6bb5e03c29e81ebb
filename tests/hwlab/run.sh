#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The hardware lab: lynx-dfu against an emulated camera of the family, through the real
# Linux kernel (vhci-hcd, usbfs, uvcvideo, uevents) in a qemu VM with no network. Installs
# nothing; the packages it needs and the kernel cache it keeps: tests/hwlab/README.md.
# Its options are told there too. Exits non-zero on any failure.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(cd "$here/../.." && pwd)"
build="$repo/build/default"
mode=sessions
keep=0
record=""
only=()
kernels=()
while [ $# -gt 0 ]; do
    case "$1" in
        --kernel) IFS=, read -ra list <<<"$2"; kernels+=("${list[@]}"); shift 2 ;;
        --build) build="$(cd "$2" && pwd)"; shift 2 ;;
        --bench) mode=bench; shift ;;
        --keep) keep=1; shift ;;
        --record) mkdir -p "$2"; record="$(cd "$2" && pwd)"; shift 2 ;;
        --case) [ -d "$here/cases/$2" ] || { echo "no case $2" >&2; exit 2; }; only+=("$2"); shift 2 ;;
        *) echo "usage: $0 [--kernel RELEASE]... [--build DIR] [--bench] [--keep] [--record DIR] [--case NAME]..." >&2; exit 2 ;;
    esac
done
host="$(. /etc/os-release && echo "${VERSION_CODENAME:-}")"
[ ${#kernels[@]} -gt 0 ] || kernels=("$host")

fail() { echo "hwlab: $*" >&2; exit 1; }
# first PATH...: the first that exists (Debian 12 and 13 put the same files in different places)
first() { for path in "$@"; do [ -e "$path" ] && { echo "$path"; break; }; done; true; }

for tool in qemu-system-x86_64 dfu-util v4l2-compliance v4l2-ctl cmake apt-get dpkg python3; do
    command -v "$tool" >/dev/null || fail "missing $tool (scripts/setup.sh --test installs it)"
done
busybox=/bin/busybox
[ -x "$busybox" ] && "$busybox" --list | grep -x cpio >/dev/null || fail "missing a static busybox with cpio (busybox-static)"
lynx="$build/app/lynx-dfu"
[ -x "$lynx" ] || fail "no $lynx: build first (cmake --preset default && cmake --build build/default)"

# --- the kernels and the udev daemon -----------------------------------------------------
cache="${LYNX_HWLAB_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/lynx-dfu/hwlab}"
mkdir -p "$cache"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
mirror="$("$repo/scripts/debian-mirror.sh")"

# apt_for RELEASE COMMAND ARGS...: apt with the lab's own sources, lists and downloads for
# RELEASE alone (no root needed); "system": the machine's apt as it is. The lists stay
# compressed and apt keeps no binary cache of them: a few seconds more, 250 MB less.
apt_for() {
    local release="$1" dir="$cache/apt/$1" command="$2"
    shift 2
    [ "$release" = system ] && { "$command" "$@"; return; }
    "$command" -o Dir::State="$dir" -o Dir::State::status="$dir/status" -o Dir::Cache="$dir" \
        -o Dir::Etc::sourcelist="$dir/sources.list" -o Dir::Etc::sourceparts="$dir/none" \
        -o Dir::Etc::preferencesparts="$dir/none" -o Dir::Etc::preferences="$dir/none/preferences" \
        -o Acquire::Languages=none -o Acquire::GzipIndexes=true -o Dir::Cache::pkgcache= \
        -o Dir::Cache::srcpkgcache= "$@"
}

# unpack DIR RELEASE PACKAGE...: the packages, fetched by apt_for RELEASE, unpacked together
# into DIR once, said aloud (a kernel is 400 MB); what else lies beside DIR is older: removed.
unpack() {
    local dir="$1" release="$2" deb
    shift 2
    if [ ! -d "$dir" ]; then
        echo "hwlab: fetching the Debian packages $* into the cache $cache (once; kept for later runs)"
        rm -rf "$dir.tmp" "$dir.debs" && mkdir -p "$dir.debs"
        (cd "$dir.debs" && apt_for "$release" apt-get download "$@" >download.txt 2>&1) ||
            fail "apt-get download $* failed: $(tail -n2 "$dir.debs/download.txt")"
        for deb in "$dir.debs"/*.deb; do dpkg -x "$deb" "$dir.tmp"; done
        rm -r "$dir.debs" && mv "$dir.tmp" "$dir"
        echo "hwlab: unpacked in $dir ($(du -sh "$dir" | cut -f1)); remove $cache to free it"
    fi
    find "$(dirname "$dir")" -mindepth 1 -maxdepth 1 ! -path "$dir" -exec rm -rf {} +
}

# kernel RELEASE: the release's kernel (linux-image-amd64's versioned image and the packages
# of that version it depends on: 7.x keeps the kernel and the modules in two of them)
# unpacked in the cache; sets kdir, kver, mods (its module tree) and vmlinuz.
kernel() {
    local dir="$cache/apt/$1" image version
    mkdir -p "$dir/lists/partial" "$dir/archives/partial" "$dir/none"
    : >"$dir/status"
    [ -n "$mirror" ] || fail "no Debian archive in this machine's apt sources: set LYNX_DEBIAN_MIRROR"
    echo "deb [signed-by=$keyring] $mirror/debian $1 main" >"$dir/sources.list"
    if apt_for "$1" apt-get update --error-on=any >"$dir/update.txt" 2>&1 &&
        image="$(apt_for "$1" apt-cache depends linux-image-amd64 2>>"$dir/update.txt" |
            awk '$1 == "Depends:" && $2 ~ /^linux-image-[0-9]/ {print $2; exit}')" && [ -n "$image" ]; then
        version="$(apt_for "$1" apt-cache show --no-all-versions "$image" | sed -n 's/^Version: //p')"
        kdir="$cache/kernel/$1/${image}_$version"
        unpack "$kdir" "$1" "$image" $(apt_for "$1" apt-cache depends "$image" | awk -v v="${image#linux-image}" \
            '$1 == "Depends:" && $2 ~ /^linux-/ && substr($2, length($2) - length(v) + 1) == v {print $2}')
    else
        kdir="$(first "$cache/kernel/$1"/*_*[0-9])"
        [ -n "$kdir" ] || fail "apt found no linux-image-amd64 of $1 ($dir/update.txt): $(grep -m2 '^E:' "$dir/update.txt")"
        echo "hwlab: apt found no linux-image-amd64 of $1 (no network?); booting the kernel in the cache, ${kdir##*/}"
    fi
    mods="$(dirname "$(first "$kdir"/{usr/,}lib/modules/*/kernel)")"
    kver="${mods##*/}" && echo "$kver" >"$work/$1.kver"
    vmlinuz="$(first "$kdir/boot/vmlinuz-$kver" "$mods/vmlinuz")"
    [ -f "$vmlinuz" ] || fail "no kernel image or modules in ${kdir##*/}"
}

uver="$(apt-cache policy udev 2>/dev/null | awk '/Candidate:/ {print $2; exit}')"
[ -n "$uver" ] && [ "$uver" != "(none)" ] || fail "apt knows no udev (run apt-get update)"
uroot="$cache/udev/$host/$uver"
unpack "$uroot" system udev
udevadm="$(first "$uroot"/{usr/,}bin/udevadm)"
rules="$(first "$uroot"/{usr/,}lib/udev/rules.d)"
[ -x "$udevadm" ] && [ -d "$rules" ] || fail "no udevadm or rules in the udev package"

# --- the initramfs: one part for every kernel, one for each --------------------------------
work="$(mktemp -d /tmp/hwlab.XXXXXX)"
cleanup() { if [ "$keep" = 1 ]; then echo "hwlab: work directory $work"; else rm -rf "$work"; fi; }
trap cleanup EXIT
root="$work/root"
# No /var/lib: the settings store must make the folders above it, as on a minimal system.
mkdir -p "$root"/{bin,hwlab,proc,sys,dev,tmp,run,etc/udev/rules.d,usr/lib/udev/rules.d,lib/systemd}

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
[ ${#only[@]} -gt 0 ] || mapfile -t only < <(ls "$here/cases")
mkdir -p "$root/hwlab/cases" && for name in "${only[@]}"; do cp -r "$here/cases/$name" "$root/hwlab/cases/"; done
cp "$lynx" "$root/hwlab/lynx-dfu"
# Tools that nobody here wrote: dfu-util, and v4l-utils' compliance suite and capture tool.
for tool in dfu-util v4l2-compliance v4l2-ctl; do cp "$(command -v "$tool")" "$root/hwlab/$tool"; done
cp "$repo/lab/sample-firmware.bin" "$root/hwlab/fw-small.bin"
(yes "Lynx LX20 firmware image, 2 MiB, for the hardware lab" || true) | head -c 2097152 > "$root/hwlab/fw-2m.bin"
printf 'root:x:0:0:root:/:/bin/sh\noperator:x:1000:1000:operator:/tmp:/bin/sh\nvisitor:x:1001:1001:visitor:/tmp:/bin/sh\n' > "$root/etc/passwd"
printf 'root:x:0:\noperator:x:1000:\nvisitor:x:1001:\nplugdev:x:46:operator\nvideo:x:44:\n' > "$root/etc/group"

# Debian's udev daemon with Debian's default rules and ours, which alone decide who may open
# the family's device nodes in the VM. udevd 257 reads rules only under /usr/lib (and /etc).
cp "$udevadm" "$root/bin/udevadm"
ln -s /bin/udevadm "$root/lib/systemd/systemd-udevd"
cp "$rules/50-udev-default.rules" "$repo/platform/linux/70-lynx-dfu.rules" "$root/usr/lib/udev/rules.d/"

# The programs' shared libraries, as the dynamic loader finds them.
for program in "$root/hwlab/lynx-dfu" "$root/hwlab/dfu-util" "$root/hwlab/arrival-probe" \
               "$root/hwlab/v4l2-compliance" "$root/hwlab/v4l2-ctl" \
               "$root/hwlab/lynx-virtual-camera" "$root/bin/udevadm"; do
    ! ldd "$program" | grep 'not found' || fail "this machine lacks libraries that ${program##*/} needs (above)"
    for lib in $(ldd "$program" | grep -o '/[^ )]*'); do
        [ -e "$root$lib" ] || { mkdir -p "$root$(dirname "$lib")" && cp -L "$lib" "$root$lib"; }
    done
done
echo "$mode" > "$root/hwlab/mode"
[ -n "$record" ] && touch "$root/hwlab/record"
(cd "$root" && find . | "$busybox" cpio -o -H newc 2>/dev/null | gzip -1) > "$work/common.cpio.gz"

# --- a VM per kernel -----------------------------------------------------------------------
# boot RELEASE: the kernel's own part of the initramfs (vhci-hcd, uvcvideo and what they
# need, with busybox depmod's index), then the VM. Software emulation: it boots in seconds,
# and needs no /dev/kvm (containers, chroots, CI runners have none, or one that hangs).
boot() {
    kernel "$1"
    local part="$work/$1" status=0 start summary
    mkdir -p "$part/lib/modules/$kver"
    python3 "$here/modules.py" "$mods" "$part/lib/modules/$kver" vhci-hcd uvcvideo
    "$busybox" depmod -b "$part" "$kver"
    (cd "$part" && find . | "$busybox" cpio -o -H newc 2>/dev/null | gzip -1) | cat "$work/common.cpio.gz" - > "$part.gz"
    echo "hwlab: booting $1's kernel $kver ($mode)"
    start=$(date +%s)
    timeout 900 qemu-system-x86_64 -accel tcg -m 768 -smp 1 -nographic -no-reboot -nic none \
        -kernel "$vmlinuz" -initrd "$part.gz" \
        -append "console=ttyS0 quiet loglevel=1 panic=-1" </dev/null >"$part.txt" 2>&1 || status=$?
    tr -d '\r' < "$part.txt" | sed -e 's/^.*HWLAB: /HWLAB: /' | sed -n '/^HWLAB/,$p' | sed '/^HWLAB-RECORD-BEGIN/,/^HWLAB-RECORD-END/d' || true
    echo "hwlab: VM ran $(( $(date +%s) - start )) s on $kver, qemu status $status"
    [ "$status" = 0 ] || fail "qemu failed or timed out"
    if [ -n "$record" ]; then
        mkdir -p "$record/$1"
        tr -d '\r' < "$part.txt" | sed -n '/^HWLAB-RECORD-BEGIN/,/^HWLAB-RECORD-END/p' |
            sed '1d;$d' | base64 -d | tar xz -C "$record/$1" || fail "could not unpack the recording"
    fi
    summary="$(tr -d '\r' < "$part.txt" | grep '^HWLAB: SUMMARY' || true)"
    [ -n "$summary" ] || fail "the VM gave no summary"
    echo "$summary" | grep -q ' failed 0$' || fail "$summary"
}

results="" failed=0
for release in "${kernels[@]}"; do
    set +e; (set -e; boot "$release"); status=$?; set -e
    [ "$status" = 0 ] && verdict=passed || { verdict=FAILED; failed=1; }
    kver="$(cat "$work/$release.kver" 2>/dev/null || true)"
    results+="${results:+, }$release${kver:+ $kver} $verdict"
done
echo "hwlab: kernels: $results"
[ "$failed" = 0 ] || fail "failed"
echo "hwlab: passed"
