# shellcheck shell=bash disable=SC2154
PATH=$source/build/release/bin:$PATH
VEX_TEST_LOG_DIR=/tmp vexlog_sample_log 1 1 20 0
gzip -c /tmp/PILog.txt >PILog.txt.gz

# With --follow it runs until it is ended.
vexlog() {
    if [[ " $* " != *" --follow "* ]]; then
        command vexlog "$@"
        return
    fi
    command vexlog "$@" >followed &
    local follower=$! before
    until [ -s followed ]; do
        kill -0 "$follower" || fail "vexlog $* ended"
        sleep 0.05
    done
    before=$(wc -l <followed)
    VEX_TEST_LOG_DIR=/tmp vexlog_sample_log 1 1 1 0
    until [ "$(wc -l <followed)" -gt "$before" ]; do
        kill -0 "$follower" || fail "vexlog $* ended"
        sleep 0.05
    done
    kill "$follower"
    wait "$follower" || true
}

check() {
    printed "P1SignString"
    grep -q '</html>' log.html
}
