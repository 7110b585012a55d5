#!/usr/bin/env python3
"""Another user of the machine attacks programs that sign: links, locks, sizes, the port, /proc (HostileUser.py).

OtherUsers.py <java> <class path with SteadySigner and the bundled jar> <SteadySigner> <vexfiled> <vexsign>

The victims are a JVM with the bundled jar, a native program whose log and one file are on a vexfiled, and vexsign. They
use the real names, on file systems and a network that no other process sees. In each round quiet phases and attacks
take turns. In an attack every signature is good, nothing goes through a link or into the other user's files, memory,
descriptors and threads stay level, and the victims sign nearly as fast as in a quiet phase.

VEX_TEST_OTHER_USERS_MINUTES is the length; without it the test takes some seconds. Prints the reason and exits with 77
when it may not act as other users.
"""
import collections
import hashlib
import json
import os
import random
import signal
import statistics
import subprocess
import sys
import time

VICTIM, HOSTILE = 65534, 65533
PORT = 8766
PYTHON = "/usr/bin/python3"  # which every user may run
PIN = "a PIN that nobody else may see"
HERE = os.path.dirname(os.path.realpath(__file__))
MORE_MEMORY = 12 << 10  # KiB
RECORD = 2              # KiB that a queued record of the log may take
# Attacks: the victim comes first; the attacker comes first; the administrator has made the log for all; there is no
# file server, and the attacker plays one.
KINDS = ("victim first", "hostile first", "shared log", "no server")


def fail(text):
    sys.exit(f"OtherUsers: {text}")


def as_user(user):
    return {"user": user, "group": user, "extra_groups": [], "start_new_session": True}


def own_places():
    """Own file systems for all places, and the files that nobody may change."""
    for path, options in (("/tmp", "size=64m,nr_inodes=2000,mode=1777"), ("/srv", "size=256m,mode=755"),
                          ("/var", "size=1m,mode=755")):
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "vextest", path], check=True)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    for name, user, mode in (("victim", VICTIM, 0o700), ("served", VICTIM, 0o700), ("shared", 0, 0o1777),
                             ("elsewhere", 0, 0o1777), ("targets", 0, 0o755)):
        os.mkdir(f"/srv/{name}")
        os.chmod(f"/srv/{name}", mode)
        os.chown(f"/srv/{name}", user, user)
    for name, user, mode in (("administrators", 0, 0o644), ("victims", VICTIM, 0o600), ("hostile", HOSTILE, 0o666)):
        with open(f"/srv/targets/{name}", "w", encoding="ascii") as file:
            file.write("must not change\n")
        os.chmod(f"/srv/targets/{name}", mode)
        os.chown(f"/srv/targets/{name}", user, user)
    with open("/srv/victim/pin", "w", encoding="ascii") as file:
        file.write(PIN)
    with open("/srv/victim/text", "w", encoding="ascii") as file:
        file.write("a text")
    subprocess.run(
        "cd /srv/victim && openssl req -x509 -nodes -newkey rsa:2048 -keyout key.pem"
        " -out signer.pem -subj /CN=Victim -days 30 && openssl pkcs12 -export -inkey key.pem -in signer.pem"
        f" -out keys.p12 -passout file:pin && chown {VICTIM}:{VICTIM} *",
        shell=True, check=True, stderr=subprocess.DEVNULL)
    os.chdir("/srv/victim")
    with open("keys.p12", "rb") as file:
        return hashlib.sha256(file.read()).digest()


def unchanged_targets(store_digest):
    with open("/srv/victim/keys.p12", "rb") as file:
        if hashlib.sha256(file.read()).digest() != store_digest:
            fail("the victim's store was changed through a link")
    for name in ("administrators", "victims", "hostile"):
        with open(f"/srv/targets/{name}", encoding="ascii") as file:
            if file.read() != "must not change\n":
                fail(f"/srv/targets/{name} was changed through a link")
    if os.listdir("/srv/elsewhere"):
        fail(f"made through a link: {os.listdir('/srv/elsewhere')}")


