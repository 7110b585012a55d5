#!/bin/bash
# The bash completion and the man pages of the tools:
# Completion.sh <directory of the programs> <completion file> <directory of the man pages>

programs=$1
completion=$2
pages=$3
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
# shellcheck source=packaging/completion.bash
. "$completion"
touch letter.txt keys.p12
mkdir logs

# completed WORD...: prints what completes the last word, sorted. bash splits at "=".
completed() {
    COMP_WORDS=("$programs/$1" "${@:2}")
    COMP_CWORD=$(($# - 1))
    local function
    function=$(complete -p "$1" | sed -n 's/.* -F \([^ ]*\) .*/\1/p')
    "$function" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    [ "${#COMPREPLY[@]}" -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}" | sort
}

# offers "WORD..." COMMAND...: exactly these.
offers() {
    local wanted found
    # The words are separated by blanks.
    # shellcheck disable=SC2086
    wanted=$(printf '%s\n' $1 | sort)
    found=$(completed "${@:2}")
    [ "$found" = "$wanted" ] || fail "\"${*:2}\" is completed by: $found; not by: $wanted"
}

# offers_all_of COMMAND...: each option that the help of the command prints at the beginning of a line, by all its names.
# The man page has them too, behind the macro Fl, which prints the first hyphen.
offers_all_of() {
    local option
    completed "$@" - >offered
    grep -hwE 'Fl' "$pages/$1".[18] >described
    "$programs/$1" "${@:2}" --help | grep -oE '^ {1,20}-[A-Za-z, -]+' | sed 's/^ *//; s/,  */,/g; s/ .*//' |
        tr ',' '\n' >options
    [ "$(wc -l <options)" -ge 2 ] || fail "options of $*: $(cat options)"
    while read -r option; do
        grep -qxF -- "$option" offered || fail "\"$*\" has $option, which is not in: $(cat offered)"
        grep -qE -- " ${option#-}( |\$)" described || fail "\"$*\" has $option, which is not in its man page"
    done <options
}

echo "== commands and options"
for command in vexsign 'vexsign list' 'vexsign p1' 'vexsign p7' 'vexsign stamp' 'vexsign verify' vexlog 'vexlog stats' 'vexlog report' vexfiled; do
    # shellcheck disable=SC2086
    offers_all_of $command
done
completed vexsign '' >commands
for command in list p1 p7 stamp verify; do
    grep -qx "$command" commands || fail "no $command in: $(cat commands)"
done
offers 'list' vexsign li
offers '--verify-hint' vexsign p7 --verify-h
offers '' vexsign p1 --attach
offers '--attached' vexsign p7 --attach
offers 'report' vexlog rep
offers '--root' vexfiled --roo
offers '--allow-any --allow-user' vexfiled --allow
offers '--output --output-dir' vexsign p7 demo: --outp
offers '--ca' vexsign verify --ca
offers '--tsa --tsa-ca --tsa-digest --tsa-policy --tsa-timeout' vexsign p7 --tsa
offers '--tsa --tsa-ca --tsa-digest --tsa-policy --tsa-timeout' vexsign stamp --tsa
offers '--tsa-ca' vexsign verify --tsa
offers '--since' vexlog stats --si

echo "== values"
offers 'base64 der' vexsign p7 demo: --out ''
offers 'der' vexsign p7 demo: --out = d
offers 'base64 der' vexsign p7 demo: --out =
offers 'auto always never' vexlog --colour ''
offers 'key-size= key-usage= key-usage-all= key-algorithm=' vexsign list demo: --filter key-
offers 'letter.txt' vexsign p7 demo: --pin-source le
offers 'logs' vexfiled --root ''
offers 'logs' vexsign p1 demo: --output-dir ''
offers '' vexfiled --port ''
offers 'root' vexfiled --allow-user roo
offers 'letter.txt' vexsign verify --ca le
offers 'letter.txt' vexsign stamp --tsa-ca le
offers '' vexsign stamp --tsa ''
offers '' vexsign stamp --tsa-timeout ''
# These take none. Their help names other options behind them.
offers 'letter.txt' vexsign p7 demo: --ask-pin le
offers 'letter.txt' vexsign verify --no-chain le

echo "== stores and files"
offers 'demo:' vexsign p7 de
offers 'keys.p12' vexsign p7 ke
offers 'letter.txt' vexsign p7 demo: let
offers 'letter.txt' vexsign verify let
offers 'letter.txt' vexsign stamp let
offers 'letter.txt' vexlog let
offers '' vexfiled let

echo "== at a terminal"
# bash shows the rest of the word after the tabulator; the command then fails because it has no store.
# shellcheck disable=SC2016
printf 'PATH=%q:$PATH; . %q\nvexsign p7 --verify-h\t\nexit\n' "$programs" "$completion" >typed
script -qec 'bash --norc --noprofile -i' /dev/null <typed >screen 2>&1 || true
grep -qF 'vexsign p7 --verify-hint' screen || fail "the screen: $(cat screen)"

echo "all passed"
