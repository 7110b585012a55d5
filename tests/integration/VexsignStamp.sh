#!/bin/bash
# Time stamps: VexsignStamp.sh <vexsign> <directory of the recording toolkit> <TimeStampAuthority.py>
# The judges are "openssl ts -verify" for stamps, and "openssl cms -verify" and GnuTLS for signatures.

vexsign=$1
recording=$2
authority=$3
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
export XDG_DATA_HOME=$work/data
mkdir data

authorities=()
end_authorities() {
    [ "${#authorities[@]}" -eq 0 ] || kill "${authorities[@]}" 2>/dev/null || true
    rm -rf "$work"
}
trap end_authorities EXIT

# serve NAME [OPTION...]: starts an authority in the directory NAME; $url is its address.
serve() {
    local name=$1 answers
    shift
    exec {answers}< <(exec setpriv --pdeathsig KILL python3 "$authority" --directory "$name" "$@" 2>"$name.err")
    authorities+=("$!")
    read -r url <&"$answers" || fail "the authority $name does not start: $(cat "$name.err")"
    exec {answers}<&-
}

issue root root CA:TRUE keyCertSign
issue ec root CA:FALSE digitalSignature
issue rsa root CA:FALSE digitalSignature -algorithm RSA -pkeyopt rsa_keygen_bits:2048
# Only "openssl ca" sets the dates.
mkdir ca
: >ca/index
printf '[ca]\ndefault_ca=it\n[it]\ndatabase=ca/index\nnew_certs_dir=ca\nrand_serial=yes\ndefault_md=sha256\n' >ca.cnf
printf 'policy=any\n[any]\ncommonName=supplied\n' >>ca.cnf
openssl req -new -key ec.key -subj /CN=former -out former.csr
openssl ca -batch -config ca.cnf -cert root.crt -keyfile root.key -in former.csr -startdate 20200101000000Z \
    -enddate 20200201000000Z -notext -out former.crt 2>/dev/null
printf 'I owe you 100 euros.\n' >letter.txt
printf 'I owe you 900 euros.\n' >changed.txt

# Takes a signature in DER apart, or gives it the time stamp of another one.
cat >cms.py <<'END'
import pathlib, sys
sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(sys.argv[1]).parent))
from TimeStampAuthority import SEQUENCE, der, elements, only_element

ATTRIBUTE = bytes.fromhex("2a864886f70d010910020e")

def read(name):
    outer = elements(only_element(pathlib.Path(name).read_bytes(), SEQUENCE))
    data = elements(only_element(outer[1][1], SEQUENCE))
    signer = elements(only_element(data[-1][1], SEQUENCE))
    return outer, data, signer

def tokens(signer):
    attributes = [elements(body) for tag, body in elements(dict(signer).get(0xA1, b""))]
    return [der(*value) for kind, values in attributes if kind[1] == ATTRIBUTE for value in elements(values[1])]

outer, data, signer = read(sys.argv[3])
if sys.argv[2] == "apart":
    pathlib.Path("value").write_bytes(dict(signer)[0x04])
    for number, token in enumerate(tokens(signer), 1):
        pathlib.Path(f"token.{number}").write_bytes(token)
    print(len(tokens(signer)))
else:
    other = dict(read(sys.argv[4])[2])[0xA1]
    signer = [(tag, other if tag == 0xA1 else body) for tag, body in signer]
    data[-1] = (data[-1][0], der(SEQUENCE, *(der(*field) for field in signer)))
    outer[1] = (outer[1][0], der(SEQUENCE, *(der(*field) for field in data)))
    pathlib.Path(sys.argv[5]).write_bytes(der(SEQUENCE, *(der(*field) for field in outer)))
END

# as_der FILE: the signature in DER, in the file der.
as_der() {
    if head -n 1 "$1" | grep -aq '^-----BEGIN'; then
        openssl cms -cmsout -inform PEM -in "$1" -outform DER -out der
    else
        base64 -d "$1" >der 2>/dev/null || cp "$1" der
    fi
}

