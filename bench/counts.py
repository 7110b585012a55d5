#!/usr/bin/env python3
"""Counts instructions or system calls of a program, because counts are steadier than times.

  counts.py calls ROW WHO SMALL LARGE -- PROGRAM ARGUMENT...         system calls of the first thread (strace)
  counts.py writer-calls ROW WHO SMALL LARGE -- PROGRAM ARGUMENT...  system calls of the only other thread
  counts.py instructions ROW WHO SMALL LARGE -- PROGRAM ARGUMENT...  instructions of the first thread in user space
                                                                     (callgrind)

Runs the program twice: SMALL and LARGE replace the word AMOUNT in its arguments. The cost of one operation is the
difference of the counts, divided by the difference of the amounts. Prints sample lines (see support/Bench.h). Calls
with which threads wait for one another (futex) do not count, because their number depends on timing.
"""
import os
import re
import subprocess
import sys
import tempfile
from collections import Counter

WAITING = {"futex", "restart_syscall"}


# Makes libc clear memory without rep stosb, because valgrind counts an instruction for each byte that rep stosb stores.
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
    raise RuntimeError("the trace does not have this thread")


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
