#!/usr/bin/env bash
# What the benchmarks share; sourced, never run. Each benchmark starts from
# the repository's top folder.

# bench_setup BUILD TARGET...: builds the targets in BUILD, makes the
# scratch folder WORK (removed on exit), sets CORES and prints the machine
# and its load, which every measured figure should be read against.
bench_setup() {
    local build="$1"
    shift
    cmake --build "$build" -j"${JOBS:-2}" --target "$@" >/dev/null
    WORK="$(mktemp -d)"
    # shellcheck disable=SC2064 # WORK is fixed from here on
    trap "rm -rf '$WORK'" EXIT
    CORES="$(nproc)"
    echo "machine: $CORES cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ //'); load $(cut -d' ' -f1-3 /proc/loadavg)"
}

# openssl_verify_rate ALGORITHM: the verify column of the last line of
# `openssl speed -multi CORES` for ALGORITHM (e.g. ecdsap256), in
# verifications per second: what the machine's libcrypto does right now.
openssl_verify_rate() {
    openssl speed -seconds 3 -multi "$CORES" "$1" 2>/dev/null |
        awk '/^ *[0-9]+ bits? ecdsa/ || /ecdsa \(/ {line=$0} END {n=split(line, f, " "); print f[n]}'
}
