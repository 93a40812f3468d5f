#!/usr/bin/env bash
# The long differential run of the per-key verifier: a million generated
# cases (valid signatures and every kind of broken one, on all six curves)
# checked against libcrypto's verdict, one process per core with its own
# seed. The unit suite runs a few thousand of the same cases; this one is
# for changes to the verifier. Usage: bench/differential.sh [BUILD_DIR] [CASES]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD="${1:-build}"
CASES="${2:-1000000}"
# shellcheck source=bench/lib.sh
source bench/lib.sh
bench_setup "$BUILD" key-verifier
pids=()
for ((i = 0; i < CORES; i++)); do
    "$BUILD/bench/key-verifier" differential $((CASES / CORES)) $((i + 1)) >"$WORK/$i.out" &
    pids+=($!)
done
status=0
for ((i = 0; i < CORES; i++)); do
    wait "${pids[$i]}" || status=1
    cat "$WORK/$i.out"
done
exit "$status"
