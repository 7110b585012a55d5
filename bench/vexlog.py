#!/usr/bin/env python3
"""How long does vexlog take for a log, and how much memory?

  vexlog.py VEXLOG [rounds=N] [mebibytes=N]

Compares vexlog with cat on a full log of 2 MiB, in turns. Measures the peak memory for this log and for a file of
mebibytes=N. Prints sample lines (see support/Bench.h).
"""
import os
import subprocess
import sys
import tempfile
import time

MIB = 1 << 20


def records(size):
    """A log of that many bytes with records of natives."""
    natives = [("P1SignString", 274, 318), ("P7Sign", 325, 368), ("GetLastErrorMessage", 512, 545)]
    out, total, number = [b"\xff\xfe"], 2, 0
    while total < size:
        name, enter, leave = natives[number // 2 % len(natives)]
        line, event = (enter, "Enter.") if number % 2 == 0 else (leave, "Leave.")
        number += 1
        record = (f"[INFO] [P{4711 + number % 3}] [T{-1234567 - number % 8}] "
                  f"[2024-03-05 {number // 360000 % 24:02}:{number // 6000 % 60:02}:{number // 100 % 60:02}:"
                  f"{number % 100 * 10000 + 17}] [TAVClientJNI/vex_jni_TAVClientJNI.cpp-Java_vex_jni_TAVClientJNI_"
                  f"{name}({line})]: {name} {event}\r\n\r\n").encode()
        out.append(record)
        total += len(record)
    return b"".join(out)[:size]


def seconds(command):
    begin = time.perf_counter()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return time.perf_counter() - begin


def peak(command):
    """The program's peak memory in MiB, by GNU time. wait4() called from here would never report less than the memory
    of this Python, because a process keeps the peak that it had before exec."""
    with tempfile.NamedTemporaryFile("r", prefix="vexbench.") as result:
        subprocess.run(["/usr/bin/time", "--format=%M", "--output", result.name, *command], check=True,
                       stdout=subprocess.DEVNULL)
        return int(result.read()) / 1024


def main():
    vexlog = sys.argv[1]
    amounts = dict(argument.split("=") for argument in sys.argv[2:])
    rounds, large = int(amounts.get("rounds", 30)), int(amounts.get("mebibytes", 256))
    print("question\tHow long does vexlog take for a log, and how much memory?")
    print("setting", "rounds", rounds, sep="\t")
    print("setting", "the large file", f"{large} MiB", sep="\t")
    with tempfile.TemporaryDirectory(prefix="vexbench.") as directory:
        full = os.path.join(directory, "full.log")
        with open(full, "wb") as out:
            out.write(records(2 * MIB))
        row = "a full log of 2 MiB"
        for number in range(-1, rounds):
            times = {}
            for who in ("cat", "product") if number % 2 else ("product", "cat"):
                times[who] = seconds(["cat", full] if who == "cat" else [vexlog, full]) * 1000
            times["3 times cat and 50 ms"] = 3 * times["cat"] + 50
            for who, value in times.items():
                if number >= 0:
                    print("sample", row, who, number, f"{value:.6g}", "ms", sep="\t")
        print("sample", "peak memory of vexlog", "2 MiB", 0, f"{peak([vexlog, full]):.6g}", "MiB", sep="\t")
        block = records(16 * MIB)
        with open(full, "wb") as out:
            for _ in range(max(large // 16, 1)):
                out.write(block)
        print("sample", "peak memory of vexlog", f"{large} MiB", 0, f"{peak([vexlog, full]):.6g}", "MiB", sep="\t")
        print("sample", f"a file of {large} MiB", "product", 0, f"{seconds([vexlog, full]):.6g}", "s", sep="\t")


main()
