# shellcheck shell=bash disable=SC2154
ip link set lo up
mkdir -m 700 /var/lib/vexfiled
# What the packages install.
cmake --install build/release --prefix /usr >/dev/null

# It runs in the foreground until it is ended, here at the end of the page.
build/release/bin/vexfiled() {
    setpriv --pdeathsig KILL build/release/bin/vexfiled "$@" 2>"$work/log" &
    server=$!
    until grep -q 'listening' "$work/log"; do
        kill -0 "$server" || fail "$(cat "$work/log")"
        sleep 0.05
    done
}

page_cpp() {
    cp "$1" shared.cpp
}

check() {
    [ "$(cat /var/lib/vexfiled/shared.log)" = $'a line\na line' ] || fail "the log: $(cat /var/lib/vexfiled/shared.log)"
    cmp packaging/vexfiled-limits.conf /etc/systemd/system/vexfiled.service.d/limits.conf
    # A client registers: session 0, object 101, without a callback. The answer is 0.
    exec {client}<>/dev/tcp/127.0.0.1/8766
    printf '\x00\x00\x65\x00\x00' >&"$client"
    answer=$(head -c 1 <&"$client" | od -An -tx1)
    exec {client}>&-
    [ "$answer" = " 00" ] || fail "the answer to the client: $answer"
    kill "$server"
    wait "$server"
    tail -n 1 "$work/log" | grep -q 'stopped$' || fail "the end of the log: $(cat "$work/log")"
}
