#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Does the README hold on machines nobody has touched? Bootstraps minimal Debian 13 and
# Debian 12 roots, clones this repository's current commit into each and runs the README's
# commands there, exactly as the README writes them, as root, with no locale, no terminal, no
# sudo and an empty environment. CI runs it (.ci/run); run it yourself before calling setup
# work done:
#
#   sudo scripts/fresh-check.sh [--run-only] [--ctest12] [--keep]
#
# --run-only  only the run command, on each release (a quick check of setup.sh and the build)
# --ctest12   also the native suite on Debian 12 (left out of CI, whose 40 minutes with
#             downloads cached it would pass: CI ran 2495 s with it)
# --keep      keep the roots afterwards and print where they are
#
# The roots, each as on a machine where its command is the first thing typed, run side by side
# (the run stages at a lower priority, so that the longest, the test command, is not slowed):
#   run13   Debian 13: the README's run command
#   run12   Debian 12: the README's run command, then its package commands (the programs
#           alone, as without test tools, and cpack), the test tools (setup.sh --test) and the
#           mingw-w64 cross build; with --ctest12 the native build and its whole ctest suite
#   test13  Debian 13: the README's test command, in full; afterwards the package built on
#           Debian 12 installs, runs and purges there (scripts/deb-check.sh)
# Needs root (chroot, mounts), mmdebstrap and git: `scripts/setup.sh --fresh-check`.
# Only downloads are kept between runs, outside the roots, in $LYNX_FRESH_CACHE (default
# /var/cache/lynx-dfu/fresh-check): each release's bare bootstrap (rebuilt when a week old),
# apt's package files (linked into a root before, and new ones back after) and the hardware
# lab's kernels. Nothing installed or built is kept. Delete the folder to free its room.
# Commits only: uncommitted changes are not part of the check.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
cache="${LYNX_FRESH_CACHE:-/var/cache/lynx-dfu/fresh-check}"
mirror="$("$repo/scripts/debian-mirror.sh")"
suite_of() { case "$1" in 12) echo bookworm ;; 13) echo trixie ;; esac; }

# What each step may take on two cores, cold, with all roots side by side and room to spare;
# past it the step is stopped and the check fails, saying which step ran out of time.
budget_bootstrap=900
budget_run=1200
budget_builds12=3000  # inside run12's own budget, which bounds the whole stage
budget_test=4200

# Debian 12's share after its run command: the README's package commands build the programs
# (no test tools yet, so no suite) and the package Debian 13 installs; then the test tools
# install there too and the Windows program cross-builds with its mingw-w64.
builds12='cmake --build --preset default && (cd build/default && cpack -G DEB) && ./scripts/setup.sh --test && cmake --preset mingw && cmake --build --preset mingw'
# --ctest12: the whole native suite with GCC 12 as well, on the tools just installed.
ctest12=' && cmake --preset default && cmake --build --preset default && ctest --preset default --no-tests=error'

fail() { echo "fresh-check: $*" >&2; exit 1; }
[ -n "$mirror" ] || fail "no Debian archive in this machine's apt sources: set LYNX_DEBIAN_MIRROR"

