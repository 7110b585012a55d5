# shellcheck shell=bash disable=SC2034,SC2154
# The demo's own build directory begins as a copy of this build, and the compiler leaves its objects as they are. The
# commands contain the directory's name, so ninja repeats them.
mkdir -p build/demo "$work/demo"
mount -t tmpfs tmpfs "$work/demo"
mkdir "$work/demo/upper" "$work/demo/work"
mount -t overlay -o "lowerdir=build/release,upperdir=$work/demo/upper,workdir=$work/demo/work" overlay build/demo
sed -i "s,$source/build/release,$source/build/demo,g" build/demo/CMakeCache.txt
cat >"$work/compiler" <<'END'
#!/bin/bash
for argument; do
    [[ $argument != *.o || ! -e $argument ]] || exit 0
done
exec "$@"
END
chmod +x "$work/compiler"
echo "CMAKE_CXX_COMPILER_LAUNCHER:STRING=$work/compiler" >>build/demo/CMakeCache.txt

# The lines of Java become the program that the next block starts.
page_java() {
    java_class "$1" YourProgram >/dev/null
    cp "$work/classes/YourProgram.class" .

    make_app_store
    mv /etc/app/keys.p12 /etc/app/keys
    expect 1 run_java YourProgram
    says "vex.client.SigningException: The store file does not exist: /etc/app/keys.p12"
    mv /etc/app/keys /etc/app/keys.p12
}

check() {
    printed "All 18 verifications are good."
    printf 'I owe you 100 euros.' | cmp - letter.txt
    # Both are signatures of the same text.
    verify_cms letter.txt note.p7s /etc/app/cert.pem
    verify_as_printed
}
