# For tests that are shell scripts: source it after reading the arguments. It changes to a new directory and removes it
# at the end. "here" is the directory of the script.
# shellcheck shell=bash
set -euo pipefail

# shellcheck disable=SC2034
here=$(dirname "$(readlink -f "$0")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export LC_ALL=C.UTF-8

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# expect STATUS COMMAND...: the files out and err then hold standard output and standard error.
expect() {
    local wanted=$1 status=0
    shift
    "$@" >out 2>err </dev/null || status=$?
    [ "$status" -eq "$wanted" ] || fail "exit status $status instead of $wanted: $* ($(cat err))"
}

# says TEXT: the last command of "expect" wrote it to standard error.
says() {
    grep -qF -- "$1" err || fail "\"$1\" is not in: $(cat err)"
}
