#!/bin/bash
# vexsign with many files, one directory for their signatures and one login: VexsignFiles.sh <vexsign>

vexsign=$1
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

self_signed rsa rsa:2048
self_signed ec ec ec_paramgen_curve:P-256
self_signed ed ed25519

# verified SIGNATURE FILE [openssl-option...]: openssl accepts the P7, in DER.
verified() {
    local signature=$1 file=$2
    shift 2
    openssl cms -verify -binary -inform DER -in "$signature" -noverify "$@" -out recovered 2>cms.err ||
        fail "$signature is not verified: $(cat cms.err)"
    cmp recovered "$file"
}
# in_signed NAME...: the directory "signed" holds these files and no others.
in_signed() {
    printf '%s\n' "$@" | sort >expected
    find signed -mindepth 1 -printf '%P\n' | sort | diff expected - || fail "other files in it"
    rm -rf signed
    mkdir signed
}

echo "== each file has its signature"
mkdir -p in/sub signed
names=(letter.txt 'two words' '[a,b]' '{}' list p7 -dash $'line\nend' 'it'\''s')
for name in "${names[@]}"; do
    printf 'content of %s' "$name" >"in/$name"
done
(
    cd in || exit
    expect 0 "$vexsign" p7 ../ec.pem --out der --output-dir ../signed -- "${names[@]}"
)
rm in/out in/err
for name in "${names[@]}"; do
    verified "signed/$name.p7s" "in/$name" -content "in/$name"
done
in_signed "${names[@]/%/.p7s}"
# CLI11 ends a command at "++".
printf 'content of !z' >'in/!z'
printf 'content of ++' >in/++
(
    cd in || exit
    expect 0 "$vexsign" p7 ../ec.pem --out der --output-dir ../signed '!z' ++
    expect 1 "$vexsign" p7 ../ec.pem -o ++ ++
    says 'would be the input; choose another output'
)
rm in/out in/err
for name in '!z' ++; do
    verified "signed/$name.p7s" "in/$name" -content "in/$name"
done
in_signed '!z.p7s' ++.p7s
rm 'in/!z' in/++
mv in/list in/sub/other
expect 0 "$vexsign" p7 ./rsa.pem in/letter.txt --attached --output-dir signed/ in/sub/other --digest SHA-384 \
    --cert-out signer.pem
for name in letter.txt sub/other; do
    openssl base64 -d -A -in "signed/${name#sub/}.p7s" -out der
    verified der "in/$name"
done
cmp signer.pem rsa.crt || fail "another certificate"
in_signed letter.txt.p7s other.p7s
for store in rsa ec; do
    expect 0 "$vexsign" p1 ./$store.pem --out der --output-dir signed in/letter.txt in/sub/other
    for name in letter.txt sub/other; do
        openssl dgst -sha256 -verify $store.pub -signature "signed/${name#sub/}.p1" "in/$name" >/dev/null ||
            fail "P1, $name"
    done
    in_signed letter.txt.p1 other.p1
done
expect 0 "$vexsign" p1 ./ed.pem --out der --output-dir signed in/letter.txt in/sub/other
for name in letter.txt sub/other; do
    openssl pkeyutl -verify -rawin -pubin -inkey ed.pub -in "in/$name" -sigfile "signed/${name#sub/}.p1" >/dev/null ||
        fail "Ed25519, $name"
done
in_signed letter.txt.p1 other.p1
expect 0 "$vexsign" p7 ./ec.pem --output-dir signed in/letter.txt
in_signed letter.txt.p7s

echo "== one login"
# The store vanishes when the first file has been signed.
cp ec.pem gone.pem
mkfifo fifo
{
    exec 3>fifo
    rm gone.pem
    printf x >&3
} &
expect 0 timeout 60 "$vexsign" p7 ./gone.pem --out der --output-dir signed in/letter.txt fifo in/sub/other
wait
[ ! -e gone.pem ] || fail "the store is still there"
verified signed/other.p7s in/sub/other -content in/sub/other
in_signed letter.txt.p7s fifo.p7s other.p7s

echo "== it goes on after a failure and says which file failed"
: >in/empty
mkdir signed/blocked.p7s
printf x >in/blocked
ln -s /dev/full signed/full.p7s
printf x >in/full
expect 1 "$vexsign" p7 ./ec.pem --out der --output-dir signed in/letter.txt in/missing in/empty in/sub in/blocked \
    in/full in/sub/other
says 'vexsign: in/missing: No such file or directory'
says 'vexsign: in/empty: error 1303: '
says 'vexsign: in/sub: Is a directory'
says 'vexsign: in/blocked: signed/blocked.p7s: Is a directory'
says 'vexsign: in/full: signed/full.p7s: No space left'
says 'vexsign: 5 of 7 files were not signed'
[ "$(wc -l <err)" -eq 6 ] || fail "messages: $(cat err)"
[ ! -s out ] || fail "standard output is used"
verified signed/letter.txt.p7s in/letter.txt -content in/letter.txt
verified signed/other.p7s in/sub/other -content in/sub/other
in_signed blocked.p7s full.p7s letter.txt.p7s other.p7s
# What would fail for every file is said once.
expect 1 "$vexsign" p7 ./ec.pem --output-dir signed --digest MD5 in/letter.txt in/sub/other
[ "$(wc -l <err)" -eq 1 ] || fail "messages: $(cat err)"
says 'error 1202: '
expect 1 "$vexsign" p7 ./ec.pem --output-dir signed --filter subject=nobody in/letter.txt in/sub/other
[ "$(wc -l <err)" -eq 1 ] || fail "messages: $(cat err)"
says 'error 1301: '
expect 1 "$vexsign" p7 ./ec.pem --output-dir signed --cert-out missing/signer.pem in/letter.txt
says 'missing/signer.pem: No such file'
in_signed letter.txt.p7s

echo "== what is refused before anything is signed"
cp in/letter.txt in/sub/letter.txt
cp in/letter.txt in/copy
ln in/copy signed/letter.txt.p7s
refused=0
while IFS='|' read -r status arguments message; do
    eval "set -- $arguments"
    expect "$status" "$vexsign" "$@"
    says "$message"
    cmp in/letter.txt in/copy || fail "an input has changed: $arguments"
    [ "$(ls signed)" = letter.txt.p7s ] || fail "signed: $arguments: $(ls signed)"
    refused=$((refused + 1))
done <<'END'
2|p7 ./ec.pem in/letter.txt in/sub/letter.txt --output-dir signed|"in/letter.txt" and "in/sub/letter.txt" would both be signed/letter.txt.p7s
2|p7 ./ec.pem in/sub/other in/copy in/copy --output-dir signed|"in/copy" and "in/copy" would both be
2|p7 ./ec.pem in/sub/other in/copy|"in/copy" is one file too many; give --output-dir
2|p7 ./ec.pem --output-dir signed|standard input has none
2|p7 ./ec.pem --output-dir signed in/sub/other -|standard input has none
2|p7 ./ec.pem --output-dir signed in/sub/other /dev/stdin|standard input has none
2|p7 ./ec.pem --output-dir signed in/sub/other -o x|excludes
2|p7 ./ec.pem --output-dir signed in/sub/other --verify-hint|excludes
2|p7 ./ec.pem --output-dir '' in/sub/other|the name is empty
2|p7 ./ec.pem --output-dir signed in/sub/other ''|the name is empty
2|list ./ec.pem --output-dir signed|
1|p7 ./ec.pem --output-dir missing in/sub/other|missing: No such file or directory; --output-dir needs an existing directory
1|p7 ./ec.pem --output-dir ec.pem in/sub/other|ec.pem: Not a directory; --output-dir needs an existing directory
1|p7 ./ec.pem --output-dir signed in/sub/other in/letter.txt in/copy|signed/letter.txt.p7s: the signature's file would be the input
1|p7 ./ec.pem --output-dir signed in/sub/other --cert-out signed/other.p7s|the certificate's file would be the signature's file
END
[ $refused -eq 15 ] || fail "$refused refusals"
in_signed letter.txt.p7s
rm in/copy in/sub/letter.txt
cp ec.pem signed/store.p7s
printf x >in/store
expect 1 "$vexsign" p7 ./signed/store.p7s --output-dir signed in/sub/other in/store
says 'would be the store'
cmp ec.pem signed/store.p7s || fail "the store has changed"
in_signed store.p7s

echo "== existing outputs"
printf old >old
ln old hard
chmod 640 old
ln -s ../old signed/letter.txt.p7s
printf old >signed/other.p7s
expect 0 "$vexsign" p7 ./ec.pem --out der --output-dir signed in/letter.txt in/sub/other
[ -L signed/letter.txt.p7s ] || fail "a link was replaced"
[ "$(stat -c %a old)" = 640 ] || fail "the mode of a replaced file: $(stat -c %a old)"
[ "$(cat hard)" = old ] || fail "a hard link was written to"
verified old in/letter.txt -content in/letter.txt
verified signed/other.p7s in/sub/other -content in/sub/other
in_signed letter.txt.p7s other.p7s

echo "== more files than descriptors"
mkdir many
for number in $(seq 300); do
    printf 'file %s' "$number" >"many/$number"
done
(
    ulimit -n 40
    expect 0 "$vexsign" p7 ./ec.pem --out der --output-dir signed many/*
)
[ "$(find signed -name '*.p7s' | wc -l)" -eq 300 ] || fail "$(find signed | wc -l) signatures"
for number in 1 127 128 129 256 300; do
    verified "signed/$number.p7s" "many/$number" -content "many/$number"
done
rm -rf signed
mkdir signed

echo "== signatures that are larger than those that wait to be written"
for size in 1 7 12 20 9; do
    truncate -s ${size}M "many/large$size"
done
expect 0 timeout 120 "$vexsign" p7 ./ec.pem --attached --out der --output-dir signed many/large{1,7,12,20,9} many/1
for size in 1 7 12 20 9; do
    verified "signed/large$size.p7s" "many/large$size"
done
rm -rf signed many/large*
mkdir signed

echo "== messages get into no signature if standard error is closed"
"$vexsign" p7 ./ec.pem --output-dir signed many/* missing 2>&- && fail "a file is missing"
[ "$(find signed -name '*.p7s' | wc -l)" -eq 300 ] || fail "$(find signed | wc -l) signatures"
! grep -l missing signed/* || fail "messages in them"
"$vexsign" p7 ./ec.pem -o signed/letter many/1 >&- 2>&- <&- || fail "only standard descriptors are closed"
"$vexsign" p7 ./ec.pem many/1 >&- 2>err && fail "the signature went nowhere"
says 'standard output: Bad file descriptor'
rm -rf signed
mkdir signed

echo "== a signal leaves whole files only"
"$vexsign" p7 ./ec.pem --out der --output-dir signed many/* fifo >out.signal 2>err.signal &
pid=$!
exec 3>fifo
# The files before the pipe have been signed, and are still being written.
until [ "$(find signed -name '*.p7s' | wc -l)" -ge 100 ]; do
    kill -0 $pid || fail "it ended: $(cat err.signal)"
    sleep 0.05
done
kill -TERM $pid
status=0
wait $pid || status=$?
exec 3>&-
[ "$status" -eq 143 ] || fail "exit status $status: $(cat err.signal)"
[ -z "$(find signed -name '.vex-*')" ] || fail "left behind: $(find signed -name '.vex-*')"
count=0
for signature in signed/*; do
    verified "$signature" "many/$(basename "$signature" .p7s)" -content "many/$(basename "$signature" .p7s)"
    count=$((count + 1))
done
[ $count -ge 100 ] || fail "only $count signatures are whole"

echo "all passed"
