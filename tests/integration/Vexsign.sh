#!/bin/bash
# vexsign as a command: Vexsign.sh <vexsign> <directory of the recording toolkit>
# openssl verifies every signature, with the command that vexsign itself prints.

vexsign=$1
recording=$2
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
export XDG_DATA_HOME=$work/data
mkdir data

# ---- Stores: two keys with a PIN, one of them RSA ----

pin='a b%&?#1'
printf '%s\n' "$pin" >pin
make_key() {
    openssl req -x509 -newkey "$2" ${3:+-pkeyopt "$3"} -nodes -keyout "$1.key" -out "$1.pem" -days 30 -subj "/CN=$1" \
        2>/dev/null
}
make_key rsa rsa:2048
make_key ec ec ec_paramgen_curve:P-256
for name in rsa ec; do
    openssl pkcs12 -export -in $name.pem -inkey $name.key -out $name.p12 -passout "pass:$pin"
done
mkdir 'a folder 50% #1'
cp rsa.p12 'a folder 50% #1/'
cat rsa.pem rsa.key ec.pem ec.key >both.pem

printf 'two lines\r\nand \0 bytes \xff\xfe' >'it'\''s data.bin'
printf 'Grüße, 你好 🦊\nsecond line\n' >text.txt
cp text.txt -- -dash

echo "== help, version, usage"
for command in "" list p1 p7 verify; do
    # shellcheck disable=SC2086
    expect 0 "$vexsign" $command --help
    grep -q '^Examples:$' out || fail "no examples in the help of '$command'"
    [ ! -s err ] || fail "the help of '$command' is on standard error"
done
expect 0 "$vexsign" --version
grep -Eq '^vexsign [0-9.]+$' out || fail "version: $(cat out)"
while read -r arguments; do
    # shellcheck disable=SC2086
    expect 2 "$vexsign" $arguments
    if [ ! -s err ] || [ -s out ]; then
        fail "the message about wrong usage: $arguments"
    fi
done <<'END'

list
sign demo:
p7 demo: text.txt extra
p7 demo: text.txt --out pem
p1 demo: text.txt --attached
p7 demo: text.txt --filter RSA
p7 demo: text.txt --filter colour=red
p7 demo: text.txt --pin-source pin --ask-pin
p7 file:/x?pin-value=1 text.txt --ask-pin
p7 demo: text.txt --verify-hint
p7 demo: --output x --verify-hint
p1 demo: text.txt --output x --verify-hint
p7 demo: text.txt --output x --no-cert --verify-hint
list demo: --digest SHA256
p7 demo: text.txt --all
END

echo "== failures have the toolkit's number and text"
expect 1 "$vexsign" list ./missing.p12
says 'vexsign: error 1103: The store file does not exist'
expect 1 "$vexsign" list ./rsa.p12
says 'error 1107: '
echo wrong >wrong-pin
expect 1 "$vexsign" list ./rsa.p12 --pin-source wrong-pin
says 'error 1108: The PIN is wrong'
expect 1 "$vexsign" p1 demo: text.txt --digest MD5
says 'error 1202: '
expect 1 "$vexsign" p1 demo: text.txt --filter fingerprint=12
says 'error 1204: '
expect 1 "$vexsign" p1 demo: text.txt --filter 99=x
says 'error 1203: '
expect 1 "$vexsign" p1 demo: text.txt --single
says 'error 1302: '
expect 1 "$vexsign" p7 demo: text.txt --filter subject=nobody
says 'error 1301: '
expect 1 "$vexsign" p7 demo:
says 'error 1303: '
expect 1 "$vexsign" p7 demo: missing.txt
says 'missing.txt: No such file'
expect 1 "$vexsign" p7 demo: text.txt --output missing/x
says 'missing/x: No such file'
expect 1 "$vexsign" p7 demo: "it's data.bin" --text
says 'zero bytes'
status=0
"$vexsign" p7 demo: text.txt >/dev/full 2>err || status=$?
[ "$status" -eq 1 ] || fail "exit status $status for a full disk"
expect 1 setsid --wait "$vexsign" list ./rsa.p12 --ask-pin
says 'no terminal'
expect 0 "$vexsign" list "file:$work/rsa.p12?pin-value=a%20b%25%26%3F%231"
says 'can see a PIN on the command line'

