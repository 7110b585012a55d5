#!/bin/bash
# dpkg installs, upgrades and purges the package of the tools: PackageLife.sh <package>
# Only for a private copy of the file system (tests/pages/private-copy). A program in place of systemctl notes what the
# package's scripts ask for; systemd's own systemctl enables the units.

package=$(readlink -f "$1")
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"

# The files that may change.
state() {
    # Some of them do not exist.
    { find /etc/systemd /usr/lib/systemd/system/vexfiled* /var/lib/systemd/deb-systemd-helper* /var/lib/*vexfiled* \
        /var/lib/private /usr/bin/vexfiled /usr/share/doc/tavclientjni-tools 2>/dev/null || true; } | sort
}
links=(/etc/systemd/system/multi-user.target.wants/vexfiled.service
    /etc/systemd/system/sockets.target.wants/vexfiled.socket)

# As on a machine that systemd has started.
mount -t tmpfs tmpfs /run
mkdir -p /run/systemd/system programs
systemctl=$(type -P systemctl)
cat >programs/systemctl <<END
#!/bin/sh
echo "\$*" >>$work/asked
END
chmod +x programs/systemctl
# dpkg runs the scripts with this path.
export PATH=$work/programs:$PATH
rm -f /usr/sbin/policy-rc.d
dpkg --purge tavclientjni-tools >purged 2>&1 || fail "an old package: $(cat purged)"
rm -f asked

# asked_for LINE...: what the scripts asked of systemctl, apart from reading the units again.
asked_for() {
    grep -v 'daemon-reload' asked >now || true
    printf '%s\n' "$@" | diff - now >&2 || fail "systemctl was asked for: $(cat asked)"
    grep -q 'daemon-reload' asked || fail "systemd did not read the units again"
    rm asked
}

mkdir -p /var/lib/private
state >before

echo "== install"
dpkg -i "$package" >dpkg.log 2>&1 || fail "dpkg -i: $(cat dpkg.log)"
for link in "${links[@]}"; do
    [ ! -e "$link" ] || fail "the package enables its units: $link"
done
sed -i '/^$/d' asked
! grep -qE 'start|enable' asked || fail "the package starts its server: $(cat asked)"
rm asked

echo "== upgrade"
"$systemctl" --root=/ enable vexfiled.service >enabled 2>&1 || fail "systemctl enable: $(cat enabled)"
for link in "${links[@]}"; do
    [ -L "$link" ] || fail "not enabled: $link"
done
dpkg -i "$package" >dpkg.log 2>&1 || fail "dpkg -i again: $(cat dpkg.log)"
asked_for "try-restart vexfiled.service"
for link in "${links[@]}"; do
    [ -L "$link" ] || fail "no longer enabled: $link"
done

echo "== an older package comes back"
# One without scripts and socket, as the first release had it.
dpkg-deb --raw-extract "$package" older
sed -i 's/^Version: .*/Version: 1.0.0.1-1/' older/DEBIAN/control
rm older/DEBIAN/p* older/usr/lib/systemd/system/vexfiled.socket
dpkg-deb --root-owner-group --build older older.deb >dpkg.log
dpkg -i older.deb >dpkg.log 2>&1 || fail "dpkg -i of an older package: $(cat dpkg.log)"
asked_for "stop vexfiled.socket vexfiled.service"
dpkg -i "$package" >dpkg.log 2>&1 || fail "dpkg -i over an older package: $(cat dpkg.log)"
asked_for "try-restart vexfiled.service"
[ -L "${links[0]}" ] || fail "no longer enabled: ${links[0]}"

echo "== purge"
# As DynamicUser= and StateDirectory= make them.
mkdir -p /var/lib/private/vexfiled/tmp
ln -s private/vexfiled /var/lib/vexfiled
dpkg --remove tavclientjni-tools >dpkg.log 2>&1 || fail "dpkg --remove: $(cat dpkg.log)"
asked_for "stop vexfiled.socket vexfiled.service"
[ -d /var/lib/vexfiled/tmp ] || fail "removing the package removes the logs"
dpkg --purge tavclientjni-tools >dpkg.log 2>&1 || fail "dpkg --purge: $(cat dpkg.log)"
for link in "${links[@]}"; do
    [ ! -L "$link" ] || fail "still there: $link"
done
state | diff before - >&2 || fail "the package leaves files behind"

echo "all passed"
