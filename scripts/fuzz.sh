#!/usr/bin/env bash
# The fuzz targets of fuzz/, built with clang and libFuzzer (AddressSanitizer and UBSan on) in
# build-fuzz/:
#   scripts/fuzz.sh --short     a few seconds each (the test run does this)
#   scripts/fuzz.sh [SECONDS]   SECONDS each (default 600), corpora kept in build-fuzz/corpus/
# A crash stops the run with the input that caused it in build-fuzz/ (crash-*, leak-*, timeout-*).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=600
if [ "${1:-}" = "--short" ]; then
  seconds=5
elif [ -n "${1:-}" ]; then
  seconds=$1
fi

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZFN_FUZZ=ON \
  -DZFN_BUILD_TESTS=OFF -DZFN_BUILD_BENCH=OFF
targets=(engine reed_solomon tmcc parameter_files sim_settings)
cmake --build build-fuzz -j2 --target "${targets[@]/#/fuzz_}"

for t in "${targets[@]}"; do
  # The engine's inputs are damage spliced into a capture: short ones leave it mostly signal. Its
  # first run makes the capture (some seconds), so its short run is longer.
  max_len=4096 time=$seconds
  if [ "$t" = engine ]; then
    max_len=256
    if [ "${1:-}" = "--short" ]; then time=12; fi
  fi
  mkdir -p "build-fuzz/corpus/$t"
  echo "fuzz: $t for ${time}s" >&2
  status=0
  (cd build-fuzz && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "./bin/fuzz_$t" -max_total_time="$time" -max_len="$max_len" -timeout=20 -rss_limit_mb=4096 \
    -print_final_stats=1 "corpus/$t" > "fuzz_$t.log" 2>&1) || status=$?
  grep -E '^(#[0-9]+[[:space:]]+DONE|stat::number_of_executed_units|stat::average_exec_per_sec|==[0-9]+==ERROR|SUMMARY)' \
    "build-fuzz/fuzz_$t.log" >&2 || true
  if [ "$status" -ne 0 ]; then
    echo "fuzz: $t failed (exit $status); see build-fuzz/fuzz_$t.log" >&2
    exit 1
  fi
done
