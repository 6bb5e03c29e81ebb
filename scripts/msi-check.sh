#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Signs the Windows program and its installer with a throwaway certificate, checks both
# signatures, then installs, upgrades and removes the MSI under Wine, checking what lands
# where and that removal leaves nothing behind.
#
#   scripts/msi-check.sh [BUILD]     BUILD: the configured mingw build folder (build/mingw)
#
# The certificate lives in a temporary folder of its own, removed when the check ends, and
# is trusted by the checks alone. The exe, the MSI and the zip in BUILD are left unsigned
# again at the end, as a developer's build is.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
build="$(realpath "${1:-$repo/build/mingw}")"
source "$repo/scripts/wine-prefix.sh"
keys="$(mktemp -d /tmp/lynx-signing.XXXXXX)" intree="" signed_build=0
# unsigned_build: the build's exe without its signature, the MSI and the zip packed around it
unsigned_build() {
  signed_build=0
  osslsigncode remove-signature -in "$exe" -out "$exe.unsigned" >/dev/null 2>&1 &&
    mv -f "$exe.unsigned" "$exe" || rm -f "$exe.unsigned"
  rm -f "$msi"
  cmake --build "$build" --target lynx-dfu-msi >/dev/null
  (cd "$build" && rm -f lynx-dfu-*-win64.zip && cpack -G ZIP >/dev/null)
}
trap 'remove_wine_prefix; rm -rf "$keys"; rm -f "$intree"; [ "$signed_build" = 0 ] || unsigned_build' EXIT
# Installers ask Wine's menu builder to copy shortcuts into the desktop's own menus, outside
# the prefix: it stays off.
export WINEDLLOVERRIDES="winemenubuilder.exe=d"

failures=0
check() { # check DESCRIPTION COMMAND...: passes when COMMAND succeeds
  local what="$1"
  shift
  if "$@"; then echo "ok   $what"; else echo "FAIL $what"; failures=$((failures + 1)); fi
}
refused() { ! "$@"; }

version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
exe="$build/app/lynx-dfu.exe"
msi="$build/lynx-dfu-$version-win64.msi"

echo "-- signing with a throwaway certificate"
# A self-signed certificate for code signing alone; its key is readable by its owner only.
(umask 077 && openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj '/CN=lynx-dfu test signer' \
  -addext 'extendedKeyUsage=codeSigning' -addext 'keyUsage=critical,digitalSignature' \
  -keyout "$keys/key.pem" -out "$keys/cert.pem" 2>/dev/null)
# Another of the same name, which signed nothing: trusting it alone must not pass a signature.
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj '/CN=lynx-dfu test signer' \
  -addext 'extendedKeyUsage=codeSigning' -keyout "$keys/other-key.pem" -out "$keys/other.pem" 2>/dev/null
# refused_key KEY: the signing script refuses KEY and signs nothing
refused_key() {
  local before status=0
  before="$(sha256sum "$exe")"
  LYNX_SIGN_CERT="$keys/cert.pem" LYNX_SIGN_KEY="$1" "$repo/scripts/sign-windows.sh" "$build" \
    >/dev/null 2>&1 || status=$?
  [ "$status" = 2 ] && [ "$(sha256sum "$exe")" = "$before" ]
}
cp -p "$keys/key.pem" "$keys/shared-key.pem"
chmod 640 "$keys/shared-key.pem"
check "the signing script refuses a key others can read" refused_key "$keys/shared-key.pem"
intree="$(mktemp "$repo/throwaway-key.XXXXXX")"
cp "$keys/key.pem" "$intree"
check "the signing script refuses a key inside the source tree" refused_key "$intree"
rm -f "$intree"
signed_build=1
LYNX_SIGN_CERT="$keys/cert.pem" LYNX_SIGN_KEY="$keys/key.pem" "$repo/scripts/sign-windows.sh" "$build"

verified() { osslsigncode verify -CAfile "$1" -in "$2" >"$keys/verify.log" 2>&1; }
signed_sha256() {
  verified "$keys/cert.pem" "$1" && grep -Eq '^Message digest algorithm +: SHA256 *$' "$keys/verify.log"
}
check "exe signature verifies, SHA-256" signed_sha256 "$exe"
check "MSI signature verifies, SHA-256" signed_sha256 "$msi"
osslsigncode remove-signature -in "$exe" -out "$keys/unsigned.exe" >/dev/null
osslsigncode remove-signature -in "$msi" -out "$keys/unsigned.msi" >/dev/null
check "an unsigned exe fails verification" refused verified "$keys/cert.pem" "$keys/unsigned.exe"
check "an unsigned MSI fails verification" refused verified "$keys/cert.pem" "$keys/unsigned.msi"
# One byte of the signed exe changed, well inside its code.
cp "$exe" "$keys/altered.exe"
printf '\x5a' | dd of="$keys/altered.exe" bs=1 seek=$(( $(stat -c %s "$exe") / 3 )) conv=notrunc 2>/dev/null
check "an altered exe fails verification" refused verified "$keys/cert.pem" "$keys/altered.exe"
check "a signature fails against another certificate" refused verified "$keys/other.pem" "$exe"
zip_holds_exe() { # the zip's lynx-dfu.exe is the build's, byte for byte
  python3 -c 'import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    name = next(n for n in z.namelist() if n.endswith("/lynx-dfu.exe"))
    open(sys.argv[2], "wb").write(z.read(name))' "$(ls "$build"/lynx-dfu-*-win64.zip)" "$keys/zipped.exe" &&
    cmp -s "$exe" "$keys/zipped.exe"
}
check "the zip holds the signed exe" zip_holds_exe

