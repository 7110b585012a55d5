#!/bin/bash
# TokensPage.sh VEXSIGN PRIVATE_LOG PAGE: runs the commands of the page about tokens one after the other, as printed.
# openssl must verify the signatures.

vexsign=$1 private_log=$2 page=$3

# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

awk '/^```$/ { code = 0 } code; /^```sh$/ { code = 1 }' "$page" >commands
grep -q softhsm2-util commands || fail "no commands on the page"

# The beginning of the page's second example.
openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -days 30 -subj "/CN=imported" 2>/dev/null

mkdir log home
PATH=$(dirname "$vexsign"):$PATH
export PATH HOME=$work/home
export LD_PRELOAD=$private_log VEX_TEST_LOG_DIR=$work/log
bash -euo pipefail commands

echo "== the signatures"
for signature in letter imported; do
    openssl base64 -d -A -in "$signature.p7s" |
        openssl cms -verify -binary -inform DER -noverify -content letter.txt -signer "$signature.pem" -out /dev/null
    openssl x509 -in "$signature.pem" -noout -subject | tee subject
    case $signature in
        letter) grep -q 'CN *= *My key' subject ;;
        imported) grep -q 'CN *= *imported' subject ;;
    esac
done
