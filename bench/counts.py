#!/usr/bin/env python3
"""Counts what a program costs where a count is steadier than a time.

  counts.py calls ROW WHO SMALL LARGE -- PROGRAM ARGUMENT...         system calls of the first thread (strace)
  counts.py writer-calls ROW WHO SMALL LARGE -- PROGRAM ARGUMENT...  of its only other one
  counts.py instructions ROW WHO SMALL LARGE -- PROGRAM ARGUMENT...  of the first thread, in user space (callgrind)

The program is run twice, the word AMOUNT in its arguments replaced by SMALL and by LARGE; what one more costs is the
difference, divided. Prints sample lines (see support/Bench.h). Calls by which threads wait for one another (futex) are
left out: how many there are depends on who is faster.
"""
import os
import re
import subprocess
import sys
import tempfile
from collections import Counter

WAITING = {"futex", "restart_syscall"}


# A cleared block counts as its stores: valgrind counts each byte that rep stosb stores.
ENVIRONMENT = dict(os.environ, GLIBC_TUNABLES="glibc.cpu.x86_rep_stosb_threshold=1000000000")


def run(command):
    subprocess.run(command, check=True, env=ENVIRONMENT, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


def calls(command, directory, first=True):
    run(["strace", "-ff", "-o", os.path.join(directory, "thread"), *command])
    for name in os.listdir(directory):
        with open(os.path.join(directory, name), encoding="utf-8", errors="replace") as trace:
            lines = trace.readlines()
        if lines and lines[0].startswith("execve") == first:
            return Counter(found for found in (line.split("(")[0] for line in lines)
                           if re.fullmatch(r"[a-z_0-9]+", found) and found not in WAITING)
    raise RuntimeError("no such thread in the trace")


def writer_calls(command, directory):
    return calls(command, directory, first=False)


def instructions(command, directory):
    run(["valgrind", "--tool=callgrind", "--separate-threads=yes", "--dump-line=no",
         "--callgrind-out-file=" + os.path.join(directory, "out"), *command])
    with open(os.path.join(directory, "out-01"), encoding="utf-8") as out:
        found = re.search(r"^(?:summary|totals): (\d+)", out.read(), re.MULTILINE)
    return Counter(instructions=int(found.group(1)))


def main():
    kind, row, who, small, large = sys.argv[1:6]
    program = sys.argv[7:]
    measure = {"calls": calls, "writer-calls": writer_calls, "instructions": instructions}[kind]
    counts = []
    for amount in (small, large):
        with tempfile.TemporaryDirectory(prefix="vexbench.") as directory:
            counts.append(measure([word.replace("AMOUNT", amount) for word in program], directory))
    counts[1].subtract(counts[0])
    each = {name: count / (int(large) - int(small)) for name, count in sorted(counts[1].items()) if count}
    if kind != "instructions":
        print("setting", row + ", " + who, ", ".join(f"{n} {c:g}" for n, c in each.items()), sep="\t")
    print("sample", row, who, 0, f"{sum(each.values()):.6g}", kind if kind == "instructions" else "calls", sep="\t")


main()
