# bash completion for kelo. Installed as bash-completion/completions/kelo.
# shellcheck shell=bash

# What there is is asked of the command itself, so that this file knows every subcommand and option
# of the version that is installed. The output is kept for the life of the shell.
declare -gA _kelo_known=()

# _kelo_ask WORD...: the output of `kelo WORD...`, asked once.
_kelo_ask() {
    local key="$*"
    if [[ -z "${_kelo_known[$key]+set}" ]]; then
        _kelo_known[$key]="$("${_kelo_program:-kelo}" "$@" 2>/dev/null)"
    fi
    _kelo_answer="${_kelo_known[$key]}"
}

# The subcommands of `kelo WORD...`, one a line.
_kelo_subcommands() {
    _kelo_ask "$@" --help
    awk '/^Subcommands:/ { on = 1; next } /^[^ ]/ { on = 0 } on && /^  [a-z]/ { print $1 }' \
        <<<"$_kelo_answer"
}

# The options of `kelo WORD...`, one a line.
_kelo_options() {
    _kelo_ask "$@" --help
    grep -oE '^  -[^ ]+' <<<"$_kelo_answer" | tr -d ' ' | tr ',' '\n'
}

# The names of all registers.
_kelo_registers() {
    _kelo_ask registers
    awk 'NR > 1 { print $3 }' <<<"$_kelo_answer"
}

# The addresses of the cameras that answer. They may change, so they are not kept.
_kelo_cameras() {
    timeout 2 "${_kelo_program:-kelo}" list --timeout 150 2>/dev/null | awk 'NR > 1 { print $2 }'
}

_kelo_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current")
}

# Whether an option of the command wants a value: in its help one blank stands behind the name.
_kelo_takes_value() {
    if [[ "$1" != -* ]]; then return 1; fi
    _kelo_ask "${command[@]}" --help
    grep -qE -- "^  (-[^ ]*,)?$1(,[^ ]*)? [^ ]" <<<"$_kelo_answer"
}

_kelo_value() {
    case "${command[0]} $1" in
        "grab --format") _kelo_words "png pgm raw" ;;
        *" --format") _kelo_words "int hex float" ;;
        *" -o" | *" --output") mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    esac
}

# The arguments of each command, by how many stand before the cursor.
_kelo_argument() {
    local position="$1"
    case "${command[*]}" in
        list | watch | registers) ;;
        "memory read" | "memory write" | get | set)
            if ((position == 0)); then
                _kelo_words "$(_kelo_cameras)"
            elif [[ "${command[*]}" == set ]]; then
                compopt -o nospace 2>/dev/null
                _kelo_words "$(_kelo_registers | sed 's/$/=/')"
            elif [[ "${command[*]}" == get ]] || ((position == 1)); then
                _kelo_words "$(_kelo_registers)"
            fi ;;
        firmware)
            if ((position == 0)); then
                _kelo_words "$(_kelo_cameras)"
            else
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                compopt -o filenames 2>/dev/null
            fi ;;
        stats) _kelo_words "$(_kelo_cameras)" ;;
        *) if ((position == 0)); then _kelo_words "$(_kelo_cameras)"; fi ;;
    esac
    return 0
}

_kelo() {
    local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
    local command=() position=0 word i _kelo_answer
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word="${COMP_WORDS[i]}"
        if [[ "$word" == -* ]] || _kelo_takes_value "${COMP_WORDS[i - 1]}"; then continue; fi
        if ((${#command[@]} == 0)) || [[ "${command[*]}" == memory ]]; then
            command+=("$word")
        else
            position=$((position + 1))
        fi
    done
    if _kelo_takes_value "$previous"; then
        _kelo_value "$previous"
    elif [[ "$current" == -* ]]; then
        _kelo_words "$(_kelo_options "${command[@]}")"
    elif ((${#command[@]} == 0)) || [[ "${command[*]}" == memory ]]; then
        _kelo_words "$(_kelo_subcommands "${command[@]}")"
    else
        _kelo_argument "$position"
    fi
}

complete -F _kelo kelo
