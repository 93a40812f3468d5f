#!/usr/bin/env bash
# Bookkeeping benchmark: makes a brainpoolP384r1 TSE export of N
# transactions (100,000 unless given), derives the DSFinV-K export of the
# same sales, and checks the two against each other on every core. The
# rate counts the signatures of both sides (every row of the bookkeeping and
# every log of the TSE export) and is compared with the raw verification
# rate `openssl speed` measures on this machine in the same run.
# Usage: bench/dsfinvk.sh [BUILD_DIR] [TRANSACTIONS]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD="${1:-build}"
TRANSACTIONS="${2:-100000}"
# shellcheck source=bench/lib.sh
source bench/lib.sh
bench_setup "$BUILD" tse-check make-export make-dsfinvk

"$BUILD/make-export" -o "$WORK/tse.tar" -n "$TRANSACTIONS" --curve brainpoolP384r1 -j "$CORES"
"$BUILD/make-dsfinvk" --tse "$WORK/tse.tar" --out "$WORK/dsfinvk"
/usr/bin/time -f '%e %M' -o "$WORK/time" \
    "$BUILD/tse-check" dsfinvk --no-progress --json "$WORK/report.json" "$WORK/dsfinvk" --tse "$WORK/tse.tar" >/dev/null
read -r seconds kib <"$WORK/time"
raw="$(openssl_verify_rate ecdsabrp384r1)"
python3 - "$WORK/report.json" "$seconds" "$kib" "$raw" <<'PY'
import json, sys
report = json.load(open(sys.argv[1]))
seconds, kib, raw = float(sys.argv[2]), int(sys.argv[3]), float(sys.argv[4])
s = report["summary"]
signatures = s["rows"] + s["tseLogs"]
rate = signatures / seconds
print(f"brainpoolP384r1: {s['rows']} rows ({s['valid']} valid, {s['matched']} matched) and {s['tseLogs']} TSE logs "
      f"= {signatures} signatures in {seconds:.2f} s = {rate:.0f}/s; openssl speed {raw:.0f} verify/s; "
      f"ratio {rate / raw:.2f} (goal >= 0.80); peak memory {kib / 1024:.1f} MiB (goal < 300)")
if s["valid"] != s["rows"] or s["matched"] != s["rows"] or s["errors"]:
    sys.exit("the bookkeeping did not check out clean: " + json.dumps(s))
PY