# stamps FILE COUNT: it has so many time stamps, and openssl finds each one good.
stamps() {
    local count number
    as_der "$1"
    rm -f token.*
    count=$(python3 cms.py "$authority" apart der)
    [ "$count" = "$2" ] || fail "$1 has $count time stamps instead of $2"
    for ((number = 1; number <= count; ++number)); do
        openssl ts -verify -in "token.$number" -token_in -data value -CAfile good/tsa-ca.pem >out 2>&1 ||
            fail "openssl does not accept time stamp $number of $1: $(cat out)"
    done
}

# signs FILE: openssl and GnuTLS find the signature good.
signs() {
    as_der "$1"
    openssl cms -verify -binary -inform DER -in der -content letter.txt -CAfile root.crt -out /dev/null 2>err ||
        fail "openssl does not accept the signature $1: $(cat err)"
    certtool --p7-verify --inder --load-data letter.txt --load-ca-certificate root.crt --infile der >err 2>&1 ||
        fail "GnuTLS does not accept the signature $1: $(cat err)"
}

serve good
good=$url
tsa=(--tsa "$good" --tsa-ca good/tsa-ca.pem --tsa-timeout 60000)

echo "== each kind of signature is stamped while it is made"
made=0
for key in ec rsa; do
    for form in base64 der; do
        for options in "" --attached; do
            # shellcheck disable=SC2086
            expect 0 "$vexsign" p7 ./$key.pem $options --out $form "${tsa[@]}" -o sig letter.txt
            stamps sig 1
            signs sig
            expect 0 "$vexsign" verify sig letter.txt --ca root.crt --tsa-ca good/tsa-ca.pem
            grep -q '^  signed at: .*a time stamp proves it$' out || fail "the proven time: $(cat out)"
            grep -q '^  time stamp: .* by .*CN=tsa' out || fail "the time stamp: $(cat out)"
            expect 1 "$vexsign" verify sig changed.txt --ca root.crt --tsa-ca good/tsa-ca.pem
            made=$((made + 1))
        done
    done
done
[ $made -eq 8 ] || fail "$made signatures"
[ "$(find good/requests -name '*.tsq' | wc -l)" -eq 8 ] || fail "not one request for each signature"
expect 0 "$vexsign" p7 ./ec.pem --tsa "HTTP${good#http}" --tsa-timeout 60000 -o sig letter.txt
expect 0 "$vexsign" stamp sig --tsa "Http${good#http}" --tsa-timeout 60000 -o sig
stamps sig 2
mkdir signed
expect 0 "$vexsign" p7 ./ec.pem "${tsa[@]}" --output-dir signed letter.txt changed.txt
stamps signed/letter.txt.p7s 1
stamps signed/changed.txt.p7s 1

echo "== the authority sees a digest only"
expect 0 "$vexsign" p7 ./ec.pem "${tsa[@]}" --out der -o sig letter.txt
python3 cms.py "$authority" apart sig >count
request=$(find good/requests -name '*.tsq' | sort -V | tail -n 1)
openssl ts -query -in "$request" -text >query
grep -q 'Hash Algorithm: sha256' query || fail "the digest: $(cat query)"
openssl ts -query -data value -sha256 -no_nonce -cert -out expected
# The request is the one that openssl would make, with a nonce of at most 17 bytes.
[ "$(wc -c <"$request")" -le $(($(wc -c <expected) + 19)) ] || fail "a request of $(wc -c <"$request") bytes"
digest=$(openssl dgst -sha256 -r value | cut -d ' ' -f 1)
openssl asn1parse -inform DER -in "$request" | grep -qi "OCTET STRING.*$digest" || fail "another imprint: $(cat query)"

echo "== what was asked for"
expect 0 "$vexsign" p7 ./ec.pem --out der -o plain.der letter.txt
while read -r digest shown; do
    expect 0 "$vexsign" p7 ./ec.pem "${tsa[@]}" --tsa-digest "$digest" --out der -o made letter.txt
    expect 0 "$vexsign" stamp plain.der "${tsa[@]}" --tsa-digest "$digest" -o stamped
    for sig in made stamped; do
        stamps $sig 1
        openssl ts -reply -in token.1 -token_in -token_out -text 2>/dev/null | grep -qi "Hash Algorithm: $shown$" ||
            fail "$sig: not $digest"
    done
