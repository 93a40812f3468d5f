# shellcheck shell=bash disable=SC2034
# Shared helpers for the scripts in this folder; source it, do not run it.
# Sourcing it moves to the repository root, so every path below is relative
# to the root whatever the caller's working directory.

REPO_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$REPO_ROOT" || exit 1

# Debian packages that a build with tests needs; man-db and bsdextrautils
# (man, col) for the man page test, dpkg-dev (dpkg-shlibdeps) for the
# dependencies of the Debian package; zbar-tools (zbarimg, the scanner the
# picture series is measured against), libheif-examples, webp and
# imagemagick to write the HEIC, WebP, TIFF, GIF and BMP pictures the
# tests read; time for bench/pictures.sh; libcpp-httplib-dev, the HTTP
# server of tse-check serve (and its tests' client); curl for scripts/demo
# and bench/serve.sh.
BUILD_PACKAGES=(g++ make cmake pkg-config libssl-dev libgtest-dev libcli11-dev nlohmann-json3-dev
                libarchive-dev libzxing-dev libzbar-dev libvips-dev libstb-dev libpoppler-cpp-dev
                libqrencode-dev libcpp-httplib-dev libbenchmark-dev libpugixml-dev man-db bsdextrautils dpkg-dev gzip
                zbar-tools libheif-examples webp imagemagick time curl)

# What the checks beyond the plain build need: clang and its sanitizer and
# libFuzzer runtimes for build-asan/ and build-tsan/, lld to link, the
# style tools, and python3 for scripts/tidy.
CHECK_PACKAGES=(clang libclang-rt-14-dev lld clang-tidy clang-format shellcheck python3)

# The fuzz targets (fuzz/targets.txt, which fuzz/CMakeLists.txt reads too).
mapfile -t FUZZ_TARGETS < <(grep -E '^[a-z_0-9]+$' fuzz/targets.txt)

# What the tests of the HTML report run: headless Chromium renders, prints
# and photographs the report, pdftotext reads the printout back; Selenium
# (Debian's Python, /usr/bin/python3) drives chromium-driver through the
# pages of tse-check serve. Without them those tests are reported as
# skipped.
BROWSER_PACKAGES=(chromium poppler-utils chromium-driver python3-selenium)

# Parallel build jobs.
JOBS="${JOBS:-2}"

# The everyday build in build/, shared by the demo, the samples and the tests.
MAIN_BUILD_ARGS=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON
                 -DENABLE_SANITIZERS=OFF -DENABLE_FUZZING=OFF)

# The sanitized trees are built with clang, with line tables only for the
# stack traces (-g1): full debug information would double what they compile
# and link. build-asan/ serves the sanitized tests and the fuzzing alike
# (scripts/test, scripts/fuzz).
SANITIZED_FLAGS=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG"
                 -DCMAKE_CXX_COMPILER=clang++)
SANITIZED_BUILD_ARGS=("${SANITIZED_FLAGS[@]}" -DENABLE_SANITIZERS=ON -DENABLE_THREAD_SANITIZER=OFF
                      -DENABLE_FUZZING=ON)
THREAD_SANITIZED_BUILD_ARGS=("${SANITIZED_FLAGS[@]}" -DENABLE_SANITIZERS=OFF -DENABLE_THREAD_SANITIZER=ON
                             -DENABLE_FUZZING=OFF)

# The picture of a real export's report that the README shows
# (scripts/make-screenshot writes it).
REPORT_SCREENSHOT=docs/report.png
# The pages of tse-check serve on a desktop and on a phone.
SERVE_DESKTOP_SCREENSHOT=docs/serve-desktop.png
SERVE_PHONE_SCREENSHOT=docs/serve-phone.png

