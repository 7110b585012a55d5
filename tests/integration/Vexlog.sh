#!/bin/bash
# vexlog as a command: Vexlog.sh <vexlog> <vexlog_sample_log> bounded|unbounded
# bounded: the test limits vexlog's address space, which a sanitizer does not allow.

vexlog=$1
sample_log=$2
bounded=$3
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

unset NO_COLOR

entry() {
    printf '[INFO] [P1] [T2] [2024-03-05 09:07:02:%d] [a-F(7)]: %s\r\n\r\n' "$1" "$2"
}

mkdir logs odd
VEX_TEST_LOG_DIR=$work/logs "$sample_log" 3 2 60 50000 >/dev/null
log=logs/PILog.txt

hostile=hostile.txt
{
    printf '\xff\xferest of \x1b[31m one\r\n\r\n'
    printf '[INFO] [P1] [T-2] [2024-03-05 09:07:02:48213] [a-</script><script>(7)]: \x1b]0;title\x07 \xe9\xff "\\ \xe2\x80\xae\xc2\x9b\r\n\r\n'
    printf '\r\n\r\n[05/Mar/2024:09:07:02 CET] [4711 3058476800d][INFO]\x00\x00\x00\n'
    head -c 100000 /dev/urandom
} >$hostile

echo "== help, version, usage"
for command in "" stats report; do
    # shellcheck disable=SC2086
    expect 0 "$vexlog" $command --help
    grep -q '^Examples:$' out || fail "no examples in the help of '$command'"
    [ ! -s err ] || fail "the help of '$command' is on standard error"
done
expect 0 "$vexlog" --version
grep -Eq '^vexlog [0-9.]+$' out || fail "version: $(cat out)"
expect 2 "$vexlog" --no-such-option
expect 2 "$vexlog" --since soon $log
expect 2 "$vexlog" --thread abc $log
expect 2 "$vexlog" --pid -3 $log
expect 2 "$vexlog" --color sometimes $log
expect 2 "$vexlog" report
expect 2 "$vexlog" --follow -
expect 2 "$vexlog" report page.html $log
[ -s err ] || fail "no message about wrong usage"

echo "== what cannot be read or written"
expect 1 "$vexlog" missing.txt
grep -q 'missing.txt: No such file' err || fail "message: $(cat err)"
expect 1 "$vexlog" logs
expect 1 "$vexlog" stats missing.txt
expect 1 "$vexlog" report page.html --input missing.txt
[ ! -e page.html ] || fail "a page of a log that cannot be read"
expect 1 "$vexlog" report missing/page.html --input $log
status=0
"$vexlog" $log >/dev/full 2>err || status=$?
[ "$status" -eq 1 ] || fail "exit status $status for a full disk"

echo "== names of files that CLI11 takes for something else"
(
    cd odd || exit
    names=('[a,b]' '{}' ++)
    for name in "${names[@]}"; do
        { printf '\xff\xfe'; entry 100001 first; entry 100002 "in $name"; } >"$name"
    done
    for name in "${names[@]}"; do
        for arguments in "" -- "stats --json" "stats --json --"; do
            # shellcheck disable=SC2086
            expect 0 "$vexlog" $arguments "$name"
            grep -qF -e "in $name" -e '"records":2,' out || fail "$arguments $name: $(cat out)"
        done
        expect 0 "$vexlog" report page.html --input "$name"
        expect 0 "$vexlog" --grep "$name" "${names[@]}"
        [ "$(sed 's/.* in /in /' out)" = "in $name" ] || fail "--grep $name: $(cat out)"
    done
)

echo "== all records, by any way"
records=$(grep -ac '^\[INFO\] \[P' $log)
expect 0 "$vexlog" $log
[ "$(grep -c ' INFO P' out)" -eq "$records" ] || fail "$(grep -c ' INFO P' out) records instead of $records"
cp out whole
timed=$(grep -c '^[0-9-]* [0-9:.]* ' whole) # a cut may remove the oldest record's type and leave its time
"$vexlog" - <$log | cmp - whole
"$vexlog" <(cat $log) | cmp - whole
{ head -c 1000 $log; sleep 0.1; tail -c +1001 $log; } | "$vexlog" - | cmp - whole