done <<'END'
SHA384 sha384
SHA512 sha512
sha3-256 sha3-256
SHA512/256 sha512-256
SHA-512/256 sha512-256
END
expect 0 "$vexsign" p7 ./ec.pem "${tsa[@]}" --tsa-policy 1.2.3.4.5.6 --out der -o sig letter.txt
stamps sig 1
# openssl.cnf of Debian has a name for it.
openssl ts -reply -in token.1 -token_in -token_out -text 2>/dev/null | grep -qE 'Policy OID: (1\.2\.3\.4\.5\.6|tsa_policy2)$' ||
    fail "another policy"

echo "== a signature that exists is stamped, and keeps its form"
openssl base64 -A -in plain.der -out plain.base64
echo >>plain.base64
openssl cms -cmsout -inform DER -in plain.der -outform PEM -out plain.pem
python3 cms.py "$authority" apart plain.der >/dev/null
cp value value.plain
for form in der base64 pem; do
    expect 0 "$vexsign" stamp plain.$form "${tsa[@]}" -o stamped.$form
    stamps stamped.$form 1
    cmp value value.plain || fail "the signature value changed"
    signs stamped.$form
    expect 0 "$vexsign" verify stamped.$form letter.txt --ca root.crt --tsa-ca good/tsa-ca.pem
done
openssl asn1parse -inform DER -in stamped.der >/dev/null || fail "stamped.der is not DER"
[ "$(wc -l <stamped.base64)" -eq 1 ] || fail "stamped.base64 is not one line"
[ "$(head -n 1 stamped.pem)" = "-----BEGIN CMS-----" ] || fail "stamped.pem: $(head -n 1 stamped.pem)"
cp plain.base64 sig
expect 0 "$vexsign" stamp sig "${tsa[@]}" -o sig
stamps sig 1
expect 0 "$vexsign" stamp sig "${tsa[@]}" -o sig
stamps sig 2
expect 0 "$vexsign" verify sig letter.txt --ca root.crt --tsa-ca good/tsa-ca.pem
# The content of a signature may be PEM. It is not what is stamped.
{ echo; cat plain.pem; } >quoted
expect 0 openssl cms -sign -binary -nodetach -signer ec.crt -inkey ec.key -in quoted -outform DER -out quoting
expect 0 "$vexsign" stamp quoting "${tsa[@]}" -o sig
openssl asn1parse -inform DER -in sig >/dev/null || fail "a signature in DER is stamped as that in its content"
stamps sig 1
expect 0 "$vexsign" verify sig quoted --ca root.crt --tsa-ca good/tsa-ca.pem
"$vexsign" stamp - "${tsa[@]}" <plain.base64 >sig 2>err || fail "standard streams: $(cat err)"
stamps sig 1

echo "== the time stamp's time counts for the certificate, if the authority is trusted"
later=2049-01-01T00:00:00Z
expect 1 "$vexsign" verify plain.der letter.txt --ca root.crt --at $later
expect 0 "$vexsign" verify stamped.der letter.txt --ca root.crt --tsa-ca good/tsa-ca.pem --at $later
expect 0 "$vexsign" verify stamped.der letter.txt --no-chain --tsa-ca good/tsa-ca.pem --at $later
cat root.crt good/tsa-ca.pem >both.pem
expect 0 "$vexsign" verify stamped.der letter.txt --ca both.pem --at $later
expect 1 "$vexsign" verify stamped.der letter.txt --ca root.crt --at $later
grep -q 'give its root with --tsa-ca' out || fail "no way out is named: $(cat out)"
expect 1 "$vexsign" verify stamped.der letter.txt --no-chain --at $later
expect 1 "$vexsign" verify stamped.der letter.txt --ca root.crt --tsa-ca root.crt
grep -q '^    stamp: the --tsa-ca files do not vouch' out || fail "an authority that is not trusted: $(cat out)"
# Without --tsa-ca such a signature is as good as one that has no time stamp.
expect 0 "$vexsign" verify stamped.der letter.txt --ca root.crt
grep -q '^  signed at: .*nothing proves it$' out || fail "proven by nobody: $(cat out)"
expect 1 "$vexsign" verify stamped.der letter.txt --ca both.pem --at 2021-01-01T00:00:00Z
grep -q 'stamp: the time stamp is of .* later than 2021-01-01T00:00:00Z' out || fail "before its time: $(cat out)"

