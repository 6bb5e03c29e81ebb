#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The usage lynx-dfu prints on a bad command line is, line for line, the one its manual page
# shows, and the status is the usage error's.
#   usage_test.sh LYNX_DFU SOURCE_DIR
expected="$(sed -n '/^lynx-dfu: \\fIPROBLEM\\fR$/,/^\.fi$/p' "$2/docs/lynx-dfu.1" |
    sed -e '1d' -e '$d' -e 's/\\-/-/g')"
actual="$("$1" frobnicate 2>&1 >/dev/null)"
status=$?
[ "$status" = 2 ] || { echo "exit status $status, not 2"; exit 1; }
[ -n "$expected" ] && [ "$actual" = "lynx-dfu: unknown command 'frobnicate'
$expected" ] || { printf 'printed:\n%s\nthe manual page shows:\n%s\n' "$actual" "$expected"; exit 1; }
