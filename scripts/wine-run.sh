#!/usr/bin/env bash
# Runs one Windows program under Wine in a fresh prefix of its own, removed afterwards, and
# exits with the program's status. Standard input is empty: nothing waits for a console.
set -euo pipefail

exe="${1:?usage: wine-run.sh path/to/program.exe [arguments...]}"
shift
wine="${WINE64:-/usr/lib/wine/wine64}"
WINEPREFIX="$(mktemp -d /tmp/lynx-wine.XXXXXX)"
export WINEPREFIX WINEDEBUG=-all
cleanup() {
  timeout 30 wineserver -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT

timeout "${LYNX_WINE_TIMEOUT:-600}" "$wine" "$exe" "$@" </dev/null
