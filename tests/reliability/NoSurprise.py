#!/usr/bin/env python3
"""A default run starts no program, opens no socket and writes only the files that the documentation names.

NoSurprise.py vexsign <stays_dumpable library> <vexsign>
NoSurprise.py java <private_log library> <java> <bridge> <class path with SignAndExit>

strace watches whole runs with all threads and child processes. A JVM writes files by itself, so a run with the
libraries is compared with a run without them. Prints the reason and exits with 77 when strace may not trace.
"""
import collections
import os
import re
import subprocess
import sys
import tempfile

kind, arguments = sys.argv[1], sys.argv[2:]

# A line is "PID CALL(ARGUMENTS) = RESULT". A call that another thread's call interrupts takes two lines.
CALL = re.compile(r"(\d+) +(\w+)\((.*)\) += (-?\d+|\?)")
UNFINISHED = re.compile(r"(\d+) +(.*) <unfinished \.\.\.>$")
RESUMED = re.compile(r"(\d+) +<\.\.\. \w+ resumed>(.*)$")
PATH = re.compile(r'(?:(?:AT_FDCWD|\d+)<([^>]*)>, )?"((?:[^"\\]|\\.)*)"')  # the directory, the path
DESCRIPTOR = re.compile(r"\d+<([^>]*)>")
PROCESS = re.compile(r"(/proc/|/hsperfdata_[^/]+/)\d+")

NETWORK = {"socket", "socketpair", "connect", "bind", "listen", "accept", "accept4", "sendto", "sendmsg", "recvfrom",
           "recvmsg"}
OPENING = {"open", "openat", "openat2", "creat"}
CHANGING = re.compile(r"(unlink|rename|mkdir|rmdir|link|symlink|chmod|fchmodat|chown|lchown|fchownat|truncate|mknod|"
                      r"utime|futimes|setxattr|lsetxattr|removexattr|mount|umount|pivot_root|chroot|swapon|acct)")


def whole_calls(lines):
    begun = {}
    for line in lines:
        if match := UNFINISHED.match(line):
            begun[match[1]] = line[:match.start(2)] + match[2]
        elif match := RESUMED.match(line):
            yield begun.pop(match[1]) + match[2]
        else:
            yield line


def events(trace, scratch):
    """Counts what a run in that directory did, by (what, path or family). Failed calls count, too, except mkdir."""
    done = collections.Counter()
    for line in whole_calls(trace):
        call = CALL.match(line)
        if not call:
            continue
        name, given, result = call[2], call[3], call[4]
        # A call without a path is about the open file.
        named = ([os.path.join(directory or scratch, path) for directory, path in PATH.findall(given)]
                 or DESCRIPTOR.findall(given))
        paths = [PROCESS.sub(r"\1PID", path.replace(scratch, "SCRATCH")) for path in named]
        if name in ("execve", "execveat"):
            done["starts", paths[0]] += 1
        elif name in ("fork", "vfork") or (name in ("clone", "clone3") and "CLONE_THREAD" not in given):
            done["forks", name] += 1
        elif name in NETWORK:
            done["network", f"{name}({DESCRIPTOR.sub('', given)})"] += 1
        elif name in OPENING and (name == "creat" or re.search(r"O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|O_TMPFILE", given)):
            done["writes", paths[0] + (" (a file without a name)" if "O_TMPFILE" in given else "")] += 1
        elif name.startswith("mkdir") and result == "-1":
            pass  # the directory exists
        elif CHANGING.match(name):
            done["writes", " -> ".join(paths)] += 1
        elif name in ("memfd_create", "kill", "ptrace"):
            done["calls", name] += 1
    return done


