#!/usr/bin/env bash
# Installs what building, running and testing lynx-dfu needs on Debian 12.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang clang-format libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libusb-1.0-0-dev zlib1g-dev
  mingw-w64 wine wine64
  qemu-system-x86 busybox-static dfu-util
)

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
