#!/usr/bin/env bash
# Audit benchmark: makes a 20,000-log brainpoolP384r1 export and a
# 100,000-log P-256 export, audits each on every core, and compares the
# logs per second with the raw verification rate `openssl speed` measures
# on this machine in the same run. Usage: bench/audit.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD="${1:-build}"
cmake --build "$BUILD" -j"${JOBS:-2}" --target tse-check make-export >/dev/null
WORK="$(mktemp -d)"
trap 'rm -rf "$WORK"' EXIT
CORES="$(nproc)"
echo "machine: $CORES cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ //')"

# The verify column of openssl speed's last line, in verifications per second.
raw_rate() {
    openssl speed -seconds 3 -multi "$CORES" "$1" 2>/dev/null | awk '/^ *[0-9]+ bits? ecdsa/ || /ecdsa \(/ {line=$0} END {n=split(line, f, " "); print f[n]}'
}

bench() {
    local curve="$1" transactions="$2" speed="$3"
    local archive="$WORK/$curve.tar"
    "$BUILD/make-export" -o "$archive" -n "$transactions" --curve "$curve"
    /usr/bin/time -f '%e %M' -o "$WORK/time" "$BUILD/tse-check" audit --no-progress --json "$WORK/report.json" "$archive" >/dev/null
    local logs seconds kib raw
    logs="$(python3 -c "import json; print(json.load(open('$WORK/report.json'))['summary']['valid'])")"
    read -r seconds kib <"$WORK/time"
    raw="$(raw_rate "$speed")"
    python3 - "$curve" "$logs" "$seconds" "$kib" "$raw" <<'PY'
import sys
curve, logs, seconds, kib, raw = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4]), float(sys.argv[5])
rate = logs / seconds
print(f"{curve}: {logs} logs in {seconds:.2f} s = {rate:.0f} logs/s; openssl speed {raw:.0f} verify/s; "
      f"ratio {rate / raw:.2f}; peak memory {kib / 1024:.1f} MiB")
PY
}

bench brainpoolP384r1 6665 ecdsabrp384r1
bench secp256r1 33332 ecdsap256
