# shellcheck shell=bash disable=SC2154
PATH=$source/build/release/bin:$PATH
cd "$work" || exit
cp "$source/build/release/java/tavclientjni-bundled.jar" .

# The token and the letter are those of the first commands on the page about tokens.
mkdir tokens-page
"$page_directory/blocks.py" "$source/docs/tokens.md" tokens-page
eval "$(cat tokens-page/00-*)" >"$page_printed" 2>&1
jar --create --file app.jar letter.txt

# The store of the second half: a root has issued the certificate.
make_app_store
openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -days 30 -subj /CN=root 2>/dev/null
openssl req -new -key /etc/app/key.pem -subj /CN=app |
    openssl x509 -req -CA root.pem -CAkey root.key -days 20 -extfile <(echo keyUsage=digitalSignature) \
        -out /etc/app/cert.pem 2>/dev/null
openssl pkcs12 -export -inkey /etc/app/key.pem -in /etc/app/cert.pem -certfile root.pem -name App \
    -passout file:/etc/app/pin -out /etc/app/keys.p12

# The page's commands compile and start the programs.
page_java() {
    cp "$1" "$(sed -n 's/^public class \([A-Za-z]*\).*/\1/p' "$1").java"
}

# attributes FILE: the signed attributes and the name of the signature's algorithm.
attributes() {
    openssl cms -cmsout -print -noout -inform DER -in "$1" | sed -n '/signerInfos:/,$s/^ *\(object\|algorithm\): //p'
}

check() {
    printed "Verified OK" "jar verified."
    for signature in before provider client; do
        printed "$signature.p7s is by CN=app"
    done
    attributes before.p7s >before
    attributes provider.p7s | diff before -
    # CMSAlgorithmProtection and the algorithm's name on one side, the signing certificate on the other.
    diff <(grep -v '1\.2\.840\.113549\.1\.9\.52\|sha256WithRSAEncryption' before) \
        <(attributes client.p7s | grep -v 'signingCertificateV2\|rsaEncryption')
    [ "$(attributes client.p7s | grep -c 'signingCertificateV2\|rsaEncryption')" -eq 2 ]
    [ "$(grep -c '1\.2\.840\.113549\.1\.9\.52\|sha256WithRSAEncryption' before)" -eq 2 ]

    javac -Xlint:all,-path -Werror -cp "$jars" -d . "$page_directory/moving/Differences.java"
    java --enable-native-access=ALL-UNNAMED -cp "$jars:." Differences
}
