#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Does a Debian package of lynx-dfu hold what it should, install, run and go away whole?
#
#   scripts/deb-check.sh lynx-dfu_VERSION_amd64.deb
#
# Lists its files against what the package must carry, installs it with dpkg (through sudo
# when not root), lists the devices with the installed lynx-dfu, runs the lab example of the
# manual page with the installed sample world and image, checks the version and licence the
# program prints, purges it and checks that nothing is
# left. test-all.sh runs it on the package it just built; the fresh-machine check also runs it
# on Debian 13 with the package built on Debian 12. A lynx-dfu already installed on this
# machine is left alone: only the file list is checked then.
set -euo pipefail

deb="${1:?usage: deb-check.sh PACKAGE.deb}"
[ -f "$deb" ] || { echo "deb-check: no file $deb" >&2; exit 2; }
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
out="$(mktemp -d /tmp/lynx-deb-check.XXXXXX)"
trap 'rm -rf "$out"' EXIT

packaged=(/usr/bin/lynx-dfu /usr/bin/lynx-dfu-lab /usr/bin/lynx-virtual-camera
          /usr/lib/udev/rules.d/70-lynx-dfu.rules /usr/share/lintian/overrides/lynx-dfu
          /usr/share/man/man1/lynx-dfu.1.gz /usr/share/man/man1/lynx-dfu-lab.1.gz
          /usr/share/man/man1/lynx-virtual-camera.1.gz
          /usr/share/doc/lynx-dfu/copyright /usr/share/doc/lynx-dfu/changelog.gz
          /usr/share/lynx-dfu/sample-firmware.bin
          /usr/share/lynx-dfu/worlds/camera-stuck-in-dfu-mode.json)
dpkg-deb -c "$deb" >"$out/contents.txt"
for file in "${packaged[@]}"; do
  grep -E " \.$file\$" "$out/contents.txt" >/dev/null || { echo "$deb lacks $file"; exit 1; }
done

if dpkg-query -W -f='${Status}' lynx-dfu 2>/dev/null | grep "install ok installed" >/dev/null; then
  echo "lynx-dfu is installed on this machine already: install test left out"
  exit 0
fi
# A failing check below must not leave the package on the machine.
trap '$sudo dpkg --purge lynx-dfu >/dev/null 2>&1 || true; rm -rf "$out"' EXIT
$sudo dpkg -i "$deb" >/dev/null
printf '2\n\nq\n' | /usr/bin/lynx-dfu >"$out/run.txt"
grep -x 'Vantrel (TM) Updatable Devices List' "$out/run.txt" >/dev/null ||
  { echo "the installed lynx-dfu did not list"; cat "$out/run.txt"; exit 1; }
# The manual page's example, with the installed sample world and image.
printf '3\n1\n/usr/share/lynx-dfu/sample-firmware.bin\n\n2\n\nq\n' |
  /usr/bin/lynx-dfu-lab --world=/usr/share/lynx-dfu/worlds/camera-stuck-in-dfu-mode.json \
    >"$out/lab-run.txt"
grep -Fx '[1]Lynx LX20 Depth Camera (FW Version: 5.16.0.1)' "$out/lab-run.txt" >/dev/null ||
  { echo "the installed lab did not recover the sample camera"; cat "$out/lab-run.txt"; exit 1; }
# The program names its version (the package's) and the licence the copyright file states.
version="$(dpkg-deb -f "$deb" Version)"
printf 'lynx-dfu %s\nCopyright 2026 the lynx-dfu maintainers\nLicensed under the Apache License, Version 2.0 (Apache-2.0)\n' \
  "$version" >"$out/version-expected.txt"
/usr/bin/lynx-dfu --version | cmp - "$out/version-expected.txt" ||
  { echo "lynx-dfu --version differs from:"; cat "$out/version-expected.txt"; exit 1; }
grep -x 'License: Apache-2.0' /usr/share/doc/lynx-dfu/copyright >/dev/null ||
  { echo "the copyright file names no Apache-2.0 licence"; exit 1; }
echo "installed size: $(dpkg-query -W -f='${Installed-Size}' lynx-dfu) KiB"
$sudo dpkg --purge lynx-dfu >/dev/null
trap 'rm -rf "$out"' EXIT
for file in "${packaged[@]}"; do
  [ ! -e "$file" ] || { echo "$file left behind after dpkg --purge"; exit 1; }
done
if dpkg-query -W -f='${Status}' lynx-dfu 2>/dev/null | grep -v "not-installed" | grep . >/dev/null; then
  echo "dpkg still knows lynx-dfu after the purge"; exit 1
fi
echo "installed, ran and purged $deb"
