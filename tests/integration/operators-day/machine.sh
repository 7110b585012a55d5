# What the days on a private copy of a machine (private-system) share. To be sourced; /srv/day has the files of the day.
# shellcheck shell=bash
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
umask 022
cd /root

fail() {
    echo "FAILED: $*" >&2
    journalctl --no-pager --lines=40 --unit='app@*' --unit=vexfiled.service --unit=vexfiled.socket >&2 || true
    exit 1
}

# await TEXT COMMAND...: waits until the command succeeds. The time is only a limit for a day that fails.
await() {
    local deadline=$((SECONDS + 60))
    until "${@:2}" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$deadline" ] || fail "this did not happen within a minute: $1"
        sleep 0.1
    done
}

# install_files ARGUMENT...: package files and options for apt-get, which reads no list: nothing but the files is needed.
install_files() {
    apt-get -o Dir::Etc::sourcelist=/dev/null -o Dir::Etc::sourceparts=/dev/null -o APT::Sandbox::User=root \
        install -y --no-install-recommends "$@" >apt.log 2>&1 || fail "apt-get install: $(cat apt.log)"
    local argument
    for argument in "$@"; do
        [[ $argument != *.deb ]] || is_installed "$argument" || fail "$argument: $(cat apt.log)"
    done
}

# is_installed FILE: the package of this file is installed, in its version.
is_installed() {
    [ "$(dpkg-query -W -f '${Status} ${Version}' "$(dpkg-deb -f "$1" Package)")" = \
        "install ok installed $(dpkg-deb -f "$1" Version)" ]
}

# Removes what an earlier test or build has installed.
purge_packages() {
    dpkg --purge libtavclientjni-java libvexclienttk-substitute tavclientjni-tools libvexclienttk-dev >apt.log 2>&1 ||
        fail "an old package: $(cat apt.log)"
    # Otherwise each install and purge makes the machine's whole index of man pages again.
    rm -f /var/lib/man-db/auto-update
}

# main_process UNIT: its process ID.
main_process() {
    systemctl show --property=MainPID --value "$1"
}
