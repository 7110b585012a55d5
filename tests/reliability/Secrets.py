#!/usr/bin/env python3
"""Searches for PINs and private keys in a process that has signed, in its log and in its output.

Secrets.py <secrets_program> <vexsign> <wait_at_exit library> <private_log library> [<java> <demo jar> <bridge>]

Programs that have signed wait while this test searches their memory: /proc/PID/mem and, in a long run, a core file from
gdb's gcore. It searches for a PIN as narrow, UTF-16 and UTF-32 text, and for the numbers of a key in the byte order of
a file and of memory. A program in the middle of signing shows that the search finds what is there.

VEX_TEST_SECRET_ROUNDS  number of rounds, each with new PINs and keys
VEX_TEST_SECRET_CORES   if set, also search core files, except those of JVMs; needs gdb
VEX_TEST_SOFTHSM        path of SoftHSM's module
"""
import os
import pty
import random
import shutil
import string
import subprocess
import sys
import tempfile

program, vexsign, wait_at_exit, private_log = sys.argv[1:5]
java, demo, bridge = sys.argv[5:8] if len(sys.argv) > 5 else (None, None, None)

ROUNDS = int(os.environ.get("VEX_TEST_SECRET_ROUNDS", "1"))
CORES = "VEX_TEST_SECRET_CORES" in os.environ
SOFTHSM = os.environ["VEX_TEST_SOFTHSM"]

seed = int(os.environ.get("VEX_TEST_SEED", random.SystemRandom().randrange(1 << 31)))
print(f"VEX_TEST_SEED={seed}", flush=True)
randomly = random.Random(seed)  # for PINs; openssl generates the keys

CHUNK = 1 << 24
OVERLAP = 4096
searches = searched_bytes = cores = 0


# ---- Secrets: name -> bytes that must not be found ----

def pin_patterns(pin):
    """Patterns of the PIN's end: the allocator overwrites the beginning of freed memory."""
    end = pin[-12:]
    return {f"PIN, {name}": end.encode(name) for name in ("ascii", "utf-16-le", "utf-32-le")}


def number_patterns(name, number):
    """Pieces of a number in the byte order of a file (big-endian) and of memory (little-endian limbs)."""
    length = len(number)
    starts = [0, length // 2] if length <= 32 else [16, length // 2, length - 32]
    patterns = {}
    for start in starts:
        piece = number[start:start + 16]
        patterns[f"{name}[{start}] big-endian"] = piece
        patterns[f"{name}[{start}] little-endian"] = piece[::-1]
    return patterns


def der_items(der):
    """Returns (tag, content) for each item of a sequence."""
    def item(at):
        length, at = der[at + 1], at + 2
        if length >= 0x80:
            size = length & 0x7f
            length, at = int.from_bytes(der[at:at + size], "big"), at + size
        return at, length

    at, length = item(0)
    end = at + length
    items = []
    while at < end:
        tag = der[at]
        at, length = item(at)
        items.append((tag, der[at:at + length]))
        at += length
    return items


def run(*command, **options):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options).stdout