# The certificate had expired before the signature was stamped.
expect 0 openssl cms -sign -binary -in letter.txt -signer former.crt -inkey ec.key -outform DER -out former
expect 0 "$vexsign" stamp former "${tsa[@]}" -o former
for options in "" "--at $later"; do
    # shellcheck disable=SC2086
    expect 1 "$vexsign" verify former letter.txt --ca root.crt --tsa-ca good/tsa-ca.pem $options
    grep -q '^    validity: .* expired on 2020-02-01T00:00:00Z, before .*, which came too late$' out || fail "$(cat out)"
done
# A time stamp that was changed is worse than none. Its own signature is at the end of the file.
head -c -1 stamped.der >broken
tail -c 1 stamped.der | LC_ALL=C tr '\0-\377' '\1-\377\0' >>broken
signs broken
for options in "--tsa-ca good/tsa-ca.pem --at $later" "--tsa-ca good/tsa-ca.pem" ""; do
    # shellcheck disable=SC2086
    expect 1 "$vexsign" verify broken letter.txt --ca root.crt $options
    grep -q '^    stamp: a time stamp is wrong: ' out || fail "$options: $(cat out)"
done

echo "== JSON"
expect 0 "$vexsign" verify stamped.der letter.txt --ca root.crt --tsa-ca good/tsa-ca.pem --json
cp out json
stamps stamped.der 1
openssl ts -reply -in token.1 -token_in -token_out -text >text 2>/dev/null
moment=$(date -u -d "$(sed -n 's/^Time stamp: //p' text)" +%Y-%m-%dT%H:%M:%SZ)
serial=$(sed -n 's/^Serial number: 0x//p' text)
python3 - "$moment" "$serial" <<'END'
import json, sys
signer = json.load(open("json", encoding="utf-8"))["signers"][0]
assert signer["signing_time"]["proven"] is True and signer["signing_time"]["time"] == sys.argv[1], signer
assert signer["signing_time"]["claimed"] <= sys.argv[1], signer
(stamp,) = signer["time_stamps"]
assert stamp["time"] == sys.argv[1] and int(stamp["serial"], 16) == int(sys.argv[2], 16), stamp
assert stamp["authority"] == "CN=tsa,O=Time stamps" and stamp["policy"] == "1.2.3.4.1", stamp
assert stamp["trusted"] is True and stamp["digest"].upper().replace("-", "") == "SHA256", stamp
END

echo "== a time stamp of another signature is found"
expect 0 "$vexsign" p7 ./ec.pem --out der "${tsa[@]}" -o other letter.txt
python3 cms.py "$authority" exchange stamped.der other exchanged
signs exchanged
for options in "--ca root.crt" "--no-chain" "--ca root.crt --tsa-ca good/tsa-ca.pem"; do
    # shellcheck disable=SC2086
    expect 1 "$vexsign" verify exchanged letter.txt $options
    grep -q '^    stamp: a time stamp is wrong: ' out || fail "$options: $(cat out)"
done

