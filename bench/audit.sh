#!/usr/bin/env bash
# Audit benchmark: one export per curve, audited on every core, against the
# raw verification rate of `openssl speed -multi $(nproc)` measured in the
# same run; then the peak memory of a 1,000,000-log P-256 export.
# Prints one table: curve, logs, logs/s, openssl verify/s, ratio, goal,
# peak memory. Usage: bench/audit.sh [BUILD_DIR]
# LOGS_SLOW / LOGS_FAST set the transactions (3 logs each) per export on the
# slow and the fast curves; MILLION=0 skips the million-log export.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD="${1:-build}"
# shellcheck source=bench/lib.sh
source bench/lib.sh
bench_setup "$BUILD" tse-check make-export

# audit ARCHIVE: "valid-logs seconds peak-KiB"
audit() {
    /usr/bin/time -f '%e %M' -o "$WORK/time" "$BUILD/tse-check" audit --no-progress --json "$WORK/report.json" "$1" >/dev/null
    local valid seconds kib
    valid="$(python3 -c "import json; print(json.load(open('$WORK/report.json'))['summary']['valid'])")"
    read -r seconds kib <"$WORK/time"
    echo "$valid $seconds $kib"
}

ROWS="$WORK/rows"
: >"$ROWS"
row() {
    local curve="$1" transactions="$2" speed="$3" goal="$4"
    "$BUILD/make-export" -o "$WORK/$curve.tar" -n "$transactions" --curve "$curve" -j "$CORES"
    local result raw
    result="$(audit "$WORK/$curve.tar")"
    raw="$(openssl_verify_rate "$speed")"
    rm -f "$WORK/$curve.tar"
    echo "$curve $result $raw $goal" >>"$ROWS"
}

SLOW="${LOGS_SLOW:-10000}"
FAST="${LOGS_FAST:-40000}"
row brainpoolP256r1 "$SLOW" ecdsabrp256r1 2.0
row brainpoolP384r1 "$SLOW" ecdsabrp384r1 2.0
row brainpoolP512r1 "$SLOW" ecdsabrp512r1 2.0
row secp256r1 "$FAST" ecdsap256 1.0
row secp384r1 "$SLOW" ecdsap384 2.0
row secp521r1 "$SLOW" ecdsap521 2.0

MILLION_LINE=""
if [ "${MILLION:-1}" != 0 ]; then
    "$BUILD/make-export" -o "$WORK/million.tar" -n 333333 --curve secp256r1 -j "$CORES"
    MILLION_LINE="$(audit "$WORK/million.tar")"
fi

python3 - "$ROWS" "$MILLION_LINE" <<'PY'
import sys
rows = [line.split() for line in open(sys.argv[1])]
print(f"{'curve':<16} {'logs':>8} {'logs/s':>9} {'openssl/s':>10} {'ratio':>6} {'goal':>5} {'met':>4} {'peak MiB':>9}")
for curve, logs, seconds, kib, raw, goal in rows:
    rate = int(logs) / float(seconds)
    ratio = rate / float(raw)
    met = "yes" if ratio >= float(goal) else "NO"
    print(f"{curve:<16} {int(logs):>8} {rate:>9.0f} {float(raw):>10.0f} {ratio:>6.2f} {float(goal):>5.1f} {met:>4} {int(kib) / 1024:>9.1f}")
if sys.argv[2]:
    logs, seconds, kib = sys.argv[2].split()
    mib = int(kib) / 1024
    print(f"1,000,000-log P-256 export: {int(logs)} valid logs in {float(seconds):.1f} s, "
          f"peak {mib:.1f} MiB (goal < 150: {'met' if mib < 150 else 'NOT met'})")
PY
