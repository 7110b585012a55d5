#!/usr/bin/env python3
"""What does a time stamp add to a signature?

  timestamp.py TOOLKIT AUTHORITY [rounds=N] [signatures=N]

Signs with the toolkit, with and without a time stamp of the tests' authority (AUTHORITY is TimeStampAuthority.py) on
this machine, in turns. The exchange alone sends one of the same requests with Python's HTTP client: it is mostly the
authority's own work, which runs openssl for each request. The CPU time is that of this process: the request, and all
checks of the reply with the authority's root. Prints sample lines (see support/Bench.h).
"""
import base64
import hashlib
import http.client
import os
import subprocess
import sys
import tempfile
import time
import urllib.parse

from toolkit import load


def signer(library, store):
    """A function that signs once."""
    handle = library.VCTK_Initialize(store.encode())
    if not handle or library.VCTK_SetDigestAlg(handle, b"prehashed:SHA-256"):
        sys.exit("the toolkit does not open the store")
    digest = base64.b64encode(hashlib.sha256(b"a text").digest())

    def sign():
        if library.VCTK_P7Sign(handle, digest, 1, 1, 1):
            sys.exit("the toolkit cannot sign")

    return sign


def exchange(url, request):
    """A function that asks the authority once."""
    host = urllib.parse.urlsplit(url).netloc

    def ask():
        connection = http.client.HTTPConnection(host)
        connection.request("POST", "/", request, {"Content-Type": "application/timestamp-query"})
        answer = connection.getresponse()
        if answer.status != 200 or not answer.read():
            sys.exit("the authority does not answer")
        connection.close()

    return ask


def milliseconds(call, count):
    """Wall time and CPU time of one call."""
    clocks = (time.perf_counter, time.process_time)
    begin = [clock() for clock in clocks]
    for _ in range(count):
        call()
    return [(clock() - at) * 1000 / count for clock, at in zip(clocks, begin)]


def measure(toolkit, url, directory, rounds, count):
    key, certificate, store = (os.path.join(directory, name) for name in ("key", "crt", "pem"))
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=bench", "-keyout", key,
                    "-out", certificate], check=True, stderr=subprocess.DEVNULL)
    with open(store, "wb") as out:
        for part in (key, certificate):
            with open(part, "rb") as text:
                out.write(text.read())
    library = load(toolkit)
    root = os.path.join(directory, "authority/tsa-ca.pem")
    calls = {"product": signer(library, f"file:{store}?tsa={urllib.parse.quote(url)}&tsa-ca=file:{root}"),
             "without a time stamp": signer(library, f"file:{store}")}
    calls["product"]()
    with open(os.path.join(directory, "authority/requests/1.tsq"), "rb") as request:
        calls["the exchange alone"] = exchange(url, request.read())
    for number in range(-1, rounds):
        for who in sorted(calls, reverse=number % 2 == 0):
            wall, cpu = milliseconds(calls[who], count)
            if number < 0:
                continue
            print("sample", "one P7 with a time stamp, RSA-2048", who, number, f"{wall:.6g}", "ms", sep="\t")
            if who != "the exchange alone":
                row = "one P7 with a time stamp, RSA-2048, CPU time"
                print("sample", row, who, number, f"{cpu:.6g}", "ms", sep="\t")


def main():
    toolkit, authority = sys.argv[1:3]
    amounts = dict(argument.split("=") for argument in sys.argv[3:])
    rounds, count = int(amounts.get("rounds", 20)), int(amounts.get("signatures", 20))
    print("question\tWhat does a time stamp add to a signature?")
    print("setting", "rounds", rounds, sep="\t")
    print("setting", "signatures", count, sep="\t")
    with tempfile.TemporaryDirectory(prefix="vexbench.") as directory:
        command = [sys.executable, authority, "--directory", os.path.join(directory, "authority")]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as server:
            try:
                measure(toolkit, server.stdout.readline().strip(), directory, rounds, count)
            finally:
                server.terminate()


if __name__ == "__main__":
    main()