if [ "${1:-}" = --inside ]; then
  # --- in a mount and process namespace of its own: mounts and processes end with it ----
  shift
  root="$1" kind="$2"
  mounted=()
  unmount_all() {
    local i
    for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
      umount "${mounted[$i]}" 2>/dev/null || umount -l "${mounted[$i]}" || true
    done
  }
  trap unmount_all EXIT
  trap 'exit 143' TERM
  mnt() { # mnt TARGET MOUNT-ARGUMENTS...
    local target="$root$1"
    shift
    mkdir -p "$target"
    mount "$@" "$target"
    mounted+=("$target")
  }
  mnt /proc -t proc proc
  mnt /sys -t sysfs -o ro sysfs
  mnt /dev -t tmpfs -o mode=755,nosuid tmpfs
  for node in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0; do
    IFS=: read -r name major minor <<<"$node"
    mknod -m 666 "$root/dev/$name" c "$major" "$minor"
  done
  ln -s /proc/self/fd "$root/dev/fd"
  ln -s /proc/self/fd/0 "$root/dev/stdin"
  ln -s /proc/self/fd/1 "$root/dev/stdout"
  ln -s /proc/self/fd/2 "$root/dev/stderr"
  mnt /dev/pts -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts
  ln -s pts/ptmx "$root/dev/ptmx"
  mnt /dev/shm -t tmpfs -o mode=1777,nosuid,nodev tmpfs
  mnt /run -t tmpfs -o mode=755,nosuid,nodev tmpfs
  [ "$kind" != test ] || mnt /root/.cache/lynx-dfu/hwlab --bind "$cache/hwlab"

  # The commands run as a new user's login would: root, home /root, the default PATH, no
  # locale, no terminal. CI=true only tells the tests they run unattended.
  # The trace shows each command of the line as it starts, with the time.
  in_root() { # in_root COMMAND [SECONDS]
    ${2:+timeout "$2"} chroot "$root" /usr/bin/env -i HOME=/root USER=root LOGNAME=root SHELL=/bin/bash \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin CI=true \
      /bin/bash -c "PS4='+ [\$(date -u +%T)] '; set -x; cd /root/lynx-dfu && $1"
  }
  command="$(cat "$root/root/command")"
  case "$kind" in
    run)
      # The lab waits for keys: list the devices (2, then Enter), then quit.
      printf '2\n\nq\n' | in_root "$command" 2>&1 | tee "$root/root/run-output.txt"
      echo
      grep -x 'Q: Quit' "$root/root/run-output.txt" >/dev/null || fail "the lab showed no menu"
      grep -x 'Vantrel (TM) Updatable Devices List' "$root/root/run-output.txt" >/dev/null ||
        fail "the lab listed no devices"
      if [ -f "$root/root/then" ]; then
        start=$(date +%s) status=0
        in_root "$(cat "$root/root/then")" "$budget_builds12" </dev/null 2>&1 || status=$?
        [ "$status" != 124 ] || fail "Debian 12's builds ran out of their budget of $budget_builds12 s"
        [ "$status" = 0 ] || fail "Debian 12's builds failed (status $status)"
        printf '=== fresh-check: Debian 12: package, test tools, mingw-w64 build took %d s (budget %d s) ===\n' \
          $(( $(date +%s) - start )) "$budget_builds12"
      fi
      ;;
    test) in_root "$command" </dev/null ;;
    deb12) in_root "./scripts/deb-check.sh /root/lynx-dfu-built-on-debian12.deb" </dev/null ;;
  esac
  exit 0
fi

# --- on the host ------------------------------------------------------------------------
run_only=0 keep=0
for arg in "$@"; do
  case "$arg" in
    --run-only) run_only=1 ;;
    --ctest12) builds12+="$ctest12" ;;
    --keep) keep=1 ;;
    *) echo "usage: $0 [--run-only] [--ctest12] [--keep]" >&2; exit 2 ;;
  esac
done
[ "$(id -u)" = 0 ] || fail "needs root for chroot and mounts: sudo $0"
for tool in mmdebstrap git unshare chroot; do
  command -v "$tool" >/dev/null || fail "missing $tool: scripts/setup.sh --fresh-check"
done
commit="$(git -C "$repo" rev-parse HEAD)"
git -C "$repo" diff --quiet HEAD -- || echo "fresh-check: uncommitted changes are left out; checking $commit"

