#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the formatting of every tracked C and C++ file against .clang-format, then runs
# clang-tidy (.clang-tidy) over the project's own sources: the native build's, and the sources
# only the Windows cross build compiles. Any drift or finding fails the run.
#
#   scripts/lint.sh [FILE...]   every tracked C and C++ file, or only the given ones;
#                               configures build/default and build/mingw for their commands
set -euo pipefail
cd "$(dirname "$0")/.."

jobs="${LYNX_JOBS:-2}"
status=0

# LLVM 19 by its versioned names, whatever the plain names point to: no formatting satisfies
# both clang-format 14 and 19, and each clang-tidy release brings checks of its own.
for tool in clang-format-19 clang-tidy-19; do
  command -v "$tool" >/dev/null || { echo "lint: no $tool (scripts/setup.sh --test)"; exit 2; }
done

# Every file of a kind that can carry a comment names its licence on its first line (the
# second after a #! line or an XML declaration, as in the installer's .wxs), where a reader
# of the file alone finds it.
# Data files (worlds, transcripts, images, argument files) carry none.
licensed='(\.(c|cpp|h|cmake|sh|py|rules|1|rc\.in|manifest\.in|wxs)|(^|/)(CMakeLists\.txt|\.clang-format|\.clang-tidy|\.gitignore|lintian-overrides|program)|^\.ci/run|^tests/hwlab/guest/init)$'
unlicensed=0
while IFS= read -r file; do
  awk 'NR == 1 && /^(#!|<\?xml )/ { next }
       { found = index($0, "SPDX-License-Identifier: Apache-2.0") > 0; exit }
       END { exit !found }' "$file" || { echo "$file: no SPDX-License-Identifier: Apache-2.0 on its first line"; unlicensed=1; }
done < <(git ls-files -- "$@" | grep -E "$licensed")
if [ "$unlicensed" = 0 ]; then
  echo "licence: every source, script and template names Apache-2.0"
else
  status=1
fi

mapfile -t tracked < <(git ls-files -- "$@" | grep -E '\.(c|cpp|h)$')
[ ${#tracked[@]} -gt 0 ] || { echo "lint: no tracked C or C++ file among: $*"; exit 2; }
if clang-format-19 --dry-run -Werror "${tracked[@]}"; then
  echo "clang-format-19: ${#tracked[@]} files, no drift"
else
  echo "clang-format-19: drift (fix with clang-format-19 -i FILE)"
  status=1
fi

# Configured afresh, so that the commands cover every source the builds compile today.
cmake --preset default >/dev/null
cmake --preset mingw >/dev/null

# The tracked sources a build compiles: GoogleTest's sources and generated files stay out.
compiled() {
  python3 - "$1" "${tracked[@]}" <<'EOF'
import json, os, sys
tracked = {os.path.abspath(path) for path in sys.argv[2:]}
with open(os.path.join(sys.argv[1], "compile_commands.json")) as commands:
    files = {os.path.abspath(entry["file"]) for entry in json.load(commands)}
print("\n".join(sorted(files & tracked)))
EOF
}
mapfile -t native < <(compiled build/default)
mapfile -t windows < <(LC_ALL=C comm -13 <(compiled build/default) <(compiled build/mingw))

# run-clang-tidy colours its output and drops clang-tidy's exit status on some versions:
# each file runs on its own, and its output is printed in one piece when it ends.
tidy() {
  local build="$1" file="$2" out
  shift 2
  if ! out="$(clang-tidy-19 -p "$build" --quiet "$@" "$file" 2>&1)"; then
    printf '%s\n' "$out"
    return 1
  fi
}
export -f tidy

# tidy_all LABEL BUILD [ARG...] < file list (null-separated)
tidy_all() {
  local label="$1" build="$2" files
  shift 2
  mapfile -d '' -t files
  [ ${#files[@]} -gt 0 ] && [ -n "${files[0]}" ] || return 0
  if printf '%s\0' "${files[@]}" |
      xargs -0 -P "$jobs" -I{} bash -c 'tidy "$@"' _ "$build" {} "$@"; then
    echo "clang-tidy-19: ${#files[@]} $label, no finding"
  else
    echo "clang-tidy-19: findings in the $label"
    status=1
  fi
}

tidy_all "native sources" build/default < <(printf '%s\0' "${native[@]}")

# clang reads the mingw build's commands as a mingw-w64 target with GCC's C++ library, where
# the cross g++ finds it. Left out, as they flag the mingw-w64 headers' shapes, which GCC
# accepts: functions loaded at run time are defined again under the headers' names, without
# dllimport and with this code's parameter names; COM overrides lack the headers' throw().
gcc_dir="$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")"
tidy_all "Windows-only sources" build/mingw < <(printf '%s\0' "${windows[@]}") \
  --extra-arg=--target=x86_64-w64-mingw32 \
  "--extra-arg=-isystem$gcc_dir/include/c++" \
  "--extra-arg=-isystem$gcc_dir/include/c++/x86_64-w64-mingw32" \
  --extra-arg=-Wno-inconsistent-dllimport \
  --extra-arg=-Wno-microsoft-exception-spec \
  --checks=-readability-inconsistent-declaration-parameter-name
exit "$status"
