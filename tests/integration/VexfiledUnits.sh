#!/bin/bash
# The file server's units, by systemd's own programs: VexfiledUnits.sh <vexfiled> <source directory>
# They are well-formed and hardened, and the server takes a socket as systemd passes it.

vexfiled=$1
source=$2
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

for program in systemd-analyze systemd-socket-activate; do
    if ! type -P "$program" >/dev/null; then
        echo "skipped: there is no $program"
        exit 77
    fi
done

echo "== systemd understands the units and the example"
mkdir -p units/vexfiled.service.d
cp "$source/packaging/vexfiled.socket" units/
grep -q '^ExecStart=vexfiled ' "$source/packaging/vexfiled.service" || fail "the unit's ExecStart="
sed "s,^ExecStart=vexfiled,ExecStart=$vexfiled," "$source/packaging/vexfiled.service" >units/vexfiled.service
cp "$source/packaging/vexfiled-limits.conf" units/vexfiled.service.d/limits.conf
systemd-analyze verify --man=no units/vexfiled.service units/vexfiled.socket >verified 2>&1 ||
    fail "systemd-analyze: $(cat verified)"
[ ! -s verified ] || fail "systemd-analyze: $(cat verified)"
# It reads the example too.
echo 'Nonsense=1' >>units/vexfiled.service.d/limits.conf
systemd-analyze verify --man=no units/vexfiled.service >verified 2>&1 || true
grep -q "limits.conf.*Nonsense" verified || fail "a wrong drop-in is not noticed: $(cat verified)"
cp "$source/packaging/vexfiled-limits.conf" units/vexfiled.service.d/limits.conf

echo "== the service is hardened"
hardened() {
    systemd-analyze security --offline=true --threshold=20 "$1" >exposure 2>&1
}
hardened units/vexfiled.service || fail "more than 2.0: $(grep -E '✗|→' exposure)"
grep -v '^SystemCall\|^Capability\|^Protect\|^Restrict' units/vexfiled.service >units/open.service
! hardened units/open.service || fail "the analysis accepts a service that is not hardened"

echo "== the example's options are options"
options=$(sed -n 's/^Environment="VEXFILED_OPTIONS=\(.*\)"$/\1/p' "$source/packaging/vexfiled-limits.conf")
[ -n "$options" ] || fail "no options in the example"
read -ra options <<<"${options//--allow-user app/--allow-user root}"
expect 1 "$vexfiled" --root missing "${options[@]}"
says "cannot serve: missing: No such file or directory"

echo "== a socket from systemd's program"
mkdir -m 700 root
# The traced program keeps its process ID with -D.
trace=()
if strace -o /dev/null true 2>/dev/null; then
    trace=("$(type -P strace)" -D -f -o "$work/trace")
fi
for ((try = 0; ; try++)); do
    port=$((20000 + RANDOM % 10000))
    systemd-socket-activate -l "127.0.0.1:$port" "${trace[@]}" "$vexfiled" --root "$work/root" --allow-user root \
        2>log &
    server=$!
    # It starts the server at the first connection.
    until grep -q "Listening on 127.0.0.1:$port" log || ! kill -0 "$server" 2>/dev/null; do
        sleep 0.05
    done
    kill -0 "$server" 2>/dev/null && break
    [ "$try" -lt 10 ] || fail "no port: $(cat log)"
done
trap 'kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT
exec {client}<>"/dev/tcp/127.0.0.1/$port"
printf '\x00\x00\x65\x00\x00' >&"$client"
answer=$(head -c 1 <&"$client" | od -An -tx1)
exec {client}>&-
[ "$answer" = " 00" ] || fail "the answer to a client: $answer ($(cat log))"
grep -q "listening on 127.0.0.1:$port, files below $work/root" log || fail "the server's log: $(cat log)"
kill "$server"
status=0
wait "$server" || status=$?
[ "$status" -eq 0 ] || fail "exit status $status: $(cat log)"
grep -q "totals: 1 clients" log || fail "no totals: $(cat log)"

if [ "${#trace[@]}" -gt 0 ]; then
    echo "== the unit allows what it did"
    # The tracer may still be writing.
    until tail -n 1 trace | grep -q 'exited with'; do
        sleep 0.05
    done
    "$here/SystemCallFilter.py" "$source/packaging/vexfiled.service" trace >refused ||
        fail "the unit does not allow: $(cat refused)"
    sed 's/^SystemCallFilter=.*/&\nSystemCallFilter=~epoll_wait/' "$source/packaging/vexfiled.service" >units/strict.service
    ! "$here/SystemCallFilter.py" units/strict.service trace >refused || fail "a forbidden call is not noticed"
else
    echo "skipped: no strace, so the unit's limits are not compared with what the server did"
fi

echo "all passed"
