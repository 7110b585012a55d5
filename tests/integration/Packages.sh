#!/bin/bash
# The Debian packages: Packages.sh <build directory> <source directory> <private_log library>
# Builds them, runs lintian, and signs from a root that contains only them. Then does the same with an install by cmake.

build=$1
source=$2
private_log=$3
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
export XDG_DATA_HOME=$work/data HOME=$work
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS LD_LIBRARY_PATH
mkdir data log blocks

# The program of the page about Java.
"$source/tests/pages/blocks.py" "$source/docs/java.md" blocks
cp blocks/*.java FirstSignature.java

# signs PREFIX: vexsign and a Java program sign with the files below the prefix.
signs() {
    echo 'a text' >text.txt
    "$1/bin/vexsign" p7 demo: text.txt -o text.p7s --cert-out signer.pem --verify-hint 2>hint
    sed -n 's/^To verify: //p' hint >hint.sh
    [ -s hint.sh ] || fail "no hint: $(cat hint)"
    sh -e hint.sh >verified 2>&1 || fail "the signature from $1: $(cat verified)"

    rm -rf classes && mkdir classes
    javac -cp "$1/share/java/tavclientjni.jar" -d classes FirstSignature.java
    LD_PRELOAD=$private_log VEX_TEST_LOG_DIR=$work/log java --enable-native-access=ALL-UNNAMED \
        -Djava.library.path="$1/lib/jni" -cp "$1/share/java/tavclientjni.jar:classes" FirstSignature >signed
    grep -q '^Signed and verified: CN=VEX Demo EC P-256,' signed || fail "Java from $1: $(cat signed)"
}

echo "== the packages"
cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >cpack.log 2>&1 || fail "cpack: $(cat cpack.log)"
packages=(packages/*.deb)
[ "${#packages[@]}" -eq 4 ] || fail "packages: ${packages[*]}"
bridge=$(echo packages/libtavclientjni-java_*.deb)
toolkit=$(echo packages/libvexclienttk-substitute_*.deb)
tools=$(echo packages/tavclientjni-tools_*.deb)
dev=$(echo packages/libvexclienttk-dev_*.deb)

lintian --allow-root --display-info --fail-on error,warning "${packages[@]}" >lintian.log 2>&1 ||
    fail "lintian: $(cat lintian.log)"
# Each override is needed.
! grep -E '^[EW]:|^I: .* (unused|mismatched)-override' lintian.log || fail "lintian: $(cat lintian.log)"

echo "== the same packages again, elsewhere and later"
(
    umask 027
    mkdir home
    HOME=$work/home TZ=Asia/Tokyo cpack --config "$build/CPackConfig.cmake" -B "$work/again" >cpack.log 2>&1
) || fail "cpack: $(cat cpack.log)"
for file in packages/*.deb; do
    # Only the headers of the two archives inside tell the umask.
    for part in --ctrl-tarfile --fsys-tarfile; do
        cmp <(dpkg-deb "$part" "$file") <(dpkg-deb "$part" "again/${file##*/}") ||
            fail "$file depends on when, where or by whom it was made"
    done