echo "== an old file, with and without the module that OpenSSL needs for it"
openssl pkcs12 -export -legacy -macalg sha1 -in rsa.pem -inkey rsa.key -out old.p12 -passout "pass:$pin"
mkdir no-modules
expect 0 "$vexsign" list ./old.p12 --pin-source pin
[ "$(cut -f 6 out)" = CN=rsa ] || fail "list: $(cat out)"
OPENSSL_MODULES=$work/no-modules expect 1 "$vexsign" list ./old.p12 --pin-source pin
says 'error 1105: '
says 'install the package openssl-provider-legacy'

echo "== the list"
expect 0 "$vexsign" list ./both.pem
[ "$(cut -f 5 out | sort | tr '\n' ' ')" = 'EC RSA ' ] || fail "list: $(cat out)"
for filter in key-algorithm=ec subject=cn=EC issuer=Cn=ec "serial=$(grep -P '\tEC\t' out | cut -f 1)" \
    "fingerprint=$(grep -P '\tEC\t' out | cut -f 2)"; do
    cp out all
    expect 0 "$vexsign" list ./both.pem --filter "$filter"
    grep -qP '\tEC\tCN=ec\tCN=ec$' out || fail "--filter $filter: $(cat out)"
    [ "$(wc -l <out)" -eq 1 ] || fail "--filter $filter: $(cat out)"
    mv all out
done
# These certificates differ in more than their names.
openssl req -x509 -key ec.key -out usage.pem -days 30 -subj "/O=a/CN=usage" -addext keyUsage=digitalSignature \
    -addext extendedKeyUsage=codeSigning -addext certificatePolicies=1.2.3.4
cat ec.key usage.pem rsa.key rsa.pem >usage-and-rsa.pem
for filter in key-usage-all=digitalSignature extended-key-usage=codeSigning policy=1.2.3.4 subject-name=cn=USAGE,o=A \
    issuer-name=cn=USAGE,o=A; do
    expect 0 "$vexsign" list ./usage-and-rsa.pem --filter "$filter"
    grep -qP '\tEC\tCN=usage,O=a\t' out || fail "--filter $filter: $(cat out)"
    [ "$(wc -l <out)" -eq 1 ] || fail "--filter $filter: $(cat out)"
done
expect 0 "$vexsign" list ./usage-and-rsa.pem --filter key-size=2048 --filter "valid-at=$(date -u +%FT%TZ)"
[ "$(cut -f 5 out)" = RSA ] || fail "--filter key-size, valid-at: $(cat out)"
expect 0 "$vexsign" list ./usage-and-rsa.pem --filter valid-at=2000-01-01T00:00:00Z
[ ! -s out ] || fail "--filter valid-at: $(cat out)"

expect 0 "$vexsign" list ./both.pem --filter key-usage=digitalSignature --filter key-algorithm=RSA --filter subject=ec
[ ! -s out ] || fail "two filters that exclude each other: $(cat out)"
says 'no certificate'

openssl req -x509 -key ec.key -out encryption.pem -days 3650 -subj "/CN=encryption" -addext keyUsage=keyAgreement
cat ec.key encryption.pem >unfit.pem
expect 0 "$vexsign" list ./unfit.pem
[ ! -s out ] || fail "listed: $(cat out)"
expect 1 "$vexsign" p7 ./unfit.pem text.txt
says 'passes the filters: 1 passed over: 1 not for signing'
cat rsa.key rsa.pem >>unfit.pem
printf '%s\n' "$pin" >unused
for options in "" "--pin-source unused"; do
    # shellcheck disable=SC2086
    expect 0 "$vexsign" list ./unfit.pem --all $options
    [ "$(cut -f 6,8 out | tr '\t\n' ' ,')" = 'CN=encryption not-for-signing,CN=rsa signs,' ] || fail "--all: $(cat out)"
