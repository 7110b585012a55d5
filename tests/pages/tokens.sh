# shellcheck shell=bash disable=SC2154
PATH=$source/build/release/bin:$PATH
cd "$work" || exit
# The beginning of the page's second example.
openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -days 30 -subj "/CN=imported" 2>/dev/null

check() {
    verify_cms letter.txt letter.p7s
    [ "$signer" = "subject=CN=My key" ] || fail "letter.p7s is by $signer"
    verify_cms letter.txt imported.p7s
    [ "$signer" = "subject=CN=imported" ] || fail "imported.p7s is by $signer"
}
