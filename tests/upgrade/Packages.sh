#!/bin/bash
# Upgrades the packages of an earlier release to today's, on a machine that systemd has started:
# Packages.sh <old> <build>
# <old> is what build-old has made. Runs "day" in a private copy of this machine, or of the directory VEX_TEST_ROOT.
# Exit status 77: no systemd can be started here.

old=$(readlink -f "$1/source")
build=$(readlink -f "$2")
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/../integration/Common.sh"
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS LD_LIBRARY_PATH

mkdir -p files/classes files/old files/new system
cp "$old"/build/release/packages/*.deb files/old/
cpack --config "$build/CPackConfig.cmake" -B "$work/files/new" >cpack.log 2>&1 || fail "cpack: $(cat cpack.log)"
rm -rf files/new/_CPack_Packages
# Programs of that release's users.
javac --release 17 -cp "$old/build/release/java/tavclientjni.jar" -d files/classes "$here/Service.java"
g++ -std=c++20 -I"$old/BaseInclude" "$here/Client.cpp" -L"$old/build/release/lib" -lVEXClientTKDll64 -ldl \
    -Wl,-rpath,/usr/lib/jni -o files/client
cp "$here/../integration/operators-day/machine.sh" "$here/day" files/
chmod -R a+rX files

"$here/../integration/operators-day/private-system" "$work/system" "${VEX_TEST_ROOT:-/}" "$work/files" bash /srv/day/day
