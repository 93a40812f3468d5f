#!/usr/bin/env bash
# Receipt photos: how many of the graded series (the one the picture test
# reads) `tse-check receipt --image` and `zbarimg` each read, and the median
# processor time per picture of each, on one core, whole process included.
# Usage: bench/pictures.sh [COUNT [SEED]]   (default 60 pictures, seed 16;
# builds in build/)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
count=${1:-60}
seed=${2:-16}
command -v zbarimg >/dev/null || { echo "zbarimg is missing (Debian package zbar-tools)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "/usr/bin/time is missing (Debian package time)" >&2; exit 1; }
cmake -S . -B build -DBUILD_TESTING=ON >/dev/null
cmake --build build -j"$(nproc)" --target tse-check make-receipts make-pictures >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM
build/bench/make-receipts 8 >"$work/texts.txt"
build/bench/make-pictures "$work" "$count" "$seed" <"$work/texts.txt"

# Processor time (user + system) of one run pinned to the first core.
cpu_seconds() {
    /usr/bin/time -f '%U %S' -o "$work/time" taskset -c 0 "$@" >"$work/out" 2>/dev/null || true
    awk '{ print $1 + $2 }' "$work/time"
}

: >"$work/product"
: >"$work/zbar"
product_read=0 zbar_read=0
while IFS=$'\t' read -r file text _; do
    cpu_seconds build/tse-check receipt -j1 --image "$work/$file" >>"$work/product"
    # Every picture shows a valid receipt: a VALID line is a code read.
    grep -q '^VALID' "$work/out" && product_read=$((product_read + 1))
    cpu_seconds zbarimg -q --raw "$work/$file" >>"$work/zbar"
    grep -qxF -- "$text" "$work/out" && zbar_read=$((zbar_read + 1))
done <"$work/expected.txt"

median() { sort -n "$1" | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
awk -v n="$count" -v pr="$product_read" -v zr="$zbar_read" -v pt="$(median "$work/product")" \
    -v zt="$(median "$work/zbar")" 'BEGIN {
    printf "tse-check receipt --image: read %d of %d, median %.3f s per picture\n", pr, n, pt
    printf "zbarimg:                   read %d of %d, median %.3f s per picture\n", zr, n, zt
    printf "time ratio: %.2f (goal <= 2)\n", pt / zt
}'