# The bundled samples (scripts/make-samples writes them).
SAMPLE_CERT=samples/demo-tse-certificate.pem
SAMPLE_LOG=samples/Unixt_1627903738_Sig-1207_Log-Tra_No-538_Finish_Client-DEMO-KASSE-01.log
SAMPLE_QR=samples/demo-receipt-qr-code.txt
SAMPLE_PICTURE=samples/demo-receipt.png
# A real export, kept with the test data.
REAL_EXPORT=tests/data/real-exports/logMessages1.tar
# The bookkeeping (DSFinV-K) of a real cloud TSE's 51 sales, derived from
# its export by make-dsfinvk, and that export.
SAMPLE_DSFINVK=samples/demo-dsfinvk.zip
SAMPLE_DSFINVK_TSE=tests/data/real-exports/2021-09-30_63641_TSE.tar

log() {
    printf '\n==> %s\n' "$*"
}

die() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

# require_packages PKG...: installs those of the given Debian packages that
# are not installed yet. Nothing is downloaded when all are present.
require_packages() {
    local missing=() installed
    # One query for all of them; a package dpkg does not know is missing too.
    installed=" $(dpkg-query -W -f='${db:Status-Status} ${Package}\n' "$@" 2>/dev/null |
                  awk '$1 == "installed" { printf "%s ", $2 }')"
    local pkg
    for pkg in "$@"; do
        [[ "$installed" == *" ${pkg%%:*} "* ]] || missing+=("$pkg")
    done
    [ "${#missing[@]}" -eq 0 ] && return 0

    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null 2>&1 || die "missing packages (${missing[*]}) and neither root nor sudo"
        sudo=(sudo)
    fi
    log "Installing missing packages: ${missing[*]}"
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# build_dir DIR [CMAKE_ARG...] [-- TARGET...]: configures DIR with the given
# cache settings and builds the given targets, or all of them. Returns
# nonzero when either step fails (also where set -e does not apply).
build_dir() {
    local dir="$1"
    shift
    local cmake_args=() targets=()
    while [ "$#" -gt 0 ]; do
        if [ "$1" = "--" ]; then
            shift
            targets=("$@")
            break
        fi
        cmake_args+=("$1")
        shift
    done

    # A tree configured for another compiler is started afresh: CMake
    # cannot switch the compiler of an existing cache.
    local arg cached
    for arg in "${cmake_args[@]}"; do
        if [[ "$arg" == -DCMAKE_CXX_COMPILER=* ]] && [ -f "$dir/CMakeCache.txt" ]; then
            cached=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$dir/CMakeCache.txt")
            [ "$(basename "$cached")" = "${arg#*=}" ] || rm -rf "$dir"
        fi
    done

    # A compiler cache, where the machine has one, makes a second run of the
    # same sources cheap; paths are taken relative to the checkout (and the
    # debug information's too, CMakeLists.txt), so a fresh clone elsewhere
    # finds what an earlier one compiled. Its log of this build says how
    # many compilations it served.
    local launcher=0
    if command -v ccache >/dev/null 2>&1; then
        launcher=1
        mkdir -p "$dir"
        export CCACHE_BASEDIR="$REPO_ROOT" CCACHE_STATSLOG="$REPO_ROOT/$dir/ccache.log"
        rm -f "$CCACHE_STATSLOG"
        cmake_args+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    fi
    log "Configuring $dir ${cmake_args[*]}"
    cmake -S . -B "$dir" "${cmake_args[@]}" || return 1

    log "Building $dir${targets[*]:+ (${targets[*]})}"
    local target_args=() status=0
    [ "${#targets[@]}" -gt 0 ] && target_args=(--target "${targets[@]}")
    cmake --build "$dir" --parallel "$JOBS" "${target_args[@]}" || status=$?
    [ "$launcher" -eq 0 ] || ccache_summary "$dir"
    return "$status"
}

# ccache_summary DIR: one line on what the compiler cache served in DIR's
# last build.
ccache_summary() {
    local hits calls
    [ -f "$CCACHE_STATSLOG" ] || { echo "ccache: $1: nothing compiled"; return 0; }
    hits=$(grep -c '^local_storage_hit$' "$CCACHE_STATSLOG" || true)
    calls=$(grep -c '^# ' "$CCACHE_STATSLOG" || true)
    echo "ccache: $1: $hits of $calls compilations served from the cache"
    unset CCACHE_STATSLOG
}

