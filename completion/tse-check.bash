# bash completion for tse-check                             -*- shell-script -*-

# The options of each subcommand; a new subcommand is one more line.
declare -gA _tse_check_subcommand_options=(
    [read]="--help"
    [to-qr]="--cert --start-time --help"
    [verify]="--cert --json --jobs --help"
    [audit]="--cert --trust --json --csv --html --strict --jobs --progress --no-progress --help"
    [dsfinvk]="--tse --cert --trust --json --csv --html --strict --jobs --progress --no-progress --help"
    [receipt]="--from --image --json --explain --time-window --jobs --help"
    [serve]="--listen --token --max-upload --jobs --keep --idle-timeout --help"
)
_tse_check_options="--help --version"

_tse_check()
{
    local cur="${COMP_WORDS[COMP_CWORD]}"
    local word subcommand=""
    for word in "${COMP_WORDS[@]:1:COMP_CWORD - 1}"; do
        if [[ -n "${_tse_check_subcommand_options[$word]+set}" ]]; then
            subcommand="$word"
            break
        fi
    done

    COMPREPLY=()
    if [[ -z "$subcommand" ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${!_tse_check_subcommand_options[*]} $_tse_check_options" -- "$cur")
    elif [[ "$cur" == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${_tse_check_subcommand_options[$subcommand]}" -- "$cur")
    fi
    # Anything else is a file name (or the start time), which -o default
    # completes as a file name.
}

complete -o default -F _tse_check tse-check
