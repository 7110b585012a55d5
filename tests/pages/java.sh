# shellcheck shell=bash disable=SC2154
# The page's next block compiles and starts the program.
page_java() {
    cp "$1" FirstSignature.java
}

check() {
    printed "Signed and verified: CN=VEX Demo EC P-256,"
}