mkdir -p "$cache/apt-archives/bookworm" "$cache/apt-archives/trixie" "$cache/hwlab"
work="$(mktemp -d /var/tmp/lynx-fresh.XXXXXX)"
pids=()  # the steps still running in the background
cleanup() {
  local status=$? pid
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  # The mounts live in the stages' own namespaces; never delete through one that survived.
  if grep -F " $work/" /proc/self/mountinfo >/dev/null; then
    echo "fresh-check: mounts left under $work; not removing it" >&2
  elif [ "$keep" = 1 ]; then
    echo "fresh-check: the roots are kept in $work"
  else
    rm -rf --one-file-system "$work"
  fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

total_start=$(date +%s)
# budget NAME SECONDS STATUS START [END]: a step's end, loudly when it failed or ran out of time.
budget() {
  local took=$(( ${5:-$(date +%s)} - $4 ))
  if [ "$3" = 124 ] || [ "$3" = 137 ]; then
    fail "$1 ran out of its budget of $2 s and was stopped"
  fi
  [ "$3" = 0 ] || fail "$1 failed after $took s (status $3)"
  printf '=== fresh-check: %s took %d s (budget %d s) ===\n' "$1" "$took" "$2"
}

# in_background NAME COMMAND...: COMMAND in the background; its status and end time are left
# in $work/NAME.status and $work/NAME.end for `ended`.
in_background() {
  local name="$1"
  shift
  { status=0; "$@" || status=$?; date +%s >"$work/$name.end"; echo "$status" >"$work/$name.status"; } &
  pids+=($!)
}
ended() { cat "$work/$1.status" "$work/$1.end"; }

# --- the bare bootstraps, cached, side by side ---
printf '\n=== fresh-check: minimal Debian 13 and 12 (budget %d s) ===\n' "$budget_bootstrap"
start=$(date +%s)
bootstrap() { # bootstrap SUITE TARBALL
  timeout "$budget_bootstrap" mmdebstrap --variant=minbase --format=tar --quiet "$1" "$2.tmp" \
    "deb $mirror/debian $1 main" \
    "deb $mirror/debian $1-updates main" \
    "deb $mirror/debian-security $1-security main"
}
for release in 13 12; do
  suite="$(suite_of "$release")"
  tarball="$cache/bootstrap-$suite.tar"
  if [ -z "$(find "$tarball" -mtime -7 2>/dev/null)" ]; then
    echo "bootstrapping a minimal Debian $release (kept in $tarball for a week)"
    rm -f "$tarball.tmp"
    in_background "bootstrap$release" bootstrap "$suite" "$tarball"
  else
    echo "the bare bootstrap of Debian $release of $(date -r "$tarball" '+%F %H:%M') from $tarball"
  fi
done
wait "${pids[@]}" 2>/dev/null || true
pids=()
for release in 13 12; do
  [ -f "$work/bootstrap$release.status" ] || continue
  { read -r status; read -r end; } < <(ended "bootstrap$release")
  budget "the bootstrap of Debian $release" "$budget_bootstrap" "$status" "$start" "$end"
  tarball="$cache/bootstrap-$(suite_of "$release").tar"
  mv "$tarball.tmp" "$tarball"
done

# fresh_root NAME RELEASE COMMAND: a root of its own with a plain clone of the commit.
fresh_root() {
  local root="$work/$1" suite
  suite="$(suite_of "$2")"
  mkdir "$root"
  tar -xf "$cache/bootstrap-$suite.tar" -C "$root" --numeric-owner
  cp -L /etc/resolv.conf "$root/etc/resolv.conf"
  # apt's package files from earlier runs, as links: new ones are linked back afterwards.
  find "$cache/apt-archives/$suite" -maxdepth 1 -name '*.deb' -exec ln -t "$root/var/cache/apt/archives/" {} + 2>/dev/null ||
    find "$cache/apt-archives/$suite" -maxdepth 1 -name '*.deb' -exec cp -t "$root/var/cache/apt/archives/" {} +
  git clone --quiet --no-hardlinks "$repo" "$root/root/lynx-dfu"
  git -C "$root/root/lynx-dfu" checkout --quiet --detach "$commit"
  printf '%s\n' "$3" >"$root/root/command"
  echo "$suite" >"$root/root/suite"
}
# keep_downloads NAME: the package files that root NAME fetched itself, into the cache
keep_downloads() {
  local deb dir
  dir="$cache/apt-archives/$(cat "$work/$1/root/suite")"
  for deb in "$work/$1"/var/cache/apt/archives/*.deb; do
    [ -e "$deb" ] || continue
    [ -e "$dir/${deb##*/}" ] || ln "$deb" "$dir/" 2>/dev/null || cp "$deb" "$dir/"
  done
}
# installed NAME: packages and their installed size, as dpkg counts them
installed() {
  chroot "$work/$1" dpkg-query -W -f='${Installed-Size}\n' |
    awk '{ kb += $1 } END { printf "%d packages, %d MB", NR, kb / 1024 }'
}

