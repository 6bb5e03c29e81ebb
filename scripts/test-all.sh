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

step "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan

step "ThreadSanitizer"
cmake --preset tsan
cmake --build --preset tsan -j "$jobs"
ctest --preset tsan

step "Windows cross build (mingw-w64)"
cmake --preset mingw
cmake --build --preset mingw -j "$jobs"

step "Windows smoke test under Wine"
./scripts/wine-smoke.sh build/mingw/app/lynx-dfu.exe

echo
echo "all tests passed"
