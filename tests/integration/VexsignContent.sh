#!/bin/bash
# How vexsign reads what it signs:
#   VexsignContent.sh <vexsign> <reduced_toolkit> <file_changes_while_read> bounded|unbounded
# The two libraries are for LD_PRELOAD. "unbounded": the memory is not measured and nothing is preloaded, because the
# program has a sanitizer.

vexsign=$1
reduced_toolkit=$2
changes_while_read=$3
memory=$4
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
export XDG_DATA_HOME=$work/data
mkdir data

self_signed rsa rsa:2048
self_signed ec ec ec_paramgen_curve:P-256
self_signed ed ed25519

# verified_p7 CONTENT [openssl-option...]: openssl accepts the signature "sig", in DER, for this content.
verified_p7() {
    local content=$1
    shift
    openssl cms -verify -binary -inform DER -in sig -noverify "$@" -out recovered 2>cms.err ||
        fail "not verified: $(cat cms.err)"
    cmp recovered "$content"
}

echo "== every length, as a file and as standard input"
openssl rand -out random 3000000
for length in 1 262143 262144 262145 1048575 1048576 1048577 3000000; do
    head -c "$length" random >data.bin
    for store in rsa ec; do
        expect 0 "$vexsign" p1 ./$store.pem --out der -o sig data.bin
        openssl dgst -sha256 -verify $store.pub -signature sig data.bin >/dev/null || fail "P1, $store, $length"
    done
    expect 0 "$vexsign" p7 ./rsa.pem --out der -o sig data.bin
    verified_p7 data.bin -content data.bin
    expect 0 "$vexsign" p7 ./ec.pem --out der --attached -o sig data.bin
    verified_p7 data.bin
    expect 0 "$vexsign" p7 ./rsa.pem --attached data.bin
    openssl base64 -d -A -in out -out sig
    verified_p7 data.bin
    [ "$(wc -l <out)" -eq 1 ] || fail "not one line"
done
# Slow pieces, and a file that was read in part.
(for _ in 1 2 3; do head -c 1000 random; sleep 0.1; done) | "$vexsign" p7 ./rsa.pem --out der --attached - >sig
for _ in 1 2 3; do head -c 1000 random; done >thrice
verified_p7 thrice
mkfifo fifo
cat random >fifo &
expect 0 "$vexsign" p1 ./rsa.pem --out der -o sig fifo
wait
openssl dgst -sha256 -verify rsa.pub -signature sig random >/dev/null || fail "P1 of a pipe"
{
    head -c 5 >/dev/null
    "$vexsign" p1 ./rsa.pem --out der >sig
} < <(printf 12345; cat random)
openssl dgst -sha256 -verify rsa.pub -signature sig random >/dev/null || fail "P1 of the rest of a pipe"
printf 12345 | cat - random >longer
{
    dd bs=5 count=1 of=/dev/null status=none
    "$vexsign" p7 ./rsa.pem --out der --attached >sig
} <longer
verified_p7 random

echo "== what cannot be signed"
mkdir folder
: >empty
for options in p1 p7 "p7 --attached" "p1 --digest SHA-384" "p7 --digest SHA3-256 --attached"; do
    # shellcheck disable=SC2086
    expect 1 "$vexsign" $options ./rsa.pem folder
    says 'folder: Is a directory'
    for input in empty /dev/null -; do
        # shellcheck disable=SC2086
        expect 1 "$vexsign" $options ./rsa.pem $input
        says 'error 1303: There is no data to sign: the text is empty'
    done
done
expect 1 "$vexsign" p7 ./rsa.pem folder --text
says 'folder: Is a directory'

