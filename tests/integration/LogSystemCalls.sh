#!/bin/bash
# Counts the system calls for one log record, on the tracing thread and on the writer thread.
#
#   LogSystemCalls.sh <program that writes as many records as its argument says, between two marks>
#
# Only the calls between the marks count, because a process's calls at its start and end vary with the machine's load.
# futex is left out: how often threads wait for each other depends on their speed.
# Needs strace. Prints the reason and exits with 77 when strace may not trace.
set -euo pipefail
export LC_ALL=C
export TZ=UTC0 # a time zone that is read from no file

program=$1

# The writer: stat (is the name a directory?), open, fstat (is it a regular file?), lock, lseek for the length, write
# the text, write the line ends, lseek again, close. A user other than root needs geteuid to check the file's owner.
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

# The calling thread: stat (does the directory exist?) and getpid.
tracer_calls='getpid 1
stat 1'

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

if ! command -v strace >/dev/null || ! strace -o /dev/null true 2>/dev/null; then
    echo "skipped: strace is missing or may not trace"
    exit 77
fi

records=100
mkdir "$scratch/log"
VEX_TEST_LOG_DIR=$scratch/log strace -f -o "$scratch/calls" "$program" "$records"

# calls_per_record tracer|writer: "name count" for each system call. The process's first thread traces.
calls_per_record() {
    awk -v who="$1" -v records="$records" '
        NR == 1 { tracer = $1 }
        # The marks. fstat is newfstatat without a name, stat newfstatat with one.
        { name = $2; sub(/\(.*/, "", name) }
        name == "getppid" { ++marks; next }
        marks != 1 || ($1 == tracer) != (who == "tracer") { next }
        name == "newfstatat" { name = $2 ~ /\([0-9]+,$/ && $3 == "\"\"," ? "fstat" : "stat" }
        # Leaves out signals and the second half of a call that strace shows in two lines.
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
