#!/bin/bash
# Programs, libraries and jars of an earlier release together with today's: Mixed.sh <old> <build> <private_log library>
# <old> is what build-old has made. Needs root, for networks of its own.

old=$(readlink -f "$1/source")
build=$(readlink -f "$2")
private_log=$(readlink -f "$3")
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/../integration/Common.sh"
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS _JAVA_OPTIONS
mkdir home data log classes
export HOME=$work/home XDG_DATA_HOME=$work/data TZ=UTC
now=$here/../..
release() {
    case $1 in
        old) echo "$old/build/release" ;;
        new) echo "$build" ;;
    esac
}
# with RELEASE COMMAND...: with the libraries of the release, and the log in $work/log.
with() {
    env "LD_LIBRARY_PATH=$(release "$1")/lib" "LD_PRELOAD=$private_log" "VEX_TEST_LOG_DIR=$work/log" "${@:2}"
}

issue upgrade upgrade CA:FALSE digitalSignature -algorithm RSA -pkeyopt rsa_keygen_bits:2048

echo "== a program of that release's users"
for headers in old new; do
    directory=$old
    [ "$headers" = old ] || directory=$now
    g++ -std=c++20 -I"$directory/BaseInclude" "$here/Client.cpp" -L"$old/build/release/lib" -lVEXClientTKDll64 -ldl \
        -o "client-$headers"
done
for libraries in old new; do
    expect 0 with $libraries ./client-old contract "file:$work/upgrade.pem" "$work/files"
    rm -r files
    mv out "contract-$libraries"
done
diff contract-old contract-new >&2 || fail "a function returns something else"
grep -q '^logLevel: 2$' contract-new || fail "the profile file: $(cat contract-new)"
[ "$(wc -l <contract-new)" -gt 150 ] || fail "the program ends early: $(cat contract-new)"
# Both libraries export the same symbols, or today's has more.
for library in libVEXClientTKDll64.so libTAVClientJNI.so; do
    for libraries in old new; do
        nm -D --defined-only "$(release $libraries)/lib/$library" | awk '{ print $2, $3 }' | sort >"symbols-$libraries"
    done
    [ -z "$(comm -23 symbols-old symbols-new)" ] || fail "$library lacks $(comm -23 symbols-old symbols-new)"
done

echo "== the log of both"
for libraries in old new; do
    for headers in old new; do
        expect 0 with $libraries "./client-$headers" log 3 1000000 1000000
    done
    expect 0 with $libraries ./client-old bridge "$(release $libraries)/lib/libTAVClientJNI.so"
done
for vexlog in old new; do
    expect 0 "$(release $vexlog)/bin/vexlog" log/PILog.txt
    [ "$(wc -l <out)" -eq 14 ] || fail "the log, read by the $vexlog vexlog: $(cat out)"
done

echo "== java"
javac --release 17 -cp "$old/build/release/java/tavclientjni.jar" -d classes "$here/Client.java"
for jar in old new; do
    for libraries in old new; do
        mkdir "java-$jar-$libraries"
        expect 0 with $libraries java --enable-native-access=ALL-UNNAMED -XX:TieredStopAtLevel=1 \
            "-Dvex.jni.library=$(release $libraries)/lib/libTAVClientJNI.so" \
            -cp "classes:$(release $jar)/java/tavclientjni.jar" Client "file:$work/upgrade.pem" "java-$jar-$libraries"
        mv out "java-$jar-$libraries/out"
        diff java-old-old/out "java-$jar-$libraries/out" >&2 || fail "the $jar jar with the $libraries libraries"
        openssl cms -verify -binary -inform DER -in <(base64 -d "java-$jar-$libraries/java.p7") -CAfile upgrade.crt \
            -content "java-$jar-$libraries/java.txt" -out verified 2>openssl.log || fail "P7: $(cat openssl.log)"
    done
done
grep -q 'provider signs with RSA: true' java-old-old/out || fail "the provider: $(cat java-old-old/out)"

echo "== vexsign with the other toolkit"
echo 'a letter' >letter.txt
for program in old new; do
    for libraries in old new; do
        expect 0 with $libraries "$(release $program)/bin/vexsign" p7 "$work/upgrade.pem" letter.txt -o letter.p7s
        expect 0 "$build/bin/vexsign" verify letter.p7s letter.txt --ca upgrade.crt
        expect 0 with $libraries "$(release $program)/bin/vexsign" list "$work/upgrade.pem"
        [ "$(wc -l <out)" -eq 1 ] || fail "list: $(cat out)"
    done
done

echo "== the file server and its clients"
# The port is fixed, so each server has a network of its own.
# shellcheck disable=SC2016
serve='
    ip link set lo up
    "$1" --root served 2>server.log &
    until grep -qs listening server.log; do
        kill -0 $!
        sleep 0.05
    done
    for client in old new; do
        LD_LIBRARY_PATH=$2 LD_PRELOAD=$3 VEX_TEST_LOG_DIR=$PWD/log ./client-$client server /logs/shared.log "$4 $client"
    done
    kill $!
    wait $!'
mkdir served
touch log/testPipe
for server in old new; do
    unshare --net bash -euc "$serve" _ "$(release $server)/bin/vexfiled" "$build/lib" "$private_log" "$server" ||
        fail "the $server server: $(cat server.log)"
done
[ "$(cat served/logs/shared.log)" = $'old old\nold new\nnew old\nnew new' ] || fail "$(cat served/logs/shared.log)"
# The trace of both in one file.
[ "$(grep -c 'SendMessageAndWait send start' log/pipe.log)" -ge 16 ] || fail "the trace: $(cat log/pipe.log)"

echo "all passed"
