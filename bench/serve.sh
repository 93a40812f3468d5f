#!/usr/bin/env bash
# What serving costs: one 100,000-log export audited by the command line
# (--json, --csv and --html, the documents a job writes) and as a job of
# tse-check serve (upload over loopback, the same audit, polled until done),
# alternately RUNS times each; the goal is at most 10 % more time. Then the
# server's peak memory with JOBS_AT_ONCE such jobs running at once (and as
# many waiting) against the command line's peak for one.
# Usage: bench/serve.sh [BUILD_DIR]; LOGS (default 100000), RUNS (3),
# JOBS_AT_ONCE (2). Every request goes to 127.0.0.1.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/lib.sh
source scripts/lib.sh
BUILD="${1:-build}"
cmake --build "$BUILD" -j"${JOBS:-2}" --target tse-check make-export >/dev/null
WORK="$(mktemp -d)"
SERVE_PID=""
trap '[ -n "$SERVE_PID" ] && kill "$SERVE_PID" 2>/dev/null; rm -rf "$WORK"' EXIT
LOGS="${LOGS:-100000}" RUNS="${RUNS:-3}" AT_ONCE="${JOBS_AT_ONCE:-2}"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ //'); load $(cut -d' ' -f1-3 /proc/loadavg)"

# Signing takes longer than the audit: the export is kept for the next run.
EXPORT="$BUILD/bench/serve-$LOGS.tar"
if [ ! -f "$EXPORT" ]; then
    mkdir -p "$BUILD/bench"
    "$BUILD/make-export" -o "$EXPORT.part" -n $(((LOGS + 2) / 3)) -j "$(nproc)" >/dev/null
    mv "$EXPORT.part" "$EXPORT"
fi

now() { date +%s.%N; }

# The processor seconds (user and system) a process has used so far.
cpu_of() {
    awk -v tick="$(getconf CLK_TCK)" '{ print ($14 + $15) / tick }' "/proc/$1/stat"
}

# command_line: "seconds processor-seconds peak-KiB"
command_line() {
    /usr/bin/time -f '%e %U %S %M' -o "$WORK/time" "$BUILD/tse-check" audit --no-progress --json "$WORK/a.json" \
        --csv "$WORK/a.csv" --html "$WORK/a.html" "$EXPORT" >/dev/null || [ $? -eq 1 ]
    awk '{ print $1, $2 + $3, $4 }' "$WORK/time"
}

# served: "seconds processor-seconds" from the upload's start until the
# job is done; the server does nothing else meanwhile.
served() {
    local start cpu id
    start=$(now) cpu=$(cpu_of "$SERVE_PID")
    id=$(curl -sf -H "Authorization: Bearer $SERVE_TOKEN" -F "export=@$EXPORT" "$SERVE_URL/api/audit" |
        sed -n 's/.*"id":"\([0-9a-f]*\)".*/\1/p')
    serve_wait "$id" 1200 | grep -q '"state":"done"' || die "the job did not finish"
    python3 -c "print(round($(now) - $start, 2), round($(cpu_of "$SERVE_PID") - $cpu, 2))"
}

serve_start "$WORK/one" --jobs 1 --keep 1
cli_times=() serve_times=() cli_cpu=() serve_cpu=() cli_peak=0
for _ in $(seq "$RUNS"); do
    read -r seconds cpu kib <<<"$(command_line)"
    cli_times+=("$seconds") cli_cpu+=("$cpu")
    cli_peak=$((kib > cli_peak ? kib : cli_peak))
    read -r seconds cpu <<<"$(served)"
    serve_times+=("$seconds") serve_cpu+=("$cpu")
done
serve_stop || true
SERVE_PID=""

# JOBS_AT_ONCE jobs running and as many waiting; the peak of the server.
serve_start "$WORK/many" --jobs "$AT_ONCE" --keep 1
ids=()
for _ in $(seq $((2 * AT_ONCE))); do
    ids+=("$(curl -sf -H "Authorization: Bearer $SERVE_TOKEN" -F "export=@$EXPORT" "$SERVE_URL/api/audit" |
        sed -n 's/.*"id":"\([0-9a-f]*\)".*/\1/p')")
done
for id in "${ids[@]}"; do serve_wait "$id" 2400 >/dev/null; done
serve_peak=$(awk '/VmHWM/ {print $2}' "/proc/$SERVE_PID/status")
serve_stop || true
SERVE_PID=""

python3 - "$LOGS" "$cli_peak" "$serve_peak" "$AT_ONCE" "${cli_times[*]}" "${serve_times[*]}" "${cli_cpu[*]}" \
    "${serve_cpu[*]}" <<'PY'
import statistics, sys
logs, cli_peak, serve_peak, at_once = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
runs = [[float(x) for x in arg.split()] for arg in sys.argv[5:9]]
print()
# Wall time is what a user waits; processor time is what the work costs and
# hardly moves with the load of a shared machine.
print("| {:,} logs | Command line (median) | Served (median) | Served / command line | Goal |".format(logs))
print("|---|---|---|---|---|")
for name, cli, served in (("wall time", runs[0], runs[1]), ("processor time", runs[2], runs[3])):
    c, s = statistics.median(cli), statistics.median(served)
    print("| {} | {:.2f} s | {:.2f} s | {:.3f} | <= 1.10 |".format(name, c, s, s / c))
print("runs: wall %s and %s; processor %s and %s" % tuple(runs))
print()
print("| Peak memory | MiB |")
print("|---|---|")
print("| command line, one audit | {:.1f} |".format(cli_peak / 1024))
print("| server, {} jobs running and {} waiting | {:.1f} |".format(at_once, at_once, serve_peak / 1024))
PY
