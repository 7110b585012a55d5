#!/bin/bash
# vexsign says what is wrong and what to do, and takes a PIN from anywhere: VexsignMessages.sh <vexsign>

vexsign=$1
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

pin='a b%&?#1'
printf '%s\n' "$pin" >pin
chmod 600 pin
self_signed ec ec ec_paramgen_curve:P-256
openssl pkcs12 -export -in ec.crt -inkey ec.key -out keys.p12 -passout "pass:$pin"
head -c 500 keys.p12 >cut.p12
printf 'a letter' >letter.txt

# A certificate that has expired.
mkdir ca
: >ca/index
cat >ca.cnf <<'END'
[ca]
default_ca=test
[test]
database=ca/index
new_certs_dir=ca
rand_serial=yes
default_md=sha256
policy=policy
[policy]
commonName=supplied
END
openssl req -new -key ec.key -subj /CN=former -out former.csr
openssl ca -batch -config ca.cnf -selfsign -keyfile ec.key -in former.csr -startdate 20200101000000Z \
    -enddate 20200201000000Z -notext -out former.crt 2>/dev/null
cat ec.key former.crt >former.pem

echo "== what is wrong, and the cure"
asked=0
while IFS='|' read -r status arguments message; do
    eval "set -- $arguments"
    expect "$status" "$vexsign" "$@"
    [ "$(head -c 9 err)" = 'vexsign: ' ] || fail "the program's name is not in front: $(cat err)"
    says "$message"
    asked=$((asked + 1))
done <<'END'
2||vexsign: no command is given; one of: list, p1, p7, stamp, verify
2|--colour|vexsign: no command is given; one of: list, p1, p7, stamp, verify
2|sign demo:|vexsign: unknown command "sign"; one of: list, p1, p7, stamp, verify
2|$'si\e[2Jgn'|unknown command "si\x1b[2Jgn"; one of: list, p1, p7, stamp, verify
2|p7|STORE is required
2|p7 '' letter.txt|STORE: the text is empty; give a store, such as demo: or ./keys.p12
2|list ''|STORE: the text is empty
2|p7 ./ec.pem letter.txt --digest ''|--digest: the name is empty; give one, such as SHA384, or omit the option
2|p7 ./ec.pem letter.txt --filter ''|has no "="
2|p7 ./ec.pem letter.txt --filter issue=x|unknown filter "issue"; use a number or one of: issuer, subject, serial, fingerprint, key-usage, key-algorithm, key-usage-all,
2|p7 ./ec.pem letter.txt --out ''|--out
2|p7 ./ec.pem ''|FILE: the name is empty
2|p7 ./ec.pem letter.txt --pin-source ''|--pin-source: the name is empty
2|p7 ./ec.pem --output= letter.txt|--output: the name is empty
2|p7 ./ec.pem --cert-out= letter.txt|--cert-out: the name is empty
2|p7 ./ec.pem --output-dir= letter.txt|--output-dir: the name is empty
2|p7 ./ec.pem --digest= letter.txt|--digest: the name is empty
2|verify --cert= letter.txt letter.txt|--cert: the name is empty
2|p7 ./ec.pem two words.txt|"words.txt" is one file too many; give --output-dir to sign several files, or quote
2|p7 ./ec.pem letter.txt "zwölf Wörter"|"zwölf Wörter" is one file too many
2|list ./ec.pem --frobnicate|--frobnicate
2|p7 ./ec.pem letter.txt --tsa 'http://localhost/a b'|--tsa: "http://localhost/a b" has blanks or other characters
2|p7 ./ec.pem letter.txt --tsa $'http://localhost/\xc3\xbc'|percent-encode them, a blank as %20
2|stamp letter.txt --tsa 'http://localhost/#a'|--tsa: "http://localhost/#a" has blanks or other characters
2|p7 ./ec.pem letter.txt --tsa http://localhost/ --tsa-timeout 0x10|--tsa-timeout: "0x10" is no whole number
1|p7 letter.txt|STORE is "letter.txt": if it is the store's file, write "./letter.txt" or "file:"
1|p7 letter.txt|if it is the file to sign, write the store before it
1|p7 keys.p12 letter.txt|if it is the store's file, write "./keys.p12" or "file:" and its absolute path
1|p1 keys.p12 --pin-source pin letter.txt|write "./keys.p12"
1|list keys.p12|write "./keys.p12"
1|p7 ./former.pem letter.txt|1 expired on 2020-02-01 (CN=former)
1|p7 ./cut.p12 letter.txt|cut.p12: it is a PKCS #12 file that is damaged or not whole
1|p7 ./letter.txt letter.txt|letter.txt: it is neither PKCS #12 nor PEM
1|p7 ./keys.p12 --pin-source missing letter.txt|missing: No such file
1|p7 ./keys.p12 --pin-source ca letter.txt|ca: Is a directory
1|p7 ./keys.p12 --pin-source /dev/null letter.txt|/dev/null: it holds no PIN
1|p7 ./keys.p12 --pin-source /dev/zero letter.txt|/dev/zero: a PIN has at most 4096 bytes
1|p7 "file:$work/keys.p12?pin-source=/dev/stdin" letter.txt|/dev/stdin: it is not a regular file
2|p7 ./keys.p12 --pin-source /dev/stdin|standard input cannot hold both the PIN and the data; give FILE
2|p7 ./keys.p12 --pin-source /dev/fd/0 -|standard input cannot hold both
END
[ $asked -eq 40 ] || fail "$asked messages"
[ "$(cat letter.txt)" = 'a letter' ] || fail "letter.txt has become an output"
expect 1 "$vexsign" p7 keys.p12 letter.txt
! grep -q 'write the store before it' err || fail "a file is given: $(cat err)"
expect 0 "$vexsign" list ./former.pem
[ ! -s out ] || fail "an expired certificate is listed: $(cat out)"
says 'no certificate of the store can sign: '
says '1 expired on 2020-02-01 (CN=former)'
says '--all names them'
# Not every OpenSSL makes a P7 with SHA-3 and an EC key.
status=0
"$vexsign" p7 ./ec.pem letter.txt --digest SHA3-256 --out der -o sig 2>err || status=$?
if [ "$status" -eq 0 ]; then
    openssl cms -verify -binary -inform DER -in sig -noverify -content letter.txt -out /dev/null 2>err || fail "$(cat err)"
