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

# issue NAME ISSUER CONSTRAINTS USAGE [KEY-OPTION...]: makes NAME.key, NAME.crt, and NAME.pem with both. A NAME that is
# its own ISSUER signs itself.
issue() {
    local name=$1 issuer=$2 signer=() key=(-algorithm EC -pkeyopt ec_paramgen_curve:P-256)
    printf '[req]\ndistinguished_name=dn\nprompt=no\nx509_extensions=ext\n[dn]\nCN=%s\n[ext]\n' "$name" >issue.cnf
    printf 'basicConstraints=critical,%s\nkeyUsage=critical,%s\n' "$3" "$4" >>issue.cnf
    shift 4
    [ $# -eq 0 ] || key=("$@")
    openssl genpkey "${key[@]}" -out "$name.key" 2>/dev/null
    [ "$name" = "$issuer" ] || signer=(-CA "$issuer.crt" -CAkey "$issuer.key")
    openssl req -x509 -new -config issue.cnf -key "$name.key" -days 30 "${signer[@]}" -out "$name.crt"
    cat "$name.key" "$name.crt" >"$name.pem"
}

# self_signed NAME TYPE [OPTION]: makes NAME.key, NAME.crt, NAME.pem with both, and NAME.pub.
self_signed() {
    openssl req -x509 -newkey "$2" ${3:+-pkeyopt "$3"} -nodes -keyout "$1.key" -out "$1.crt" -days 30 -subj "/CN=$1" \
        2>/dev/null
    cat "$1.key" "$1.crt" >"$1.pem"
    openssl x509 -in "$1.crt" -noout -pubkey -out "$1.pub"
}
