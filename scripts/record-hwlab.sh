#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Records tests/recordings/ afresh on the hardware lab's real kernel:
#
#   scripts/record-hwlab.sh [--kernel RELEASE] [--build DIR]
#
# Runs tests/hwlab/run.sh --record with the cases that tests/recordings/recordings.txt names
# (kernel trixie unless told; build/default unless told), and only when they all pass, puts
# each session the table names in the place of NAME.jsonl, then replays them all as ctest
# would.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
kernel=trixie
build="$repo/build/default"
while [ $# -gt 0 ]; do
    case "$1" in
        --kernel) kernel="$2"; shift 2 ;;
        --build) build="$(cd "$2" && pwd)"; shift 2 ;;
        *) echo "usage: $0 [--kernel RELEASE] [--build DIR]" >&2; exit 2 ;;
    esac
done
dir="$repo/tests/recordings"
table="$dir/recordings.txt"
lab="$build/app/lynx-dfu-lab"
[ -x "$lab" ] || { echo "record-hwlab: no $lab: build first" >&2; exit 1; }

# NAME STATUS CASE/SESSION, comments and blank lines left out; those from the field (no
# CASE/SESSION) are kept as they are, and replayed with the rest.
entries="$(grep -E '^[A-Za-z0-9_]+[[:space:]]' "$table")"
lab_entries="$(awk '$3 ~ /\//' <<<"$entries")"
mapfile -t names < <(awk '{ split($3, at, "/"); print at[1] }' <<<"$lab_entries" | sort -u)
cases=()
for name in "${names[@]}"; do cases+=(--case "$name"); done
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
"$repo/tests/hwlab/run.sh" --build "$build" --kernel "$kernel" --record "$work" "${cases[@]}"

for file in "$dir"/*.jsonl; do  # a recording the table no longer names goes too
    awk -v name="$(basename "$file" .jsonl)" '$1 == name { found = 1 } END { exit !found }' \
        <<<"$entries" || rm -f "$file"
done
while read -r name _ source; do
    [ -f "$work/$kernel/$source.jsonl" ] || { echo "record-hwlab: the lab made no $source.jsonl" >&2; exit 1; }
    install -m 644 "$work/$kernel/$source.jsonl" "$dir/$name.jsonl"
done <<<"$lab_entries"
failed=0
while read -r name status _; do
    if sh "$dir/replay.sh" "$lab" "$table" "$name" >"$work/replay.txt" 2>&1; then
        echo "record-hwlab: $name.jsonl replays (exit $status)"
    else
        echo "record-hwlab: $name.jsonl does not replay as the table says:"; cat "$work/replay.txt"; failed=1
    fi
done <<<"$entries"
exit "$failed"
