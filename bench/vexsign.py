#!/usr/bin/env python3
"""How long does vexsign take to sign a large file, and how much memory?

  vexsign.py VEXSIGN [rounds=N] [mebibytes=N]

Compares a detached P7 with that of openssl cms, in turns, on a sparse file of mebibytes=N. Measures the peak memory for
this file, and for an attached P7 of a quarter of it, at most 1 GiB, above the memory for a small file. Prints sample
lines (see support/Bench.h).
"""
import os
import subprocess
import sys
import tempfile
import time

MIB = 1 << 20


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def seconds(command):
    begin = time.perf_counter()
    run(*command)
    return time.perf_counter() - begin


def peak(command):
    """The program's peak memory in MiB, by GNU time (see vexlog.py)."""
    with tempfile.NamedTemporaryFile("r", prefix="vexbench.") as result:
        run("/usr/bin/time", "--format=%M", "--output", result.name, *command)
        return int(result.read()) / 1024


def sparse(path, mebibytes):
    with open(path, "wb") as out:
        out.truncate(mebibytes * MIB)
    return path


def main():
    vexsign = sys.argv[1]
    amounts = dict(argument.split("=") for argument in sys.argv[2:])
    rounds, large = int(amounts.get("rounds", 10)), int(amounts.get("mebibytes", 1024))
    attached = min(max(large // 4, 1), 1024)
    print("question\tHow long does vexsign take to sign a large file, and how much memory?")
    print("setting", "rounds", rounds, sep="\t")
    with tempfile.TemporaryDirectory(prefix="vexbench.") as directory:
        key, certificate, store, result = (os.path.join(directory, name) for name in ("key", "crt", "pem", "sig"))
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=bench", "-keyout", key, "-out",
            certificate)
        with open(store, "wb") as out:
            for part in (key, certificate):
                with open(part, "rb") as text:
                    out.write(text.read())
        small, data = sparse(os.path.join(directory, "small"), 1), sparse(os.path.join(directory, "large"), large)
        sign = [vexsign, "p7", "file:" + store, "--out", "der", "-o", result]
        cms = ["openssl", "cms", "-sign", "-binary", "-signer", certificate, "-inkey", key, "-in", data, "-out"]
        commands = {
            "product": [*sign, data],
            "openssl cms": [*cms, result, "-outform", "DER"],
            # Writes the data, too: an S/MIME message.
            "openssl cms -stream": [*cms, "/dev/null", "-stream"],
        }
        for number in range(-1, rounds):
            for who in sorted(commands, reverse=number % 2 == 0):
                value = seconds(commands[who])
                if number >= 0:
                    print("sample", f"a detached P7 of {large} MiB", who, number, f"{value:.6g}", "s", sep="\t")
        least = peak([*sign, small])
        for row, more in ((f"more memory for a detached P7 of {large} MiB", [data]),
                          (f"more memory for an attached P7 of {attached} MiB",
                           ["--attached", sparse(os.path.join(directory, "attached"), attached)])):
            print("sample", row, "product", 0, f"{peak([*sign, *more]) - least:.6g}", "MiB", sep="\t")
        print("sample", f"more memory for an attached P7 of {attached} MiB", "twice the data", 0, 2 * attached, "MiB",
              sep="\t")


main()
