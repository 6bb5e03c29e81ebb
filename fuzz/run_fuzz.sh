#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Builds every fuzz target with the fuzz preset and runs each for a bounded time under ASan and
# UBSan, after every input kept under fuzz/regressions/<target>/ (a crash once found).
# Usage: fuzz/run_fuzz.sh [seconds-per-target] [build-dir] [target...]  (20, build/fuzz, all)
set -eu
seconds="${1:-20}"
build="${2:-build/fuzz}"
[ $# -gt 2 ] && shift 2 || set --
cd "$(dirname "$0")/.."
root="$(pwd)"
targets="${*:-descriptor_walk device_paths world_file command_reply uevent uvc_descriptors answer}"

cmake --preset fuzz -B "$build" >/dev/null
set --
for target in $targets; do set -- "$@" "lynx_${target}_fuzz"; done
cmake --build "$build" -j2 --target "$@"

# Seeds: typical inputs, so that the first seconds are not spent finding the format.
seed() {  # seed TARGET NAME PRINTF-FORMAT
    mkdir -p "$build/fuzz/corpus/$1" && printf "$3" > "$build/fuzz/corpus/$1/$2"
}
seed descriptor_walk typical '\011\002\033\000\001\001\000\200\062\011\004\000\000\000\376\001\002\000\011\041\001\350\003\000\004\020\001'
seed device_paths camera '\\\\?\\usb#vid_3c5e&pid_0b64&mi_02#6&2c1a3b4d&0&0000#{e5323777-f976-4f5b-9b55-b94699c46e44}\\global'
seed device_paths dfu '\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&1#{a5dcbf10-6530-11d2-901f-00c04fb951ed}'
seed uevent add 'add@/devices/pci0000:00/0000:00:01.2/usb1/1-1/1-1.2\000ACTION=add\000DEVPATH=/devices/pci0000:00/0000:00:01.2/usb1/1-1/1-1.2\000SUBSYSTEM=usb\000DEVTYPE=usb_device\000PRODUCT=3c5e/f1c/100\000DEVNUM=005\000'
seed uevent path '\\\\?\\USB#VID_3C5E&PID_0F1C#1-1.2&005#{a5dcbf10-6530-11d2-901f-00c04fb951ed}'
seed uevent link '\\\\?\\USB#VID_3C5E&PID_0B64&MI_00#1-1&002#{e5323777-f976-4f5b-9b55-b94699c46e44}\\video0'
# Interface 0: the video-control interface, its header, a camera terminal, an extension unit.
seed uvc_descriptors camera '\000\011\002\100\000\002\001\000\200\372\011\004\000\000\001\016\001\000\000\015\044\001\000\001\100\000\000\154\334\002\001\001\022\044\002\001\001\002\000\000\000\000\000\000\000\000\003\000\000\000\032\044\006\003\020\232\076\133\055\174\141\117\236\204\052\155\014\037\173\071\001\001\002\001\001\000'
seed command_reply info '\352\000\346\000\020\000\000\000\001\034\020\005'
seed answer number ' -42'
seed answer quoted '\000\001\002\003\004\005\006\000'
mkdir -p "$build/fuzz/corpus/world_file" "$build/fuzz/corpus/answer"
cp lab/default-world.json "$build/fuzz/corpus/world_file/"
for world in tests/e2e/cases/*/world.json; do
    [ -f "$world" ] && cp "$world" "$build/fuzz/corpus/world_file/$(basename "$(dirname "$world")").json"
done

for target in $targets; do
    binary="$root/$build/fuzz/lynx_${target}_fuzz"
    artifacts="$root/$build/fuzz/artifacts/$target"
    mkdir -p "$artifacts" "$build/fuzz/corpus/$target"
    if [ -d "fuzz/regressions/$target" ]; then
        echo "== $target: regression inputs"
        "$binary" -artifact_prefix="$artifacts/" fuzz/regressions/"$target"/*
    fi
    echo "== $target: fuzzing for $seconds s"
    "$binary" -max_total_time="$seconds" -max_len=4096 -rss_limit_mb=1024 \
        -artifact_prefix="$artifacts/" "$root/$build/fuzz/corpus/$target"
done
echo "fuzz: no target crashed"
