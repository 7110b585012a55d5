# shellcheck shell=bash disable=SC2154
check() {
    printed "Signs as CN=VEX Demo RSA-2048" "256 bytes of RSASSA-PKCS1-v1_5"
    # The only line of Base64.
    printf 'I owe you 100 euros.' >letter.txt
    grep -Ex '[A-Za-z0-9+/=]{200,}' "$output" | base64 -d >letter.p7s
    verify_cms letter.txt letter.p7s "$HOME/.local/share/vex-client-toolkit/demo.pem"
}
