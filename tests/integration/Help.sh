#!/bin/bash
# The help of the tools and of each of their commands, as users read it: Help.sh <directory of the programs>
# It has to be what the files in "help" hold. If a change of a text is wanted, change it there too.

programs=$1
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

# help_of PROGRAM COMMAND...: the help of the program and then of each command. The examples that a command has in common
# with the program are left out.
help_of() {
    local program=$1 command
    shift
    expect 0 "$programs/$program" --help
    [ ! -s err ] || fail "the help of $program is on standard error"
    cat out
    sed -n '/^Examples:$/,$p' out >examples
    for command in "$@"; do
        printf '\n==== %s ====\n' "$program $command"
        expect 0 "$programs/$program" "$command" --help
        [ ! -s err ] || fail "the help of $program $command is on standard error"
        sed -n '/^Examples:$/,$p' out >own
        if cmp -s own examples; then
            sed '/^Examples:$/,$d' out
            echo "(the examples of $program)"
        else
            cat out
        fi
    done
}

help_of vexsign list p1 p7 stamp verify >vexsign.txt
help_of vexlog stats report >vexlog.txt
help_of vexfiled >vexfiled.txt
# Versions of CLI11 break lines in other places and write a default as "FILE=-" or as "FILE [-]".
words() {
    sed -E 's/([]A-Z}])=([^ ]+)/\1 [\2]/g' "$1" | tr -s '[:space:]' '\n'
}
for program in vexsign vexlog vexfiled; do
    cmp -s <(words "$here/help/$program.txt") <(words "$program.txt") || {
        diff -u "$here/help/$program.txt" "$program.txt" || true
        fail "the help of $program is another one (see above)"
    }
done

# A full disk is a failure. A reader that has seen enough is none.
for program in vexsign vexlog vexfiled; do
    for option in --help --version; do
        status=0
        "$programs/$program" $option >/dev/full 2>err || status=$?
        [ "$status" -eq 1 ] || fail "exit status $status of $program $option on a full disk"
        says "$program: standard output"
        status=0
        "$programs/$program" $option >&- 2>err || status=$?
        [ "$status" -eq 1 ] || fail "exit status $status of $program $option without standard output"
    done
done
for program in vexsign vexlog vexfiled; do
    set +o pipefail
    { sleep 0.1; "$programs/$program" --help 2>err; echo $? >status; } | true
    set -o pipefail
    [ "$(cat status)" = 0 ] || fail "exit status $(cat status) of $program without a reader"
    [ ! -s err ] || fail "message about a missing reader: $(cat err)"
done

echo "all passed"
