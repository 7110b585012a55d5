#!/bin/bash
# Do today's programs read what an earlier release wrote? Reads.sh <data> <programs> <sample log>
# <data>: a directory that "write" has filled. <programs>: the directory of vexlog and vexsign. <sample log>: a program
# that writes records (tests/unit/vexlog/SampleLog.cpp).

data=$(readlink -f "$1")
programs=$(readlink -f "$2")
sample_log=$(readlink -f "$3")
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/../integration/Common.sh"
export XDG_DATA_HOME=$work/data TZ=UTC
vexlog=$programs/vexlog
vexsign=$programs/vexsign

# count KIND-OR-TEXT: lines of out that have it.
count() {
    grep -cF -- "$1" out || true
}
# lines NUMBER WHAT: out has so many.
lines() {
    [ "$(wc -l <out)" -eq "$1" ] || fail "$2: $(wc -l <out) lines instead of $1: $(tail -n 3 out)"
}
# records FILE: the records in it, by their beginnings; those of the minimal logger begin in another way.
records() {
    LC_ALL=C sed '1s/^\xff\xfe//' "$1" |
        LC_ALL=C grep -acE '^\[[A-Z]+\] \[P[0-9]+\] \[T-?[0-9]+\] |^\[[0-9]{2}/[A-Z][a-z]{2}/[0-9]{4}:' || true
}

echo "== vexlog"
for file in PILog.txt torn.txt cut.txt; do
    expect 0 "$vexlog" --json "$data/$file"
    [ ! -s err ] || fail "$file: $(cat err)"
    [ "$(count '"pid":')" -eq "$(records "$data/$file")" ] || fail "records of $file: $(tail -n 3 out)"
    [ "$(records "$data/$file")" -gt 10 ] || fail "$file has too few records"
    torn=$(count '"torn":true') fragments=$(count '"kind":"fragment"')
    [ "$torn,$fragments" = "$(case $file in torn.txt) echo 1,0 ;; cut.txt) echo 1,1 ;; *) echo 0,0 ;; esac)" ] ||
        fail "$file: $torn torn records, $fragments fragments"
    # A record is a line.
    expect 0 "$vexlog" "$data/$file"
    lines "$("$vexlog" --json "$data/$file" | wc -l)" "$file"
    gzip -c "$data/$file" >log.gz
    "$vexlog" log.gz | cmp - out || fail "$file compressed"
    "$vexlog" - <"$data/$file" | cmp - out || fail "$file from standard input"
done
log=$data/PILog.txt
all=$("$vexlog" --json "$log" | wc -l)
first=$("$vexlog" --json "$log" | sed -n '1s/.*"time":"\([^"]*\)".*/\1/p')
last=$("$vexlog" --json "$log" | sed -n '$s/.*"time":"\([^"]*\)".*/\1/p')
pid=$("$vexlog" --json "$log" | sed -n '1s/.*"pid":\([0-9]*\).*/\1/p')
thread=$("$vexlog" --json "$log" | sed -n '1s/.*"thread":\([-0-9]*\).*/\1/p')
native=$(grep -ac "\[P$pid\]" "$log")
expect 0 "$vexlog" --pid "$pid" "$log"
[ "$native" -lt "$all" ] || fail "the log has one process"
lines "$native" "--pid"
expect 0 "$vexlog" --thread "$thread" "$log"
lines "$(grep -acF "[T$thread]" "$log")" "--thread"
expect 0 "$vexlog" --function WriteLog "$log"
lines 3 "--function"
[ "$(count "text 漢")" -eq 3 ] || fail "--function: $(tail -n 3 out)"
expect 0 "$vexlog" --grep 'A WARNING: 42' -i "$log"
lines 1 "--grep"
expect 0 "$vexlog" -n 2 "$log"
lines 2 "-n"
[ "$(tail -n 1 out)" = "$("$vexlog" "$log" | tail -n 1)" ] || fail "-n: $(tail -n 3 out)"
expect 0 "$vexlog" --since "$first" --until "$last" "$log"
# A record of the minimal logger has no fraction of a second.
[ "$(wc -l <out)" -ge "$((all - 1))" ] || fail "--since, --until: $(tail -n 3 out)"
expect 0 "$vexlog" --since "${last%%T*} 23:59:59" "$log"
[ ! -s out ] || fail "--since: $(tail -n 3 out)"
expect 0 "$vexlog" stats "$log"
calls=$("$vexlog" "$log" | grep -c 'P7SignString Enter\.')
grep -Eq "^P7SignString +$calls +0 +0 +0 " out || fail "stats: $(tail -n 3 out)"
grep -q "^$((all - 1)) records, 1 of the minimal logger, 0 torn" out || fail "stats: $(tail -n 3 out)"
expect 0 "$vexlog" report --input "$log" report.html
grep -q P1SignString report.html || fail "the report has no P1SignString"
expect 0 "$vexlog" "$log" "$data/cut.txt"
lines "$((all + $("$vexlog" "$data/cut.txt" | wc -l)))" "two logs"

