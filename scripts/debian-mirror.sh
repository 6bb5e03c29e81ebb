#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prints the Debian archive this machine's own apt uses (the one it can reach), such as
# http://deb.debian.org, from its deb822 sources or its one-line sources; LYNX_DEBIAN_MIRROR,
# when set, instead. Prints nothing when apt names no Debian archive.
set -euo pipefail
if [ -n "${LYNX_DEBIAN_MIRROR:-}" ]; then
  echo "$LYNX_DEBIAN_MIRROR"
  exit 0
fi
{ cat /etc/apt/sources.list.d/*.sources /etc/apt/sources.list 2>/dev/null || true; } |
  sed -n 's#^URIs: *\([^ ]*\)/debian/*$#\1#p; s#^deb  *\(\[[^]]*\]  *\)\{0,1\}\([^ ]*\)/debian/*  *.*#\2#p' |
  awk 'NR == 1'
