#!/usr/bin/env bash
# Times the verifier on the inputs where speed matters to a user: the
# samples, and the largest log it accepts and the endless ones it refuses.
# The tests assert outcomes and memory only; this is where time is measured.
# Usage: bench/verifier.sh [RUNS]   (default 5 runs of each; uses build/)
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib.sh"

runs="${1:-5}"
[ -x build/signature-verification ] || build_dir build "${MAIN_BUILD_ARGS[@]}" -- signature-verification

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
truncate -s 64M "$scratch/64MiB.log"
truncate -s 65M "$scratch/65MiB.log"

# bench NAME ARG...: the mean wall-clock time of RUNS runs.
bench() {
    local name="$1" start end i
    shift
    start=$(date +%s%N)
    for ((i = 0; i < runs; i++)); do
        build/signature-verification "$@" >/dev/null 2>&1 || true
    done
    end=$(date +%s%N)
    printf '%-28s %8.1f ms\n' "$name" "$(((end - start) / runs / 1000))e-3"
}

bench "sample log" "-c$SAMPLE_CERT" "-l$SAMPLE_LOG"
bench "sample QR code" "-q$(cat "$SAMPLE_QR")"
bench "64 MiB log (verified)" "-c$SAMPLE_CERT" "-l$scratch/64MiB.log"
bench "65 MiB log (refused)" "-c$SAMPLE_CERT" "-l$scratch/65MiB.log"
bench "/dev/zero log (refused)" "-c$SAMPLE_CERT" -l/dev/zero
