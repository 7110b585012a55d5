#!/usr/bin/env python3
"""How long does vexsign take to sign a large file or many files, and how much memory?

  vexsign.py VEXSIGN TOOLKIT [rounds=N] [mebibytes=N] [files=N]

Compares a detached P7 with that of openssl cms, in turns, on a sparse file of mebibytes=N. Measures the peak memory for
this file, and for an attached P7 of a quarter of it, at most 1 GiB, above the memory for a small file. Compares the
P7 of files=N small files with as many signatures of the toolkit alone. Prints sample lines (see support/Bench.h).
"""
import base64
import hashlib
import multiprocessing
import os
import subprocess
import sys
import tempfile
import time

from toolkit import load

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


def signatures_alone(toolkit, store, digests, result):
    """Puts the seconds that the toolkit takes to sign the digests into the queue."""
    library = load(toolkit)
    signer = library.VCTK_Initialize(b"file:" + store.encode())
    failed = library.VCTK_SetDigestAlg(signer, b"prehashed:SHA-256")
    begin = time.perf_counter()
    for digest in digests:
        failed |= library.VCTK_P7Sign(signer, digest, 1, 1, 1)
    took = time.perf_counter() - begin
    result.put(None if failed or not signer else took)


def alone(toolkit, store, digests):
    """In a process of its own: the toolkit then sets OpenSSL up for itself, as in vexsign."""
    context = multiprocessing.get_context("spawn")
    result = context.Queue()
    process = context.Process(target=signatures_alone, args=(toolkit, store, digests, result))
    process.start()
    took = result.get()
    process.join()
    if took is None:
        sys.exit("the toolkit cannot sign")
    return took


def many_files(vexsign, toolkit, store, directory, rounds, count):
    data = os.path.join(directory, "data")
    os.mkdir(data)
    digests = []
    for number in range(count):
        text = f"the text of file {number}".encode()
        with open(os.path.join(data, f"file-{number}"), "wb") as out:
            out.write(text)
        digests.append(base64.b64encode(hashlib.sha256(text).digest()))
    names = [os.path.join(data, name) for name in os.listdir(data)]
    row = f"P7 of {count} small files, RSA-2048"
    for number in range(-1, rounds):
        values = {}
        for who in sorted(["product", "signatures alone"], reverse=number % 2 == 0):
            if who == "product":
                # Removed at the end: ext4 is slow to reuse the inodes of files that were just removed.
                signed = os.path.join(directory, f"signed{number}")
                os.mkdir(signed)
                values[who] = seconds([vexsign, "p7", "file:" + store, "--output-dir", signed, *names])
            else:
                values[who] = alone(toolkit, store, digests)
        if len(os.listdir(signed)) != count:
            sys.exit("vexsign has not signed every file")
        if number >= 0:
            for who, value in values.items():
                print("sample", row, who, number, f"{value:.6g}", "s", sep="\t")


def main():
    vexsign, toolkit = sys.argv[1:3]
    amounts = dict(argument.split("=") for argument in sys.argv[3:])
    rounds, large = int(amounts.get("rounds", 10)), int(amounts.get("mebibytes", 1024))
    attached = min(max(large // 4, 1), 1024)
    print("question\tHow long does vexsign take to sign a large file or many files, and how much memory?")
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
        many_files(vexsign, toolkit, store, directory, rounds, int(amounts.get("files", 10000)))


if __name__ == "__main__":
    main()
