# shellcheck shell=bash disable=SC2154
sign() {
    echo 'new TAVClientJNI().Finalize(new TAVClientJNI().Initialize(null, "demo:"));' >"$work/sign"
    run_java "$(java_class "$work/sign" Sign)"
}

page_ini() {
    sign
    [ -s /tmp/PILog.txt ] || fail "no log without the switch"
    cp /tmp/PILog.txt "$work/before"
    cp "$1" /var/log.ini
    sign
}

check() {
    cmp "$work/before" /tmp/PILog.txt
}
