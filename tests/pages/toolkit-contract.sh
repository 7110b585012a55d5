# shellcheck shell=bash disable=SC2154
PATH=$source/build/release/bin:$PATH
# Another toolkit. It takes any text.
mkdir -p /opt/host/toolkit
cp build/release/tests/recording/libVEXClientTKDll64.so /opt/host/toolkit

check() {
    # The operations, and the functions that the page promises.
    [ "$(grep -c '^VCTK_' "$output")" -eq 15 ] || fail "$(grep -c '^VCTK_' "$output") operations"
    printed MultiByteToWideChar WideCharToMultiByte HeapSize VexCreateFile
}
