#!/usr/bin/env bash
# Whole-engine speed of several builds in one run, for a shared machine:
#   scripts/compare_engine_bench.sh [-n RUNS] BINARY...   (engine_bench programs of different builds)
# Runs the programs in turn RUNS times (default 7), so that load from other work falls on all alike,
# and prints each one's median and best times real time and its median ratio to the first.
set -euo pipefail
runs=7
if [ "${1:-}" = "-n" ]; then runs=$2; shift 2; fi
[ $# -ge 1 ] || { echo "usage: $0 [-n RUNS] BINARY..." >&2; exit 1; }
tmp=$(mktemp -d /tmp/engine_compare.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
for ((r = 0; r < runs; ++r)); do
  for ((i = 1; i <= $#; ++i)); do
    "${!i}" 2>/dev/null | sed -n 's/^Whole engine.*: \([0-9.]*\) x real time.*/\1/p' >>"$tmp/$i"
  done
done
"${1}" 2>/dev/null | sed -n 's/^Machine: //p;s/^Run on (\(.*\))$/\1/p' | head -1
for ((i = 1; i <= $#; ++i)); do
  sort -n "$tmp/$i" >"$tmp/$i.sorted"
  median=$(awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}' "$tmp/$i.sorted")
  best=$(tail -1 "$tmp/$i.sorted")
  [ "$i" = 1 ] && first=$median
  awk -v n="${!i}" -v m="$median" -v b="$best" -v f="$first" -v r="$runs" \
    'BEGIN { printf "%-40s median %6.1f x  best %6.1f x  (%d runs)  %.3f x the first\n", n, m, b, r, m / f }'
done
