#!/usr/bin/env bash
# The man pages render without a warning and, like the bash completion, carry
# every option that the programs' own usage lists; the options that
# subcommands share read the same in each and are defined in one place.
# Subcommands are taken from `tse-check --help`, so a new one is covered
# without touching this test.
# Usage: documentation_test.sh TSE_CHECK VERIFIER SOURCE_DIR
set -uo pipefail
tse_check="$1" verifier="$2" source_dir="$3"
failures=0 checks=0

fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}

# The page as a reader sees it: plain text, long lines, no hyphenation.
render() {
    LC_ALL=C.UTF-8 MANWIDTH=250 man -l "$1" 2>/dev/null | col -bx
}

for page in "$source_dir"/man/*.1; do
    warnings=$(LC_ALL=C.UTF-8 man --warnings -l "$page" 2>&1 >/dev/null)
    checks=$((checks + 1))
    [ -z "$warnings" ] || fail "$page renders with warnings: $warnings"
done

# The long options in a CLI11 usage text: indented lines that start with "-".
long_options() {
    grep -E '^ +-' | grep -oE -- '--[A-Za-z][A-Za-z0-9-]*' | sort -u
}

# An option is documented by an item that begins with it ("-h, --help" too).
documents() {
    grep -qE -- "^ +(-[A-Za-z], )?$1( |,|$)"
}

tse_page=$(render "$source_dir/man/tse-check.1")
top_help=$("$tse_check" --help)
subcommands=$(printf '%s\n' "$top_help" | sed -n '/^Subcommands:/,/^$/p' | awk 'NR > 1 && NF { print $1 }')
[ -n "$subcommands" ] || fail "tse-check --help lists no subcommand"

# shellcheck source=completion/tse-check.bash
source "$source_dir/completion/tse-check.bash"

for option in $(printf '%s\n' "$top_help" | long_options); do
    checks=$((checks + 1))
    documents "$option" <<<"$tse_page" || fail "tse-check(1) lacks $option"
    [[ " $_tse_check_options " == *" $option "* ]] || fail "completion lacks tse-check $option"
done
for subcommand in $subcommands; do
    checks=$((checks + 1))
    grep -qE -- "^   $subcommand( |$)" <<<"$tse_page" || fail "tse-check(1) has no section for $subcommand"
    options="${_tse_check_subcommand_options[$subcommand]-}"
    [ -n "$options" ] || fail "completion lacks subcommand $subcommand"
    for option in $("$tse_check" "$subcommand" --help | long_options); do
        checks=$((checks + 1))
        # The subcommand's section runs from its heading to the next one.
        section=$(sed -n "/^   $subcommand\( \|$\)/,/^   [a-z]\|^[A-Z]/p" <<<"$tse_page")
        [ "$option" = --help ] || documents "$option" <<<"$section" ||
            fail "tse-check(1) section $subcommand lacks $option"
        [[ " $options " == *" $option "* ]] || fail "completion lacks tse-check $subcommand $option"
    done
done

# The options several subcommands share are defined once, in the shared
# layer of tools/tse-check/, so each reads the same wherever it is offered:
# one help entry per option and form (--json alone, or --json FILE).
common_options="--cert --trust --json --csv --html --strict --jobs --progress"
shared_layer="tools/tse-check/shared/options.cpp"

# help_entries SUBCOMMAND: each option entry of its --help as one line,
# "NAMES<TAB>ENTRY": the names and value, then the whole entry with its
# wrapped description joined and blanks squeezed.
help_entries() {
    "$tse_check" "$1" --help | awk '
        function flush() { if (entry != "") { gsub(/ +/, " ", entry); print names "\t" entry } }
        /^Options:/ { inside = 1; next }
        inside && /^$/ { exit }
        inside && /^ +-/ {
            flush()
            entry = $0
            names = $0
            sub(/^ +/, "", names)
            sub(/  .*/, "", names)
            next
        }
        inside { entry = entry " " $0 }
        END { flush() }'
}

declare -A common_entry=()
for subcommand in $subcommands; do
    while IFS=$'\t' read -r names entry; do
        for option in $common_options; do
            [[ " $names" =~ [\ ,]$option([\ ,{]|$) ]] || continue
            checks=$((checks + 1))
            if [ -z "${common_entry[$names]+set}" ]; then
                common_entry[$names]="$entry"
            elif [ "${common_entry[$names]}" != "$entry" ]; then
                fail "tse-check $subcommand --help:\"$entry\"; another subcommand:\"${common_entry[$names]}\""
            fi
        done
    done < <(help_entries "$subcommand")
done
[ "${#common_entry[@]}" -ge 9 ] || fail "the help shows fewer common options than expected: ${!common_entry[*]}"

option_pattern="${common_options// /|}"
while IFS= read -r definition; do
    checks=$((checks + 1))
    fail "a common option is defined outside $shared_layer: $definition"
done < <(cd "$source_dir" && grep -rnE "add_(option|flag)[a-z_]*(<[^>]*>)?\(\"(${option_pattern})[\",]" tools/tse-check |
         grep -v "^$shared_layer:")

# The verifier's usage lists its letters as "  -cX: ...".
verifier_page=$(render "$source_dir/man/signature-verification.1")
letters=$("$verifier" | grep -oE '^  -[a-z]X:' | cut -c3-4)
[ "$(wc -w <<<"$letters")" -ge 3 ] || fail "the verifier's usage lists fewer than three options"
for option in $letters; do
    checks=$((checks + 1))
    grep -qE -- "^ +${option}[a-z]" <<<"$verifier_page" || fail "signature-verification(1) lacks $option"
done

echo "documentation: $((checks - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
