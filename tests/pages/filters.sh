# shellcheck shell=bash disable=SC2154

# page_c FILE: the program for C of 1999, with the substitute toolkit.
page_c() {
    gcc -std=c99 -pedantic -Wall -Wextra -Werror "$1" -o "$work/program" \
        -L"$source/build/release/lib" -lVEXClientTKDll64 -Wl,-rpath,"$source/build/release/lib"
    "$work/program"
}

check() {
    printed 'CN=VEX\20Demo\20EC\20P-256'
    ! grep -q 'RSA' "$output" || fail "the filter let an RSA key pass: $(cat "$output")"
}