echo "== the log goes on"
for file in PILog.txt torn.txt cut.txt; do
    rm -rf logs
    mkdir logs
    install -m 600 "$data/$file" logs/PILog.txt
    expect 0 env VEX_TEST_LOG_DIR="$work/logs" "$sample_log" 1 1 5 1000000
    written=$(cat out)
    cmp -n "$(stat -c %s "$data/$file")" "$data/$file" logs/PILog.txt || fail "$file was changed"
    expect 0 "$vexlog" --json logs/PILog.txt
    [ "$(count '"pid":')" -eq "$(($(records "$data/$file") + written))" ] || fail "$file goes on: $(tail -n 3 out)"
    # And is cut.
    expect 0 env VEX_TEST_LOG_DIR="$work/logs" "$sample_log" 1 1 50 6000
    [ "$(stat -c %s logs/PILog.txt)" -le 6500 ] || fail "$file is not cut: $(stat -c %s logs/PILog.txt)"
    expect 0 "$vexlog" logs/PILog.txt
    [ "$(count '-- fragment')" -le 1 ] || fail "$file behind a cut: $(tail -n 3 out)"
done

echo "== the demo store"
demo=$work/data/vex-client-toolkit
mkdir -p "$demo"
chmod 700 "$demo"
install -m 600 "$data/demo.pem" "$demo/demo.pem"
expect 0 "$vexsign" list demo:
# A store whose certificates have expired is made again.
if openssl x509 -in "$data/RSA.crt" -checkend 60 >/dev/null; then
    diff "$data/certificates.txt" out >&2 || fail "another list of certificates"
    for key in RSA EC; do
        expect 0 "$vexsign" p7 demo: --filter key-algorithm=$key "$data/letter.txt" -o "$key.p7s"
        expect 0 "$vexsign" verify "$key.p7s" "$data/letter.txt" --ca "$data/$key.crt"
    done
    cmp "$data/demo.pem" "$demo/demo.pem" || fail "the demo store was changed"
else
    [ "$(wc -l <out)" -eq 2 ] || fail "the demo store was not made again: $(tail -n 3 out)"
fi

echo "== signatures"
# The certificates were valid then.
at=$(date --utc --date="$(openssl x509 -in "$data/RSA.crt" -noout -startdate | sed 's/^[^=]*=//') + 10 minutes" \
    +%Y-%m-%dT%H:%M:%SZ)
for key in RSA EC; do
    trusted=(--ca "$data/$key.crt" --at "$at")
    expect 0 "$vexsign" verify "$data/$key.p1" "$data/$key.txt" --cert "$data/$key.crt" "${trusted[@]}"
    expect 0 "$vexsign" verify "$data/$key.p7" "$data/$key.txt" "${trusted[@]}"
    expect 0 "$vexsign" verify "$data/$key.p7a" "${trusted[@]}"
    expect 0 "$vexsign" verify "$data/$key.der" "$data/letter.txt" "${trusted[@]}"
    expect 1 "$vexsign" verify "$data/$key.p7" "$data/letter.txt" "${trusted[@]}"
    expect 1 "$vexsign" verify "$data/$key.p1" "$data/letter.txt" --cert "$data/$key.crt" "${trusted[@]}"
done

echo "all passed"