# readme_command SECTION: the first line of the first sh block under that README heading.
readme_command() {
  awk -v section="$1" '
    $0 == section { in_section = 1; next }
    in_section && /^## / { exit }
    in_section && /^```sh$/ { in_block = 1; next }
    in_block { print; exit }' "$repo/README.md"
}
run_command="$(readme_command '## Run it (the virtual lab, no hardware needed)')"
test_command="$(readme_command '## Run all the tests')"
[ -n "$run_command" ] || fail "README.md has no run command under its heading"
[ -n "$test_command" ] || fail "README.md has no test command under its heading"

fresh_root run13 13 "$run_command"
fresh_root run12 12 "$run_command"
roots=(run13 run12)
if [ "$run_only" = 0 ]; then
  printf '%s\n' "$builds12" >"$work/run12/root/then"
  fresh_root test13 13 "$test_command"
  roots+=(test13)
fi
echo "bare roots: Debian 13 $(installed run13), Debian 12 $(installed run12); the commit $commit cloned into each"
budget "the roots and the clones" "$budget_bootstrap" 0 "$start"

# stage NAME ROOT BUDGET KIND [NICENESS]: a step of KIND (run, test, deb12) in root ROOT, in
# the background, within its budget, at that scheduling niceness.
stage() {
  in_background "$1" timeout --kill-after=30 "$3" \
    nice -n "${5:-0}" unshare --mount --pid --fork --propagation private "$0" --inside "$work/$2" "$4"
}

printf '\n=== fresh-check: side by side, each in a fresh root ===\n'
# Beside the test command the run stages yield the processor (below), so they may take as long.
if [ "$run_only" = 1 ]; then budget13=$budget_run budget12=$budget_run; else budget13=$budget_test budget12=$budget_test; fi
echo "run13 (Debian 13, budget $budget13 s): + $run_command"
echo "run12 (Debian 12, budget $budget12 s): + $run_command"
[ "$run_only" = 1 ] || echo "       then + $builds12"
[ "$run_only" = 1 ] || echo "test13 (Debian 13, budget $budget_test s): + $test_command"
stages_start=$(date +%s)
# The run commands' output waits in files while the test command's goes to the log.
# The test command is the longest stage: the run stages take the processor only where it
# leaves some (its package installs and its VM use one core), instead of slowing it by half
# from the start.
niceness=$(( 15 * (1 - run_only) ))
stage run13 run13 "$budget13" run "$niceness" >"$work/run13.log" 2>&1
stage run12 run12 "$budget12" run "$niceness" >"$work/run12.log" 2>&1
[ "$run_only" = 1 ] || stage test13 test13 "$budget_test" test
wait "${pids[@]}" 2>/dev/null || true
pids=()
for name in "${roots[@]}"; do keep_downloads "$name"; done

for name in run13 run12; do
  printf '\n=== fresh-check: %s, its output ===\n' "$name"
  cat "$work/$name.log"
done
if [ "$run_only" = 0 ] && [ "$(cat "$work/run12.status")" = 0 ] && [ "$(cat "$work/test13.status")" = 0 ]; then
  printf '\n=== fresh-check: the package built on Debian 12, on Debian 13 (budget %d s) ===\n' "$budget_run"
  cp "$work"/run12/root/lynx-dfu/build/default/lynx-dfu_*_amd64.deb "$work/test13/root/lynx-dfu-built-on-debian12.deb"
  deb_start=$(date +%s)
  stage deb12 test13 "$budget_run" deb12
  wait "${pids[@]}" 2>/dev/null || true
  pids=()
fi
echo
for name in "${roots[@]}"; do
  { read -r status; read -r end; } < <(ended "$name")
  case "$name" in
    run13) label="the README's run command on Debian 13" limit=$budget13 ;;
    run12) label="the README's run command and the builds on Debian 12"
           limit=$budget12 ;;
    test13) label="the README's test command on Debian 13" limit=$budget_test ;;
  esac
  budget "$label" "$limit" "$status" "$stages_start" "$end"
  echo "installed in $name: $(installed "$name"), $(du -sh --one-file-system "$work/$name" | cut -f1) on disk"
done
if [ "$run_only" = 0 ]; then
  { read -r status; read -r end; } < <(ended deb12)
  budget "Debian 12's package on Debian 13" "$budget_run" "$status" "$deb_start" "$end"
fi
echo
if [ "$run_only" = 1 ]; then
  echo "fresh-check: the README's run command passed on fresh Debian 13 and 12 roots in $(( $(date +%s) - total_start )) s"
else
  echo "fresh-check: the README's two commands passed on a fresh Debian 13 root, the run command and the builds on a fresh Debian 12 root, in $(( $(date +%s) - total_start )) s"
fi
