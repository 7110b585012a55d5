# shellcheck shell=bash disable=SC2034,SC2154
PATH=$source/build/release/bin:$PATH
cd "$work" || exit
ip link set lo up
printf 'I owe you 100 euros.' >letter.txt

# The page's authority, and its root.
exec {answers}< <(exec setpriv --pdeathsig KILL python3 "$source/tests/support/TimeStampAuthority.py" \
    --directory "$work/authority" 2>"$work/authority.err")
authority=$!
read -r tsa <&"$answers" || fail "the authority does not start: $(cat "$work/authority.err")"
exec {answers}<&-
cp "$work/authority/tsa-ca.pem" .

check() {
    kill "$authority"
    [ ! -s "$work/authority.err" ] || fail "the authority: $(cat "$work/authority.err")"
    printed "letter.p7s: the signature is good" "earlier.p7s: the signature is good" \
        "at the latest; a time stamp proves it" "claimed time:" "time stamp:"
    verify_cms letter.txt letter.p7s signer.pem
    verify_cms letter.txt earlier.p7s signer.pem
    # Of each signature with a time stamp there was one request.
    [ "$(find "$work/authority/requests" -name '*.tsq' | wc -l)" -eq 4 ] || fail "not four requests"
    [ "$(wc -c <with.p7s)" -gt "$(wc -c <without.p7s)" ] || fail "with.p7s has no time stamp"
}
