# Completion of quarnctl for bash. The keys come from quarnctl itself, which needs no daemon for that.

_quarnctl_commands="get list describe diff status export set reset apply confirm rollback monitor watch"
_quarnctl_options="--host --json --timeout --help --version"

# _quarnctl_keys rw|all SUFFIX: the keys that begin with the current word.
_quarnctl_keys() {
    local kinds=$1 suffix=$2 word=$3 key type access
    COMPREPLY=()
    while IFS=$'\t' read -r key type access; do
        [[ $kinds == all || $access == "$kinds" ]] || continue
        [[ $key == "$word"* ]] && COMPREPLY+=("$key$suffix")
    done < <(quarnctl complete-keys 2>/dev/null)
}

_quarnctl_values() {
    local wanted=$1 word=$2 key type access
    COMPREPLY=()
    while IFS=$'\t' read -r key type access; do
        [[ $key == "$wanted" && $type == boolean ]] && mapfile -t COMPREPLY < <(compgen -W "true false" -- "$word")
    done < <(quarnctl complete-keys 2>/dev/null)
}

_quarnctl_options_of() {
    case $1 in
    set) echo "--confirm --no-wait --dry-run" ;;
    reset) echo "--all --yes --confirm --no-wait --dry-run" ;;
    apply) echo "--skip-unknown --confirm --no-wait --dry-run" ;;
    watch) echo "--interval" ;;
    esac
}

_quarnctl() {
    # People put keys in quotes, or a backslash before each bracket.
    local word=${COMP_WORDS[COMP_CWORD]#[\"\']} before=${COMP_WORDS[COMP_CWORD - 1]} command="" i
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ " $_quarnctl_commands " == *" ${COMP_WORDS[i]} "* ]] && command=${COMP_WORDS[i]} && break
    done
    word=${word//\\/}
    COMPREPLY=()
    if [[ $before == -H || $before == --host || $before == --timeout || $before == --confirm ]]; then
        return
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$_quarnctl_options $(_quarnctl_options_of "$command")" -- "$word")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$_quarnctl_commands" -- "$word")
    elif [[ $command == set && $word == "=" ]]; then
        # bash counts the equals sign as a word of its own.
        _quarnctl_values "$before" ""
    elif [[ $command == set && $before == "=" ]]; then
        _quarnctl_values "${COMP_WORDS[COMP_CWORD - 2]}" "$word"
    elif [[ $command == set && $word == ?*=* ]]; then
        # In quotes it does not.
        _quarnctl_values "${word%%=*}" "${word#*=}"
        COMPREPLY=("${COMPREPLY[@]/#/${word%%=*}=}")
    elif [[ $command == set ]]; then
        _quarnctl_keys rw "=" "$word"
        compopt -o nospace 2>/dev/null
    elif [[ $command == reset ]]; then
        _quarnctl_keys rw "" "$word"
    elif [[ $command == get || $command == describe || $command == watch || $command == list ]]; then
        _quarnctl_keys all "" "$word"
    elif [[ $command == apply ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}

complete -F _quarnctl quarnctl
