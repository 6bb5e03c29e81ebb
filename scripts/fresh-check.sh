#!/usr/bin/env bash
# Does the README hold on a machine nobody has touched? Bootstraps a minimal Debian 12 root,
# clones this repository's current commit into it and runs the README's two commands there,
# exactly as the README writes them, as root, with no locale, no terminal, no sudo and an
# empty environment. CI runs it (.ci/run); run it yourself before calling setup work done:
#
#   sudo scripts/fresh-check.sh [--run-only] [--keep]
#
# --run-only  only the run command (a quick check of setup.sh and the build)
# --keep      keep the roots afterwards and print where they are
#
# Each command gets a root of its own, as on a machine where it is the first thing typed, and
# the two run side by side: the run command's build overlaps the test command's installs.
# Needs root (chroot, mounts), mmdebstrap and git: `scripts/setup.sh --fresh-check`.
# Only downloads are kept between runs, outside the roots, in $LYNX_FRESH_CACHE (default
# /var/cache/lynx-dfu/fresh-check): the bare bootstrap (rebuilt when a week old), apt's
# package files (linked into a root before, and new ones back after) and the hardware lab's
# kernel download. Nothing installed or built is kept. Delete the folder to free its room.
# Commits only: uncommitted changes are not part of the check.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
cache="${LYNX_FRESH_CACHE:-/var/cache/lynx-dfu/fresh-check}"
# The archive this machine's own apt uses (the one CI can reach), unless told otherwise.
host_mirror() {
  { cat /etc/apt/sources.list.d/*.sources /etc/apt/sources.list 2>/dev/null || true; } |
    sed -n 's#^URIs: *\([^ ]*\)/debian/*$#\1#p; s#^deb  *\([^ ]*\)/debian/* bookworm .*#\1#p' |
    awk 'NR == 1'
}
mirror="${LYNX_DEBIAN_MIRROR:-$(host_mirror)}"

# What each step may take on two cores, cold, with room to spare; past it the step is
# stopped and the check fails, saying which step ran out of time.
budget_bootstrap=900
budget_run=1200
budget_test=3600

fail() { echo "fresh-check: $*" >&2; exit 1; }
[ -n "$mirror" ] || fail "no Debian archive in this machine's apt sources: set LYNX_DEBIAN_MIRROR"

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
  [ "$stage" = run ] || mnt /root/.cache/lynx-dfu/hwlab --bind "$cache/hwlab"

  # The commands run as a new user's login would: root, home /root, the default PATH, no
  # locale, no terminal. CI=true only tells the tests they run unattended.
  # The trace shows each command of the line as it starts, with the time.
  in_root() {
    chroot "$root" /usr/bin/env -i HOME=/root USER=root LOGNAME=root SHELL=/bin/bash \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin CI=true \
      /bin/bash -c "PS4='+ [\$(date -u +%T)] '; set -x; cd /root/lynx-dfu && $1"
  }
  command="$(cat "$root/root/command")"
  case "$stage" in
    run)
      # The lab waits for keys: list the devices (2, then Enter), then quit.
      printf '2\n\nq\n' | in_root "$command" 2>&1 | tee "$root/root/run-output.txt"
      echo
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

mkdir -p "$cache/apt-archives" "$cache/hwlab"
work="$(mktemp -d /var/tmp/lynx-fresh.XXXXXX)"
stages=()  # the budgets' timeout processes still running
cleanup() {
  local status=$? pid
  for pid in "${stages[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
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
# budget NAME SECONDS STATUS START: a step's end, loudly when it failed or ran out of time.
budget() { # budget NAME SECONDS STATUS START [END]
  local took=$(( ${5:-$(date +%s)} - $4 ))
  if [ "$3" = 124 ] || [ "$3" = 137 ]; then
    fail "$1 ran out of its budget of $2 s and was stopped"
  fi
  [ "$3" = 0 ] || fail "$1 failed after $took s (status $3)"
  printf '=== fresh-check: %s took %d s (budget %d s) ===\n' "$1" "$took" "$2"
}

# --- the bare bootstrap, cached ---
printf '\n=== fresh-check: a minimal Debian 12 (budget %d s) ===\n' "$budget_bootstrap"
start=$(date +%s)
tarball="$cache/bootstrap-bookworm.tar"
if [ -z "$(find "$tarball" -mtime -7 2>/dev/null)" ]; then
  echo "bootstrapping a minimal Debian 12 (kept in $tarball for a week)"
  rm -f "$tarball.tmp"
  status=0
  timeout "$budget_bootstrap" mmdebstrap --variant=minbase --format=tar --quiet bookworm "$tarball.tmp" \
    "deb $mirror/debian bookworm main" \
    "deb $mirror/debian bookworm-updates main" \
    "deb $mirror/debian-security bookworm-security main" || status=$?
  budget "the bootstrap" "$budget_bootstrap" "$status" "$start"
  mv "$tarball.tmp" "$tarball"
else
  echo "the bare bootstrap of $(date -r "$tarball" '+%F %H:%M') from $tarball"
fi

# fresh_root NAME COMMAND: a root of its own with a plain clone of the commit, for COMMAND.
fresh_root() {
  local root="$work/$1"
  mkdir "$root"
  tar -xf "$tarball" -C "$root" --numeric-owner
  cp -L /etc/resolv.conf "$root/etc/resolv.conf"
  # apt's package files from earlier runs, as links: new ones are linked back afterwards.
  find "$cache/apt-archives" -maxdepth 1 -name '*.deb' -exec ln -t "$root/var/cache/apt/archives/" {} + 2>/dev/null ||
    find "$cache/apt-archives" -maxdepth 1 -name '*.deb' -exec cp -t "$root/var/cache/apt/archives/" {} +
  git clone --quiet --no-hardlinks "$repo" "$root/root/lynx-dfu"
  git -C "$root/root/lynx-dfu" checkout --quiet --detach "$commit"
  printf '%s\n' "$2" >"$root/root/command"
}
# keep_downloads NAME: the package files that root NAME fetched itself, into the cache
keep_downloads() {
  local deb
  for deb in "$work/$1"/var/cache/apt/archives/*.deb; do
    [ -e "$cache/apt-archives/${deb##*/}" ] || ln "$deb" "$cache/apt-archives/" 2>/dev/null ||
      cp "$deb" "$cache/apt-archives/"
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

fresh_root run "$run_command"
[ "$run_only" = 1 ] || fresh_root test "$test_command"
echo "the bare root: $(installed run); the commit $commit cloned into each root"
budget "a minimal Debian 12 and the clones" "$budget_bootstrap" 0 "$start"

# stage NAME BUDGET: the README's command in root NAME, in the background, within its budget.
stage() {
  timeout --kill-after=30 "$2" unshare --mount --pid --fork --propagation private \
    "$0" --inside "$work/$1" "$1" &
  stages+=($!)
}

printf '\n=== fresh-check: the README'"'"'s run command, in a fresh root (budget %d s) ===\n' "$budget_run"
echo "+ $run_command"
run_start=$(date +%s)
if [ "$run_only" = 1 ]; then
  stage run "$budget_run"
  status=0; wait "${stages[0]}" || status=$?; stages=()
  keep_downloads run
  budget "the README's run command" "$budget_run" "$status" "$run_start"
  echo "installed: $(installed run)"
  echo "fresh-check: the run command passed; total $(( $(date +%s) - total_start )) s"
  exit 0
fi
# Its output waits in a file while the test command's goes to the log.
stage run "$budget_run" >"$work/run.log" 2>&1
run_pid=$!

printf '\n=== fresh-check: the README'"'"'s test command, in another fresh root, beside it (budget %d s) ===\n' "$budget_test"
echo "+ $test_command"
test_start=$(date +%s)
stage test "$budget_test"
test_pid=$!

status=0; wait "$run_pid" || status=$?
run_end=$(date +%s)
printf '\n=== fresh-check: the run command ended after %d s (status %d); its output is shown at the end ===\n' \
  $(( run_end - run_start )) "$status"
run_status=$status
status=0; wait "$test_pid" || status=$?
stages=()
keep_downloads run
keep_downloads test

printf '\n=== fresh-check: the README'"'"'s run command, its output ===\n'
cat "$work/run.log"
budget "the README's run command" "$budget_run" "$run_status" "$run_start" "$run_end"
echo "installed by it: $(installed run)"
budget "the README's test command" "$budget_test" "$status" "$test_start"
echo "installed by it: $(installed test)"
echo "root of the test command: $(du -sh --one-file-system "$work/test" | cut -f1) on disk"
echo
echo "fresh-check: the README's two commands passed on fresh Debian 12 roots in $(( $(date +%s) - total_start )) s"
