#!/usr/bin/env python3
"""vexsign --ask-pin on a terminal: VexsignPrompt.py <vexsign> <store> <its PIN>"""
import os
import pty
import signal
import sys
import termios

vexsign, store, pin = sys.argv[1:]


def echoes(terminal):
    return bool(termios.tcgetattr(terminal)[3] & termios.ECHO)


def run(answer):
    """Starts the program, answers its question, and returns its exit status and all that the terminal showed."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(vexsign, [vexsign, "list", store, "--ask-pin"])
    shown = b""
    while b"PIN: " not in shown:
        shown += os.read(terminal, 1000)
    assert not echoes(terminal), "the terminal shows what is typed"
    os.write(terminal, answer)
    while True:
        try:
            part = os.read(terminal, 1000)
        except OSError:  # how a terminal ends
            break
        if not part:
            break
        shown += part
    status = os.waitpid(pid, 0)[1]
    return status, shown


status, shown = run(pin.encode() + b"\n")
assert status == 0 and b"CN=rsa" in shown, (status, shown)
assert pin.encode() not in shown, shown

status, shown = run(b"something else\n")
assert os.waitstatus_to_exitcode(status) == 1 and b"error 1108" in shown, (status, shown)

# Control-D ends the input, also behind some characters.
for typed in (b"\x04", pin.encode() + b"\x04\x04"):
    status, shown = run(typed)
    assert os.waitstatus_to_exitcode(status) == 1, (status, shown)
    assert b"no PIN was given; type it and press Enter" in shown and pin.encode() not in shown, shown

# Control-C ends the program like the signal.
status, shown = run(b"\x03")
assert os.WIFSIGNALED(status) and os.WTERMSIG(status) == signal.SIGINT, (status, shown)

# An interrupted program restores the terminal. The session, which lives longer, checks that.
pid, terminal = pty.fork()
if pid == 0:
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT])
    child = os.fork()
    if child == 0:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, [signal.SIGINT])
        os.execv(vexsign, [vexsign, "list", store, "--ask-pin"])
    os.waitpid(child, 0)
    os._exit(0 if echoes(0) else 1)
shown = b""
while b"PIN: " not in shown:
    shown += os.read(terminal, 1000)
os.write(terminal, b"\x03")
try:
    while os.read(terminal, 1000):
        pass
except OSError:
    pass
assert os.waitpid(pid, 0)[1] == 0, "the terminal does not show what is typed any more"
