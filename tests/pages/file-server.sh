# shellcheck shell=bash disable=SC2154
ip link set lo up
mkdir -m 700 /var/lib/vexfiled

# It runs in the foreground until it is ended.
build/release/bin/vexfiled() {
    command build/release/bin/vexfiled "$@" 2>"$work/log" &
    local server=$!
    until grep -q 'listening' "$work/log"; do
        kill -0 "$server" || fail "$(cat "$work/log")"
        sleep 0.05
    done
    # A client registers: session 0, object 101, without a callback. The answer is 0.
    exec {client}<>/dev/tcp/127.0.0.1/8766
    printf '\x00\x00\x65\x00\x00' >&"$client"
    answer=$(head -c 1 <&"$client" | od -An -tx1)
    exec {client}>&-
    kill "$server"
    wait "$server"
}

check() {
    [ "$answer" = " 00" ] || fail "the answer to the client: $answer"
}