def key_patterns(path):
    """Patterns of the key in an unencrypted file."""
    pem = open(path).read()
    lines = pem.split("\n")
    patterns = {"a line of the key file": lines[len(lines) // 2 - 1].encode()[:32]}
    der = run("openssl", "pkey", "-in", path, "-outform", "DER", "-traditional")
    items = [content for _, content in der_items(der)]
    if len(items) >= 9:
        names = ("d", "p", "q", "d mod p-1", "d mod q-1", "1/q mod p")
        for name, number in zip(names, items[3:9]):
            patterns.update(number_patterns(name, number.lstrip(b"\0")))
    else:
        patterns.update(number_patterns("d", items[1]))
    return patterns


# ---- Searching ----

def count_in(data, patterns, found):
    for name, pattern in patterns.items():
        found[name] = found.get(name, 0) + data.count(pattern)


def chunks_of_memory(pid):
    zeros = bytes(CHUNK)
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for line in maps:
            field = line.split()
            if field[1][0] != "r" or line.rstrip().endswith(("[vvar]", "[vvar_vclock]", "[vsyscall]")):
                continue
            begin, end = (int(address, 16) for address in field[0].split("-"))
            while begin < end:
                memory.seek(begin)
                try:
                    data = memory.read(min(CHUNK, end - begin))
                except OSError:  # a mapped file that was cut, or a page that was unmapped
                    break
                if data != zeros[:len(data)]:
                    yield data
                begin += len(data) if begin + len(data) >= end else len(data) - OVERLAP


def search(pid, patterns, core=CORES):
    """Counts each pattern in the memory of a waiting process. May count one twice where chunks overlap."""
    global searches, searched_bytes, cores
    found = {}
    for data in chunks_of_memory(pid):
        searched_bytes += len(data)
        count_in(data, patterns, found)
    searches += 1
    if core:
        with tempfile.TemporaryDirectory() as scratch:
            run("gcore", "-o", f"{scratch}/core", str(pid))
            with open(f"{scratch}/core.{pid}", "rb") as core:
                in_core = {}
                tail = b""
                while data := core.read(CHUNK):
                    count_in(tail + data, patterns, in_core)
                    tail = data[-OVERLAP:]
        cores += 1
        for name, times in in_core.items():
            found[name] = max(found[name], times)
    return {name: times for name, times in found.items() if times}


def expect(what, holds, details):
    if not holds:
        raise AssertionError(f"{what}: {details}")


# ---- Programs that sign ----

class Meeting:
    """Two pipes to a program that waits: it tells this test so, and continues when told (WaitForTest.h)."""

    def __init__(self):
        self.here, here_of_child = os.pipe()
        go_of_child, self.go = os.pipe()
        self.of_child = here_of_child, go_of_child
        self.environment = {"VEX_TEST_WAIT": f"{here_of_child},{go_of_child}"}

    def child_has_it(self):
        for descriptor in self.of_child:
            os.close(descriptor)

    def wait(self):
        """Returns False when the program ended without waiting."""
        return os.read(self.here, 1) == b"h"

    def go_on(self):
        os.write(self.go, b"g")

    def close(self):
        os.close(self.here)
        os.close(self.go)


class Program:
    """A program that waits, once or several times. Its output is collected in a file."""

    def __init__(self, directory, command, lines=(), environment=()):
        self.log = f"{directory}/log"
        shutil.rmtree(self.log, ignore_errors=True)
        os.mkdir(self.log)
        self.output = open(f"{directory}/output", "w+b")
        self.meeting = Meeting()
        variables = dict(os.environ, LC_ALL="C.UTF-8", VEX_TEST_LOG_DIR=self.log, **self.meeting.environment,
                         **dict(environment))
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=self.output, stderr=subprocess.STDOUT,
                                        env=variables, cwd=directory, pass_fds=self.meeting.of_child)
        self.meeting.child_has_it()
        for line in lines:
            self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.close()
        self.pid = self.process.pid

    def said(self):
        return os.pread(self.output.fileno(), 1 << 20, 0)

    def wait(self, stage=None):
        expect("it waits", self.meeting.wait(), self.said())
        if stage is not None:
            expect(stage, self.said().decode().rstrip().split("\n")[-1] == stage, self.said())

    def go_on(self):
        self.meeting.go_on()

    def finish(self, patterns):
        """Lets the program end, and searches its output and its log."""
        self.go_on()
        self.process.wait()
        self.meeting.close()
        expect("exit status", self.process.returncode == 0, self.said())
        found = {}
        count_in(self.said(), patterns, found)
        log = b""
        for name in os.listdir(self.log):
            with open(f"{self.log}/{name}", "rb") as file:
                log += file.read()
        count_in(log, patterns, found)
        expect("nothing in log and output", not any(found.values()), found)
        self.output.close()
        return log


def check_natives(directory, name, store, patterns, refused=(), in_use=True, kept=()):
    """The bridge and the toolkit in a program that overwrites its own text. kept: may be there while it is open."""
    child = Program(directory, [program], [store, *refused])
    child.wait("control")
    found = search(child.pid, patterns)
    if "pin-value" in store:
        for form in ("ascii", "utf-16-le", "utf-32-le"):
            expect(f"{name}: the search finds a PIN that is there, {form}", f"PIN, {form}" in found, found)
    child.go_on()
    child.wait("signed")
    found = open_found = search(child.pid, patterns)
    if in_use:
        expect(f"{name}: the search finds the key in use", any("d[" in key for key in found), found)
    left = {key: times for key, times in found.items() if "PIN" in key and key not in kept}
    expect(f"{name}: no PIN while the store is open", not left, left)
    child.go_on()
    child.wait("finalized")
    found = search(child.pid, patterns)
    expect(f"{name}: nothing after Finalize", not found, found)
    child.go_on()
    child.wait("refused")
    expect(f"{name}: each refused", child.said().count(b"refused: ") == len(refused), child.said())
    found = search(child.pid, patterns)
    expect(f"{name}: nothing after a refusal", not found, found)
    log = child.finish(patterns)
    expect(f"{name}: there is a log", log.count(b"Initialize") >= 2, log)
    return open_found


def check_at_exit(directory, name, command, patterns, kept=()):
    """Searches a whole program when it is about to end."""
    preload = {"LD_PRELOAD": f"{private_log} {wait_at_exit}"}
    child = Program(directory, command, environment=preload)
    child.wait()
    # A JVM's core file contains gigabytes that were never written to.
    found = search(child.pid, patterns, CORES and command[0] != java)
    left = {key: times for key, times in found.items() if key not in kept}
    expect(f"{name}: nothing at the end", not left, left)
    child.finish({} if kept else patterns)
    return found


def check_prompt(directory, pin, store, patterns):
    """Searches vexsign after it has asked for the PIN on a terminal."""
    meeting = Meeting()
    for descriptor in meeting.of_child:
        os.set_inheritable(descriptor, True)
    pid, terminal = pty.fork()
    if pid == 0:
        os.environ.update(meeting.environment, LD_PRELOAD=wait_at_exit)
        os.execv(vexsign, [vexsign, "p7", store, "--ask-pin", f"{directory}/text", "-o", f"{directory}/out.p7s"])
    shown = b""
    while b"PIN: " not in shown:
        shown += os.read(terminal, 1000)
    os.write(terminal, pin.encode() + b"\n")
    meeting.child_has_it()
    expect("vexsign --ask-pin: it waits", meeting.wait(), shown)
    found = search(pid, patterns)
    expect("vexsign --ask-pin: nothing at the end", not found, found)
    meeting.go_on()
    status = os.waitpid(pid, 0)[1]
    expect("vexsign --ask-pin: exit status", status == 0, status)
    os.close(terminal)
    meeting.close()


# ---- A round ----

def make_key(directory, name, kind, pin):
    path = f"{directory}/{name}"
    run("openssl", "req", "-x509", "-nodes", "-newkey", *kind, "-keyout", f"{path}.key", "-out", f"{path}.crt",
        "-subj", f"/CN={name}", "-days", "30")
    run("openssl", "pkcs12", "-export", "-inkey", f"{path}.key", "-in", f"{path}.crt", "-out", f"{path}.p12",
        "-passout", "stdin", input=pin.encode())
    run("openssl", "pkcs12", "-export", "-legacy", "-inkey", f"{path}.key", "-in", f"{path}.crt", "-out",
        f"{path}.old.p12", "-passout", "stdin", input=pin.encode())
    encrypted = run("openssl", "pkcs8", "-topk8", "-in", f"{path}.key", "-passout", "stdin", input=pin.encode())
    with open(f"{path}.enc.pem", "wb") as pem:
        pem.write(encrypted + open(f"{path}.crt", "rb").read())
    with open(f"{path}.pem", "wb") as pem:
        pem.write(open(f"{path}.key", "rb").read() + open(f"{path}.crt", "rb").read())


def make_token(directory, pin):
    os.mkdir(f"{directory}/tokens")
    with open(f"{directory}/softhsm2.conf", "w") as configuration:
        configuration.write(f"directories.tokendir = {directory}/tokens\nobjectstore.backend = file\n"
                            "log.level = ERROR\n")
    os.environ["SOFTHSM2_CONF"] = f"{directory}/softhsm2.conf"
    run("softhsm2-util", "--init-token", "--free", "--label", "Card", "--so-pin", "87654321", "--pin", pin)
    tool = ("pkcs11-tool", "--module", SOFTHSM, "--token-label", "Card", "--login", "--pin", pin, "--id", "01")
    run(*tool, "--keypairgen", "--key-type", "EC:prime256v1", "--label", "key")
    run(*tool, "--read-object", "--type", "pubkey", "-o", f"{directory}/token.spki")
    run("openssl", "pkey", "-pubin", "-inform", "DER", "-in", f"{directory}/token.spki", "-out",
        f"{directory}/token.pub")
    run("openssl", "x509", "-new", "-force_pubkey", f"{directory}/token.pub", "-subj", "/CN=token", "-days", "30",
        "-signkey", f"{directory}/ec.key", "-outform", "DER", "-out", f"{directory}/token.der")
    run(*tool, "--write-object", f"{directory}/token.der", "--type", "cert", "--label", "key")


def a_round(directory):
    pin = "".join(randomly.choice(string.ascii_letters + string.digits) for _ in range(24))
    pins = pin_patterns(pin)
    with open(f"{directory}/pin", "w") as file:
        file.write(pin + "\n")
    with open(f"{directory}/text", "w") as file:
        file.write("a text to sign")
    make_key(directory, "rsa", ["rsa:2048"], pin)
    make_key(directory, "ec", ["ec", "-pkeyopt", "ec_paramgen_curve:P-256"], pin)
    make_key(directory, "other", ["ec", "-pkeyopt", "ec_paramgen_curve:P-256"], "another PIN")
    rsa, ec = key_patterns(f"{directory}/rsa.key"), key_patterns(f"{directory}/ec.key")
    by_value, by_source = f"?pin-value={pin}", f"?pin-source=file:{directory}/pin"
    refused = [f"file:{directory}/other.p12{by_value}", f"file:{directory}/rsa.p12{by_value}&colour={pin}",
               f"file:{directory}/{pin}.p12%zz{by_value}", f"{pin}", f"file:{directory}/missing.p12{by_value}"]

    check_natives(directory, "PKCS #12, pin-value", f"file:{directory}/rsa.p12{by_value}", {**pins, **rsa}, refused)
    check_natives(directory, "PKCS #12, pin-source", f"file:{directory}/ec.p12{by_source}", {**pins, **ec})
    check_natives(directory, "PKCS #12 with old ciphers", f"file:{directory}/rsa.old.p12{by_source}", {**pins, **rsa},
                  [f"file:{directory}/other.old.p12{by_source}"])
    check_natives(directory, "PEM, pin-value", f"file:{directory}/ec.enc.pem{by_value}", {**pins, **ec})
    check_natives(directory, "PEM, no PIN", f"file:{directory}/rsa.pem", rsa)

    # A token that was removed needs its PIN again, so the toolkit keeps the PIN while a handle is open.
    make_token(directory, pin)
    token = check_natives(directory, "token", f"pkcs11:token=Card{by_value}&module-path={SOFTHSM}", pins,
                          [f"pkcs11:token=Nobody{by_value}&module-path={SOFTHSM}"], False, ("PIN, ascii",))

    both = {**pins, **rsa}
    store = f"{directory}/rsa.p12"
    check_at_exit(directory, "vexsign --pin-source",
                  [vexsign, "p7", store, "--pin-source", f"{directory}/pin", f"{directory}/text", "-o",
                   f"{directory}/out.p7s"], both)
    check_prompt(directory, pin, store, both)
    java_keeps = {}
    if java is not None:
        def demo_command(attribute):
            return [java, "--enable-native-access=ALL-UNNAMED", "-Xmx48m", "-XX:+UseSerialGC",
                    f"-Dvex.jni.library={bridge}", "-jar", demo, "--store", f"file:{store}{attribute}",
                    "--out", f"{directory}/out", "text"]

        check_at_exit(directory, "JVM, pin-source", demo_command(by_source), both)
        # The JVM keeps the text of a Java string, and this text is also on the command line.
        java_keeps = check_at_exit(directory, "JVM, pin-value", demo_command(by_value), both,
                                   ("PIN, ascii", "PIN, utf-16-le"))
    return token, java_keeps


for number in range(ROUNDS):
    with tempfile.TemporaryDirectory() as scratch:
        try:
            token, java_keeps = a_round(scratch)
        except PermissionError as error:
            print(f"skipped: the memory of another process cannot be read here: {error}")
            sys.exit(77)
        except subprocess.CalledProcessError as error:
            sys.exit(f"{error}\n{error.stderr.decode()}")
    if number == 0:
        print(f"Allowed in memory: the PIN of a token in use ({token}), a PIN in a JVM's own text ({java_keeps})",
              flush=True)
print(f"{ROUNDS} rounds, {searches} searches of {searched_bytes >> 20} MiB, {cores} core files: nothing found that may"
      " not be there")