done
expect 0 "$vexsign" list --all ./unfit.pem --filter subject=encryption
[ "$(cut -f 8 out)" = not-for-signing ] || fail "--all with a filter: $(cat out)"
expect 0 "$vexsign" list --all demo:
[ "$(cut -f 8 out | sort -u)" = signs ] || fail "--all of the demo store: $(cat out)"
expect 1 "$vexsign" list ./rsa.pem
says 'error 1106: '
says '1 passed over: 1 without a private key'
expect 0 "$vexsign" list ./rsa.pem --all
[ "$(cut -f 8 out)" = no-private-key ] || fail "--all without a key: $(cat out)"

echo "== every signature, by the command that is printed"
# Runs the command of the last message, without its standard output.
verify() {
    sed -n 's/^To verify: //p' err >hint
    [ "$(wc -l <hint)" -eq 1 ] || fail "no command: $(cat err)"
    if ! sh -e hint >verified 2>&1; then
        fail "not verified: $(cat hint verified)"
    fi
}
verified=0
for store in ./rsa.p12 ./ec.p12 "./a folder 50% #1/rsa.p12"; do
    for form in base64 der; do
        for file in "it's data.bin" text.txt -dash; do
            for digest in SHA256 sha-384 SHA2-512 SHA-512/256; do
                rm -f 'a signature' signer.pem 'a signature.content'
                expect 0 "$vexsign" p1 "$store" --pin-source pin --digest $digest --out $form \
                    --output 'a signature' --cert-out signer.pem --verify-hint -- "$file"
                verify
                verified=$((verified + 1))
            done
            for options in "" --attached "--cert-out signer.pem" "--no-cert --cert-out signer.pem" \
                "--attached --no-cert --cert-out signer.pem"; do
                rm -f 'a signature' signer.pem 'a signature.content'
                # shellcheck disable=SC2086
                expect 0 "$vexsign" p7 "$store" --pin-source pin $options --out $form --output 'a signature' \
                    --verify-hint -- "$file"
                verify
                verified=$((verified + 1))
                # The command must fail for another content.
                cp -- "$file" kept
                printf x >>"./$file"
                ! sh -e hint >/dev/null 2>&1 || fail "a changed file is verified: $(cat hint)"
                mv kept "./$file"
            done
        done
    done
done
[ $verified -eq 162 ] || fail "$verified signatures"

# The same command with the signature of another key.
expect 0 "$vexsign" p1 ./rsa.p12 --pin-source pin --output sig --cert-out signer.pem --verify-hint text.txt
cp ec.pem signer.pem
sed -n 's/^To verify: //p' err >hint
! sh -e hint >/dev/null 2>&1 || fail "verified with another's key"

echo "== the purpose of the certificate"
# The hint has no -purpose option unless the certificate is restricted to other purposes.
openssl req -x509 -key ec.key -out netscape.pem -days 30 -subj /CN=netscape -addext nsCertType=server
cat ec.key netscape.pem >netscape-and-key.pem
for store in ./both.pem:0 ./usage-and-rsa.pem:1 ./netscape-and-key.pem:1; do
    expect 0 "$vexsign" p7 "${store%:*}" --filter key-algorithm=EC -o sig --cert-out signer.pem --verify-hint text.txt
    verify
    [ "$(grep -c -e '-purpose any' hint)" -eq "${store#*:}" ] || fail "$store: $(cat hint)"
done

echo "== SHA-3, text, standard streams"
expect 0 "$vexsign" p1 ./rsa.p12 --pin-source pin --digest SHA3-256 -o sig --cert-out signer.pem --verify-hint text.txt
verify
expect 0 "$vexsign" p7 ./both.pem --filter key-algorithm=EC --text -o sig --verify-hint text.txt
verify
"$vexsign" p7 ./both.pem --attached <"it's data.bin" | openssl base64 -d -A |
    openssl cms -verify -binary -inform DER -noverify -out recovered 2>/dev/null
cmp recovered "it's data.bin"
"$vexsign" p1 ./rsa.p12 --pin-source pin --out der - <text.txt >sig
openssl x509 -in rsa.pem -noout -pubkey -out rsa.pub
openssl dgst -sha256 -verify rsa.pub -signature sig text.txt >/dev/null || fail "P1 through standard streams"

