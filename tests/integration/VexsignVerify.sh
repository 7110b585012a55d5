#!/bin/bash
# "vexsign verify" as a command: VexsignVerify.sh <vexsign> bounded|unbounded
# "unbounded": the memory is not measured, because the program has a sanitizer.

vexsign=$1
memory=$2
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
export XDG_DATA_HOME=$work/data
mkdir data

issue root root CA:TRUE keyCertSign
issue middle root CA:TRUE keyCertSign
issue ec middle CA:FALSE digitalSignature
issue rsa middle CA:FALSE digitalSignature -algorithm RSA -pkeyopt rsa_keygen_bits:2048
issue ed middle CA:FALSE digitalSignature -algorithm ED25519
issue stranger stranger CA:TRUE keyCertSign
issue mallory stranger CA:FALSE digitalSignature
cat middle.crt >>ec.pem
cat middle.crt >>rsa.pem
printf 'I owe you 100 euros.\n' >letter.txt
printf 'I owe you 900 euros.\n' >changed.txt

echo "== what vexsign signs is good, in each form; other content is not"
verified=0
for key in ec rsa; do
    for form in base64 der; do
        for digest in SHA256 SHA-384 SHA-512/256 SHA3-256; do
            expect 0 "$vexsign" p1 ./$key.pem --digest $digest --out $form -o sig letter.txt
            expect 0 "$vexsign" verify sig letter.txt --cert $key.crt --no-chain
            grep -q "with ${digest/SHA256/SHA-256}\$" out || fail "digest: $(cat out)"
            expect 1 "$vexsign" verify sig changed.txt --cert $key.crt --no-chain
            verified=$((verified + 1))
        done
        for options in "" --attached; do
            # shellcheck disable=SC2086
            expect 0 "$vexsign" p7 ./$key.pem --chain $options --out $form -o sig letter.txt
            expect 0 "$vexsign" verify sig letter.txt --ca root.crt
            grep -qx "  signed by:      CN=$key" out || fail "signer: $(cat out)"
            grep -q 'as the signer says; nothing proves it$' out || fail "time: $(cat out)"
            expect 1 "$vexsign" verify sig changed.txt --ca root.crt
            expect 1 "$vexsign" verify sig letter.txt --ca stranger.crt
            expect 1 "$vexsign" verify sig letter.txt
            grep -q '^    chain: ' out || fail "the system's trust: $(cat out)"
            verified=$((verified + 1))
        done
    done
done
[ $verified -eq 24 ] || fail "$verified signatures"
expect 0 "$vexsign" p7 ./ec.pem --chain --attached -o attached letter.txt
expect 0 "$vexsign" verify attached --ca root.crt
expect 0 "$vexsign" p1 ./rsa.pem --digest SHA256/PSS -o sig letter.txt
expect 0 "$vexsign" verify sig letter.txt --cert rsa.crt --no-chain --digest SHA-256/PSS
expect 1 "$vexsign" verify sig letter.txt --cert rsa.crt --no-chain --digest SHA-256
expect 0 "$vexsign" p1 ./ed.pem -o sig letter.txt
expect 0 "$vexsign" verify sig letter.txt --cert ed.crt --no-chain
expect 1 "$vexsign" verify sig changed.txt --cert ed.crt --no-chain

echo "== trust"
expect 0 "$vexsign" p7 ./ec.pem --out der -o sig letter.txt
expect 1 "$vexsign" verify sig letter.txt --ca root.crt
cat ec.crt middle.crt >given.pem
expect 0 "$vexsign" verify sig letter.txt --ca root.crt --cert given.pem
expect 0 "$vexsign" verify sig letter.txt --ca stranger.crt --ca middle.crt
cat stranger.crt root.crt middle.crt >bundle.pem
expect 0 "$vexsign" verify sig letter.txt --ca bundle.pem
expect 1 "$vexsign" verify sig letter.txt --ca bundle.pem --cert rsa.crt
SSL_CERT_FILE=$work/bundle.pem expect 0 "$vexsign" verify sig letter.txt
grep -q 'this system trusts: ' out || fail "trust: $(cat out)"
expect 0 "$vexsign" verify sig letter.txt --no-chain
grep -q 'NOT\|was not checked$' out || fail "--no-chain does not say so: $(cat out)"
grep -q 'chain: who issued the certificate (--no-chain)' out || fail "--no-chain does not say so: $(cat out)"
expect 1 "$vexsign" verify sig letter.txt --no-chain --at 2020-01-01T00:00:00Z