done
diff <(grep -vE 'checksumValue|documentNamespace' packages/*.spdx.json) \
    <(grep -vE 'checksumValue|documentNamespace' again/*.spdx.json) >&2 || fail "the SPDX document"

# contains PACKAGE FILE...: these files and, except documents, no others.
contains() {
    dpkg-deb -c "$1" | awk '$1 !~ /^d/ { print $6 }' | grep -v -e '^\./usr/share/doc/' -e '^\./usr/share/lintian/overrides/' |
        sort >found
    printf './usr/%s\n' "${@:2}" | sort >wanted
    diff wanted found >&2 || fail "the contents of $1"
}
contains "$bridge" lib/jni/libTAVClientJNI.so share/java/tavclientjni.jar \
    "share/java/tavclientjni-$(dpkg-deb -f "$bridge" Version | sed 's/-.*//').jar"
contains "$toolkit" lib/jni/libVEXClientTKDll64.so
contains "$tools" bin/vexfiled bin/vexlog bin/vexsign lib/systemd/system/vexfiled.{service,socket} \
    share/bash-completion/completions/{vexfiled,vexlog,vexsign} \
    share/man/man8/vexfiled.8.gz share/man/man1/vexlog.1.gz share/man/man1/vexsign.1.gz
mapfile -t headers < <(cd "$source/BaseInclude" && printf 'include/vexclienttk/%s\n' *.h)
contains "$dev" "${headers[@]}" \
    lib/cmake/VEXClientTK/VEXClientTKConfig{,Version}.cmake share/pkgconfig/vexclienttk.pc

echo "== what the packages depend on"
depends() {
    dpkg-deb -f "$1" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//' | sort | tr '\n' ' '
}
[ "$(depends "$bridge")" = 'libc6 libgcc-s1 libstdc++6 ' ] || fail "the bridge needs $(depends "$bridge")"
# The t64 is part of newer releases' names.
[[ "$(depends "$toolkit")" =~ ^'libc6 libgcc-s1 libssl3'(t64)?' libstdc++6 '$ ]] ||
    fail "the toolkit needs $(depends "$toolkit")"
[[ "$(depends "$tools")" =~ ^'libc6 libgcc-s1 libssl3'(t64)?' libstdc++6 zlib1g '$ ]] ||
    fail "the tools need $(depends "$tools")"

for part in bridge toolkit tools dev; do
    dpkg-deb -x "${!part}" "root-$part"
done
# Each library and program finds all that it needs, except the toolkit.
for file in root-bridge/usr/lib/jni/*.so root-toolkit/usr/lib/jni/*.so root-tools/usr/bin/*; do
    ldd "$file" | grep 'not found' | grep -v libVEXClientTKDll64.so && fail "$file is not complete"
done
ldd root-bridge/usr/lib/jni/libTAVClientJNI.so | grep >/dev/null 'libVEXClientTKDll64.so => not found' ||
    fail "the bridge finds a toolkit without its package"
[ "$(readelf -d root-bridge/usr/lib/jni/libTAVClientJNI.so | grep -c 'RUNPATH.*\[.ORIGIN\]')" -eq 1 ] ||
    fail "the run path of the bridge"
"$here/CheckRunPaths.sh" root-bridge root-toolkit root-tools root-dev >&2 || fail "a run path"

[ "$(dpkg-deb -f "$toolkit" Suggests)" = p11-kit ] || fail "the toolkit suggests $(dpkg-deb -f "$toolkit" Suggests)"

echo "== the notices of what is compiled in"
# notice FILE TEXT...: the notices in the file's package contain these texts.
notice() {
    local text
    for text in "${@:2}"; do
        grep -qF -- "$text" "${1%%/*}"/usr/share/doc/*/copyright || fail "no \"$text\" in the notices for $1"
    done
}
noticed=0
for file in root-bridge/usr/lib/jni/*.so root-toolkit/usr/lib/jni/*.so root-tools/usr/bin/*; do
    # These are names of types. A stripped program still contains them.
    if grep -q N3CLI "$file"; then
        notice "$file" 'University of Cincinnati' 'Redistributions in binary form must reproduce' 'PROVIDED BY THE COPYRIGHT'
        noticed=$((noticed + 1))
    fi
    if grep -q N4asio "$file"; then
        notice "$file" 'Christopher M. Kohlhoff' 'Boost Software License - Version 1.0'
        noticed=$((noticed + 1))
    fi
done
[ "$noticed" -eq 4 ] || fail "CLI11 and asio were found $noticed times"
notice root-toolkit 'g10 Code GmbH' 'as long as this notice is preserved'
"$here/CheckCompiledIn.py" "$build" "$source/packaging/sbom" >&2 || fail "the list of what is compiled in"
# The bundled jar holds the bridge and the toolkit.
jar --extract --file "$build/java/tavclientjni-bundled.jar" META-INF/COPYRIGHT || fail "the notices of the bundled jar"
for package in root-bridge root-toolkit; do
    grep -v '^Files: \*\|^$' "$package"/usr/share/doc/*/copyright | while read -r line; do
        grep -qF -- "$line" META-INF/COPYRIGHT || fail "no \"$line\" in the notices of the bundled jar"
    done
done

echo "== signing from them"
for package in "$bridge" "$toolkit" "$tools"; do
    dpkg-deb -x "$package" root
done
ldd root/usr/bin/vexsign | grep -F >/dev/null "libVEXClientTKDll64.so => $work/root/usr/bin/../lib/jni/" ||
    fail "vexsign's toolkit: $(ldd root/usr/bin/vexsign)"