echo "== filters"
expect 0 "$vexlog" --function AddFilter --function Finalize $log
[ "$(wc -l <out)" -eq "$(grep -Ec ' (AddFilter|Finalize):[0-9]' whole)" ] || fail "--function"
thread=$(sed -n 's/.* T\(-\?[0-9]*\) .*/\1/p' whole | head -n 1)
for form in "$thread" "T$thread" "$((thread < 0 ? thread + 4294967296 : thread))"; do
    expect 0 "$vexlog" --thread "$form" $log
    [ "$(wc -l <out)" -eq "$(grep -c " T$thread " whole)" ] || fail "--thread $form"
done
printf '\xff\xfe[INFO] [P1] [T-1234567] [2024-03-05 09:07:02:48213] [a-F(7)]: one\r\n\r\n' >one.txt
for row in -1234567:1 4293732729:1 1234567:0 -12:0; do
    expect 0 "$vexlog" --thread "${row%:*}" one.txt
    [ "$(wc -l <out)" -eq "${row#*:}" ] || fail "--thread ${row%:*}: $(cat out)"
done
pid=$(sed -n 's/.* P\([0-9]*\) .*/\1/p' whole | head -n 1)
expect 0 "$vexlog" --pid "$pid" --grep Leave. $log
[ "$(wc -l <out)" -eq "$(grep " P$pid " whole | grep -c 'Leave\.')" ] || fail "--pid and --grep"
expect 0 "$vexlog" --since 1h --until 2099-01-01 $log
[ "$(wc -l <out)" -eq "$timed" ] || fail "--since left out records"
expect 0 "$vexlog" --until 1h $log
[ ! -s out ] || fail "--until printed records that are too late"

echo "== an empty value behind an equals sign"
expect 2 "$vexlog" --until= one.txt
says '--until: the time is empty'
for arguments in "--function=" "stats --function="; do
    # shellcheck disable=SC2086
    expect 2 "$vexlog" $arguments one.txt
    says '--function: the name is empty'
done
expect 2 "$vexlog" report --input= one.txt page.html
says '--input: the name is empty'
expect 0 "$vexlog" --grep= one.txt
[ "$(wc -l <out)" -eq 1 ] || fail "--grep= one.txt: $(cat out)"
expect 0 "$vexlog" --grep --pid= one.txt
[ ! -s out ] || fail "--grep --pid= one.txt: $(cat out)"

echo "== times, as journalctl takes them"
for time in yesterday "1 hour ago" -1h "-1h 30min" "$(date '+%a %F %T' -d '1 hour ago')" "$(date -u '+%F %T' -d '1 hour ago') UTC"; do
    expect 0 "$vexlog" --since "$time" $log
    [ "$(wc -l <out)" -eq "$timed" ] || fail "--since '$time': $(wc -l <out) records of $timed"
done
expect 0 "$vexlog" -S 1h -U now $log
[ "$(wc -l <out)" -eq "$timed" ] || fail "-S and -U"
expect 0 "$vexlog" --since +5min $log
[ ! -s out ] || fail "--since +5min printed records"
expect 2 "$vexlog" --since 2023-02-29 $log
says 'February 2023 has 28 days'
expect 2 "$vexlog" --since '' $log
says 'the time is empty'
expect 2 "$vexlog" --since now --until yesterday $log
says 'later than that of --until'

echo "== the last records"
for count in 0 1 7; do
    expect 0 "$vexlog" -n $count $log
    tail -n $count whole | cmp - out || fail "-n $count"
done
expect 0 "$vexlog" --lines 100000 $log
cmp whole out || fail "more than there are"
expect 0 "$vexlog" -n 3 --grep Leave. $log
grep 'Leave\.' whole | tail -n 3 | cmp - out || fail "-n with a condition"
for count in -1 all '' 3x; do
    expect 2 "$vexlog" -n "$count" $log
done

