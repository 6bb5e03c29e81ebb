# SPDX-License-Identifier: Apache-2.0
# Sourced by the scripts that run Windows programs under Wine: a fresh prefix of their own in
# a temporary folder, removed when the script ends (its Wine server first, so that nothing
# writes into it afterwards).
wine="${WINE64:-/usr/lib/wine/wine64}"
WINEPREFIX="$(mktemp -d /tmp/lynx-wine.XXXXXX)"
export WINEPREFIX WINEDEBUG=-all
remove_wine_prefix() {
  timeout 30 wineserver -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
}
trap remove_wine_prefix EXIT
# Wine turns file names into the Unix locale's encoding: without a UTF-8 locale (containers,
# chroots, CI runners) no name outside ASCII could be created. C.UTF-8 ships with every
# Debian libc.
export LC_ALL=C.UTF-8
