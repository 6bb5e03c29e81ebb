#!/usr/bin/env bash
# Does the README hold on a machine nobody has touched? Bootstraps a minimal Debian 12 root,
# clones this repository's current commit into it and runs the README's two commands there,
# exactly as the README writes them, as root, with no locale, no terminal, no sudo and an
# empty environment. CI runs it (.ci/run); run it yourself before calling setup work done:
#
#   sudo scripts/fresh-check.sh [--run-only] [--keep]
#
# --run-only  stop after the run command (a quick check of setup.sh and the build)
# --keep      keep the root afterwards and print where it is
#
# Needs root (chroot, mounts), mmdebstrap and git: `scripts/setup.sh --fresh-check`.
# Only downloads are kept between runs, outside the root, in $LYNX_FRESH_CACHE (default
# /var/cache/lynx-dfu/fresh-check): the bare bootstrap (rebuilt when a week old), apt's
# package files and the hardware lab's kernel download. Nothing installed or built is kept.
# Commits only: uncommitted changes are not part of the check.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
cache="${LYNX_FRESH_CACHE:-/var/cache/lynx-dfu/fresh-check}"
mirror="${LYNX_DEBIAN_MIRROR:-http://deb.debian.org}"

# What each step may take on two cores, cold, with room to spare; past it the step is
# stopped and the check fails, saying which step ran out of time.
budget_bootstrap=900
budget_run=1200
budget_test=3600

fail() { echo "fresh-check: $*" >&2; exit 1; }

if [ "${1:-}" = --inside ]; then
  # --- in a mount and process namespace of its own: mounts and processes end with it ----
  shift
  root="$1" stage="$2"
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
  mnt /var/cache/apt/archives --bind "$cache/apt-archives"
  mnt /root/.cache/lynx-dfu/hwlab --bind "$cache/hwlab"

  # The commands run as a new user's login would: root, home /root, the default PATH, no
  # locale, no terminal. CI=true only tells the tests they run unattended.
  in_root() {
    chroot "$root" /usr/bin/env -i HOME=/root USER=root LOGNAME=root SHELL=/bin/bash \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin CI=true \
      /bin/bash -c "cd /root/lynx-dfu && $1"
  }
  command="$(cat "$root/root/command")"
  echo "+ $command"
  case "$stage" in
    run)
      # The lab waits for keys: list the devices (2, then Enter), then quit.
      printf '2\n\nq\n' | in_root "$command" >"$root/root/run-output.txt" 2>&1 ||
        { tail -n 40 "$root/root/run-output.txt"; fail "the run command failed"; }
      tail -n 25 "$root/root/run-output.txt"
      grep -x 'Q: Quit' "$root/root/run-output.txt" >/dev/null || fail "the lab showed no menu"
      grep -x 'Vantrel (TM) Updatable Devices List' "$root/root/run-output.txt" >/dev/null ||
        fail "the lab listed no devices"
      ;;
    test) in_root "$command" </dev/null ;;
  esac
  exit 0
fi

# --- on the host ------------------------------------------------------------------------
run_only=0 keep=0
for arg in "$@"; do
  case "$arg" in
    --run-only) run_only=1 ;;
    --keep) keep=1 ;;
    *) echo "usage: $0 [--run-only] [--keep]" >&2; exit 2 ;;
  esac
done
[ "$(id -u)" = 0 ] || fail "needs root for chroot and mounts: sudo $0"
for tool in mmdebstrap git unshare chroot; do
  command -v "$tool" >/dev/null || fail "missing $tool: scripts/setup.sh --fresh-check"
done
commit="$(git -C "$repo" rev-parse HEAD)"
git -C "$repo" diff --quiet HEAD -- || echo "fresh-check: uncommitted changes are left out; checking $commit"