echo "== the certificates of the issuers"
issue root root CA:TRUE keyCertSign
issue middle root CA:TRUE keyCertSign
issue leaf middle CA:FALSE digitalSignature
cat leaf.key leaf.crt middle.crt root.crt >whole.pem
cat leaf.key leaf.crt >alone.pem
# trusted: openssl and GnuTLS, which know only the root, accept sig.
trusted() {
    openssl cms -verify -binary -inform DER -in sig -CAfile root.crt -content text.txt -out /dev/null 2>/dev/null &&
        certtool --p7-verify --inder --infile sig --load-data text.txt --load-ca-certificate root.crt >/dev/null
}
expect 0 "$vexsign" p7 ./whole.pem --out der -o sig text.txt
! trusted || fail "a chain without --chain"
expect 0 "$vexsign" p7 ./whole.pem --chain --out der -o sig text.txt
trusted || fail "no chain with --chain"
expect 0 "$vexsign" p7 ./alone.pem --chain --out der -o sig text.txt
! trusted || fail "a chain from nowhere"
expect 0 "$vexsign" p7 ./alone.pem --chain --chain-source middle.crt --out der -o sig text.txt
trusted || fail "no chain with --chain-source"
for chain in store root; do
    expect 0 "$vexsign" p7 "file:$work/whole.pem?chain=$chain" --chain --out der -o sig text.txt
    trusted || fail "no chain with --chain and chain=$chain"
done
expect 0 "$vexsign" p7 "file:$work/alone.pem?chain=store" --chain --chain-source middle.crt --out der -o sig text.txt
trusted || fail "no chain with chain=store and --chain-source"
expect 1 "$vexsign" p7 ./alone.pem --chain --chain-source missing.crt text.txt
says 'chain-source: '
says missing.crt
expect 2 "$vexsign" p7 ./alone.pem --chain-source middle.crt text.txt
expect 2 "$vexsign" p7 ./whole.pem --chain --no-cert text.txt
expect 2 "$vexsign" p1 ./whole.pem --chain text.txt

echo "== a directory above a symbolic link is the one that the system finds"
mkdir -p elsewhere/inner
ln -s elsewhere/inner link
cp ec.p12 elsewhere/keys.p12
cp rsa.p12 keys.p12
cp pin elsewhere/pin-behind
echo wrong >pin-behind
expect 0 "$vexsign" p1 ./link/../keys.p12 --pin-source link/../pin-behind --out der -o sig --cert-out signer.pem text.txt
cmp <(openssl x509 -in signer.pem) <(openssl x509 -in ec.pem) || fail "another key signed"
for output in elsewhere/keys.p12 elsewhere/pin-behind; do
    expect 1 "$vexsign" p1 ./link/../keys.p12 --pin-source link/../pin-behind -o $output text.txt
    says 'choose another output'
done

echo "== outputs that would destroy something"
# However an output's name is spelled or linked, no file changes and no file is created.
ln -s ../text.txt 'a folder 50% #1/soft.txt'
ln text.txt hard.txt
ln -s new.sig to-new.sig
ln -s data/vex-client-toolkit/demo.pem demo.pem
state() {
    find . -type f ! -name out ! -name err ! -name state.\* -exec cksum {} + | sort
    find . | sort
}
touch state.before state.after
refused=0
while IFS='|' read -r arguments role; do
    eval "set -- $arguments"
    state >state.before
    expect 1 "$vexsign" "$@"
    says "would be $role; choose another output"
    [ ! -s out ] || fail "output: $arguments"
    state >state.after
    cmp state.before state.after || fail "files changed: $arguments"
    refused=$((refused + 1))
