#!/usr/bin/env bash
# The test run of the project:
#   scripts/test.sh          Release build with warnings as errors, every test; a ThreadSanitizer
#                            build running the lifecycle tests (threads, events, open and close);
#                            an AddressSanitizer, LeakSanitizer and UBSan build running every test;
#                            a few seconds of each fuzz target (clang, libFuzzer). No suppressions.
#   scripts/test.sh --asan   only the AddressSanitizer, LeakSanitizer and UBSan build and its tests
#                            (build-asan/).
#   scripts/test.sh --fuzz   only the fuzz targets' short runs (build-fuzz/); scripts/fuzz.sh runs
#                            them for longer.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=2
scripts/setup.sh

# Sanitizer runtimes of GCC 12 do not cope with the widest address randomisation of recent
# kernels; sanitized runs go with randomisation off when the system allows it.
no_aslr=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
  no_aslr=(setarch "$(uname -m)" -R)
fi

run_ctest() {  # build folder, sanitized (0/1), ctest arguments...
  local dir=$1 sanitized=$2
  shift 2
  local prefix=()
  if [ "$sanitized" = 1 ]; then
    prefix=("${no_aslr[@]}")
  fi
  (cd "$dir" && "${prefix[@]}" ctest -j"$jobs" --output-on-failure --timeout 300 "$@")
}

asan() {
  cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZFN_SANITIZE=address -DZFN_WERROR=ON \
    -DZFN_BUILD_BENCH=OFF
  cmake --build build-asan -j"$jobs"
  # Every test once: the end-to-end suite's second run with the refinements on (prefix refined.)
  # goes through the same code as its first, and the cases of both behaviours run inside it anyway.
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_ctest build-asan 1 -E '^refined\.'
}

fuzz() {
  scripts/fuzz.sh --short
}

case "${1:-}" in
  --asan) asan; exit 0 ;;
  --fuzz) fuzz; exit 0 ;;
esac

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DZFN_WERROR=ON
cmake --build build -j"$jobs"
run_ctest build 0

cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZFN_SANITIZE=thread -DZFN_WERROR=ON \
  -DZFN_BUILD_BENCH=OFF
cmake --build build-tsan -j"$jobs"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" run_ctest build-tsan 1 -L lifecycle

asan
fuzz
