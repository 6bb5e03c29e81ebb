# SPDX-License-Identifier: Apache-2.0
# Sourced inside the VM (busybox sh) by the sessions and the measurements: what the kernel
# shows of the family's devices, and a bounded wait for it.

has_family_device() {
    grep -qx 3c5e /sys/bus/usb/devices/*/idVendor 2>/dev/null
}
no_family_device() { ! has_family_device; }

has_camera_node() {
    for node in /sys/class/video4linux/video*; do
        [ -e "$node/device/../idVendor" ] && grep -qx 3c5e "$node/device/../idVendor" && return 0
    done
    return 1
}

# wait_for CONDITION TENTHS: polls a shell condition, at most TENTHS tenths of a second.
wait_for() {
    i=0
    while [ "$i" -lt "$2" ]; do
        $1 && return 0
        sleep 0.1
        i=$((i + 1))
    done
    return 1
}
