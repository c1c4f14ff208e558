#!/usr/bin/env bash
# Resident memory of the receiver:
#   scripts/measure_memory.sh [seconds]
# 1. zfnisdbt receive --simulate --memory: VmRSS before ZFISDBT_OpenDevice and VmRSS / VmHWM every
#    second while receiving through the shared library (its threads, ring and engine, plus the
#    simulator library and its half second of signal).
# 2. zfnisdbt decode --json on a capture from zfnisdbt generate: the engine alone, driven
#    synchronously; VmRSS before the engine is built and the peak after the last block.
# Prints the growth over the process's own memory in MB. Needs a build in build/ (or ZFN_BUILD_DIR).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${ZFN_BUILD_DIR:-build}
seconds=${1:-8}
bin=$build/bin/zfnisdbt
export LD_LIBRARY_PATH=$build/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
[ -x "$bin" ] || { echo "measure_memory.sh: build $bin first" >&2; exit 1; }
tmp=$(mktemp -d /tmp/tooling_memory.XXXXXX)
trap 'rm -rf "$tmp"' EXIT

"$bin" receive --simulate --memory --seconds "$seconds" >"$tmp/receive.txt"
before=$(sed -n 's/.*before open: rss=\([0-9]*\)kB.*/\1/p' "$tmp/receive.txt")
peak=$(sed -n 's/.* peak=\([0-9]*\)kB$/\1/p' "$tmp/receive.txt" | sort -n | tail -1)
last=$(sed -n 's/.* rss=\([0-9]*\)kB peak=.*/\1/p' "$tmp/receive.txt" | tail -1)
[ -n "$before" ] && [ -n "$peak" ] || { cat "$tmp/receive.txt" >&2; echo "measure_memory.sh: receive gave no memory report" >&2; exit 1; }
awk -v b="$before" -v p="$peak" -v l="$last" 'BEGIN {
  printf "receive --simulate: before open %.1f MB, while receiving %.1f MB (peak %.1f MB): +%.1f MB (peak +%.1f MB)\n",
         b / 1024, l / 1024, p / 1024, (l - b) / 1024, (p - b) / 1024 }'

"$bin" generate --output "$tmp/capture" --seconds "$seconds" --test-pattern --cn 20 >/dev/null
json=$("$bin" decode "$tmp/capture" --json 2>/dev/null | tail -1)
field() { echo "$json" | sed -n "s/.*\"$1\":\([0-9]*\).*/\1/p"; }
awk -v b="$(field rss_before_open_kb)" -v p="$(field rss_peak_kb)" 'BEGIN {
  printf "decode (engine alone): before open %.1f MB, peak %.1f MB: +%.1f MB\n", b / 1024, p / 1024, (p - b) / 1024 }'