echo "== stats and report of a selection"
count_of() {
    python3 -c 'import json, sys; s = json.load(open("out", encoding="utf-8")); print(eval(sys.argv[1]))' "$1"
}
expect 0 "$vexlog" stats --json $log
all_calls=$(count_of 'sum(f["calls"] for f in s["functions"])')
calls=0
while read -r process; do
    for place in before behind; do
        if [ $place = before ]; then
            expect 0 "$vexlog" --pid "$process" stats --json $log
        else
            expect 0 "$vexlog" stats --pid "$process" --json $log
        fi
        [ "$(count_of 's["records"]')" -eq "$(grep -c " P$process " whole)" ] || fail "stats --pid $process: $(cat out)"
    done
    calls=$((calls + $(count_of 'sum(f["calls"] for f in s["functions"])')))
done < <(sed -n "s/.* P\([0-9]*\) .*/\1/p" whole | sort -u)
[ "$calls" -eq "$all_calls" ] || fail "$calls calls of the processes, $all_calls of all"
expect 0 "$vexlog" stats --function AddFilter --json $log
[ "$(count_of '[f["function"] for f in s["functions"]]')" = "['AddFilter']" ] || fail "stats --function: $(cat out)"
expect 0 "$vexlog" stats --until yesterday --json $log
[ "$(count_of 's["records"], len(s["functions"])')" = "(0, 0)" ] || fail "stats --until: $(cat out)"
expect 0 "$vexlog" report part.html --function AddFilter --since 1h --input $log
grep -q 'scope="row">AddFilter<' part.html || fail "no AddFilter in its report"
! grep -q 'scope="row">P7Sign<' part.html || fail "P7Sign in a report of AddFilter"
grep -q "only a part of the log: function <code>AddFilter</code>; from <code>" part.html || fail "no sentence about it"
expect 0 "$vexlog" report whole.html --input $log
! grep -q 'part of the log' whole.html || fail "a page of the whole log says that it is a part"
expect 2 "$vexlog" --grep Leave. stats $log
expect 2 "$vexlog" -n 3 report page.html --input $log
expect 2 "$vexlog" stats --grep Leave. $log
expect 2 "$vexlog" --json report page.html --input $log
says 'a report is a page'
[ ! -e page.html ] || fail "a page in place of JSON"

echo "== several files in the order of time"
{ printf '\xff\xfe'; entry 100001 first; entry 100002 second; } >rotated.txt
{ printf '\xff\xfe'; entry 100003 third; entry 100005 fifth; } >current.txt
{ printf '\xff\xfe'; entry 100004 fourth; } >other.txt
gzip -k rotated.txt
for files in "current.txt rotated.txt other.txt" "rotated.txt.gz other.txt current.txt" "other.txt - rotated.txt"; do
    # shellcheck disable=SC2086
    "$vexlog" $files <current.txt >out
    [ "$(sed 's/.* //' out | tr '\n' ' ')" = "first second third fourth fifth " ] || fail "order of $files: $(cat out)"
done
expect 0 "$vexlog" --json current.txt rotated.txt.gz
grep -q '"input":"rotated.txt.gz",.*"message":"first"' out || fail "JSON without the log's name: $(cat out)"
expect 0 "$vexlog" -n 1 current.txt other.txt
grep -q fifth out || fail "the last of several"
expect 0 "$vexlog" stats --json current.txt rotated.txt
[ "$(count_of 's["records"]')" -eq 4 ] || fail "stats of two files: $(cat out)"
expect 0 "$vexlog" report two.html --input current.txt --input rotated.txt
grep -q 'current.txt, rotated.txt' two.html || fail "the names of two logs"
expect 1 "$vexlog" current.txt missing.txt
says 'missing.txt: No such file'
[ ! -s out ] || fail "records though a file is missing"
expect 2 "$vexlog" --follow current.txt rotated.txt
says 'only one file can be followed'
for twice in "- -" "- /dev/stdin" "stats /dev/fd/0 -" "report page.html --input - --input /dev/stdin"; do
    # shellcheck disable=SC2086
    expect 2 "$vexlog" $twice
    says 'it can be read only once'
done
expect 1 "$vexlog" report rotated.txt.gz --input $log
says 'this file is a log'

