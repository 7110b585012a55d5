#!/bin/bash
# vexlog --follow as a command: VexlogFollow.sh <vexlog>

vexlog=$1
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

followers=()
cleanup() {
    for pid in "${followers[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

# await COMMAND...: repeats it until it succeeds, for 20 seconds at most.
await() {
    local try
    for try in $(seq 400); do
        if "$@"; then
            return
        fi
        sleep 0.05
    done
    fail "no success within 20 s: $* (try $try)"
}

entry() {
    printf '[INFO] [P1] [T2] [2024-03-05 09:07:02:%d] [a-F(7)]: %s\r\n\r\n' "$1" "$2"
}

echo "== records that are added, and another file"
printf '\xff\xfe' >followed.txt
"$vexlog" --follow followed.txt >out 2>err &
followers+=($!)
contains() {
    grep -q "$1" out
}
entry 100001 first >>followed.txt
await contains first
{ printf '\xff\xfe'; entry 100002 second; } >new.txt
mv new.txt followed.txt
await contains second
entry 100003 third >followed.txt
await contains third
kill -INT "${followers[0]}"
status=0
wait "${followers[0]}" || status=$?
[ "$status" -eq 0 ] || fail "exit status $status after SIGINT"
[ "$(wc -l <out)" -eq 3 ] || fail "followed: $(cat out)"

echo "== only the last of the old records, then new ones"
{ printf '\xff\xfe'; entry 100001 first; entry 100002 second; } >followed.txt
"$vexlog" --follow -n 1 followed.txt >out 2>err &
followers+=($!)
await contains second
entry 100003 third >>followed.txt
await contains third
kill -INT "${followers[1]}"
wait "${followers[1]}" || fail "exit status $? after SIGINT"
[ "$(wc -l <out)" -eq 2 ] || fail "followed the last record: $(cat out)"

echo "== the reader of its output ends while there is nothing to write"
mkfifo pipe
"$vexlog" --follow followed.txt >pipe 2>err &
followers+=($!)
head -n 1 <pipe >out
status=0
wait "${followers[2]}" || status=$?
[ "$status" -eq 0 ] || fail "exit status $status after the reader went"
# The same through a socket, as sshd gives a program that has no terminal.
cat >gone.py <<'PYTHON'
import socket, subprocess, sys, time

ours, theirs = socket.socketpair()
program = subprocess.Popen(sys.argv[1:], stdin=theirs, stdout=theirs)
theirs.close()
ours.recv(65536)
ours.shutdown(socket.SHUT_WR)  # the end of standard input, as "ssh -n" has it
time.sleep(1)
if program.poll() is not None:
    sys.exit("it has ended before its reader")
ours.close()
try:
    sys.exit(program.wait(20))
except subprocess.TimeoutExpired:
    program.kill()
    sys.exit("it goes on without a reader")
PYTHON
expect 0 python3 gone.py "$vexlog" --follow followed.txt

echo "all passed"