echo "== the digest itself"
openssl dgst -sha256 -binary random >digest
expect 0 "$vexsign" p1 ./rsa.pem random
mv out of-data
expect 0 "$vexsign" p1 ./rsa.pem --digest PREHASHED:sha-256 digest
cmp of-data out || fail "the digest's signature is another one"
expect 0 "$vexsign" p7 ./ec.pem --digest prehashed:SHA-256 --out der -o sig digest
verified_p7 random -content random
expect 1 "$vexsign" p1 ./rsa.pem --digest prehashed:SHA-384 digest
says 'error 1002: '
expect 1 "$vexsign" p7 ./rsa.pem --attached --digest prehashed:SHA-256 digest
says 'error 1002: '
expect 2 "$vexsign" p1 ./rsa.pem --digest prehashed:SHA-256 digest -o sig --cert-out cert --verify-hint
says 'not its digest'

echo "== RSASSA-PSS, Ed25519, and how openssl verifies them"
verified=0
while read -r store options; do
    for form in der base64; do
        rm -f sig signer.pem*
        # shellcheck disable=SC2086
        expect 0 "$vexsign" p1 ./$store.pem $options --out $form -o sig --cert-out signer.pem --verify-hint random
        sed -n 's/^To verify: //p' err >hint
        sh -e hint >verified 2>&1 || fail "not verified: $(cat hint verified)"
        cp random kept
        printf x >>random
        ! sh -e hint >/dev/null 2>&1 || fail "a changed file is verified: $(cat hint)"
        mv kept random
        verified=$((verified + 1))
    done
done <<'END'
rsa --digest SHA-256/PSS
rsa --digest sha3-384/pss
rsa --digest SHA512/256
ec --digest SHA-384
ed
ed --digest SHA-384
END
[ $verified -eq 12 ] || fail "$verified signatures"
expect 0 "$vexsign" p7 ./rsa.pem --digest SHA-384/PSS --out der -o sig random
verified_p7 random -content random
openssl cms -cmsout -print -inform DER -in sig | grep -q rsassaPss || fail "no RSASSA-PSS"
expect 1 "$vexsign" p1 ./ec.pem --digest SHA-256/PSS random
says 'error 1305: '
# Not every OpenSSL makes a P7 with Ed25519.
if "$vexsign" p7 ./ed.pem --attached --out der -o sig random 2>err; then
    verified_p7 random
else
    says 'error 1305: '
    says 'OpenSSL'
fi

echo "== limits are told before the data is read"
# Reading this file would take hours.
truncate -s 1T huge
while IFS='|' read -r arguments message; do
    # shellcheck disable=SC2086
    expect 1 timeout 60 "$vexsign" $arguments huge
    says "huge: larger than $message"
    status=0
    # shellcheck disable=SC2086
    timeout 60 "$vexsign" $arguments - <huge >out 2>err || status=$?
    [ "$status" -eq 1 ] || fail "exit status $status for standard input: $arguments"
    says "standard input: larger than $message"
done <<'END'
p7 ./rsa.pem --attached|1610547196 bytes, the most that fit into an attached signature; make a detached one
p1 ./ed.pem|1610612733 bytes, the most that can be signed with an Ed25519 or Ed448 key; use another key
p7 ./ec.pem --text|2147483647 bytes, the most that can be signed with --text; omit it
END

if [ "$memory" = unbounded ]; then
    echo "all passed, without memory and preloaded libraries"
    exit 0
fi

echo "== a toolkit that signs no digests"
export VEX_TEST_WITHOUT="prehashed: /PSS"
old() {
    LD_PRELOAD=$reduced_toolkit expect "$@"
}
old 1 timeout 60 "$vexsign" p7 ./rsa.pem huge
says 'huge: larger than 1610612733 bytes, the most that can be signed with this toolkit'
old 1 "$vexsign" p1 ./rsa.pem --digest SHA-256/PSS random
says 'error 1201: '
old 1 "$vexsign" p1 ./rsa.pem empty
says 'error 1303: '
compared=0
for digest in SHA256 sha-384 SHA2-512 SHA-512/256 SHA512/224 SHA3-256 2.16.840.1.101.3.4.2.1; do
    expect 0 "$vexsign" p1 ./rsa.pem --digest $digest random
    mv out by-digest
    old 0 "$vexsign" p1 ./rsa.pem --digest $digest random
    cmp out by-digest || fail "P1 by digest is another signature: $digest"
    compared=$((compared + 1))