echo "== compressed logs"
gzip -c $log >log.gz
"$vexlog" log.gz | cmp - whole || fail "gzip"
"$vexlog" - <log.gz | cmp - whole || fail "gzip from standard input"
"$vexlog" <(cat log.gz) | cmp - whole || fail "gzip from a pipe"
expect 1 "$vexlog" --follow log.gz
says 'a compressed log does not grow'
head -c $(($(stat -c %s log.gz) / 2)) log.gz >half.gz
expect 1 "$vexlog" half.gz
says 'half.gz: the compressed data ends too early'
head -n 10 out | cmp - <(head -n 10 whole) || fail "the first half"
expect 1 "$vexlog" report half.html --input half.gz
[ ! -e half.html ] || fail "a page of half a log"
xz -c $log >log.xz
expect 1 "$vexlog" log.xz
says 'log.xz: compressed with xz; use "xzcat FILE | vexlog -"'
[ ! -s out ] || fail "compressed bytes as text"

echo "== blank entries"
mkdir blank
LC_ALL=C VEX_TEST_LOG_DIR=$work/blank "$sample_log" 1 1 20 0 >/dev/null
for command in "" "--json" "stats" "--pid 1"; do
    # shellcheck disable=SC2086
    expect 0 "$vexlog" $command blank/PILog.txt
    says 'the locale of the process that wrote them was C'
    says 'LC_ALL=C.UTF-8'
done
expect 0 "$vexlog" $log
[ ! -s err ] || fail "advice about a good log: $(cat err)"

echo "== standard descriptors that are closed"
# The first log would become standard input, and the second name would mean it again.
"$vexlog" rotated.txt - <&- >out 2>err && fail "standard input is closed, and was read: $(cat out)"
says 'standard input: Bad file descriptor'
"$vexlog" rotated.txt >&- 2>err && fail "the records went nowhere"
says 'standard output: Bad file descriptor'
"$vexlog" report closed.html --input blank/PILog.txt <&- >&- 2>&- || fail "only standard descriptors are closed"
tail -n 1 closed.html | grep -qx '</html>' || fail "the page ends with: $(tail -n 1 closed.html)"

echo "== colours"
expect 0 "$vexlog" $log
! grep -q $'\x1b' out || fail "colours without a terminal"
expect 0 "$vexlog" --color always $log
grep -q $'\x1b' out || fail "no colours though asked for"
script -qec "'$vexlog' $log" /dev/null </dev/null >out
grep -q $'\x1b' out || fail "no colours on a terminal"
NO_COLOR=1 script -qec "'$vexlog' $log" /dev/null </dev/null >out
! grep -q $'\x1b' out || fail "colours in spite of NO_COLOR"

echo "== hostile bytes"
expect 0 "$vexlog" $hostile
! LC_ALL=C grep -qP '[\x00-\x09\x0b-\x1f\x7f]' out || fail "control characters in the output"
python3 -c 'import sys; open(sys.argv[1], encoding="utf-8").read()' out
LC_ALL=C "$vexlog" $hostile >out
! LC_ALL=C grep -qP '[^\x20-\x7e\n]' out || fail "more than ASCII in the C locale"

echo "== JSON"
cat >check.py <<'PYTHON'
import json, sys

def reject(constant):
    raise ValueError(constant)

kinds = {}
for line in open(sys.argv[1], encoding="utf-8", errors="strict", newline="\n"):
    record = json.loads(line, parse_constant=reject)
    assert isinstance(record, dict), line
    kinds[record["kind"]] = kinds.get(record["kind"], 0) + 1
    if record["kind"] == "record":
        assert isinstance(record["pid"], int) and isinstance(record["thread"], int)
        assert len(record["time"]) == 26, record
    if "message_hex" in record:
        assert bytes.fromhex(record["message_hex"]).decode("utf-8", "replace") != ""
print(*(f"{kind}={n}" for kind, n in sorted(kinds.items())))
PYTHON
expect 0 "$vexlog" --json $log
python3 check.py out | grep -w >/dev/null "record=$timed" || fail "JSON of $log: $(python3 check.py out)"
expect 0 "$vexlog" --json $hostile
python3 check.py out | grep >/dev/null 'minimal=1 record=1' || fail "JSON of hostile bytes: $(python3 check.py out)"
for file in $log $hostile; do
    expect 0 "$vexlog" stats --json "$file"
    python3 -c 'import json, sys; s = json.load(open(sys.argv[1], encoding="utf-8")); assert s["records"] >= 1' out
