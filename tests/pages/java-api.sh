# shellcheck shell=bash disable=SC2154
make_app_store
# Any certificate: there is no network, so no authority answers.
cp /etc/app/cert.pem /etc/app/tsa-ca.pem

check() {
    # The only line of Base64.
    printf 'I owe you 100 euros.' >letter.txt
    grep -Ex '[A-Za-z0-9+/=]{200,}' "$output" | base64 -d >letter.p7s
    verify_cms letter.txt letter.p7s "$HOME/.local/share/vex-client-toolkit/demo.pem"
    printed "RSASSA-PSS by CN=VEX Demo RSA-2048" ": true" \
        "No stamp, no signature: The signature could not be time-stamped: https://tsa.example/tsr: " \
        "Cannot sign (STORE_NOT_FOUND): The store file does not exist: /etc/app/missing.p12"
}
