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
# Wine makes windows through a display driver, and without an X server it refuses every
# top-level window ("no driver could be loaded"), the program's hidden one too. Its null driver
# makes windows that nobody sees, which is all a hidden window needs. (This first run also
# creates the prefix; the wait lets the setting reach every later program.)
"$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1 || true
timeout 30 wineserver -w || true
