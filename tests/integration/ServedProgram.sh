#!/bin/bash
# A program appends a line through the file server: ServedProgram.sh <vexfiled> <program>
# Only for a network of its own, because the client's port is fixed.

vexfiled=$1
program=$2
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
ip link set lo up

expect 1 "$program"
says "no file server"

mkdir -m 700 served
"$vexfiled" --root "$work/served" 2>log &
server=$!
trap 'kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT
until grep -q listening log; do
    kill -0 "$server" || fail "vexfiled: $(cat log)"
    sleep 0.05
done
for run in 1 2; do
    "$program" || fail "run $run: $(cat log)"
done
# A user who is not served.
chmod 755 .
install -m 755 "$program" program
expect 1 setpriv --reuid 65534 --regid 65534 --clear-groups ./program
says "no file server"
grep -q "refused: user 65534 is not served" log || fail "the log: $(cat log)"
kill "$server"
wait "$server"
[ "$(cat served/shared.log)" = $'a line\na line' ] || fail "the served file: $(cat served/shared.log)"
