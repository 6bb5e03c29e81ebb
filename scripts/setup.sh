#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what lynx-dfu needs on Debian 13 or 12, with apt-get (through sudo when not root).
#
#   scripts/setup.sh               what building, packaging and running the programs and
#                                  the lab needs
#   scripts/setup.sh --test        that, and the test tools: GoogleTest, clang for the
#                                  fuzzer, clang-format and clang-tidy 19, mingw-w64 and Wine
#                                  for the Windows program, wixl, msitools and osslsigncode
#                                  for its installer and signature, qemu, busybox, dfu-util and
#                                  v4l-utils for the hardware lab, lintian, gcovr for the
#                                  coverage report
#   scripts/setup.sh --fresh-check what scripts/fresh-check.sh needs to bootstrap a root
#
# Written for a minimal Debian 13 or 12: nothing here assumes a package that such a system
# lacks, and every name is one both releases carry. Any other system is told so before
# anything is installed.
set -euo pipefail

IFS='|' read -r os_id os_version os_name <<<"$(
  . /etc/os-release 2>/dev/null
  printf '%s|%s|%s' "${ID:-}" "${VERSION_ID:-}" "${PRETTY_NAME:-a system without /etc/os-release}"
)"
case "$os_id $os_version" in
  "debian 13" | "debian 12") ;;
  *)
    echo "setup: lynx-dfu supports Debian 13 (trixie) and Debian 12 (bookworm); this is $os_name, so nothing was installed" >&2
    exit 2
    ;;
esac

# file: CPack reads the programs' shared-library dependencies through it.
packages=(build-essential cmake ninja-build git nlohmann-json3-dev file)
case "${1:-}" in
  "") ;;
  --test)
    packages+=(
      # The fuzzers build with the release's own clang and its runtime. Lint reads LLVM 19's
      # clang-format and clang-tidy on both releases: no formatting satisfies both 14 and 19,
      # so these two are named by version.
      python3 clang libclang-rt-dev clang-format-19 clang-tidy-19
      libgtest-dev libgmock-dev libbenchmark-dev
      dpkg-dev mingw-w64 wine wine64
      # The Windows installer: wixl builds it (its own package, from msitools, whose msiinfo
      # reads it back), osslsigncode and openssl sign it with a throwaway certificate.
      wixl msitools osslsigncode openssl
      # libsystemd-shared: the hardware lab's VM runs the release's udevadm, which links it.
      qemu-system-x86 busybox-static dfu-util v4l-utils libsystemd-shared lintian
      gcovr
    )
    ;;
  --fresh-check) packages=(mmdebstrap git) ;;
  *) echo "usage: $0 [--test | --fresh-check]" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${missing[@]}"