done
[ $compared -eq 7 ] || fail "$compared comparisons"
# The structure without the values: types, positions and lengths.
structure() {
    openssl asn1parse -inform DER -in "$1" |
        sed -E 's/(OCTET STRING *\[HEX DUMP\]:|OCTET STRING *:|UTCTIME *:).*/\1/; s/OCTET STRING.*/OCTET STRING/'
}
head -c 100000 random >data.bin
for options in "" --attached "--attached --no-cert" "--attached --digest SHA-512" "--no-cert"; do
    for input in text.txt data.bin random; do
        printf 'a text\n' >text.txt
        # shellcheck disable=SC2086
        expect 0 "$vexsign" p7 ./rsa.pem $options --out der -o sig $input
        # shellcheck disable=SC2086
        old 0 "$vexsign" p7 ./rsa.pem $options --out der -o old.sig $input
        structure sig >new.txt
        structure old.sig >old.txt
        diff old.txt new.txt || fail "the form with '$options' differs"
        [ "$(wc -l <new.txt)" -gt 40 ] || fail "structure: $(cat new.txt)"
    done
done
LD_PRELOAD=$reduced_toolkit "$vexsign" p7 ./rsa.pem --attached --out der - <random >sig
verified_p7 random
LD_PRELOAD=$reduced_toolkit "$vexsign" p1 ./ec.pem --out der - < <(cat random) >sig
openssl dgst -sha256 -verify ec.pub -signature sig random >/dev/null || fail "P1 of a pipe, signed as a whole"

echo "== a file that changes and grows while it is read"
for options in "p1" "p7" "p7 --attached"; do
    cp random changing
    printf grown | cat random - >expected
    status=0
    # shellcheck disable=SC2086
    LD_PRELOAD=$changes_while_read VEX_TEST_CHANGING_FILE=changing \
        "$vexsign" $options ./rsa.pem --out der -o sig changing 2>err || status=$?
    [ "$status" -eq 0 ] || fail "exit status $status: $(cat err)"
    cmp -s changing expected && fail "the file did not change"
    [ "$(tail -c 5 changing)" = grown ] || fail "the file did not grow"
    case $options in
        p1) openssl dgst -sha256 -verify rsa.pub -signature sig expected >/dev/null || fail "P1 of what was read" ;;
        p7) verified_p7 expected -content expected ;;
        *) verified_p7 expected ;;
    esac
done

echo "== memory"
# peak OUTPUT-OPTIONS...: prints the peak of vexsign's memory in KiB.
peak() {
    command time --format=%M --output=peak "$vexsign" "$@" 2>err || fail "$(cat err)"
    cat peak
}
mebibyte=1024
small=$(peak p7 ./rsa.pem --out der -o sig data.bin)
truncate -s 512M large
# within MEBIBYTES VEXSIGN-ARGUMENTS...
within() {
    local bound=$(($1 * mebibyte)) more
    shift
    more=$(($(peak "$@") - small))
    [ "$more" -le "$bound" ] || fail "$more KiB above those for a small file: $*"
}
within 32 p7 ./rsa.pem --out der -o sig large
openssl cms -verify -binary -inform DER -in sig -noverify -content large -out /dev/null 2>err || fail "$(cat err)"
within 32 p1 ./ec.pem --out der -o sig large
openssl dgst -sha256 -verify ec.pub -signature sig large >/dev/null || fail "P1 of a large file"
within 32 p7 ./rsa.pem --digest SHA3-256 -o sig - < <(cat large)
truncate -s 128M large
within 256 p7 ./rsa.pem --attached --out der -o sig large
openssl cms -verify -binary -inform DER -in sig -noverify -out recovered 2>err || fail "$(cat err)"
cmp recovered large
within 256 p7 ./rsa.pem --attached -o sig - < <(cat large)
openssl base64 -d -A -in sig -out der
openssl cms -verify -binary -inform DER -in der -noverify -out recovered 2>err || fail "$(cat err)"
cmp recovered large

echo "all passed"
