# SPDX-License-Identifier: Apache-2.0
# For a case with an `interrupt` file (a signal, the device log line of the moment, the one
# after which the device rests): key 1 gets the signal then; as an operator would, key 3 if
# the camera is left in DFU mode (failing: a replug, key 3 again), key 2; all for expected.txt.

has_dfu_device() { grep -qx 0f1c /sys/bus/usb/devices/*/idProduct 2>/dev/null; }
no_dfu_device() { ! has_dfu_device; }
back_in_dfu_mode() { tail -n 1 "$out/device.log" | grep -q '^attach dfu'; }  # after a replug
logged() { grep -qE "$pattern" "$out/device.log"; }

session() {  # title keys...; recorded as sessionN.jsonl, N counting the case's sessions
    echo "--- $1" >>"$out/actual.txt"
    shift
    printf '%s\n' "$@" >"$out/keys.txt"
    sessions=$((sessions + 1))
    timeout 120 /hwlab/lynx-dfu --record "$out/session$sessions.jsonl" <"$out/keys.txt" >"$out/session.txt" 2>&1
    echo "exit $?" >>"$out/session.txt"
    normalize "$out/session.txt" >>"$out/actual.txt"
}

interrupted() {
    sessions=0
    sig="$(sed -n 1p "$dir/interrupt")"
    pattern="$(sed -n 2p "$dir/interrupt")"
    # Sent from beside the session: a background job would start with SIGINT ignored.
    (wait_for logged 200 && kill "-$sig" "$(pidof lynx-dfu)"; kill -USR2 "$emulator") &
    session "key 1, $sig at the moment" 1 1 /hwlab/fw-small.bin '' q
    wait $!
    pattern="$(sed -n 3p "$dir/interrupt")"
    wait_for logged 200 && wait_for has_family_device 100 ||
        { echo "HWLAB: $name: the device did not come to rest"; return 1; }
    # Once the log says the camera is back, its DFU-mode device may still be leaving the
    # kernel (a loaded machine handles the disconnect late): not a device left in DFU mode.
    tail -n 1 "$out/device.log" | grep -q '^attach camera' && wait_for no_dfu_device 100
    udevadm settle --timeout=10
    if has_dfu_device; then
        session "key 3" 3 1 /hwlab/fw-small.bin '' q
        if grep -q 'Failed with status' "$out/session.txt"; then
            kill -USR1 "$emulator"
            wait_for back_in_dfu_mode 100 &&
                wait_for has_dfu_device 100 && udevadm settle --timeout=10 &&
                session "key 3 after a replug" 3 1 /hwlab/fw-small.bin '' q
        fi
    fi
    wait_for has_camera_node 150 || { echo "HWLAB: $name: the camera did not come back"; return 1; }
    sleep 0.5 && udevadm settle --timeout=10
    session "key 2" 2 '' q
    diff -u "$dir/expected.txt" "$out/actual.txt" >"$out/diff.txt" || {
        echo "HWLAB: $name: the sessions differ:"; cat "$out/diff.txt"; return 1; }
}