mkdir -p "$cache/apt-archives/partial" "$cache/hwlab"
root="$(mktemp -d /var/tmp/lynx-fresh.XXXXXX)"
inside=""
cleanup() {
  local status=$?
  [ -z "$inside" ] || kill -TERM "$inside" 2>/dev/null || true
  wait 2>/dev/null || true
  # The mounts live in the inner namespace only; never delete through one that survived.
  if grep -F " $root/" /proc/self/mountinfo >/dev/null; then
    echo "fresh-check: mounts left under $root; not removing it" >&2
  elif [ "$keep" = 1 ]; then
    echo "fresh-check: the root is kept in $root"
  else
    rm -rf --one-file-system "$root"
  fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

total_start=$(date +%s)
# step NAME BUDGET COMMAND...: runs it with its budget and says how long it took.
step() {
  local name="$1" budget="$2" start status=0
  shift 2
  printf '\n=== fresh-check: %s (budget %d s) ===\n' "$name" "$budget"
  start=$(date +%s)
  timeout --kill-after=30 "$budget" "$@" &
  inside=$!
  wait "$inside" || status=$?
  inside=""
  local took=$(( $(date +%s) - start ))
  if [ "$status" = 124 ] || [ "$status" = 137 ]; then
    fail "$name ran out of its budget of $budget s and was stopped"
  fi
  [ "$status" = 0 ] || fail "$name failed after $took s (status $status)"
  printf '=== fresh-check: %s took %d s (budget %d s) ===\n' "$name" "$took" "$budget"
}

bootstrap() {
  local tarball="$cache/bootstrap-bookworm.tar"
  if [ -z "$(find "$tarball" -mtime -7 2>/dev/null)" ]; then
    echo "bootstrapping a minimal Debian 12 (kept in $tarball for a week)"
    rm -f "$tarball.tmp"
    mmdebstrap --variant=minbase --format=tar --quiet bookworm "$tarball.tmp" \
      "deb $mirror/debian bookworm main" \
      "deb $mirror/debian bookworm-updates main" \
      "deb $mirror/debian-security bookworm-security main"
    mv "$tarball.tmp" "$tarball"
  else
    echo "the bare bootstrap from $(date -r "$tarball" '+%F %H:%M') ($tarball)"
  fi
  tar -xf "$tarball" -C "$root" --numeric-owner
  cp -L /etc/resolv.conf "$root/etc/resolv.conf"
  echo "root $root: $(du -sh --one-file-system "$root" | cut -f1), $(chroot "$root" dpkg-query -W | wc -l) packages"
}
export root cache mirror repo commit
export -f bootstrap
step "a fresh minimal Debian 12 root" "$budget_bootstrap" bash -c 'set -euo pipefail; bootstrap'

clone() {
  git clone --quiet --no-hardlinks "$repo" "$root/root/lynx-dfu"
  git -C "$root/root/lynx-dfu" checkout --quiet --detach "$commit"
  echo "cloned $commit into $root/root/lynx-dfu"
}
export -f clone
step "a plain clone of $commit" 120 bash -c 'set -euo pipefail; clone'

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

measure() { # what is installed: packages and room
  chroot "$root" dpkg-query -W -f='${Installed-Size}\n' | awk '{ kb += $1 } END { printf "%d packages, %d MB\n", NR, kb / 1024 }'
  echo "root now $(du -sh --one-file-system "$root" | cut -f1) on disk"
}
packages_before="$(chroot "$root" dpkg-query -W | wc -l)"

printf '%s\n' "$run_command" >"$root/root/command"
step "the README's run command" "$budget_run" unshare --mount --pid --fork --propagation private "$0" --inside "$root" run
echo "after the run command: $(measure | tr '\n' ';') ($packages_before packages before)"
if [ "$run_only" = 1 ]; then
  echo "fresh-check: run command passed (--run-only); total $(( $(date +%s) - total_start )) s"
  exit 0
fi

printf '%s\n' "$test_command" >"$root/root/command"
step "the README's test command" "$budget_test" unshare --mount --pid --fork --propagation private "$0" --inside "$root" test
echo "after the test command: $(measure | tr '\n' ';')"
echo
echo "fresh-check: the README's two commands passed on a fresh Debian 12 root in $(( $(date +%s) - total_start )) s"
