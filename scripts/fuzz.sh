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
  corpus=build-fuzz/corpus/$t
  mkdir -p "$corpus"
  echo "fuzz: $t for ${seconds}s" >&2
  (cd build-fuzz && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "./fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
    "corpus/$t" 2>&1 | grep -E '^(#[0-9]+ *DONE|stat::number_of_executed_units|stat::average_exec_per_sec|INFO: .*corpus|==[0-9]+==ERROR|SUMMARY)' || true
   exit "${PIPESTATUS[0]}")
done
