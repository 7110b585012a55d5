#!/bin/bash
# SmallDisk.sh <directory> COMMAND...: mounts a full file system on the directory and runs the command in it. No other
# process sees it. Its file "old" contains "old". Exit status 77 if it may not mount.
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