done <<'END'
p7 demo: text.txt -o text.txt|the input
p1 demo: text.txt -o "a folder 50% #1/../hard.txt"|the input
p7 demo: hard.txt -o "a folder 50% #1/soft.txt"|the input
p7 demo: text.txt -o x --cert-out ./text.txt|the input
p7 ./both.pem text.txt -o both.pem|the store, its PIN, its chain or its module
p7 "file://localhost$work/both%2Epem" text.txt -o both.pem|the store, its PIN, its chain or its module
p7 demo: text.txt -o demo.pem|the store, its PIN, its chain or its module
p7 ./rsa.p12 --pin-source pin text.txt -o ./pin|the store, its PIN, its chain or its module
p7 "file:$work/rsa.p12?pin-source=file:$work/pin" text.txt -o pin|the store, its PIN, its chain or its module
p7 "file:$work/rsa.p12?pin-source=$work/pin" text.txt --cert-out pin|the store, its PIN, its chain or its module
p7 "pkcs11:token=x?module-path=$work/pin" text.txt -o pin|the store, its PIN, its chain or its module
p7 ./both.pem --chain --chain-source rsa.pem text.txt -o rsa.pem|the store, its PIN, its chain or its module
p7 "file:$work/both.pem?chain=store&chain-source=$work/rsa.pem" text.txt -o rsa.pem|the store, its PIN, its chain or its module
p7 demo: text.txt -o new.sig --cert-out new.sig|the signature's file
p7 demo: text.txt -o to-new.sig --cert-out ./new.sig|the signature's file
p7 demo: text.txt -o no/new.sig --cert-out ./no//new.sig|the signature's file
p7 demo: text.txt --cert-out -|the signature's file
p7 demo: text.txt --cert-out /dev/stdout|the signature's file
p1 demo: signer.pem.pub -o sig --cert-out signer.pem --verify-hint|the input
p7 demo: new.sig.content -o new.sig --attached --verify-hint|the input
p7 demo: text.txt -o new.sig --attached --verify-hint --cert-out new.sig.content|the certificate's file
END
[ $refused -eq 21 ] || fail "$refused refusals"
# The demo store does not exist yet.
status=0
XDG_DATA_HOME=$work/none "$vexsign" p7 demo: text.txt -o none/vex-client-toolkit/demo.pem 2>err || status=$?
[ "$status" -eq 1 ] || fail "the demo store to be is an output"
says 'would be the store'
[ ! -e none ] || fail "a demo store was made"
cp text.txt appended.txt
status=0
# shellcheck disable=SC2094
"$vexsign" p7 demo: appended.txt >>appended.txt 2>err || status=$?
[ "$status" -eq 1 ] || fail "standard output is the input"
# shellcheck disable=SC2094
"$vexsign" p7 demo: - -o appended.txt <appended.txt 2>err && fail "the output is standard input"
says 'would be the input'
cmp text.txt appended.txt || fail "the input was written to"
# Writing to a device destroys nothing.
expect 0 "$vexsign" p7 demo: text.txt -o /dev/null --cert-out /dev/null
expect 1 "$vexsign" p7 demo: /dev/null -o /dev/null
says 'error 1303: '

echo "== outputs are there whole or not at all"
printf 'old' >old
expect 1 "$vexsign" p7 demo: text.txt -o /dev/full --cert-out old
says '/dev/full: No space left'
[ "$(cat old)" = old ] || fail "the certificate of a failed run"
head -c 100000 /dev/zero >zeros
(
    ulimit -f 8
    expect 1 "$vexsign" p7 demo: zeros --attached -o old --cert-out new.pem
    says 'old: File too large'
)
[ "$(cat old)" = old ] || fail "a part of a signature"
[ ! -e new.pem ] || fail "the certificate without its signature"
# On a full disk vexsign fails and leaves the directory unchanged.
mkdir small
status=0
# shellcheck disable=SC2016
"$here/SmallDisk.sh" "$PWD/small" sh -c '
    "$1" p7 "$2" "$3" -o old --cert-out cert.pem 2>err.none || echo $? >&2
    cat old; ls -A' sh "$vexsign" "file:$work/both.pem" "$work/text.txt" >out 2>err || status=$?
if [ "$status" -eq 77 ]; then
    echo "no full file system: this process must not mount one"
else
    printf 'old\nerr.none\nfiller\nold\n' | cmp - out || fail "on a full disk: $(cat out err)"
    grep -qx 1 err || fail "exit status on a full disk: $(cat err)"