else
    says 'error 1305: '
    says 'with SHA3-256 and an EC key; set SHA-256, SHA-384 or SHA-512, or make a P1 signature'
fi

echo "== a PIN from a pipe"
# listed COMMAND...: the list of the store with the PIN.
listed() {
    "$@" >out 2>err || fail "$*: $(cat err)"
    [ "$(cut -f 6 out)" = CN=ec ] || fail "list: $(cat out)"
    [ ! -s err ] || fail "message: $(cat err)"
}
listed "$vexsign" list ./keys.p12 --pin-source <(cat pin)
listed "$vexsign" list ./keys.p12 --pin-source <(printf '%s' "$pin")
listed "$vexsign" list ./keys.p12 --pin-source /dev/stdin < <(cat pin)
listed "$vexsign" list ./keys.p12 --pin-source /dev/stdin <pin
listed "$vexsign" list ./keys.p12 --pin-source /dev/fd/7 7< <(cat pin)
listed "$vexsign" list ./keys.p12 --pin-source pin
mkfifo fifo
cat pin >fifo &
listed "$vexsign" list ./keys.p12 --pin-source fifo
wait
status=0
"$vexsign" list ./keys.p12 --pin-source <(echo wrong) >out 2>err || status=$?
[ "$status" -eq 1 ] || fail "a wrong PIN"
says 'error 1108: '
"$vexsign" p1 ./keys.p12 --pin-source <(cat pin) --out der - <letter.txt >sig
openssl x509 -in ec.crt -noout -pubkey -out ec.pub
openssl dgst -sha256 -verify ec.pub -signature sig letter.txt >/dev/null || fail "the PIN and the data from pipes"

echo "== a PIN file that everybody may read"
warning='every user of this machine can read this PIN'
chmod 755 .
for store in "./keys.p12 --pin-source pin" "./keys.p12 --pin-source ./pin" "file:$work/keys.p12?pin-source=$work/pin" \
    "file:$work/keys.p12?pin-source=file:$work/pin"; do
    chmod 600 pin
    # shellcheck disable=SC2086
    listed "$vexsign" list $store
    chmod 604 pin
    # shellcheck disable=SC2086
    expect 0 "$vexsign" list $store
    says "pin: $warning"
    [ "$(cut -f 6 out)" = CN=ec ] || fail "list: $(cat out)"
done
chmod 700 .
listed "$vexsign" list ./keys.p12 --pin-source pin

echo "== terminals and core files"
"$here/VexsignTerminal.py" "$vexsign" ./ec.pem "file:$work/keys.p12?pin-source=file:$work/pin"

echo "all passed"
