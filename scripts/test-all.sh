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

step "Fuzzing every parser of outside input (bounded, each target)"
./fuzz/run_fuzz.sh "${LYNX_FUZZ_SECONDS:-20}" build/fuzz

step "Windows cross build (mingw-w64)"
cmake --preset mingw
cmake --build --preset mingw -j "$jobs"

step "Windows program: manifest and imports"
# The embedded manifest must ask for administrator rights, and the program must need no
# mingw runtime DLLs (only the system's own).
strings build/mingw/app/lynx-dfu.exe | grep 'requestedExecutionLevel level="requireAdministrator"' >/dev/null
if x86_64-w64-mingw32-objdump -p build/mingw/app/lynx-dfu.exe | grep 'DLL Name' | grep -Eiv 'KERNEL32|msvcrt|ole32|USER32|ADVAPI32|mfplat|mf\.dll|MFReadWrite|ksuser|winusb|cfgmgr32|SETUPAPI|OLEAUT32|api-ms-win'; then
  echo "lynx-dfu.exe needs a DLL that Windows does not ship"
  exit 1
fi
echo "manifest and imports ok"

step "Windows smoke test under Wine"
./scripts/wine-smoke.sh build/mingw/app/lynx-dfu.exe

echo
echo "all tests passed"