signs "$work/root/usr"
for page in vexsign.1 vexlog.1 vexfiled.8; do
    name=${page%.*} section=${page#*.}
    gzip -dc "root/usr/share/man/man$section/$page.gz" | grep >/dev/null "^\.Dt ${name^^} $section" ||
        fail "the page of $name"
    "root/usr/bin/$name" --version >/dev/null
done
# The pages and the packages have one date.
date=$(sed -n 's/^ -- .*>  //p' "$source/packaging/changelog" | head -n 1)
dated=".Dd $(date --utc --date="$date" '+%B %-d, %Y')"
for page in root/usr/share/man/man*/vex*.gz; do
    [ "$(gzip -dc "$page" | grep '^\.Dd ')" = "$dated" ] || fail "$page does not have the date of the changelog: $dated"
done
for package in "${packages[@]}"; do
    TZ=UTC dpkg-deb -c "$package" | awk '{ print $4 }' | sort -u | diff - <(date --utc --date="$date" +%F) >&2 ||
        fail "files of another day in $package"
done

echo "== another project's program"
dpkg-deb -x "$dev" root
mkdir program
cat >program/main.cpp <<'CPP'
#include <VCTK.h>
#include <VCTKError.h>
#include <VCTKFilter.h>
#include <VEXCompat.h>
int main() {
    HANDLE hObject = VCTK_Initialize("demo:");
    const bool fGood = hObject != nullptr && VCTK_AddFilter(hObject, VCTK_FILTER_KEY_ALGORITHM, "RSA") == VCTK_OK &&
                       VCTK_P1Sign(hObject, "text", 0) == VCTK_OK && lstrlenW(L"abc") == 3;
    return fGood && VCTK_Finalize(hObject) == VCTK_OK ? 0 : 1;
}
CPP
read -ra flags < <(PKG_CONFIG_PATH=$work/root/usr/share/pkgconfig pkg-config --cflags --libs vexclienttk)
g++ -std=c++17 program/main.cpp "${flags[@]}" -o by-pkg-config
./by-pkg-config || fail "the program by pkg-config"
cat >program/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(program LANGUAGES CXX)
find_package(VEXClientTK 1.0 REQUIRED)
set(CMAKE_CXX_STANDARD 17)
add_executable(program main.cpp)
target_link_libraries(program VEXClientTK::toolkit)
CMAKE
if ! { cmake -S program -B by-cmake -G Ninja -DCMAKE_PREFIX_PATH="$work/root/usr" && cmake --build by-cmake; } \
    >cmake.log 2>&1; then
    fail "a project that finds the toolkit: $(cat cmake.log)"
fi
by-cmake/program || fail "the program by CMake"

echo "== a program that uses the file server"
# The program of the page about it, and every header by itself.
mkdir page
chmod 755 . # another user starts the program
"$source/tests/pages/blocks.py" "$source/docs/file-server.md" page
cp page/*.cpp client.cpp
g++ -std=c++17 -Wall -Wextra -Werror client.cpp "${flags[@]}" -o client
for header in "${headers[@]##*/}"; do
    echo "#include <$header>" | g++ -std=c++17 -Wall -Wextra -Werror -fsyntax-only "${flags[@]}" -xc++ - ||
        fail "$header cannot be used by itself"
done
# The client's port is fixed, so server and client need a network of their own, and dpkg needs a file system of its own.
private=(unshare --mount --net)
if ! "${private[@]}" true 2>/dev/null; then
    private+=(--propagation unchanged)  # in a chroot
fi
mkdir layers
if "${private[@]}" mount -t tmpfs tmpfs layers 2>/dev/null && ! mountpoint -q layers; then
    "${private[@]}" "$here/ServedProgram.sh" "$work/root/usr/bin/vexfiled" "$work/client" || fail "the page's program"

    echo "== the life of the tools' package"
    "${private[@]}" "$source/tests/pages/private-copy" layers "$here/PackageLife.sh" "$work/$tools" >life.log 2>&1 ||
        fail "the package's life: $(cat life.log)"
else
    ! mountpoint -q layers || umount layers
    echo "skipped: the file server's program and the package's life, because this user may not make namespaces"
fi

echo "== what is in them"
"$here/CheckSbom.py" packages/*.spdx.json "${packages[@]}"

echo "== an install by cmake, moved afterwards"
cmake --install "$build" --prefix "$work/prefix" >install.log || fail "cmake --install: $(cat install.log)"
mv prefix 'moved prefix'
"$here/CheckRunPaths.sh" 'moved prefix' >&2 || fail "a run path of the install"
signs "$work/moved prefix"

echo "all passed"