def run(scratch, command, preloaded=None):
    """Runs a program under strace with its own directories and environment, and returns what it did."""
    for name in ("log", "home", "data", "tmp"):
        os.makedirs(f"{scratch}/{name}", exist_ok=True)
    environment = {name: value for name, value in os.environ.items()
                   if name not in ("JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS", "LD_PRELOAD")}
    environment.update(LC_ALL="C.UTF-8", HOME=f"{scratch}/home", XDG_DATA_HOME=f"{scratch}/data",
                       VEX_TEST_LOG_DIR=f"{scratch}/log")
    preload = ["-E", f"LD_PRELOAD={preloaded}"] if preloaded else []
    trace = f"{scratch}/trace"
    result = subprocess.run(
        ["strace", "-f", "-y", "--seccomp-bpf", "-qq", "-s", "4096", "-e", "signal=none", "-o", trace,
         "-e", "trace=%file,%network,%process,memfd_create,kill,ptrace", *preload, *command],
        cwd=scratch, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if result.returncode != 0:
        sys.exit(f"{command}: exit status {result.returncode}: {result.stdout.decode()}")
    if result.stdout:
        sys.exit(f"{command}: prints: {result.stdout.decode()}")
    with open(trace) as lines:
        done = events(lines, scratch)
    if done["starts", command[0]] != 1:
        sys.exit(f"the trace does not show how the program was started: {done}")
    return done


def check(name, done, usual, documented):
    """documented: a pattern for the whole paths that the run may write besides the usual ones. It must write one."""
    pattern = re.compile(documented)
    new = done - usual
    written = {path for (what, path) in new if what == "writes" and pattern.fullmatch(path)}
    surprises = {event: times for event, times in new.items() if event[0] != "writes" or event[1] not in written}
    print(f"{name}: {sum(done.values())} calls looked at, written: {sorted(written)}")
    if surprises:
        sys.exit(f"{name}: not documented: {surprises}")
    if not written:
        sys.exit(f"{name}: the run wrote nothing, so the trace is incomplete")


def check_that_all_is_seen(scratch):
    """Checks that the trace of a program that does forbidden things shows them."""
    done = run(scratch, [sys.executable, "-c",
                         "import os, socket; socket.socket(); open('forbidden', 'w'); os.mkdir('also');"
                         " os.spawnlp(os.P_WAIT, 'true', 'true')"])
    missing = [event for event in (("writes", "SCRATCH/forbidden"), ("writes", "SCRATCH/also")) if event not in done]
    if missing or not any(what == "network" for what, _ in done) or not any(
            what == "starts" and path.endswith("/true") for what, path in done):
        sys.exit(f"strace does not show what a program does: {done}")


def make_store(scratch):
    subprocess.run(f"cd {scratch} && printf 1234 >pin && printf 'a text' >text"
                   " && openssl req -x509 -nodes -newkey ec -pkeyopt ec_paramgen_curve:P-256 -keyout key -out crt"
                   " -subj /CN=x -days 30 && openssl pkcs12 -export -inkey key -in crt -out keys.p12 -passout file:pin",
                   shell=True, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


if subprocess.run(["strace", "-o", "/dev/null", "true"], stderr=subprocess.DEVNULL).returncode != 0:
    print("skipped: strace may not trace")
    sys.exit(77)

# A new log is created without a name and then linked to it. strace sees the redirected path only at the link.
LOG = r"(/proc/self/fd/\d+ -> )?SCRATCH/log/PILog\.txt|/tmp/ \(a file without a name\)"
DEMO_STORE = "SCRATCH/data(/vex-client-toolkit(/demo[^/]*( -> SCRATCH/data/vex-client-toolkit/demo.pem)?)?)?"



def output(name):
    """The output is written to a file beside its place and then renamed."""
    return rf"SCRATCH/\.vex-[0-9a-f]{{16}}( -> SCRATCH/{re.escape(name)})?"


with tempfile.TemporaryDirectory() as scratch:
    check_that_all_is_seen(scratch)
    make_store(scratch)
    if kind == "vexsign":
        stays_dumpable, vexsign = arguments
        nothing = collections.Counter({("starts", vexsign): 1})
        sign = [vexsign, "p7", f"{scratch}/keys.p12", "--pin-source", "pin", "text", "-o", "text.p7s"]
        check("vexsign", run(scratch, sign, stays_dumpable), nothing, output("text.p7s"))
        check("vexsign, demo store",
              run(scratch, [vexsign, "p1", "demo:", "text", "-o", "text.p1"], stays_dumpable), nothing,
              f"{output('text.p1')}|{DEMO_STORE}")
    else:
        private_log, java, bridge, class_path = arguments
        command = [java, "--enable-native-access=ALL-UNNAMED", "-Xmx64m", "-XX:+UseSerialGC",
                   f"-Djava.io.tmpdir={scratch}/tmp", f"-Dvex.jni.library={bridge}", "-cp", class_path,
                   "vex.jni.SignAndExit"]
        usual = run(scratch, command, private_log)
        store = f"file:{scratch}/keys.p12?pin-source=file:{scratch}/pin"
        check("JVM", run(scratch, [*command, store], private_log), usual, LOG)
        check("JVM, demo store", run(scratch, [*command, "demo:"], private_log), usual, f"{LOG}|{DEMO_STORE}")
