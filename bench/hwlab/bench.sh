# SPDX-License-Identifier: Apache-2.0
# The measurements of the hardware lab, inside the VM (busybox sh). Not a test: it prints
# numbers ("HWLAB: BENCH ...") and fails only when a measurement could not be taken.
#  - arrival: from the kernel's "New USB device found" of the DFU-mode device (its uevent
#    follows at once) to the moment the Linux backend delivers the arrival (the watcher's
#    callback), both read from the kernel log; and, for the whole picture, from the
#    emulator's write to vhci-hcd's attach file, which adds the kernel's enumeration;
#  - tool: in a key 1 update, from that attach to the first DFU request of lynx-dfu;
#  - download: a 2 MiB image, first DNLOAD to manifestation, as the device times it,
#    written by lynx-dfu (key 3) and by dfu-util into the same emulated device.
cd /tmp
mkdir -p /tmp/bench
taken=0
missing=0

. /hwlab/devices.sh

clock_of() {  # log event
    grep "^clock $2" "$1" | head -n1 | awk '{print $NF}'
}
report() {  # name value
    if [ -n "$2" ]; then
        echo "HWLAB: BENCH $1 $2"
        taken=$((taken + 1))
    else
        echo "HWLAB: BENCH $1 not measured"
        missing=$((missing + 1))
    fi
}

# 1. Arrival as the backend delivers it.
for round in 1 2 3 4 5; do
    log=/tmp/bench/arrival$round.log
    arrival-probe --timeout-ms 10000 >/tmp/bench/probe$round.txt &
    probe=$!
    wait_for "grep -q ready /tmp/bench/probe$round.txt" 50
    lynx-virtual-camera --mode dfu --log "$log" --lifetime-s 60 &
    emulator=$!
    wait "$probe"
    noticed="$(awk '/^noticed/ {print $2}' /tmp/bench/probe$round.txt)"
    attached="$(clock_of "$log" 'attach dfu')"
    value=""
    [ -n "$noticed" ] && [ -n "$attached" ] && value="$(awk -v a="$attached" -v b="$noticed" 'BEGIN {printf "%.1f ms", b - a}')"
    report "attach-to-arrival-round$round" "$value"
    found="$(dmesg | grep 'idProduct=0f1c' | tail -n1 | sed 's/^\[ *\([0-9.]*\)\].*/\1/')"
    delivered="$(dmesg | grep 'hwlab-probe: arrival delivered' | tail -n1 | sed 's/^\[ *\([0-9.]*\)\].*/\1/')"
    value=""
    [ -n "$found" ] && [ -n "$delivered" ] && value="$(awk -v a="$found" -v b="$delivered" 'BEGIN {printf "%.1f ms", (b - a) * 1000}')"
    report "kernel-found-to-arrival-round$round" "$value"
    kill -TERM "$emulator"; wait "$emulator"
    wait_for no_family_device 100
done

# 2. The whole tool: key 1 switches the camera, waits for the DFU-mode device and burns.
log=/tmp/bench/tool.log
lynx-virtual-camera --mode camera --log "$log" --lifetime-s 120 &
emulator=$!
wait_for has_camera_node 100 && sleep 0.5
printf '1\n1\n/hwlab/fw-small.bin\n\nq\n' | timeout 120 lynx-dfu >/tmp/bench/tool.txt 2>&1
attached="$(clock_of "$log" 'attach dfu')"
first="$(clock_of "$log" 'first-dfu-request')"
value=""
[ -n "$attached" ] && [ -n "$first" ] && value="$(awk -v a="$attached" -v b="$first" 'BEGIN {printf "%.1f ms", b - a}')"
report "key1-attach-to-first-dfu-request" "$value"
kill -TERM "$emulator"; wait "$emulator"
wait_for no_family_device 100

# 3. 2 MiB into the same emulated device, by lynx-dfu and by dfu-util.
download() {  # name command...
    name="$1"
    shift
    log="/tmp/bench/$name.log"
    lynx-virtual-camera --mode dfu --log "$log" --lifetime-s 120 &
    emulator=$!
    wait_for has_family_device 100 && sleep 0.5
    "$@" >"/tmp/bench/$name.txt" 2>&1
    seconds="$(awk '/^timing download/ {print $3}' "$log")"
    kill -TERM "$emulator"; wait "$emulator"
    wait_for no_family_device 100
    grep -q '^dfu manifested blocks 2048 bytes 2097152' "$log" || seconds=""
    report "download-2MiB-$name" "${seconds:+$seconds s}"
    eval "seconds_$name=\$seconds"
}
lynx_key3() { printf '3\n1\n/hwlab/fw-2m.bin\n\nq\n' | timeout 120 lynx-dfu; }
download lynx lynx_key3
download dfuutil timeout 120 dfu-util -d 3c5e:0f1c -a 0 -D /hwlab/fw-2m.bin
if [ -n "$seconds_lynx" ] && [ -n "$seconds_dfuutil" ]; then
    report "download-ratio-lynx-to-dfu-util" "$(awk -v a="$seconds_lynx" -v b="$seconds_dfuutil" 'BEGIN {printf "%.2f", a / b}')"
fi

echo "HWLAB: SUMMARY passed $taken failed $missing"