# They share one authority, which makes its keys once: the path of the URL is the fault.
wrong() {
    cat <<'END'
bad-signature|the time stamp's signature is wrong
byte-a-second|the answer is not complete in time
certificate-missing|the certificate of the time stamp's signer is not in it
closed-at-once|lost|it ends within its header
cut-reply|no time-stamp reply: it ends after [0-9]+ of [0-9]+ bytes
cut-token|no time-stamp reply: it is no sequence
empty|no time-stamp reply: it is no sequence
endless-headers|no time-stamp reply: its header is too long
expired-certificate|CN=expired,.* is not valid at .*: it is valid from 2020-01-01T00:00:00Z to 2021-01-01T00:00:00Z
foreign-authority|CN=foreign,.* leads to no trusted certificate
garbage|no time-stamp reply: it is no sequence
granted-without-token|it is granted, but has no token
http-404|the answer is HTTP 404
http-500|the answer is HTTP 500
missing-nonce|the time stamp has no nonce
no-answer|the answer is not complete in time
no-http|no time-stamp reply: it is not HTTP
no-signing-certificate|the signed attributes of the time stamp do not name the signer's certificate
other-digest|belongs to another signature: its imprint is not the digest
other-version|it is of another version than 1
redirect|the answer is HTTP 302 .*a redirect, which is not followed
rejected|refuses: rejection, "the clock is being set", timeNotAvailable
rejected-with-token|refuses: rejection, "the clock is being set"$
too-large|it is larger than 64 KiB
trailing-bytes|no time-stamp reply: something is behind it
two-gib-announced|no time-stamp reply: .*2147483648
two-signers|it has other than one signer
two-usages|CN=two-usages,.* is not meant for time stamps: its extended key usage is not timeStamping alone
usage-not-critical|the extended key usage .*CN=not-critical,.* is not critical
waiting|refuses: waiting, "come back tomorrow"
wrong-content-type|its content is no TSTInfo
wrong-imprint|belongs to another signature: its imprint is not the digest
wrong-media-type|no time-stamp reply: it is text/html, not application/timestamp-reply
wrong-nonce|the time stamp has another nonce than the request
wrong-policy|the time stamp has the policy 1\.2\.3\.4\.5\.7, not 1\.2\.3\.4\.1
wrong-usage|CN=mail,.* is not meant for time stamps: its extended key usage is not timeStamping alone
END
}

# try_wrong FAULT MESSAGE: in a directory of its own, because several run at once.
try_wrong() {
    local fault=$1 message=$2 limit=30000 command asked
    case $fault in byte-a-second | no-answer) limit=1500 ;; esac
    mkdir -p "$fault/results"
    cd "$fault"
    asked=(--tsa "$good$fault" --tsa-ca ../good/tsa-ca.pem --tsa-timeout "$limit" --tsa-policy 1.2.3.4.1)
    # A file that would have been replaced stays as it is.
    cp ../plain.der results/kept
    for command in "stamp ../plain.der -o results/kept" "p7 ../ec.pem ../letter.txt -o results/new"; do
        # shellcheck disable=SC2086
        expect 1 timeout 60 "$vexsign" $command "${asked[@]}"
        grep -qE -- "$message" err || fail "$fault, $command: $(cat err)"
        says "$good$fault"
        [ "$(wc -l <err)" -eq 1 ] || fail "$fault, $command: not one line: $(cat err)"
        [ ! -s out ] || fail "$fault, $command: there is output"
    done
    cmp ../plain.der results/kept
    [ "$(ls -A results)" = kept ] || fail "$fault leaves: $(ls -A results)"
}

# second_serves NAME URL TIMEOUT: the authority of the URL fails. The second one has at least half of the time-out.
second_serves() {
    local asked=(--tsa "$2" --tsa "$good" --tsa-ca good/tsa-ca.pem --tsa-timeout "$3")
    mkdir "second-$1"
    cd "second-$1"
    ln -s ../good ../root.crt ../letter.txt ../cms.py .
    expect 0 "$vexsign" stamp ../plain.der "${asked[@]}" -o sig
    stamps sig 1
    expect 0 "$vexsign" p7 ../ec.pem "${asked[@]}" -o sig letter.txt
    stamps sig 1
    signs sig
}

echo "== a wrong answer is an error in time, and leaves no signature; when the first authority fails, the second serves"
python3 "$authority" --list-faults >faults
wrong | cut -d '|' -f 1 | diff - faults || fail "these wrong answers are not the ones that are tried"
# The slow ones wait beside the others.
slow=()
(second_serves silent "${good}no-answer" 12000) &
slow+=("$!")
while IFS='|' read -r fault message; do
    case $fault in
        byte-a-second | no-answer)
            (try_wrong "$fault" "$message") &
            slow+=("$!")
            ;;
        *) (try_wrong "$fault" "$message") ;;
    esac