done
expect 0 "$vexlog" stats $log
grep -q '^AddFilter ' out || fail "stats: $(cat out)"

echo "== a report never replaces a log"
refuse() {
    local text=$1
    shift
    cp -a $log kept
    cp -a $hostile kept.hostile
    expect 1 "$@"
    grep -qF "$text" err || fail "message: $(cat err)"
    cmp $log kept || fail "the log was changed: $*"
    cmp $hostile kept.hostile || fail "the other log was changed: $*"
}
ln $log logs/hard.html
for name in $log ./logs/../$log logs/hard.html "$PWD/$log"; do
    refuse 'this is the log that is read' "$vexlog" report "$name" --input $log
done
ln -s PILog.txt logs/soft.html
refuse 'this is the log that is read' "$vexlog" report logs/soft.html --input $log
refuse 'this file is a log' "$vexlog" report logs/soft.html --input $hostile
refuse 'this file is a log' "$vexlog" report $hostile --input $log
tail -c +3 $log >unmarked.txt
refuse 'this file is a log' "$vexlog" report unmarked.txt --input $hostile
{ head -c 600000 /dev/zero; tail -c 1000 $log; } >behind-zeros.txt
refuse 'this file is a log' "$vexlog" report behind-zeros.txt --input $log
printf '\xff\xfe' >empty-log.txt
refuse 'this file is a log' "$vexlog" report empty-log.txt --input $log
for command in "$log" "stats $log" "report - --input $log"; do
    cp $log copy.txt
    status=0
    # shellcheck disable=SC2086
    "$vexlog" ${command/$log/copy.txt} >>copy.txt 2>err || status=$?
    [ "$status" -eq 1 ] || fail "exit status $status of $command to the log itself"
    cmp $log copy.txt || fail "$command was written to the log itself"
done
# shellcheck disable=SC2094
"$vexlog" - <copy.txt >>copy.txt 2>err && fail "standard input to itself"
cmp $log copy.txt || fail "standard input was written to itself"
# shellcheck disable=SC2016
expect 1 sh -c '"$1" report - --input "$2" >>"$3"' sh "$vexlog" $log copy.txt
grep -q 'this file is a log' err || fail "message: $(cat err)"
for command in "--json" "stats" "report page.html --input" "report"; do
    # shellcheck disable=SC2086
    expect 2 "$vexlog" $command ''
    grep -q 'the name is empty' err || fail "message: $(cat err)"
done

echo "== a report is there whole or not at all"
for _ in 1 2; do
    expect 0 "$vexlog" report page.html --input $log
done
printf 'old\n' >page.html
chmod 640 page.html
ln -s page.html link.html
expect 0 "$vexlog" report link.html --input $log
[ -L link.html ] || fail "a link was replaced"
[ "$(stat -c %a page.html)" = 640 ] || fail "the mode of a replaced page"
grep -q '^<!DOCTYPE html>' page.html || fail "no page behind the link"
printf 'old\n' >page.html
(
    ulimit -f 8
    expect 1 "$vexlog" report page.html --input $log
    grep -q 'page.html: File too large' err || fail "message: $(cat err)"
)
[ "$(cat page.html)" = old ] || fail "a part of a page"
mkdir small
status=0
# shellcheck disable=SC2016
"$here/SmallDisk.sh" "$PWD/small" sh -c '"$1" report old --input "$2" 2>err.none || echo $? >&2; cat old; ls -A' \
    sh "$vexlog" "$PWD/$log" >out 2>err || status=$?
if [ "$status" -eq 77 ]; then
    echo "no full file system: this process must not mount one"
else
    printf 'old\nerr.none\nfiller\nold\n' | cmp - out || fail "on a full disk: $(cat out err)"
    grep -qx 1 err || fail "exit status on a full disk: $(cat err)"
fi
[ -z "$(find . -name '.vex-*')" ] || fail "left behind: $(find . -name '.vex-*')"

echo "== what was read before a failure"
# A terminal that closes gives an error after the bytes that came before.
cat >broken.py <<'PYTHON'
import os, pty, subprocess, sys, tty

