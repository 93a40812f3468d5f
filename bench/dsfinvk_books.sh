#!/usr/bin/env bash
# What the checks of the bookkeeping in itself cost: a P-256 TSE export of N
# varied sales (100,000 unless given; several VAT keys and payments), its
# DSFinV-K export with five line items a sale, checked from the bookkeeping
# alone (where these checks weigh most) by this build's tse-check and by a
# tse-check built without them, given as BASE (e.g. a build of the commit
# before them). Prints both times in CPU seconds (user and system: on a
# shared machine the wall clock says more about the others), the share the
# checks add (goal: at most 20 %) and the peak memory (goal: under 300 MiB).
# Usage: bench/dsfinvk_books.sh [BUILD_DIR] [BASE_TSE_CHECK] [TRANSACTIONS]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD="${1:-build}"
BASE="${2:-}"
TRANSACTIONS="${3:-100000}"
# shellcheck source=bench/lib.sh
source bench/lib.sh
bench_setup "$BUILD" tse-check make-export make-dsfinvk

"$BUILD/make-export" -o "$WORK/tse.tar" -n "$TRANSACTIONS" --curve secp256r1 --varied -j "$CORES" >/dev/null
"$BUILD/make-dsfinvk" --tse "$WORK/tse.tar" --out "$WORK/dsfinvk" --lines 5 >/dev/null

# Seconds and peak KiB of one check; the report must be clean.
measure() {
    /usr/bin/time -f '%U %S %M' -o "$WORK/time" \
        "$1" dsfinvk --no-progress --json "$WORK/report.json" "$WORK/dsfinvk" >/dev/null || true
    python3 - "$WORK/report.json" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))["summary"]
if s["errors"] or s["valid"] != s["rows"]:
    sys.exit("the bookkeeping did not check out clean: " + json.dumps(s))
PY
    awk '{printf "%.2f %d\n", $1 + $2, $3}' "$WORK/time"
}
# The better of two runs of each, alternating, so that a burst of load on
# the machine falls on neither side alone.
best() {
    sort -n | head -1
}
runs=$(for _ in 1 2; do measure "$BUILD/tse-check"; [ -z "$BASE" ] || measure "$BASE" | sed 's/^/base /'; done)
read -r seconds kib < <(grep -v '^base' <<<"$runs" | best)
lines=$(($(wc -l <"$WORK/dsfinvk/lines_vat.csv") - 1))
echo "with the checks: $TRANSACTIONS receipts, $lines line amounts: ${seconds} CPU s, peak $((kib / 1024)) MiB (goal < 300)"
if [ -n "$BASE" ]; then
    read -r base basekib < <(grep '^base' <<<"$runs" | cut -d' ' -f2- | best)
    python3 -c "import sys; b, w = float(sys.argv[1]), float(sys.argv[2]); print(f'without them: {b:.2f} CPU s, peak {int(sys.argv[3]) // 1024} MiB; the checks add {100 * (w - b) / b:.0f} % (goal <= 20 %)')" \
        "$base" "$seconds" "$basekib"
fi
