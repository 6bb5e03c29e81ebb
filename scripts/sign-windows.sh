#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Signs the Windows program and its installer with osslsigncode (Authenticode, SHA-256):
# builds lynx-dfu.exe, signs it, then builds the MSI around the signed exe and signs the MSI,
# and packs the zip, so that both packages carry the signed exe. Builds made without this
# script stay unsigned.
#
#   LYNX_SIGN_CERT=cert.pem LYNX_SIGN_KEY=key.pem scripts/sign-windows.sh [BUILD]
#   LYNX_SIGN_PKCS12=signer.pfx scripts/sign-windows.sh [BUILD]
#
# BUILD       the configured mingw build folder (default build/mingw)
# LYNX_SIGN_CERT, LYNX_SIGN_KEY
#             the code-signing certificate (PEM, followed by its intermediate certificates)
#             and its private key (PEM)
# LYNX_SIGN_PKCS12
#             instead of those two: a PKCS#12 file (.pfx, .p12) holding both, as Windows
#             exports them
# LYNX_SIGN_PASSWORD_FILE
#             a file whose first line is the password of an encrypted key or PKCS#12 file; the
#             password is never put on a command line, where any user's ps would show it
# LYNX_SIGN_TIMESTAMP_URL
#             an RFC 3161 time-stamping server (off by default: it needs the network), so that
#             the signature outlives the certificate
#
# The private key must lie outside the source tree and be readable by its owner alone: this
# script refuses it otherwise, so that it never gets committed, packed or shown.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd -P)"
build="${1:-$repo/build/mingw}"
fail() { echo "sign-windows: $*" >&2; exit 2; }

command -v osslsigncode >/dev/null || fail "no osslsigncode (apt-get install osslsigncode)"
[ -f "$build/CMakeCache.txt" ] || fail "$build is not a configured build folder (cmake --preset mingw)"
grep -q '^LYNX_WIXL:FILEPATH=/' "$build/CMakeCache.txt" ||
  fail "no wixl when $build was configured: apt-get install wixl, then cmake --preset mingw"

# checked_secret NAME FILE: FILE exists, lies outside the source tree and only its owner can read it.
checked_secret() {
  local path
  [ -f "$2" ] || fail "$1=$2: no such file"
  path="$(realpath "$2")"
  case "$path/" in
    "$repo"/*) fail "$1 lies inside the source tree ($path): keep private keys outside it" ;;
  esac
  [ $(( 0$(stat -c '%a' "$path") & 077 )) = 0 ] ||
    fail "$1 ($path) can be read by others than its owner: chmod 600 it"
}

credentials=()
if [ -n "${LYNX_SIGN_PKCS12:-}" ]; then
  [ -z "${LYNX_SIGN_CERT:-}${LYNX_SIGN_KEY:-}" ] || fail "give LYNX_SIGN_PKCS12 or LYNX_SIGN_CERT and LYNX_SIGN_KEY, not both"
  checked_secret LYNX_SIGN_PKCS12 "$LYNX_SIGN_PKCS12"
  credentials=(-pkcs12 "$LYNX_SIGN_PKCS12")
elif [ -n "${LYNX_SIGN_CERT:-}" ] && [ -n "${LYNX_SIGN_KEY:-}" ]; then
  [ -f "$LYNX_SIGN_CERT" ] || fail "LYNX_SIGN_CERT=$LYNX_SIGN_CERT: no such file"
  checked_secret LYNX_SIGN_KEY "$LYNX_SIGN_KEY"
  credentials=(-certs "$LYNX_SIGN_CERT" -key "$LYNX_SIGN_KEY")
else
  fail "no signing certificate: set LYNX_SIGN_CERT and LYNX_SIGN_KEY (PEM), or LYNX_SIGN_PKCS12"
fi
if [ -n "${LYNX_SIGN_PASSWORD_FILE:-}" ]; then
  checked_secret LYNX_SIGN_PASSWORD_FILE "$LYNX_SIGN_PASSWORD_FILE"
  credentials+=(-readpass "$LYNX_SIGN_PASSWORD_FILE")
fi
timestamp=()
[ -z "${LYNX_SIGN_TIMESTAMP_URL:-}" ] || timestamp=(-ts "$LYNX_SIGN_TIMESTAMP_URL")

# sign FILE [OPTION...]: FILE signed in place; a failed signing leaves it as it was.
sign() {
  rm -f "$1.signing"
  if ! osslsigncode sign "${credentials[@]}" "${timestamp[@]}" "${@:2}" -h sha256 \
      -n "Lynx Device Firmware Update Tool" -in "$1" -out "$1.signing" >"$1.signing.log" 2>&1; then
    cat "$1.signing.log" >&2
    rm -f "$1.signing" "$1.signing.log"
    fail "signing $1 failed"
  fi
  rm -f "$1.signing.log"
  mv -f "$1.signing" "$1"
  echo "signed $1"
}

version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
exe="$build/app/lynx-dfu.exe"
msi="$build/lynx-dfu-$version-win64.msi"

cmake --build "$build" --target lynx-dfu >/dev/null
[ -f "$exe" ] || fail "$build built no app/lynx-dfu.exe: not the mingw build folder"
sign "$exe"
# The installer is built anew around the signed exe.
rm -f "$msi"
cmake --build "$build" --target lynx-dfu-msi >/dev/null
# -add-msi-dse: the signature covers the metadata of the MSI's streams too
# (MsiDigitalSignatureEx), not only their contents.
sign "$msi" -add-msi-dse
(cd "$build" && rm -f lynx-dfu-*-win64.zip && cpack -G ZIP >/dev/null)
echo "packed $(ls "$build"/lynx-dfu-*-win64.zip) with the signed exe"