master, slave = pty.openpty()
tty.setraw(slave)
program = subprocess.Popen(sys.argv[2:], stdin=master)
os.close(master)
os.write(slave, open(sys.argv[1], "rb").read())
os.close(slave)
sys.exit(program.wait())
PYTHON
{ printf '\xff\xfe'; entry 100001 first; entry 100002 second; printf '[INFO] [P1] [T2]'; } >short.txt
expect 1 python3 broken.py short.txt "$vexlog" -
grep -q 'standard input: Input/output error' err || fail "message: $(cat err)"
"$vexlog" short.txt | cmp - out || fail "printed before the failure: $(cat out)"
expect 1 python3 broken.py short.txt "$vexlog" --json -
"$vexlog" --json short.txt | cmp - out || fail "JSON before the failure: $(cat out)"
expect 1 python3 broken.py short.txt "$vexlog" stats -
"$vexlog" stats short.txt | cmp - out || fail "numbers before the failure: $(cat out)"
expect 1 python3 broken.py short.txt "$vexlog" report page.html --input -
[ "$(cat page.html)" = old ] || fail "a page of half a log"

echo "== lines without an end"
{ cat short.txt; head -c 2000000 /dev/zero; entry 100003 third; } >zeros.txt
{ cat short.txt; printf 'x\n'; head -c 800000 /dev/zero | tr '\0' A; entry 100003 third; } >letters.txt
for file in zeros.txt letters.txt; do
    expect 0 timeout 60 "$vexlog" $file
    [ "$(grep -c ' INFO P1 ' out)" -eq 3 ] || fail "$file: $(cut -c 1-200 out)"
    timeout 60 "$vexlog" - < <(cat $file) | cmp - <("$vexlog" $file) || fail "$file through a pipe"
done

echo "== names that would move the cursor"
expect 1 "$vexlog" $'\e[2J\u202e'
grep -qF '\x1b[2J\u{202e}: No such file' err || fail "message: $(cat -v err)"
expect 2 "$vexlog" --pid $'\e[2J\u202e' $log
grep -qF '\x1b[2J\u{202e}' err || fail "message: $(cat -v err)"
! LC_ALL=C grep -qP '[\x1b]' err || fail "raw: $(cat -v err)"

echo "== a reader that has seen enough"
for _ in $(seq 40); do cat $log; done >large.txt
set +o pipefail
"$vexlog" large.txt 2>err | head -n 1 >out
[ "${PIPESTATUS[0]}" -eq 0 ] || fail "exit status ${PIPESTATUS[0]} of a broken pipe"
set -o pipefail
[ ! -s err ] || fail "message about a broken pipe: $(cat err)"

echo "== an output that does not block"
# The reader begins when the pipe is full.
cat >slow.py <<'PYTHON'
import fcntl, os, struct, subprocess, sys, termios, time

source, sink = os.pipe()
os.set_blocking(sink, False)
size = fcntl.fcntl(sink, fcntl.F_GETPIPE_SZ)
program = subprocess.Popen(sys.argv[1:], stdout=sink)
os.close(sink)
while program.poll() is None:
    if struct.unpack("i", fcntl.ioctl(source, termios.FIONREAD, b"\0" * 4))[0] == size:
        break
    time.sleep(0.01)
with os.fdopen(source, "rb") as pipe:
    sys.stdout.buffer.write(pipe.read())
sys.exit(program.wait())
PYTHON
expect 0 python3 slow.py "$vexlog" large.txt
"$vexlog" large.txt | cmp - out || fail "through a pipe that does not block"

if [ "$bounded" = bounded ]; then
    echo "== hundreds of megabytes in 64 of address space"
    for command in "" stats; do
        # shellcheck disable=SC2086
        for _ in $(seq $((200 / ${VEX_TEST_DIVISOR:-1}))); do cat large.txt; done |
            (ulimit -v 65536 && "$vexlog" $command - >/dev/null) || fail "not enough memory for '$command'"
    done
    status=0
    (ulimit -v 65536 && exec "$vexlog" -n 1000000000 - >/dev/null 2>err) \
        < <(for _ in $(seq 200); do cat large.txt; done) || status=$?
    [ "$status" -eq 1 ] || fail "exit status $status when memory runs out"
    says 'vexlog: out of memory'
fi

echo "all passed"
