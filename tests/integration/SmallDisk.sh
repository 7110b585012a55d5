#!/bin/bash
# Runs a command with a full file system of one file, which no other process sees: SmallDisk.sh <directory> COMMAND...
# The command runs in that directory, where "old" holds "old" and there is no room for more. Status 77 without the right
# to mount one.
set -euo pipefail

directory=$1
shift

fill() {
    mount -t tmpfs -o size=64k,mode=777 tmpfs "$1" || exit 77
    cd "$1"
    shift
    echo old >old
    head -c 1M /dev/zero >filler 2>/dev/null || true
    "$@"
}
export -f fill

separate=(unshare --mount)
[ "$(id -u)" -eq 0 ] || separate+=(--map-root-user)
"${separate[@]}" true 2>/dev/null || exit 77
exec "${separate[@]}" bash -euo pipefail -c 'fill "$@"' fill "$directory" "$@"
