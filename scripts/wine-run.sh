#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs one Windows program under Wine in a fresh prefix of its own, removed afterwards, and
# exits with the program's status. Standard input is empty: nothing waits for a console.
set -euo pipefail

exe="${1:?usage: wine-run.sh path/to/program.exe [arguments...]}"
shift
source "$(dirname "$0")/wine-prefix.sh"

timeout "${LYNX_WINE_TIMEOUT:-600}" "$wine" "$exe" "$@" </dev/null