echo "== standard streams"
status=0
"$vexsign" verify - letter.txt --no-chain <sig >out 2>err || status=$?
[ $status -eq 0 ] || fail "the signature from standard input: $(cat out err)"
"$vexsign" verify sig - --no-chain <letter.txt >out 2>err || fail "the content from standard input: $(cat out err)"
"$vexsign" verify sig - --no-chain <changed.txt >out 2>err && fail "changed content from standard input"
"$vexsign" verify sig letter.txt --no-chain >/dev/full 2>err && fail "good although nobody could be told"

echo "== other forms of the files"
sign_cms() {
    openssl cms -sign -binary -signer ec.crt -inkey ec.key -certfile middle.crt -in letter.txt "$@"
}
sign_cms -outform PEM -out sig.pem
for file in sig.pem root.crt; do
    sed 's/$/\r/' $file >crlf.$file
    { printf '\xef\xbb\xbf'; cat $file; } >mark.$file
done
{ printf '\xef\xbb\xbf'; openssl base64 -in sig; } >mark.base64
for name in crlf.sig.pem mark.sig.pem mark.base64; do
    for root in root.crt crlf.root.crt mark.root.crt; do
        expect 0 "$vexsign" verify $name letter.txt --ca $root --cert given.pem
    done
    expect 1 "$vexsign" verify $name changed.txt --ca root.crt --cert given.pem
done
sign_cms -stream -nodetach -outform DER -out streamed
expect 0 "$vexsign" verify streamed --ca root.crt
expect 0 "$vexsign" verify streamed letter.txt --ca root.crt
expect 1 "$vexsign" verify streamed changed.txt --ca root.crt
mkfifo fifo
cat sig.pem >fifo &
expect 0 "$vexsign" verify fifo letter.txt --ca root.crt
# Without -binary, openssl signs the lines with CRLF.
openssl cms -sign -signer ec.crt -inkey ec.key -certfile middle.crt -in letter.txt -outform DER -out lines.sig
sed 's/$/\r/' letter.txt >lines.txt
expect 0 "$vexsign" verify lines.sig lines.txt --ca root.crt
expect 1 "$vexsign" verify lines.sig letter.txt --ca root.crt
# What is said about these forms is true.
for option in -nodetach ''; do
    # shellcheck disable=SC2086
    sign_cms $option -out message
    expect 1 "$vexsign" verify message letter.txt --ca root.crt
    grep -q 'it is an S/MIME message; give what "openssl cms -cmsout -outform DER" makes' out || fail "S/MIME: $(cat out)"
    openssl cms -cmsout -outform DER -in message -out message.der
    expect 0 "$vexsign" verify message.der letter.txt --ca root.crt
done
openssl x509 -in root.crt -trustout -out trusted.pem
expect 1 "$vexsign" verify sig.pem letter.txt --ca trusted.pem
says 'trusted.pem: it is a certificate with trust settings of OpenSSL; give the file that "openssl x509" makes of it'
openssl x509 -in trusted.pem -out plain.pem
expect 0 "$vexsign" verify sig.pem letter.txt --ca plain.pem
for form in PEM DER; do
    openssl crl2pkcs7 -nocrl -certfile root.crt -outform $form -out bundle.p7b
    expect 1 "$vexsign" verify sig.pem letter.txt --ca bundle.p7b
    says 'bundle.p7b: it is a bundle of certificates (PKCS #7); give the file that "openssl pkcs7 -print_certs" makes'
    openssl pkcs7 -print_certs -in bundle.p7b -inform $form -out printed.pem
    expect 0 "$vexsign" verify sig.pem letter.txt --ca printed.pem
done

# The content of a signature may be PEM. It is not the signature.
{ echo; openssl cms -cmsout -inform DER -in streamed -outform PEM; } >quoted
openssl cms -sign -binary -nodetach -signer mallory.crt -inkey mallory.key -in quoted -outform DER -out quoting
expect 1 "$vexsign" verify quoting --ca root.crt
expect 1 "$vexsign" verify quoting letter.txt --no-chain
expect 0 "$vexsign" verify quoting --ca stranger.crt
grep -qx '  signed by:      CN=mallory' out || fail "who signed the quotation: $(cat out)"
openssl x509 -in root.crt -text -out described
sign_cms -nodetach -in described -outform DER -out describing
expect 0 "$vexsign" verify describing described --ca root.crt

