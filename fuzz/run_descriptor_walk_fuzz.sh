#!/bin/sh
# Builds the descriptor-walk fuzz target with the fuzz preset and runs it for a bounded time.
# Usage: fuzz/run_descriptor_walk_fuzz.sh [seconds] [build-dir]   (defaults: 60, build/fuzz)
set -eu
seconds="${1:-60}"
build="${2:-build/fuzz}"
cd "$(dirname "$0")/.."
cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build" -j2 --target lynx_descriptor_walk_fuzz
corpus="$build/fuzz/descriptor_walk_corpus"
mkdir -p "$corpus"
# A typical configuration as the first seed: header, a DFU interface, its functional descriptor.
printf '\011\002\033\000\001\001\000\200\062\011\004\000\000\000\376\001\002\000\011\041\001\350\003\000\004\020\001' \
    > "$corpus/typical"
exec "$build/fuzz/lynx_descriptor_walk_fuzz" -max_total_time="$seconds" -max_len=1100 "$corpus"
