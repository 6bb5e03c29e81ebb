#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and runs every test: native, sanitizers, the Windows cross build and its Wine smoke test.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs="${LYNX_JOBS:-2}"

# Each step says how long the one before it took, so that a slow step shows in the log.
step_name="" step_start=$(date +%s) run_start=$step_start
step_took() {
  [ -z "$step_name" ] || printf -- '--- %s: %d s\n' "$step_name" $(( $(date +%s) - step_start ))
}
step() {
  step_took
  step_name="$*" step_start=$(date +%s)
  printf '\n=== %s ===\n' "$*"
}
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi

step "Formatting and static analysis (clang-format-19, clang-tidy-19)"
./scripts/lint.sh

step "First run: the README's run command builds the lab alone and reaches its menu"
first="build/first-run"
rm -rf "$first"
cmake --preset default -B "$first" >/dev/null
cmake --build "$first" --target lynx-dfu-lab -j "$jobs"
built_tests="$(find "$first" -type f -perm -u+x \( -name '*_tests' -o -name '*_bench' -o -name '*_fuzz' \))"
if [ -n "$built_tests" ]; then
  echo "the run command built test programs: $built_tests"
  exit 1
fi
printf 'q\n' | "$first/app/lynx-dfu-lab" >"$first/menu.txt"
grep -x 'Q: Quit' "$first/menu.txt" >/dev/null || { echo "the lab showed no menu"; cat "$first/menu.txt"; exit 1; }
rm -rf "$first"
echo "lab built alone and reached its menu"

step "native build and tests"
cmake --preset default
cmake --build --preset default -j "$jobs"
ctest --preset default --no-tests=error

step "Debian package: build, lint, install, run, remove"
(cd build/default && rm -f lynx-dfu_*.deb && cpack -G DEB >/dev/null)
deb="$(ls build/default/lynx-dfu_*.deb)"
# Debian's own checks, with nothing waived: an error or a warning fails the run.
lintian --fail-on error,warning "$deb"
echo "lintian: no error, no warning"
./scripts/deb-check.sh "$deb"

# The release's own kernel, and the newest Debian ships: Debian 13's backports.
release="$(. /etc/os-release && echo "$VERSION_CODENAME")"
step "Hardware lab: lynx-dfu against an emulated camera through the kernels of $release and trixie-backports (qemu)"
./tests/hwlab/run.sh --build build/default --kernel "$release" --kernel trixie-backports

step "Line coverage of the device logic"
cmake --preset coverage
cmake --build --preset coverage -j "$jobs"
find build/coverage -name '*.gcda' -delete
ctest --preset coverage --no-tests=error
python3 scripts/coverage.py build/coverage

step "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan --no-tests=error

step "ThreadSanitizer"
cmake --preset tsan
cmake --build --preset tsan -j "$jobs"
ctest --preset tsan --no-tests=error

step "Fuzzing every parser of outside input (bounded, each target)"
./fuzz/run_fuzz.sh "${LYNX_FUZZ_SECONDS:-20}" build/fuzz

step "Windows cross build (mingw-w64)"
cmake --preset mingw
cmake --build --preset mingw -j "$jobs"

step "Windows program: manifest, imports, symbols, version"
exe=build/mingw/app/lynx-dfu.exe
# The embedded manifest must ask for administrator rights.
strings "$exe" | grep 'requestedExecutionLevel level="requireAdministrator"' >/dev/null
# Paths beyond MAX_PATH where the machine allows them, and the project's version.
strings "$exe" | grep '<ws2:longPathAware>true</ws2:longPathAware>' >/dev/null
imports=$(x86_64-w64-mingw32-objdump -p "$exe" | sed -n 's/^[[:space:]]*DLL Name: //p')
# Media Foundation is loaded at run time: without it (Windows N, Server) the loader must
# still start the program.
if grep -Eix 'mfplat\.dll|mf\.dll|mfreadwrite\.dll|mfcore\.dll' <<<"$imports"; then
  echo "lynx-dfu.exe imports Media Foundation statically"
  exit 1
fi
# Only KnownDLLs, which the loader takes from the system whatever lies beside the exe ("If the
# DLL is on the list of known DLLs ... the system uses its copy of the known DLL", the DLL
# search order page); WinUSB, cfgmgr32 and Media Foundation are loaded from system32 at run
# time. No mingw runtime.
if grep -Eivx 'kernel32\.dll|msvcrt\.dll|ole32\.dll|user32\.dll|advapi32\.dll' <<<"$imports"; then
  echo "lynx-dfu.exe imports a DLL that is not a KnownDLL"
  exit 1
fi
# Shipped stripped.
x86_64-w64-mingw32-nm "$exe" 2>&1 | grep 'no symbols' >/dev/null
# The version resource carries the project's version.
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/mingw/CMakeCache.txt)
resources=$(x86_64-w64-mingw32-windres -i "$exe" -O rc)
grep -F "VALUE \"ProductVersion\", \"$version\"" <<<"$resources" >/dev/null
strings "$exe" | grep -F "name=\"Vantrel.LynxDfu\" version=\"$version.0\"" >/dev/null
grep -F 'VALUE "ProductName", "Lynx Device Firmware Update Tool"' <<<"$resources" >/dev/null
grep -F 'VALUE "LegalCopyright", "Copyright 2026 the lynx-dfu maintainers. Licensed under the Apache License, Version 2.0."' <<<"$resources" >/dev/null
echo "manifest, imports ($(tr '\n' ' ' <<<"$imports")), symbols and version $version ok"

step "Windows unit tests under Wine"
./scripts/wine-run.sh build/mingw/tests/windows/lynx_windows_tests.exe

step "Windows program: the operators' zip"
(cd build/mingw && rm -f lynx-dfu-*-win64.zip && cpack -G ZIP >/dev/null)
zip="$(ls build/mingw/lynx-dfu-*-win64.zip)"
python3 -m zipfile -l "$zip" >build/mingw/zip-list.txt
for file in lynx-dfu.exe README.txt LICENSE.txt; do
  grep -E "/$file " build/mingw/zip-list.txt >/dev/null || { echo "$zip lacks $file"; cat build/mingw/zip-list.txt; exit 1; }
done
echo "$zip holds lynx-dfu.exe, README.txt and LICENSE.txt"

step "Windows installer: signed with a throwaway certificate, verified, installed and removed under Wine"
./scripts/msi-check.sh build/mingw

step "Windows smoke test under Wine"
./scripts/wine-smoke.sh build/mingw/app/lynx-dfu.exe

step_took
echo
echo "all tests passed in $(( $(date +%s) - run_start )) s"
