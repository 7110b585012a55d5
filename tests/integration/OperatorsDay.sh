#!/bin/bash
# A day of an operator, on a machine that systemd has started: OperatorsDay.sh <build directory>
# Makes the packages in two versions and runs operators-day/day with them in a private copy of this machine. With
# VEX_TEST_ROOT it is a copy of that directory, which scripts/soak operators-day fills with a bare Debian.
# Exit status 77: no systemd can be started here.

build=$1
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS LD_LIBRARY_PATH

mkdir -p files/classes files/packages-2 system
# cpack of the build's CMake.
cpack --config "$build/CPackConfig.cmake" -B "$work/files/packages-1" >cpack.log 2>&1 || fail "cpack: $(cat cpack.log)"
rm -rf files/packages-1/_CPack_Packages
for file in files/packages-1/*.deb; do
    dpkg-deb --raw-extract "$file" next
    sed -i '/^Version: /s/$/+1/' next/DEBIAN/control
    dpkg-deb --root-owner-group --build next files/packages-2 >/dev/null
    rm -rf next
done
javac --release 17 -cp "$build/java/tavclientjni.jar" -d files/classes "$here/operators-day/Service.java"
cp "$here"/operators-day/{machine.sh,day} files/
chmod -R a+rX files

"$here/operators-day/private-system" "$work/system" "${VEX_TEST_ROOT:-/}" "$work/files" bash /srv/day/day
