#!/bin/bash
# Counts the system calls that one record of the log costs, on the thread that traces and on the writer.
#
#   LogSystemCalls.sh <program that writes as many records as its argument says>
#
# What a record costs is a hundredth of what a hundred more of them cost. Calls by which threads wait for one another
# (futex) are left out: how many there are depends on who is faster. Needs strace; exit status 77, after saying why, where
# it may not trace.
set -euo pipefail
export LC_ALL=C
export TZ=UTC0 # a time zone that is read from no file

program=$1

# What the writer does: is the name a directory, open, is it a regular file, lock, how long is it, text, end of the entry,
# how long is it now, close.
writer_calls='close 1
flock 1
fstat 1
lseek 2
openat 1
pwrite64 2
stat 1'

# What the calling thread does: does the directory exist, which process is this.
tracer_calls='getpid 1
stat 1'

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

if ! command -v strace >/dev/null || ! strace -o /dev/null true 2>/dev/null; then
    echo "skipped: strace is not there or may not trace"
    exit 77
fi

# trace RECORDS: writes the calls of the two threads to $scratch/RECORDS.tracer and .writer.
trace() {
    local directory=$scratch/$1 file
    mkdir "$directory" "$directory/log"
    VEX_TEST_LOG_DIR=$directory/log strace -ff -o "$directory/thread" "$program" "$1"
    for file in "$directory"/thread.*; do
        if grep -q '^execve' "$file"; then
            mv "$file" "$scratch/$1.tracer"
        else
            mv "$file" "$scratch/$1.writer"
        fi
    done
}

# calls_per_record THREAD: "name count" for each system call that depends on the number of records.
calls_per_record() {
    awk '
        # fstat is newfstatat without a name, stat newfstatat with one.
        { name = $1; sub(/\(.*/, "", name) }
        name == "newfstatat" { name = /^newfstatat\([0-9]+, ""/ ? "fstat" : "stat" }
        name == "futex" || name == "restart_syscall" { next }
        { count[name] += FILENAME ~ /\/110\./ ? 1 : -1 }
        END { for (name in count) if (count[name] != 0) print name, count[name] / 100 }
    ' "$scratch/110.$1" "$scratch/10.$1" | sort
}

trace 10
trace 110

failed=0
expect() {
    local found
    found=$(calls_per_record "$1")
    echo "System calls per record, $1:"
    printf '%s\n' "$found"
    if [ "$found" != "$2" ]; then
        printf 'expected:\n%s\n' "$2"
        failed=1
    fi
}
expect tracer "$tracer_calls"
expect writer "$writer_calls"
exit "$failed"