# show_run TEXT CMD [ARG...]: prints "$ TEXT", runs the command, prints its
# exit status and returns it; callers under set -e add "|| ...".
show_run() {
    local text="$1" status=0
    shift
    printf '\n$ %s\n' "$text"
    "$@" || status=$?
    printf '[exit status %d]\n' "$status"
    return "$status"
}

# verify_samples: runs build/signature-verification on the sample log with its
# certificate and on the sample QR code text, shown as a user would type it.
# Returns the number of runs that did not end with status 0.
verify_samples() {
    local failures=0
    show_run "build/signature-verification -c$SAMPLE_CERT -l$SAMPLE_LOG" \
        build/signature-verification "-c$SAMPLE_CERT" "-l$SAMPLE_LOG" || failures=$((failures + 1))
    # $(cat ...) drops the line end at the end of the file.
    show_run "build/signature-verification \"-q\$(cat $SAMPLE_QR)\"" \
        build/signature-verification "-q$(cat "$SAMPLE_QR")" || failures=$((failures + 1))
    return "$failures"
}

# chromium_shot HTML|URL PNG [WIDTH,HEIGHT [SCALE]]: the first screen of a
# page (a file, or an address of a loopback server) as a picture, from
# headless Chromium with a new empty profile and nothing that reaches the
# network.
chromium_shot() {
    local page="$1" png="$2" size="${3:-1000,1400}" scale="${4:-1}" profile status=0
    profile=$(mktemp -d)
    [[ "$page" == http://127.0.0.1:* ]] || page="file://$(realpath "$page")"
    chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
        --disable-background-networking --disable-component-update --disable-sync \
        --user-data-dir="$profile" --hide-scrollbars --window-size="$size" --force-device-scale-factor="$scale" \
        --screenshot="$(realpath -m "$png")" "$page" >/dev/null 2>&1 || status=$?
    rm -rf "$profile"
    return "$status"
}

# serve_start DIR [OPTION...]: starts build/tse-check serve on a free port of
# 127.0.0.1 with its files in DIR, and sets SERVE_URL, SERVE_TOKEN and
# SERVE_PID once it answers.
serve_start() {
    local dir="$1" i
    shift
    mkdir -p "$dir/tmp"
    TMPDIR="$dir/tmp" build/tse-check serve --listen 127.0.0.1:0 "$@" >"$dir/serve.out" 2>"$dir/serve.log" &
    SERVE_PID=$!
    for i in $(seq 100); do
        SERVE_URL=$(grep -o 'http://127.0.0.1:[0-9]*' "$dir/serve.out" 2>/dev/null || true)
        [ -n "$SERVE_URL" ] && break
        sleep 0.1
    done
    [ -n "$SERVE_URL" ] || { kill "$SERVE_PID" 2>/dev/null; die "tse-check serve did not start: $(cat "$dir/serve.log")"; }
    SERVE_TOKEN=$(sed -n 's/^API token (Authorization: Bearer): //p' "$dir/serve.out")
}

# serve_stop: SIGTERM to the server serve_start started, and its exit status.
serve_stop() {
    local status=0
    kill -TERM "$SERVE_PID" 2>/dev/null || true
    wait "$SERVE_PID" || status=$?
    return "$status"
}

# serve_wait ID [SECONDS]: polls the job until it is over (at most SECONDS,
# default 600) and prints its status without the result.
serve_wait() {
    local id="$1" limit="${2:-600}" status start=$SECONDS
    while :; do
        status=$(curl -sf "$SERVE_URL/api/jobs/$id?result=none") || return 1
        case "$status" in *'"state":"queued"'* | *'"state":"running"'*) ;; *) printf '%s\n' "$status"; return 0 ;; esac
        [ $((SECONDS - start)) -lt "$limit" ] || return 1
        sleep 0.1
    done
}
