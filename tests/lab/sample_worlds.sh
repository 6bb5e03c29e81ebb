#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Every sample world under lab/ loads and shows what its name promises, with the command
# line that docs/lab.md gives for it (the world's clock sped up 100 times).
#   sample_worlds.sh LAB_BINARY SOURCE_DIR
set -eu
lab="$1"
src="$2"
scratch="$(mktemp -d /tmp/lynx-sample-worlds.XXXXXX)"
trap 'rm -rf "$scratch"' EXIT
failed=0

# world | a line the session must print | a line the state dump must hold
rows='default-world|[1]Lynx LX20 Depth Camera (FW Version: 5.16.0.1)|"manifested": true
camera-stuck-in-dfu-mode|[1]Lynx LX20 Depth Camera (FW Version: 5.16.0.1)|"manifested": true
download-fails-at-block-3|Downloaded 1024, bytes remaining 2928|"blocks": 3
registry-refuses|Failed open registry key with status ACCESS_DENIED|"downloads": []
two-family-cameras|[2]Lynx LX30 Depth Camera (FW Version: 5.16.0.1)|"bytes": 6000
camera-never-comes-back|No DFU device was connected |"present": false'

for world in "$src"/lab/*.json; do
    name="$(basename "$world" .json)"
    row="$(printf '%s\n' "$rows" | grep "^$name|" || true)"
    [ -n "$row" ] || { echo "FAIL $name: a sample world without a row"; failed=1; continue; }
    line="$(printf '%s' "$row" | cut -d'|' -f2)"
    state="$(printf '%s' "$row" | cut -d'|' -f3)"
    # The answers are those of the command line in the documentation's table.
    answers="$(grep -F -- "--world=lab/$name.json\`" "$src/docs/lab.md" |
        sed -n "s/.*printf '\([^']*\)'.*/\1/p" | head -n 1)"
    [ -n "$answers" ] || { echo "FAIL $name: no command line in docs/lab.md"; failed=1; continue; }
    awk '!sped && sub(/\{/, "{ \"speedup\": 100,") { sped = 1 } { print }' "$world" >"$scratch/$name.json"
    status=0
    (cd "$src" && printf "$answers" | timeout 60 "$lab" --world="$scratch/$name.json" \
        --dump-state="$scratch/$name.state.json") >"$scratch/$name.out" 2>&1 || status=$?
    if [ "$status" != 0 ]; then
        echo "FAIL $name: exit status $status"; cat "$scratch/$name.out"; failed=1
    elif ! grep -Fx -- "$line" "$scratch/$name.out" >/dev/null; then
        echo "FAIL $name: no line '$line' in:"; cat "$scratch/$name.out"; failed=1
    elif ! grep -F -- "$state" "$scratch/$name.state.json" >/dev/null; then
        echo "FAIL $name: no '$state' in the state dump:"; cat "$scratch/$name.state.json"; failed=1
    else
        echo "ok   $name"
    fi
done
exit "$failed"