echo "== certificates for something else"
issue cipher middle CA:FALSE keyEncipherment
issue server middle CA:FALSE 'digitalSignature
extendedKeyUsage=serverAuth'
for name in cipher server; do
    openssl cms -sign -binary -signer $name.crt -inkey $name.key -certfile middle.crt -in letter.txt -outform DER -out $name.sig
done
expect 1 "$vexsign" verify server.sig letter.txt --ca root.crt
grep -q 'chain: the extended key usage .* (CN=server); --any-purpose accepts it' out || fail "server: $(cat out)"
expect 0 "$vexsign" verify server.sig letter.txt --ca root.crt --any-purpose
expect 1 "$vexsign" verify cipher.sig letter.txt --ca root.crt
grep -q 'chain: the key usage of a certificate of the chain .*(CN=cipher)' out || fail "cipher: $(cat out)"
! grep -q 'any-purpose' out || fail "advice that does not help: $(cat out)"
expect 1 "$vexsign" verify cipher.sig letter.txt --ca root.crt --any-purpose

echo "== JSON"
expect 0 "$vexsign" verify sig letter.txt --no-chain --json
python3 - out "$(openssl x509 -in ec.crt -noout -fingerprint -sha256 | sed 's/.*=//;s/://g')" \
    "$(openssl x509 -in ec.crt -noout -serial | sed 's/.*=//')" <<'END'
import json, sys
report = json.load(open(sys.argv[1], encoding="utf-8"))
assert report["good"] is True and report["trust"] == "none" and report["type"] == "p7"
certificate = report["signers"][0]["certificate"]
assert certificate["fingerprint_sha256"] == sys.argv[2], certificate
assert certificate["serial"] == sys.argv[3], certificate
assert certificate["subject"] == "CN=ec" and certificate["issuer"] == "CN=middle", certificate
assert report["signers"][0]["signing_time"]["proven"] is False
END
expect 1 "$vexsign" verify letter.txt changed.txt --no-chain --json
python3 -c 'import json; assert json.load(open("out"))["good"] is False'

echo "== errors"
expect 1 "$vexsign" verify missing letter.txt
says 'missing: No such file'
expect 1 "$vexsign" verify sig missing --no-chain
says 'missing: No such file'
expect 1 "$vexsign" verify sig letter.txt --ca letter.txt
says 'letter.txt: it is no certificate'
expect 1 "$vexsign" verify sig letter.txt --ca ec.key
says 'ec.key: there is PEM in it, but no certificate'
# These are names of files, and no empty lists.
for name in '{}' '[]'; do
    expect 1 "$vexsign" verify sig letter.txt --no-chain --cert "$name"
    says "$name: No such file"
    expect 1 "$vexsign" verify sig letter.txt --ca "$name"
    says "$name: No such file"
done
truncate -s 20M huge
expect 1 "$vexsign" verify huge letter.txt --no-chain
says 'huge: larger than'
while IFS='|' read -r arguments message; do
    eval "set -- $arguments"
    expect 2 "$vexsign" verify "$@"
    says "$message"
    [ ! -s out ] || fail "output: $arguments"
done <<'END'
|SIGNATURE
''|the name is empty
sig ''|the name is empty
- -|standard input can be read only once
- /dev/stdin|standard input can be read only once
sig - --ca /dev/fd/0|standard input can be read only once
sig /dev/stdin --cert -|standard input can be read only once
sig letter.txt --no-chain --ca root.crt|--no-chain
sig letter.txt --ca ''|the name is empty
sig letter.txt --cert ''|the name is empty
sig letter.txt --digest ''|the value is empty
sig letter.txt --digest SHA-257|unknown digest "SHA-257"
sig letter.txt --digest prehashed:SHA-256|unknown digest
sig letter.txt --at yesterday|"yesterday" is no moment
sig letter.txt extra|extra
END

if [ "$memory" = unbounded ]; then
    echo "all passed, without memory"
    exit
fi
echo "== memory"
truncate -s 512M large
expect 0 "$vexsign" p7 ./rsa.pem --out der -o sig large
peak() {
    command time --format=%M --output=peak "$vexsign" verify sig large "$@" >out 2>err || fail "$(cat out err)"
    [ "$(cat peak)" -le 65536 ] || fail "$(cat peak) KiB for a file of 512 MiB"
}
peak --no-chain
expect 0 "$vexsign" p1 ./rsa.pem --out der -o sig large
peak --no-chain --cert rsa.crt

echo "all passed"
