#!/usr/bin/env bash
# Soak: one hour through the public library against the simulator, at real time: a retune every
# 30 s, a close and an open every 5 minutes (each open with the next transmission mode), a callback
# that takes 300 ms a call for two seconds every 97 s. Prints resident memory, threads and
# descriptors and the worst time back to lock; exit 1 on a lock not regained or anything left.
#   scripts/soak.sh [soak_host flags, e.g. --minutes 5 --retune 10 --reopen 60]
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DZFN_WERROR=ON > /dev/null
cmake --build build -j2 --target soak_host
LD_LIBRARY_PATH=build/lib exec build/bin/soak_host "$@"
