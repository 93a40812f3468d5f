#!/usr/bin/env bash
# Receipt benchmark: a file of receipts of one TSE per curve, checked by
# `tse-check receipt --from FILE` on every core, against the raw
# verification rate of `openssl speed -multi $(nproc)` in the same run.
# One table as bench/audit.sh prints it: curve, receipts, receipts/s,
# openssl verify/s, ratio, peak memory. A receipt's log message is rebuilt
# from its text, so a receipt costs more than a log beside the signature.
# Usage: bench/receipts.sh [COUNT]   (per curve, default 5000; builds in build/)
set -euo pipefail
cd "$(dirname "$0")/.."
COUNT="${1:-5000}"
BUILD=build
# shellcheck source=bench/lib.sh
source bench/lib.sh
bench_setup "$BUILD" tse-check make-receipts

: >"$WORK/rows"
for pair in brainpoolP256r1:ecdsabrp256r1 brainpoolP384r1:ecdsabrp384r1 brainpoolP512r1:ecdsabrp512r1 \
            secp256r1:ecdsap256 secp384r1:ecdsap384 secp521r1:ecdsap521; do
    curve="${pair%%:*}"
    "$BUILD/bench/make-receipts" "$COUNT" "$curve" >"$WORK/receipts.txt"
    /usr/bin/time -f '%e %M' -o "$WORK/time" "$BUILD/tse-check" receipt --from "$WORK/receipts.txt" >"$WORK/out.txt"
    valid="$(grep -c '^VALID' "$WORK/out.txt" || true)"
    [ "$valid" -eq "$COUNT" ] || { echo "$curve: only $valid of $COUNT receipts verified" >&2; exit 1; }
    read -r seconds kib <"$WORK/time"
    echo "$curve $valid $seconds $kib $(openssl_verify_rate "${pair#*:}")" >>"$WORK/rows"
done

python3 - "$WORK/rows" <<'PY'
import sys
print(f"{'curve':<16} {'receipts':>8} {'receipts/s':>10} {'openssl/s':>10} {'ratio':>6} {'peak MiB':>9}")
for curve, n, seconds, kib, raw in (line.split() for line in open(sys.argv[1])):
    rate = int(n) / float(seconds)
    print(f"{curve:<16} {int(n):>8} {rate:>10.0f} {float(raw):>10.0f} {rate / float(raw):>6.2f} {int(kib) / 1024:>9.1f}")
PY
