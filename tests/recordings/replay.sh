#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# replay.sh LAB TABLE NAME: replays NAME.jsonl (beside TABLE) with `LAB --replay` and checks
# the exit status TABLE gives it. A replay that ran to the program's end must also have
# written, byte for byte, the standard output the recording holds, read from the file here
# rather than taken on the replayer's word. A real run departs only where its recording was
# cut short (the program killed): 3 must name the recording's end, in one line.
lab="$1" table="$2" name="$3"
recording="$(dirname "$table")/$name.jsonl"
expected="$(awk -v name="$name" '$1 == name { print $2 }' "$table")"
[ -n "$expected" ] && [ -f "$recording" ] || { echo "$name: not in $table, or no $recording"; exit 1; }
work="$(mktemp -d)" || exit 1
trap 'rm -rf "$work"' EXIT
timeout 60 "$lab" --replay "$recording" </dev/null >"$work/stdout" 2>"$work/stderr"
status=$?
cat "$work/stderr"
[ "$status" = "$expected" ] || { echo "$name: the replay exits $status, the table says $expected"; exit 1; }
if [ "$status" = 3 ]; then
    [ "$(wc -l <"$work/stderr")" = 1 ] && grep -q '^lynx-dfu-lab: the replay departs .*: the recording ends; asked ' "$work/stderr" ||
        { echo "$name: not one line saying the recording ends"; exit 1; }
    exit 0
fi
# The "stdout" records and what the calls wrote (the console's own operations), in file order;
# a last line cut short by the program's end is where the recording stops.
python3 - "$recording" >"$work/recorded" <<'PY' || exit 1
import json, sys
def text(value):
    return bytes.fromhex(value["hex"]) if isinstance(value, dict) else value.encode()
with open(sys.argv[1], "rb") as recording:
    for line in recording:
        try:
            record = json.loads(line)
        except ValueError:
            break
        if "stdout" in record:
            sys.stdout.buffer.write(text(record["stdout"]))
        for call in [record] + record.get("calls", []):
            if "wrote" in call:
                sys.stdout.buffer.write(text(call["wrote"]))
PY
cmp "$work/recorded" "$work/stdout" || { echo "$name: the replay's stdout is not the recorded one"; exit 1; }
