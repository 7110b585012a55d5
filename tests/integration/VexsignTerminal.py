#!/usr/bin/env python3
"""vexsign on a terminal, and without core files: VexsignTerminal.py <vexsign> <store> <store with a PIN>

Works in the current directory, in which Python may create files.
"""
import os
import pty
import resource
import select
import signal
import subprocess
import sys
import time

vexsign, store, pin_store = sys.argv[1:]
LONGEST = 60  # seconds; nothing here takes long


def read_all(terminal):
    """Everything that the program writes to its terminal until it ends."""
    shown = b""
    while True:
        if not select.select([terminal], [], [], LONGEST)[0]:
            sys.exit(f"the program does not end; its terminal shows {shown}")
        try:
            part = os.read(terminal, 1000)
        except OSError:  # how a terminal ends
            return shown
        if not part:
            return shown
        shown += part


def end_of_input():
    """One Control-D after a line ends the input."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(vexsign, [vexsign, "p7", store, "--attached", "--out", "der", "-o", "typed.p7s"])
    # The terminal keeps what is typed until the program reads it.
    os.write(terminal, b"a line\n\x04")
    shown = read_all(terminal)
    status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    assert status == 0, (status, shown)
    verified = subprocess.run(["openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", "typed.p7s",
                               "-noverify"], capture_output=True)
    assert verified.returncode == 0 and verified.stdout == b"a line\n", verified


def pin_on_terminal():
    """A terminal is no source of a PIN: it would show it."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(vexsign, [vexsign, "list", store, "--pin-source", "/dev/stdin"])
    shown = read_all(terminal)
    status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    assert status == 1 and b"use --ask-pin" in shown, (status, shown)


def slow_run(stderr):
    """Signs three files. The second is a pipe that is silent for more than the second after which progress is shown."""
    program = subprocess.Popen([vexsign, "p7", store, "--output-dir", "signed", "first", "slow", "third"],
                               stderr=stderr)
    with open("slow", "w") as slow:  # waits until the program opens it, after it has begun to measure the time
        time.sleep(1.1)
        slow.write("slow")
    return program


def progress():
    for name in ("first", "third"):
        with open(name, "w") as out:
            out.write(name)
    os.mkfifo("slow")
    os.mkdir("signed")
    terminal, of_program = pty.openpty()
    program = slow_run(of_program)
    os.close(of_program)
    shown = read_all(terminal)
    assert program.wait() == 0, shown
    assert b"\r2 of 3 files" in shown and shown.endswith(b"\r\x1b[K"), shown
    program = slow_run(subprocess.PIPE)
    shown = program.communicate()[1]
    assert program.returncode == 0 and shown == b"", shown
    assert sorted(os.listdir("signed")) == ["first.p7s", "slow.p7s", "third.p7s"]


def leaves_core(directory, command):
    """Whether the command, which opens the pipe "wait" in this directory, leaves a core file when it is aborted."""
    os.mkdir(directory)
    os.mkfifo(f"{directory}/wait")
    _, most = resource.getrlimit(resource.RLIMIT_CORE)
    program = subprocess.Popen(command, cwd=directory,
                               preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (most, most)))
    with open(f"{directory}/wait", "w"):
        program.send_signal(signal.SIGABRT)
        _, status = os.waitpid(program.pid, 0)
    program.returncode = 0  # it has been waited for
    assert os.WIFSIGNALED(status) and os.WTERMSIG(status) == signal.SIGABRT, status
    return os.WCOREDUMP(status) or os.listdir(directory) != ["wait"]


def core_files():
    sign = [vexsign, "p7", pin_store, "wait"]
    if not leaves_core("of-cat", ["cat", "wait"]):
        print("core files: not checked, because no program leaves one here")
    assert not leaves_core("of-vexsign", sign), "a core file of a program that has a key and a PIN in memory"


def nobody_may_look():
    """Only root may look into the process: in /proc its files belong to root, not to the process's user."""
    user = {}
    if os.geteuid() == 0:
        user = {"user": 65534, "group": 65534, "extra_groups": []}
        try:
            subprocess.run([vexsign, "--version"], check=True, stdout=subprocess.DEVNULL, cwd="/", **user)
        except (OSError, subprocess.CalledProcessError):
            print("/proc: not checked, because other users may not run the program here")
            return
    program = subprocess.Popen([vexsign, "verify", "--no-chain", "-"], stdin=subprocess.PIPE, cwd="/", **user)
    end = time.monotonic() + LONGEST
    while owner := os.stat(f"/proc/{program.pid}/environ").st_uid:
        assert time.monotonic() < end, f"the process's files belong to user {owner}"
        time.sleep(0.01)
    assert program.poll() is None, "it ended before its input did"
    program.kill()
    program.wait()


vexsign = os.path.abspath(vexsign)
end_of_input()
pin_on_terminal()
progress()
core_files()
nobody_may_look()
