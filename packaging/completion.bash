# shellcheck shell=bash
# bash completion of vexsign, vexlog and vexfiled. It reads what the program's own --help prints, so it offers the
# commands and options of the installed version.

# Prints the options of a help text, one a line: the name, a tabulator, the name of its value ("" if it takes none). The
# lines of descriptions are further to the right. Behind the value are remarks about other options.
_vex_tools_options() {
    awk '
        match($0, /^ +-/) && RLENGTH <= 20 {
            sub(/^ +/, "")
            count = 0
            while (match($0, /^--?[A-Za-z][A-Za-z0-9-]*/)) {
                names[++count] = substr($0, 1, RLENGTH)
                $0 = substr($0, RLENGTH + 1)
                if (!sub(/^, */, "")) break
            }
            value = match($0, /^ [A-Z]/) ? substr($0, 2) : ""
            sub(/ .*/, "", value)
            if (value ~ /^(REQUIRED|Excludes:|Needs:)$/) value = ""
            for (i = 1; i <= count; ++i) print names[i] "\t" value
        }' <<<"$1"
}

# Prints the commands of a help text.
_vex_tools_commands() {
    sed -nE '/^(Subcommands|SUBCOMMANDS):/,/^$/s/^  ([a-z][a-z0-9-]*)( .*)?$/\1/p' <<<"$1"
}

# Prints the names of filters, which are in lines behind "one of:".
_vex_tools_filters() {
    awk '/one of:$/ { list = 1; next } list && /^ +[a-z][a-z, -]*$/ { gsub(/,/, ""); print; next } { list = 0 }' <<<"$1"
}

_vex_tools_files() {
    mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
    # Fails outside of a completion.
    compopt -o filenames 2>/dev/null
}

_vex_tools_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

_vex_tools() {
    local program=${1/#\~/$HOME} current=$2 previous=$3
    local help options word value command='' i
    COMPREPLY=()
    help=$("$program" --help 2>/dev/null) || return 0
    local commands
    commands=$(_vex_tools_commands "$help")
    for ((i = 1; i < COMP_CWORD; ++i)); do
        for word in $commands; do
            if [ "${COMP_WORDS[i]}" = "$word" ]; then
                command=$word
                help=$("$program" "$command" --help 2>/dev/null) || return 0
                break 2
            fi
        done
    done
    options=$(_vex_tools_options "$help")

    # bash splits --option=value into three words.
    if [ "$current" = = ]; then
        current=''
    elif [ "$previous" = = ] && [ "$COMP_CWORD" -ge 2 ]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    if [[ $previous = -* ]]; then
        value=$(awk -F '\t' -v name="$previous" '$1 == name { print $2; exit }' <<<"$options")
        case $value in
            '') ;;
            *"{"*"}"*)
                value=${value#*\{}
                value=${value%%\}*}
                _vex_tools_words "${value//,/ }" "$current"
                return ;;
            FILE* | OUT*)
                _vex_tools_files -f "$current"
                return ;;
            DIR*)
                _vex_tools_files -d "$current"
                return ;;
            USER*)
                mapfile -t COMPREPLY < <(compgen -u -- "$current")
                return ;;
            NAME=VALUE)
                _vex_tools_words "$(_vex_tools_filters "$help")" "$current"
                COMPREPLY=("${COMPREPLY[@]/%/=}")
                compopt -o nospace 2>/dev/null
                return ;;
            *) return ;;
        esac
    fi
    if [[ $current = -* ]]; then
        _vex_tools_words "$(cut -f 1 <<<"$options")" "$current"
        return
    fi
    if [ -z "$command" ]; then
        _vex_tools_words "$commands" "$current"
        [ "${#COMPREPLY[@]}" -eq 0 ] || [ -z "$current" ] || return 0
        grep -qiE '^Positionals:' <<<"$help" || return 0
    elif grep -qE '^ +STORE( |$)' <<<"$help"; then
        _vex_tools_words demo: "${current:-no}"
        [ "${#COMPREPLY[@]}" -eq 0 ] || return 0
    fi
    local found=("${COMPREPLY[@]}")
    _vex_tools_files -f "$current"
    COMPREPLY=("${found[@]}" "${COMPREPLY[@]}")
}

complete -F _vex_tools vexsign vexlog vexfiled