fi
ln -s old soft.sig
chmod 640 old
expect 0 "$vexsign" p7 demo: text.txt -o soft.sig
[ -L soft.sig ] || fail "a link was replaced"
[ "$(stat -c %a old)" = 640 ] || fail "the mode of a replaced file: $(stat -c %a old)"
[ "$(cat old)" != old ] || fail "nothing was written behind the link"
[ -z "$(find . -name '.vex-*')" ] || fail "left behind: $(find . -name '.vex-*')"

echo "== nothing reaches the terminal that moves its cursor or reorders its text"
hostile=$'\u202egpj.\u2066x\u009b2J\u200f'
openssl req -x509 -key ec.key -out hostile.pem -days 30 -utf8 -subj "/CN=$hostile/O=Grüße" 2>/dev/null
cat ec.key >>hostile.pem
expect 0 "$vexsign" list ./hostile.pem
grep -qF '\u{202e}gpj.\u{2066}x\u{9b}2J\u{200f}' out || fail "list: $(cat -v out)"
grep -q 'O=Grüße' out || fail "list: $(cat out)"
[ "$(tr -cd '\t' <out | wc -c)" -eq 6 ] || fail "fields: $(cat out)"
LC_ALL=C expect 0 "$vexsign" list ./hostile.pem
grep -q 'O=Grüße' out || fail "a list for another program: $(cat out)"
name=$'\e]0;x\a\n'$hostile"it's %d"
# shellcheck disable=SC2016
for arguments in 'p7 demo: "$name"' 'p7 demo: text.txt "$name"' 'p7 demo: text.txt -o "no/$name"' \
    'p7 demo: text.txt --filter "$name"'; do
    status=0
    eval "$vexsign $arguments" >out 2>err || status=$?
    [ "$status" -ne 0 ] || fail "no failure: $arguments"
    says '\x1b]0;x\x07'
    says '\u{202e}'
    ! LC_ALL=C grep -qP '[\x00-\x09\x0b-\x1f\x7f]|\xe2\x80\xae|\xc2\x9b' err || fail "raw: $(cat -v err)"
done
cp text.txt "$name"
for command in "p1 ./both.pem" "p7 ./both.pem" "p7 ./both.pem --attached --out der"; do
    # shellcheck disable=SC2086
    expect 0 "$vexsign" $command -o "$name.sig" --cert-out "$name.pem" --verify-hint "$name"
    ! LC_ALL=C grep -qP '[\x00-\x09\x0b-\x1f\x7f]|\xe2\x80\xae|\xc2\x9b' err || fail "raw: $(cat -v err)"
    verify
done
expect 2 "$vexsign" p7 demo: text.txt -o $'x\n' --verify-hint
says 'ends in a line end'
ln -s /dev/stdout linked-stream
for stream in - /dev/stdin /dev/stdout /dev/stderr /dev/fd/0 /proc/self/fd/1 linked-stream; do
    for arguments in "-o $stream text.txt" "-o sig -- $stream"; do
        # shellcheck disable=SC2086
        expect 2 "$vexsign" p7 demo: --verify-hint $arguments
        says 'the command needs file names; give FILE and --output'
    done
    expect 2 "$vexsign" p1 demo: text.txt -o sig --cert-out $stream --verify-hint
    says 'the command needs the certificate in a file; name one in --cert-out'
done
for option in --output --cert-out --pin-source; do
    expect 2 "$vexsign" p7 demo: text.txt $option ''
    says 'the name is empty'
done

echo "== a PIN that is asked for"
"$here/VexsignPrompt.py" "$vexsign" ./rsa.p12 "$pin"

echo "== another toolkit in the place of this one"
LD_LIBRARY_PATH=$recording expect 0 "$vexsign" p1 'whatever it takes' text.txt
[ "$(cat out)" = text ] || fail "the recording toolkit's signature: $(cat out)"
LD_LIBRARY_PATH=$recording expect 0 "$vexsign" p7 x text.txt --out der
[ "$(openssl base64 -A <out)" = text ] || fail "the recording toolkit's signature in DER"
LD_LIBRARY_PATH=$recording expect 0 "$vexsign" list x
[ "$(cat out)" = text ] || fail "the recording toolkit's list: $(cat out)"

echo "all passed"
