# SPDX-License-Identifier: Apache-2.0
# Runs inside the VM (busybox sh): every case under /hwlab/cases, then a summary line that
# run.sh reads. What a case folder holds: tests/hwlab/README.md, "A case folder".
cd /tmp
passed=0
failed=0

. /hwlab/devices.sh
. /hwlab/interrupted.sh

normalize() {  # [file]; standard input without one
    sed -e 's/&[0-9][0-9][0-9]#/\&NNN#/g' "$@"
}

run_lynx() {  # input output recording user
    if [ -n "$4" ]; then
        # The recording is made 0600 for whoever runs the program: let the user write it here.
        : >"$3" && chown "$4" "$3"
        timeout 120 su "$4" -s /bin/sh -c "/hwlab/lynx-dfu --record $3" <"$1" >"$2" 2>&1
    else
        timeout 120 /hwlab/lynx-dfu --record "$3" <"$1" >"$2" 2>&1
    fi
}

run_case() {
    dir="$1"
    name="$(basename "$dir")"
    out="/tmp/out/$name"
    mkdir -p "$out"
    ok=1
    args="$(cat "$dir/emulator.args")"
    lynx-virtual-camera --log "$out/device.log" --lifetime-s 300 $args 2>"$out/emulator.err" &
    emulator=$!
    wait_for has_family_device 100 || { echo "HWLAB: $name: the emulated device never appeared"; ok=0; }
    case " $args " in *" --mode dfu "*) ;; *) wait_for has_camera_node 100 || ok=0 ;; esac
    sleep 0.5  # let the drivers finish binding before anyone lists devices
    udevadm settle --timeout=10  # and udev apply the rules to their nodes
    user=""
    [ -f "$dir/user" ] && user="$(cat "$dir/user")"
    if [ "$ok" = 1 ] && [ -f "$dir/setup.sh" ]; then
        sh "$dir/setup.sh" >"$out/setup.txt" 2>&1 || { echo "HWLAB: $name: setup failed"; cat "$out/setup.txt"; ok=0; }
    fi
    if [ "$ok" = 1 ] && [ -f "$dir/program" ]; then
        limit=120
        [ -f "$dir/timeout" ] && limit="$(cat "$dir/timeout")"
        (cd "$out" && timeout "$limit" sh "$dir/program" >"$out/program.txt" 2>&1) || {
            echo "HWLAB: $name: program failed"; cat "$out/program.txt"; ok=0; }
        grep '^HWLAB: ' "$out/program.txt"
    fi
    if [ "$ok" = 1 ] && [ -f "$dir/interrupt" ]; then interrupted || ok=0; fi
    for step in 1 2; do
        [ "$ok" = 1 ] && [ -f "$dir/input$step.txt" ] || continue
        if [ "$step" = 2 ] && ! wait_for has_camera_node 150; then
            echo "HWLAB: $name: the camera did not come back"; ok=0; continue
        fi
        [ "$step" = 2 ] && sleep 0.5 && udevadm settle --timeout=10
        run_lynx "$dir/input$step.txt" "$out/output$step.txt" "$out/session$step.jsonl" "$user"
        echo "exit $?" >>"$out/output$step.txt"
        normalize "$out/output$step.txt" >"$out/actual$step.txt"
        if ! diff -u "$dir/expected$step.txt" "$out/actual$step.txt" >"$out/diff$step.txt"; then
            echo "HWLAB: $name: console output of session $step differs:"; cat "$out/diff$step.txt"; ok=0
        fi
    done
    # A device that has just manifested resets into the camera on its own; let it arrive,
    # so that the log ends the same way every time.
    if grep -q 'reset after manifestation' "$out/device.log"; then
        wait_for has_camera_node 150
        sleep 0.5
    fi
    kill -TERM "$emulator" 2>/dev/null
    wait "$emulator"
    wait_for no_family_device 100
    grep -v -e '^clock ' -e '^timing ' "$out/device.log" | normalize >"$out/device.txt"
    if ! diff -u "$dir/device.txt" "$out/device.txt" >"$out/device.diff"; then
        echo "HWLAB: $name: the device received something else:"; cat "$out/device.diff"; ok=0
    fi
    if [ "$ok" = 1 ] && [ -f "$dir/check.sh" ]; then
        (cd "$out" && sh "$dir/check.sh" >"$out/check.txt" 2>&1) || {
            echo "HWLAB: $name: check failed:"; cat "$out/check.txt"; ok=0; }
    fi
    grep '^dfu manifested' "$out/device.log" | sed "s/^/HWLAB: $name: /"
    if [ "$ok" = 1 ]; then
        echo "HWLAB: RESULT $name passed"
        passed=$((passed + 1))
    else
        echo "HWLAB: RESULT $name FAILED"
        failed=$((failed + 1))
    fi
}

[ "$(cat /hwlab/mode)" = bench ] && { sh /hwlab/bench.sh; exit $?; }

for dir in /hwlab/cases/*/; do run_case "${dir%/}"; done
if [ -f /hwlab/record ]; then
    echo "HWLAB-RECORD-BEGIN"
    tar c -C /tmp/out . | gzip | base64
    echo "HWLAB-RECORD-END"
fi
echo "HWLAB: SUMMARY passed $passed failed $failed"
