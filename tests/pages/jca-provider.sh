# shellcheck shell=bash disable=SC2154
# jarsigner and keytool begin here.
cp build/release/java/tavclientjni-bundled.jar .
jar --create --file app.jar README.md

# Programs that ask for a PIN get that of the store in /etc/app.
make_app_store
page_java() {
    local name
    name=$(java_class "$1" Lines)
    run_java "$name" <<<1234
}

check() {
    printed "SHA256withRSA by CN=VEX Demo RSA-2048" "SHA256withECDSA by CN=VEX Demo EC P-256" "jar verified."
    jar --list --file app.jar | grep -E '^META-INF/.*\.(RSA|EC)$'
}
