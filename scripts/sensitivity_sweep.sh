#!/usr/bin/env bash
# Sensitivity sweep in white noise, to re-run after every change of the signal path:
#   scripts/sensitivity_sweep.sh [sweep options]
# builds bench/engine/sensitivity_sweep (Release, build/, one job), runs it (default: 4 to 10 dB C/N
# in 0.5 dB steps, 60 s of signal per point, seed 1; any options are passed on, e.g. --to 12 or
# --no-resync), and writes the table to bench/results/sensitivity.txt (or to ZFN_SWEEP_OUT) as well
# as standard output.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${ZFN_BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZFN_WERROR=ON >/dev/null
cmake --build "$build" -j1 --target sensitivity_sweep >/dev/null

out=${ZFN_SWEEP_OUT:-bench/results/sensitivity.txt}
mkdir -p "$(dirname "$out")"
# One core: nice, so that other work on the machine goes first.
nice -n 10 "$build/bin/sensitivity_sweep" "$@" | tee "$out.part"
mv "$out.part" "$out"
echo "table written to $out" >&2
