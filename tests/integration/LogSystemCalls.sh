#!/bin/bash
# Counts the system calls that one record of the log costs, on the thread that traces and on the writer.
#
#   LogSystemCalls.sh <program that writes as many records as its argument says, between two marks>
#
# Only the calls between the marks count, because a process's calls at its start and end vary with the machine's load.
# futex is left out: how often threads wait for each other depends on their speed.
# Needs strace; exit status 77, after saying why, where it may not trace.
set -euo pipefail
export LC_ALL=C
export TZ=UTC0 # a time zone that is read from no file

program=$1

# What the writer does: is the name a directory, open, is it a regular file, lock, how long is it, text, end of the entry,
# how long is it now, close. Whether a file that is not root's is the user's own takes one more.
own_file_calls=''
if [ "$(id -u)" -ne 0 ]; then
    own_file_calls='geteuid 1
'
fi
writer_calls="close 1
flock 1
fstat 1
${own_file_calls}lseek 2
openat 1
pwrite64 2
stat 1"

# What the calling thread does: does the directory exist, which process is this.
tracer_calls='getpid 1
stat 1'

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

if ! command -v strace >/dev/null || ! strace -o /dev/null true 2>/dev/null; then
    echo "skipped: strace is not there or may not trace"
    exit 77
fi

records=100
mkdir "$scratch/log"
VEX_TEST_LOG_DIR=$scratch/log strace -f -o "$scratch/calls" "$program" "$records"

# calls_per_record tracer|writer: "name count" for each system call. The process's first thread is the one that traces.
calls_per_record() {
    awk -v who="$1" -v records="$records" '
        NR == 1 { tracer = $1 }
        # The marks. fstat is newfstatat without a name, stat newfstatat with one.
        { name = $2; sub(/\(.*/, "", name) }
        name == "getppid" { ++marks; next }
        marks != 1 || ($1 == tracer) != (who == "tracer") { next }
        name == "newfstatat" { name = $2 ~ /\([0-9]+,$/ && $3 == "\"\"," ? "fstat" : "stat" }
        # The second half of a call that another thread interrupted in the list, and signals.
        name == "futex" || name == "restart_syscall" || name !~ /^[a-z]/ { next }
        { ++count[name] }
        END {
            if (marks != 2) { print "marks: " marks; exit }
            for (name in count) print name, count[name] / records
        }
    ' "$scratch/calls" | sort
}

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