class Peer:
    """A process that answers lines."""

    def __init__(self, command, user, **options):
        self.name = os.path.basename(command[0])
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        cwd="/srv/victim" if user == VICTIM else "/", **as_user(user), **options)

    def tell(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def hear(self):
        line = self.process.stdout.readline()
        if not line:
            fail(f"{self.name} has ended with {self.process.wait()}")
        return line

    def end(self):
        """Returns what it says at its end."""
        self.process.stdin.close()
        last = self.process.stdout.read()
        if self.process.wait(timeout=60) != 0:
            fail(f"{self.name} ends with {self.process.returncode}")
        return last


class Signer(Peer):
    def __init__(self, command):
        environment = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "HOME": "/srv/victim",
                       "VEX_TEST_OWN_PLACES": "1"}
        super().__init__(command, VICTIM, env=environment)
        self.counts = [0] * 5

    def report(self):
        """Signatures verified since the last report, and the longest time that one took, in seconds."""
        self.tell("")
        before, self.counts = self.counts, [int(number) for number in self.hear().split()]
        verified, failed, longest, *_ = self.counts
        if failed:
            fail(f"{self.name}: {failed} signatures are missing or wrong")
        return verified - before[0], longest / 1e6


class Sizes:
    """Memory in KiB, descriptors and threads of a process, again and again."""

    def __init__(self, name, process):
        self.name, self.process, self.sizes = name, process, []

    def measure(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            fields = dict(line.split(":", 1) for line in status)
        self.sizes.append((int(fields["VmRSS"].split()[0]), len(os.listdir(f"/proc/{self.process.pid}/fd")),
                           int(fields["Threads"])))

    def check(self, kind, queued):
        """Compares the end with the time after the first third. queued: KiB that it may have in its log's queue."""
        settled = self.sizes[len(self.sizes) // 3:]
        first, last = settled[0], settled[-1]
        if last[0] - first[0] > MORE_MEMORY + queued:
            fail(f"{self.name}, {kind}: {first[0]} KiB, and at the end {last[0]} KiB")
        # An exchange in progress has a connection and a pipe; the JVM starts and ends threads of its own.
        if last[1] - first[1] > 6 or last[2] - first[2] > 4:
            fail(f"{self.name}, {kind}: descriptors and threads {first[1:]}, and at the end {last[1:]}")
        return last[0] - first[0]


class Test:
    def __init__(self, java, class_path, signer, vexfiled, vexsign):
        self.store = "file:/srv/victim/keys.p12?pin-source=file:/srv/victim/pin"
        self.java = [java, "-Xms48m", "-Xmx48m", "-XX:+AlwaysPreTouch", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
                     "-XX:-UseDynamicNumberOfCompilerThreads", "--enable-native-access=ALL-UNNAMED", "-cp", class_path,
                     "vex.jni.SteadySigner", self.store, "/srv/victim/signer.pem"]
        self.native = [signer, self.store, "/srv/victim/signer.pem", "/lines"]
        self.vexfiled, self.vexsign = vexfiled, vexsign
        minutes = os.environ.get("VEX_TEST_OTHER_USERS_MINUTES")
        self.long = minutes is not None
        self.seconds = float(minutes) * 60 if self.long else 2.0
        self.phase = 5.0 if self.long else 0.7
        self.least = 0.5 if self.long else 0.2  # of the quiet rate; a busy machine disturbs short phases
        self.seed = int(os.environ.get("VEX_TEST_SEED") or random.SystemRandom().getrandbits(32))
        self.random = random.Random(self.seed)
        self.rates = collections.defaultdict(lambda: {True: [], False: []})  # by victim: attacked, quiet
        self.longest = {True: 0.0, False: 0.0}
        self.counts = collections.Counter()
        self.signatures = collections.Counter()
        self.memory = collections.defaultdict(int)

    def clean(self):
        """Nothing is left of the round before, as after the machine's start."""
        for directory in ("/tmp", "/srv/shared", "/srv/served", "/srv/elsewhere"):
            subprocess.run(["find", directory, "-mindepth", "1", "-delete"], check=True)
        subprocess.run(["find", "/srv/victim", "-mindepth", "1", "-name", " *", "-prune", "-exec", "rm", "-r", "{}",
                        "+"], check=True)

    def hostile(self, kind):
        peer = Peer([PYTHON, f"{HERE}/HostileUser.py"], HOSTILE)
        names = ["/tmp/PILog.txt", "/tmp/pipe.log", "/tmp/testPipe", "/var/log.ini", "/srv/shared/vex-client-toolkit",
                 "/srv/shared/vex-client-toolkit/demo.lock", "/srv/shared/vex-client-toolkit/demo.pem.new",
                 "/srv/served/lines", "/srv/victim/ /tmp/PILog.txt"]
        if kind == "hostile first":
            names.remove("/srv/shared/vex-client-toolkit")  # its owner would keep the victim from a demo store
        peer.tell(json.dumps({
            "seed": self.random.getrandbits(32), "victim": VICTIM, "names": names,
            "directories": ["/tmp", "/srv/shared"], "secret": PIN, "port": PORT, "fills": kind != "shared log",
            "targets": [f"/srv/targets/{name}" for name in ("administrators", "victims", "hostile")] +
                       ["/srv/elsewhere/new", "/srv/victim/keys.p12", "/dev/zero", "/dev/full", "/proc/self/mem"]}))
        self.judge(peer)
        return peer

    def judge(self, peer):
        answer = json.loads(peer.hear())
        if answer["breaches"]:
            fail(f"{answer['breaches'][:10]}")
        self.last_counts = answer["counts"]

    def server(self):
        """vexfiled, as soon as it listens."""
        log = open("/srv/victim/vexfiled.log", "wb")
        server = subprocess.Popen([self.vexfiled, "--root", "/srv/served"], stderr=log, **as_user(VICTIM))
        for _ in range(1000):
            with open("/srv/victim/vexfiled.log", encoding="utf-8") as lines:
                if "listening" in lines.read():
                    return server
            time.sleep(0.02)
        return fail("vexfiled does not listen")

    def sign_with_vexsign(self):
        """One signature with the store, and in the long form one with the demo store; openssl is the judge."""
        environment = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "XDG_DATA_HOME": "/srv/shared"}
        stores = [("/srv/victim/keys.p12", ["--pin-source", "pin"])]
        if self.long:
            stores.append(("demo:", []))  # whose keys take seconds to make
        for store, more in stores:
            output = f"out-{self.random.getrandbits(32):x}.p7s"
            result = subprocess.run([self.vexsign, "p7", store, *more, "text", "--out", "der", "-o", output], cwd="/srv/victim",
                                    env=environment, timeout=120, capture_output=True, text=True, **as_user(VICTIM))
            if result.returncode != 0:
                fail(f"vexsign ends with {result.returncode}: {result.stderr}")
            subprocess.run(["openssl", "cms", "-verify", "-noverify", "-binary", "-inform", "DER", "-in", output,
                            "-content", "text", "-out", "/dev/null"], cwd="/srv/victim", check=True,
                           stderr=subprocess.DEVNULL)
            os.unlink(f"/srv/victim/{output}")
            self.signatures["vexsign"] += 1

    def run_phase(self, signers, attacker, kind):
        """attacker: None in a quiet phase."""
        for signer in signers:
            signer.report()
        begin = time.monotonic()
        if attacker is not None:
            attacker.tell("squat" if kind == "no server" else "attack")
        for _ in range(1 if not self.long else 4):
            time.sleep(self.phase / (1 if not self.long else 4))
            if attacker is not None:
                self.sign_with_vexsign()
        reports = [(signer, *signer.report()) for signer in signers]
        seconds = time.monotonic() - begin
        if attacker is not None:
            attacker.tell("stop")
            self.judge(attacker)
        else:
            for sizes in self.sizes:
                sizes.measure()
        for signer, verified, longest in reports:
            self.rates[signer.name][attacker is not None].append(verified / seconds)
            self.longest[attacker is not None] = max(self.longest[attacker is not None], longest)
            self.signatures[signer.name] += verified

    def check_served(self, native, kind):
        """The file on the server has the lines that were confirmed, and no others."""
        path = "/srv/served/lines"
        _, _, _, confirmed, lost = native.counts
        if kind == "no server":
            if os.path.exists(path):
                fail("a file of the server without a server")
            return
        with open(path, encoding="ascii") as file:
            lines = [int(line.split()[1]) for line in file]
        if lines != sorted(set(lines)) or not confirmed <= len(lines) <= confirmed + lost:
            fail(f"the server's file has {len(lines)} lines; {confirmed} are confirmed, {lost} lost")
        self.counts["lines on the server"] += len(lines)
        self.counts["lines that the server did not confirm"] += lost

    def run_round(self, kind, seconds):
        self.clean()
        attacker = self.hostile(kind)
        if kind == "hostile first":
            attacker.tell("place")
            self.judge(attacker)
        if kind == "shared log":
            with open("/tmp/PILog.txt", "wb"):
                pass
            os.chmod("/tmp/PILog.txt", 0o666)
        if not os.path.lexists("/tmp/testPipe"):
            with open("/tmp/testPipe", "wb"):
                pass
        server = self.server() if kind != "no server" else None
        signers = [Signer(self.java), Signer(self.native)]
        for signer in signers:
            while signer.counts[0] < 10:  # since it started; a slow machine makes fewer in each 50 ms
                time.sleep(0.05)
                signer.report()
        if kind != "hostile first":
            self.sign_with_vexsign()  # makes the demo store
        self.sizes = [Sizes(signer.name, signer.process) for signer in signers]
        if server is not None:
            self.sizes.append(Sizes("vexfiled", server))
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            for attacked in self.random.sample([True, False], 2):
                self.run_phase(signers, attacker if attacked else None, kind)
            unchanged_targets(self.store_digest)
        for signer in signers:
            signer.report()
        queued = RECORD * 2 * max(signer.counts[0] for signer in signers) if kind in ("no server", "shared log") else 0
        for sizes in self.sizes:
            self.memory[sizes.name] = max(self.memory[sizes.name], sizes.check(kind, queued))
        for signer in signers:
            signer.counts = [int(number) for number in signer.end().split()]
        attacker.end()
        self.counts.update(self.last_counts)
        if server is not None:
            server.terminate()
            if server.wait(timeout=60) != 0:
                fail(f"vexfiled ends with {server.returncode}")
        self.check_served(signers[1], kind)
        print(f"{kind}: held, {dict(self.signatures)} so far", flush=True)

    def run(self):
        print(f"VEX_TEST_SEED={self.seed}", flush=True)
        # This is process 1 of its namespace, which only gets signals that it handles.
        signal.signal(signal.SIGALRM, lambda *_: fail("something hangs"))
        signal.alarm(int(2 * self.seconds + 600))
        self.store_digest = own_places()
        kinds = KINDS if self.long else KINDS[:1]
        end = time.monotonic() + self.seconds
        length = min(300.0, self.seconds / len(kinds))
        rounds = 0
        while time.monotonic() < end or rounds < len(kinds):
            self.run_round(kinds[rounds % len(kinds)], length)
            rounds += 1
        self.print_figures(rounds)

    def print_figures(self, rounds):
        for what, count in sorted(self.counts.items()):
            print(f"  {count:9,d}  {what}")
        print(f"{rounds} rounds, {sum(self.signatures.values()):,d} signatures, all good: {dict(self.signatures)}")
        print(f"The longest signature took {self.longest[True]:.3f} s attacked and {self.longest[False]:.3f} s quiet;"
              f" memory grew by at most {dict(self.memory)} KiB")
        for name, rates in self.rates.items():
            attacked, quiet = statistics.median(rates[True]), statistics.median(rates[False])
            print(f"{name}: {attacked:.1f} signatures a second attacked, {quiet:.1f} quiet (medians of"
                  f" {len(rates[True])} phases each)")
            if attacked < self.least * quiet:
                fail(f"{name} signs more slowly when it is attacked")
        if len(self.counts) < (60 if self.long else 10):
            fail(f"hardly any attack happened: {self.counts}")


def main():
    if os.geteuid() != 0:
        print("skipped: only root can act as other users")
        sys.exit(77)
    if any(os.path.realpath(path).startswith(("/tmp/", "/srv/", "/var/")) for path in (HERE, *sys.argv[3:])):
        print("skipped: the test hides /tmp, /srv and /var, and the build is there")
        sys.exit(77)
    if os.environ.get("VEX_TEST_OWN_PLACES") != "1":
        own = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]
        if subprocess.run([*own, "true"], stderr=subprocess.DEVNULL).returncode != 0:
            print("skipped: this process may not have mounts, processes and a network of its own")
            sys.exit(77)
        os.environ["VEX_TEST_OWN_PLACES"] = "1"
        os.execvp(own[0], [*own, sys.executable, *sys.argv])
    Test(*sys.argv[1:]).run()


main()