done < <(wrong)
(second_serves refused http://127.0.0.1:1/ 60000)
(second_serves rejected "${good}rejected" 60000)
for pid in "${slow[@]}"; do
    wait "$pid"
done
# The authority's own troubles would look like an error of the right kind.
[ ! -s good.err ] || fail "the authority itself failed: $(cat good.err)"

echo "== errors"
expect 0 "$vexsign" p1 ./ec.pem --out der -o p1 letter.txt
expect 1 "$vexsign" stamp p1 "${tsa[@]}" -o sig
says 'a bare signature has no place for a time stamp'
expect 1 "$vexsign" p1 "file:$work/ec.pem?tsa=http%3A//127.0.0.1%3A1/" letter.txt
says 'error 1401'
expect 1 "$vexsign" p7 ./ec.pem --tsa http://127.0.0.1:1/ letter.txt
says 'error 1401'
says 'http://127.0.0.1:1/'
[ ! -s out ] || fail "a signature without a time stamp"
expect 1 "$vexsign" stamp letter.txt "${tsa[@]}"
says 'letter.txt: it is no P7 signature'
printf 'MIME-Version: 1.0\n' >message
expect 1 "$vexsign" stamp message "${tsa[@]}"
says 'message: it is an S/MIME message; give what "openssl cms -cmsout -outform DER" makes of it'
expect 1 "$vexsign" stamp missing "${tsa[@]}"
says 'missing: No such file'
expect 1 "$vexsign" stamp plain.der --tsa "$good" --tsa-ca letter.txt
says 'letter.txt: it is no certificate'
expect 1 "$vexsign" stamp plain.der "${tsa[@]}" -o good/tsa-ca.pem
says 'would be the one of --tsa-ca; choose another output'
expect 1 "$vexsign" p7 ./ec.pem letter.txt "${tsa[@]}" -o good/tsa-ca.pem
says 'would be the one of --tsa-ca; choose another output'
expect 1 "$vexsign" stamp plain.der "${tsa[@]}" --tsa-digest MD5
says 'digest'
expect 1 "$vexsign" stamp plain.der "${tsa[@]}" --tsa-policy tomorrow
says 'object identifier'
LD_LIBRARY_PATH=$recording expect 1 "$vexsign" p7 x letter.txt --tsa "$good"
says 'the toolkit ignored --tsa'
while IFS='|' read -r arguments message; do
    eval "set -- $arguments"
    expect 2 "$vexsign" "$@"
    says "$message"
    [ ! -s out ] || fail "output: $arguments"
done <<'END'
stamp|SIGNATURE
stamp plain.der|--tsa
stamp plain.der --tsa ''|is no http:// URL
stamp plain.der --tsa https://tsa.example/|is no http:// URL
stamp plain.der --tsa http://|is no http:// URL
stamp plain.der --tsa ftp://tsa.example/|is no http:// URL
stamp plain.der --tsa http://a/ --tsa-timeout 0|--tsa-timeout
stamp plain.der --tsa http://a/ --tsa-timeout 600001|--tsa-timeout
stamp plain.der --tsa http://a/ --tsa-timeout soon|--tsa-timeout
stamp plain.der --tsa http://a/ --tsa-digest ''|the value is empty
stamp plain.der --tsa http://a/ --tsa-ca ''|the name is empty
stamp - --tsa http://a/ --tsa-ca -|standard input can be read only once
p7 demo: letter.txt --tsa https://tsa.example/|is no http:// URL
p7 demo: letter.txt --tsa-ca root.crt|--tsa
p7 demo: letter.txt --tsa-timeout 5|--tsa
p1 demo: letter.txt --tsa http://a/|--tsa
verify plain.der letter.txt --tsa-ca ''|the name is empty
verify - letter.txt --tsa-ca -|standard input can be read only once
END

echo "all passed"
