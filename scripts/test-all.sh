#!/usr/bin/env bash
# Builds and runs every test: native, sanitizers, the Windows cross build and its Wine smoke test.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs="${LYNX_JOBS:-2}"

step() { printf '\n=== %s ===\n' "$*"; }

step "native build and tests"
cmake --preset default
cmake --build --preset default -j "$jobs"
ctest --preset default

step "Hardware lab: lynx-dfu against an emulated camera through the Linux kernel (qemu)"
./tests/hwlab/run.sh --build build/default

step "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan

step "ThreadSanitizer"
cmake --preset tsan
cmake --build --preset tsan -j "$jobs"
ctest --preset tsan

step "Fuzzing the configuration-descriptor walk (bounded)"
./fuzz/run_descriptor_walk_fuzz.sh "${LYNX_FUZZ_SECONDS:-60}" build/fuzz

step "Windows cross build (mingw-w64)"
cmake --preset mingw
cmake --build --preset mingw -j "$jobs"

step "Windows program: manifest, imports, symbols, version"
exe=build/mingw/app/lynx-dfu.exe
# The embedded manifest must ask for administrator rights.
strings "$exe" | grep 'requestedExecutionLevel level="requireAdministrator"' >/dev/null
imports=$(x86_64-w64-mingw32-objdump -p "$exe" | sed -n 's/^[[:space:]]*DLL Name: //p')
# Media Foundation is loaded at run time: without it (Windows N, Server) the loader must
# still start the program.
if grep -Eix 'mfplat\.dll|mf\.dll|mfreadwrite\.dll|mfcore\.dll' <<<"$imports"; then
  echo "lynx-dfu.exe imports Media Foundation statically"
  exit 1
fi
# Only DLLs that every Windows ships; no mingw runtime.
if grep -Eivx 'kernel32\.dll|msvcrt\.dll|ole32\.dll|user32\.dll|advapi32\.dll|winusb\.dll|cfgmgr32\.dll|api-ms-win-[a-z0-9-]+\.dll' <<<"$imports"; then
  echo "lynx-dfu.exe needs a DLL that Windows does not ship"
  exit 1
fi
# Shipped stripped.
x86_64-w64-mingw32-nm "$exe" 2>&1 | grep 'no symbols' >/dev/null
# The version resource carries the project's version.
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/mingw/CMakeCache.txt)
resources=$(x86_64-w64-mingw32-windres -i "$exe" -O rc)
grep -F "VALUE \"ProductVersion\", \"$version\"" <<<"$resources" >/dev/null
grep -F 'VALUE "ProductName", "Lynx Device Firmware Update Tool"' <<<"$resources" >/dev/null
echo "manifest, imports ($(tr '\n' ' ' <<<"$imports")), symbols and version $version ok"

step "Windows unit tests under Wine"
./scripts/wine-run.sh build/mingw/tests/windows/lynx_windows_tests.exe

step "Windows smoke test under Wine"
./scripts/wine-smoke.sh build/mingw/app/lynx-dfu.exe

echo
echo "all tests passed"
