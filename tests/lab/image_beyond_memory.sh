#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# An image larger than the memory the program may have (a sparse 64 GiB file under a 1 GiB
# address-space limit): key 1 switches the camera, finds the file unreadable and leaves the
# camera in DFU mode; key 3 with a readable image then brings it back. No exception ends the
# program, and the menus go on after each.
#   image_beyond_memory.sh LAB_BINARY SOURCE_DIR
set -eu
lab="$1"
src="$2"
scratch="$(mktemp -d /tmp/lynx-image-beyond-memory.XXXXXX)"
trap 'rm -rf "$scratch"' EXIT

truncate -s 64G "$scratch/huge.bin"
printf '1\n1\n%s\n\n3\n1\n%s\n\nq\n' "$scratch/huge.bin" "$src/lab/sample-firmware.bin" \
    >"$scratch/input.txt"
status=0
(
    ulimit -v 1048576
    timeout -s KILL 120 "$lab" --world "$src/tests/lab/image_beyond_memory.json" --dump-state "$scratch/state.json" \
        <"$scratch/input.txt" >"$scratch/stdout.txt" 2>"$scratch/stderr.txt"
) || status=$?

sed -e "s|@IMAGE@|$scratch/huge.bin|" -e "s|@SOURCE_DIR@|$src|" \
    "$src/tests/lab/image_beyond_memory.txt" >"$scratch/expected.txt"
failed=0
[ "$status" -eq 0 ] || { echo "FAIL: exit status $status"; failed=1; }
[ ! -s "$scratch/stderr.txt" ] || { echo "FAIL: stderr:"; cat "$scratch/stderr.txt"; failed=1; }
diff "$scratch/expected.txt" "$scratch/stdout.txt" || { echo "FAIL: the session differs"; failed=1; }
grep -q '"manifested": true' "$scratch/state.json" ||
    { echo "FAIL: the camera was not brought back"; failed=1; }
exit "$failed"
