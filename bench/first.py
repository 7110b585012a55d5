#!/usr/bin/env python3
"""How long does a fresh JVM take to its first signature?

  first.py JAVA BENCH-JAR JAR BUNDLED-JAR LIBRARIES PRELOAD [rounds=N]

Starts JVMs in turns: with JAR and the libraries in the directory LIBRARIES, with BUNDLED-JAR alone, and with the JDK's
own providers. All open the same PKCS #12 file and sign the same text with RSA-2048. Each says when a stage ends, and
then waits to be killed: the end of the process is not measured. PRELOAD gives every JVM its own log. Prints sample
lines (see support/Bench.h).
"""
import os
import subprocess
import sys
import tempfile
import time

PIN = "correct horse"
TEXT = "I owe you 100 euros."
STAGES = {"JVM": "start of the JVM", "library": "loading the library", "store": "opening the store",
          "signature": "signature"}


def make_store(java, directory):
    """With the JDK's defaults: PBES2 and a MAC, 10,000 iterations each."""
    store = os.path.join(directory, "store.p12")
    subprocess.run([os.path.join(os.path.dirname(java), "keytool"), "-genkeypair", "-keystore", store, "-storetype",
                    "PKCS12", "-storepass", PIN, "-alias", "signer", "-dname", "CN=bench", "-keyalg", "RSA", "-keysize",
                    "2048"], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return store


def run(command, environment):
    """When each stage ended, in milliseconds; the processor time; and the signature."""
    begin = time.perf_counter()
    with subprocess.Popen(command, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as jvm:
        ends = {}
        while "signature" not in ends:
            line = jvm.stdout.readline().decode().split()
            if not line or line[0] not in STAGES:
                sys.exit(f"{' '.join(command)} printed {line}")
            ends[line[0]] = (time.perf_counter() - begin) * 1e3
        jvm.kill()
        _, _, usage = os.wait4(jvm.pid, 0)
        jvm.returncode = -9
    return ends, (usage.ru_utime + usage.ru_stime) * 1e3, line[1]


def main():
    java, bench, jar, bundled, libraries, preload = sys.argv[1:7]
    amounts = dict(argument.split("=") for argument in sys.argv[7:])
    rounds = int(amounts.get("rounds", 20))
    release = subprocess.run([java, "-XshowSettings:properties", "-version"], check=True, capture_output=True, text=True)
    properties = dict(line.strip().split(" = ", 1) for line in release.stderr.splitlines() if " = " in line.strip())
    name = ", Java " + properties["java.specification.version"]
    print("question\tHow long does a fresh JVM take to its first signature?")
    print("setting", "Java", properties["java.vm.vendor"] + " " + properties["java.runtime.version"], sep="\t")
    print("setting", "rounds", rounds, sep="\t")
    with tempfile.TemporaryDirectory(prefix="vexbench.") as directory:
        store = make_store(java, directory)
        common = ["-XX:+IgnoreUnrecognizedVMOptions", "--enable-native-access=ALL-UNNAMED",
                  f"-Djava.io.tmpdir={directory}"]
        commands = {
            "product": [java, *common, f"-Djava.library.path={libraries}", "-cp", f"{jar}:{bench}",
                        "vex.bench.FirstSignature"],
            "product, bundled jar": [java, *common, "-cp", f"{bundled}:{bench}", "vex.bench.FirstSignature"],
            "the JDK alone": [java, *common, "-cp", bench, "vex.bench.FirstSignatureOfJdk"],
        }
        environment = {name: value for name, value in os.environ.items()
                       if name not in ("JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS", "LD_LIBRARY_PATH")}
        environment.update(LD_PRELOAD=preload, VEX_TEST_LOG_DIR=directory)
        for number in range(-1, rounds):
            signatures = set()
            whos = list(commands)
            for who in whos[number % len(whos):] + whos[:number % len(whos)]:
                ends, cpu, signature = run([*commands[who], store, PIN, TEXT], environment)
                signatures.add(signature)
                if number < 0:
                    continue
                total = ends["signature"]
                print("sample", "to the first signature" + name, who, number, f"{total:.6g}", "ms", sep="\t")
                print("sample", "to the first signature, CPU time" + name, who, number, f"{cpu:.6g}", "ms", sep="\t")
                before = 0
                for stage, text in STAGES.items():
                    if stage in ends:
                        print("sample", f"of it: {text}{name}", who, number, f"{ends[stage] - before:.6g}", "ms",
                              sep="\t")
                        before = ends[stage]
            if len(signatures) != 1:
                sys.exit("the JVMs have made different signatures")


if __name__ == "__main__":
    main()