# --- under Wine ---------------------------------------------------------------------------
echo "-- installing under Wine"
# wine CMD...: a Windows program under Wine, within a bound, its output with Unix line ends
wine_run() { timeout 120 "$wine" "$@" </dev/null 2>/dev/null | tr -d '\r'; }
wine_run cmd /c exit >/dev/null || true
public="$WINEPREFIX/drive_c/users/Public"
mkdir -p "$public"
cp "$msi" "$public/lynx-dfu.msi"
product_code() { msiinfo export "$1" Property | tr -d '\r' | sed -n 's/^ProductCode\t//p'; }
code="$(product_code "$msi")"
installed="$WINEPREFIX/drive_c/Program Files/lynx-dfu"
# Windows puts a per-machine package's shortcuts in the all-users Start menu (ProgramData);
# Wine resolves ProgramMenuFolder to the installing user's. Either counts, once.
shortcuts() {
  find "$WINEPREFIX/drive_c/ProgramData" "$WINEPREFIX/drive_c/users" \
    -path '*/Start Menu/Programs/Lynx Device Firmware Update Tool.lnk'
}
uninstall_key='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
msiexec_qn() { # msiexec_qn /i|/x FILE: true when msiexec ends with status 0 within its bound
  local status=0
  timeout 180 "$wine" msiexec "$1" "$2" /qn </dev/null >/dev/null 2>&1 || status=$?
  timeout 60 wineserver -w || true
  [ "$status" = 0 ] || { echo "     msiexec $1 $2: status $status"; return 1; }
}
arp() { # arp CODE NAME: a value of the product's entry in Add/Remove Programs, or nothing
  wine_run reg query "$uninstall_key\\$1" /v "$2" | sed -n "s/^ *$2 *REG_SZ *//p"
}
arp_entry() { echo "$(arp "$1" DisplayName)|$(arp "$1" DisplayVersion)|$(arp "$1" Publisher)"; }
present() {
  cmp -s "$exe" "$installed/lynx-dfu.exe" && cmp -s "$build/README.txt" "$installed/README.txt" &&
    cmp -s "$build/LICENSE.txt" "$installed/LICENSE.txt"
}
gone() {
  [ ! -e "$installed" ] && [ -z "$(shortcuts)" ] && [ "$(arp_entry "$code")" = "||" ] &&
    ! wine_run reg query 'HKLM\Software\lynx-dfu' >/dev/null 2>&1
}

check "msiexec /i lynx-dfu.msi /qn" msiexec_qn /i 'C:\users\Public\lynx-dfu.msi'
check "exe, README.txt and LICENSE.txt under Program Files\\lynx-dfu, as built" present
check "LICENSE.txt with CR LF line ends" grep -q $'\r$' "$installed/LICENSE.txt"
shortcut="$(shortcuts)"
check "one Start menu shortcut, to Program Files\\lynx-dfu\\lynx-dfu.exe: ${shortcut#"$WINEPREFIX/"}" \
  grep -aqF 'Program Files\lynx-dfu\lynx-dfu.exe' "$shortcut"
entry="$(arp_entry "$code")"
check "Add/Remove Programs: $entry" \
  test "$entry" = "Lynx Device Firmware Update Tool|$version|the lynx-dfu maintainers"
check "msiexec /x lynx-dfu.msi /qn" msiexec_qn /x 'C:\users\Public\lynx-dfu.msi'
check "removed: files, folder, shortcut, Add/Remove Programs entry, registry key" gone

echo "-- a newer version replaces the installed one"
# The same package at a higher version, as the next release would be.
next="${version%.*}.$(( ${version##*.} + 1 ))"
(cd "$build" && wixl --arch x64 -D Version="$next" -D Exe=app/lynx-dfu.exe -D Readme=README.txt \
  -D Licence=LICENSE.txt -o "$public/lynx-dfu-next.msi" "$repo/packaging/windows/lynx-dfu.wxs")
next_code="$(product_code "$public/lynx-dfu-next.msi")"
check "msiexec /i $version" msiexec_qn /i 'C:\users\Public\lynx-dfu.msi'
check "msiexec /i $next" msiexec_qn /i 'C:\users\Public\lynx-dfu-next.msi'
check "the older entry gone: $(arp_entry "$code")" test "$(arp_entry "$code")" = "||"
check "the newer entry: $(arp_entry "$next_code")" test "$(arp "$next_code" DisplayVersion)" = "$next"
check "the files stay in place" present
# Refused by the package's launch condition: msiexec ends with 1603 (ERROR_INSTALL_FAILURE),
# of which a Unix exit status keeps the low byte, 67.
downgrade_refused() {
  local status=0
  timeout 180 "$wine" msiexec /i 'C:\users\Public\lynx-dfu.msi' /qn </dev/null >/dev/null 2>&1 || status=$?
  timeout 60 wineserver -w || true
  [ "$status" = 67 ] || { echo "     msiexec /i $version over $next: status $status"; return 1; }
}
check "msiexec /i $version refused over $next (1603)" downgrade_refused
check "still the one entry, $next" test "$(arp "$next_code" DisplayVersion)|$(arp_entry "$code")" = "$next|||"
check "msiexec /x $next" msiexec_qn /x 'C:\users\Public\lynx-dfu-next.msi'
code="$next_code"
check "removed: nothing of either version left" gone

unsigned_build
unsigned_again() {
  ! verified "$keys/cert.pem" "$exe" && ! verified "$keys/cert.pem" "$msi" && zip_holds_exe
}
check "the build unsigned again: exe, MSI and the zip's exe" unsigned_again
if [ "$failures" -ne 0 ]; then
  echo "installer check: $failures failure(s)"
  exit 1
fi
echo "installer check passed"
