#!/usr/bin/env bash
# The commands given to `bash -c '...' _ ARG...` expand their arguments
# themselves, inside the single quotes.
# shellcheck disable=SC2016
# Installs the build into a temporary prefix and runs what a user then has:
# both programs, their man pages and the bash completion. With "package" it
# also builds the Debian package and checks that it holds the same files.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR [package]
set -uo pipefail
build_dir="$1" source_dir="$2" package="${3:-}"
failures=0 checks=0
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# check TEXT CMD [ARG...]: runs the command quietly and counts the outcome.
check() {
    local text="$1"
    shift
    checks=$((checks + 1))
    if ! "$@" >"$scratch/output" 2>&1; then
        printf 'FAILED: %s\n' "$text"
        sed 's/^/    /' "$scratch/output" | tail -n 20
        failures=$((failures + 1))
    fi
}

prefix="$scratch/prefix"
check "cmake --install" cmake --install "$build_dir" --prefix "$prefix"
bin="$prefix/bin" pages="$prefix/share/man/man1"
completion="$prefix/share/bash-completion/completions/tse-check"
cert="$source_dir/samples/demo-tse-certificate.pem"
log=$(ls "$source_dir"/samples/*.log)
qr_file="$source_dir/samples/demo-receipt-qr-code.txt"

verifies() {
    "$bin/signature-verification" "$@" | grep -qx '\[RESULT\] Verifed EC Signature SUCCESS'
}
check "installed tse-check --version" bash -c '"$1" --version | grep -qxE "tse-check [0-9]+\.[0-9]+\.[0-9]+"' _ "$bin/tse-check"
check "installed tse-check --help" bash -c '"$1" --help | grep -q "^Subcommands:"' _ "$bin/tse-check"
check "installed verifier, log file mode" verifies "-c$cert" "-l$log"
check "installed verifier, QR code mode" verifies "-q$(cat "$qr_file")"
check "installed tse-check to-qr, verified" \
    verifies "-q$("$bin/tse-check" to-qr --cert "$cert" "$log")"
for page in signature-verification tse-check; do
    check "man -l $page.1 from the prefix" \
        bash -c 'LC_ALL=C.UTF-8 man -l "$1"/"$2".1* | col -b | grep -q "^SYNOPSIS"' _ "$pages" "$page"
done
check "completion offers the subcommands" bash -c '
    source "$1"
    COMP_WORDS=(tse-check "") COMP_CWORD=1
    _tse_check
    [[ " ${COMPREPLY[*]} " == *" read "* && " ${COMPREPLY[*]} " == *" to-qr "* ]]' _ "$completion"

if [ "$package" = package ]; then
    check "cpack -G DEB" cpack --config "$build_dir/CPackConfig.cmake" -G DEB -B "$scratch/deb"
    debs=("$scratch"/deb/*.deb)
    deb=${debs[0]}
    dpkg-deb -c "$deb" 2>&1 | awk '{ print $NF }' >"$scratch/contents"
    for file in ./usr/bin/signature-verification ./usr/bin/tse-check \
                ./usr/share/man/man1/signature-verification.1.gz ./usr/share/man/man1/tse-check.1.gz \
                ./usr/share/bash-completion/completions/tse-check; do
        check "the package holds $file" grep -qx -- "$file" "$scratch/contents"
    done
    check "the package depends on libssl3" bash -c 'dpkg-deb -f "$1" Depends | grep -qE "(^|, )libssl3( |,|$)"' _ "$deb"
    # Without dpkg-shlibdeps the list comes from the libraries the build
    # found, and must still name every one the programs load.
    check "cpack -G DEB without dpkg-shlibdeps" cpack --config "$build_dir/CPackConfig.cmake" -G DEB \
        -B "$scratch/deb-plain" -D CPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF
    debs=("$scratch"/deb-plain/*.deb)
    plain=${debs[0]}
    for library in libssl3 libarchive13 libzxing2 libpoppler-cpp0v5; do
        check "without dpkg-shlibdeps the package depends on $library" \
            bash -c 'dpkg-deb -f "$1" Depends | grep -qE "(^|, )$2( |,|$)"' _ "$plain" "$library"
    done
fi

echo "install: $((checks - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
