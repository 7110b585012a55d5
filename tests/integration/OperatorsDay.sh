#!/bin/bash
# A day of an operator, on a machine that systemd has started: OperatorsDay.sh <build directory>
# Makes the packages in two versions and runs operators-day/day with them in a private copy of this machine. With
# VEX_TEST_ROOT it is a copy of that directory, which scripts/soak operators-day fills with a bare Debian.
# Exit status 77: no systemd can be started here.

build=$1
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS LD_LIBRARY_PATH

mkdir files system files/classes
# cpack of the build's CMake.
for release in 1 2; do
    cpack --config "$build/CPackConfig.cmake" -B "$work/files/packages-$release" \
        -D "CPACK_DEBIAN_PACKAGE_RELEASE=$release" >cpack.log 2>&1 || fail "cpack: $(cat cpack.log)"
    rm -rf "files/packages-$release/_CPack_Packages"
done
javac --release 17 -cp "$build/java/tavclientjni.jar" -d files/classes "$here/operators-day/Service.java"
cp "$here/operators-day/day" files/
chmod -R a+rX files

"$here/operators-day/private-system" "$work/system" "${VEX_TEST_ROOT:-/}" "$work/files" bash /srv/day/day
