# shellcheck shell=bash disable=SC2154
# jarsigner and keytool begin here.
cp build/release/java/tavclientjni-bundled.jar .
jar --create --file app.jar README.md

check() {
    printed "SHA256withRSA by CN=VEX Demo RSA-2048" "SHA256withECDSA by CN=VEX Demo EC P-256" "jar verified."
    jar --list --file app.jar | grep -E '^META-INF/.*\.(RSA|EC)$'
}
