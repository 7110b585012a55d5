#!/usr/bin/env python3
"""Another user of the machine, who attacks a victim's files, processes and port. OtherUsers.py starts it.

The first line of the input is a JSON object with what it needs to know. Then each line is a command, and each is
answered by a line of JSON when it is done:

  place    puts obstacles at the names that the victim has not made yet
  attack   attacks at random until the next line comes, then lets go of everything
  squat    the same, and plays a file server that lies to its clients

What must not work is a breach. The answer names all of them.
"""
import collections
import ctypes
import errno
import json
import os
import random
import resource
import select
import signal
import socket
import struct
import sys
import time

from HostileFiles import HUGE, FileAttacks, libc

# Which the victim's processes must not show to others.
SECRET_FILES = ("mem", "environ", "maps", "smaps", "auxv", "io", "syscall", "stack", "pagemap", "personality",
                "numa_maps")
SECRET_LINKS = ("cwd", "exe", "root", "fd", "fdinfo", "map_files")
OPEN_FILES = ("cmdline", "status", "stat", "comm", "limits", "sched", "cgroup", "mountinfo")
SIGNALS = [number for number in signal.valid_signals() if number not in (signal.SIGKILL, signal.SIGSTOP)]


class Hostile(FileAttacks):
    def __init__(self, settings):
        self.__dict__.update(settings)  # seed, victim, names, targets, directories, secret, port, fills
        self.random = random.Random(self.seed)
        self.counts = collections.Counter()
        self.breaches = []
        self.made = {}     # path: what was made there
        self.held = []     # (until, what to close)
        self.processes = []
        self.looked = 0.0
        self.listener = None
        self.actions = [(self.place_one, 6), (self.remove_one, 5), (self.use_file, 10), (self.hold_lock, 5),
                        (self.read_process, 5), (self.signal_process, 4), (self.trace_process, 2),
                        (self.connect_many, 2), (self.talk, 5), (self.take_port, 2), (self.race, 2)]
        if self.fills:
            self.actions.append((self.fill, 1))

    def breach(self, text):
        self.breaches.append(text)

    def attempt(self, what, function, may_work, on=""):
        """Counts the outcome. may_work: whether it may succeed; otherwise a success is a breach. None: denied."""
        try:
            result = function()
        except OSError:
            self.counts[what, "denied"] += 1
            return None
        self.counts[what, "done"] += 1
        if not may_work:
            self.breach(f"{what} {on} worked")
        return result

    # ---- The victim's processes ----

    def victims_processes(self):
        if time.monotonic() - self.looked > 0.5:
            self.looked = time.monotonic()
            self.processes = []
            for name in os.listdir("/proc"):
                try:
                    if name.isdigit() and os.stat(f"/proc/{name}").st_uid == self.victim:
                        self.processes.append(int(name))
                except OSError:
                    pass
        return self.processes

    def any_process(self):
        processes = self.victims_processes()
        return self.random.choice(processes) if processes else None

    def read_process(self):
        process = self.any_process()
        if process is None:
            return
        name = self.random.choice(SECRET_FILES + SECRET_LINKS + OPEN_FILES * 2)
        path = f"/proc/{process}/{name}"

        def read():
            if name in SECRET_LINKS:
                return os.readlink(path) if name in ("cwd", "exe", "root") else os.listdir(path)
            with open(path, "rb", buffering=0) as file:
                return b"opened" if name in ("mem", "pagemap") else file.read(1 << 20)

        result = self.attempt(f"read /proc/PID/{name}", read, True)
        if isinstance(result, bytes) and self.secret.encode() in result:
            self.breach(f"{path} shows the PIN")
        # The kernel shows an empty file of a process that is just ending.
        if name not in OPEN_FILES and result:
            self.breach(f"{path} can be read: {str(result)[:100]}")

    def signal_process(self):
        process = self.any_process()
        if process is None:
            return
        number = self.random.choice([signal.SIGKILL, signal.SIGSTOP, *SIGNALS])
        self.attempt("signal", lambda: os.kill(process, number), False)

    def trace_process(self):
        process = self.any_process()
        if process is None:
            return

        def call(number, *arguments):
            if libc.syscall(number, *arguments) < 0:
                raise OSError(ctypes.get_errno(), "refused")

        name, function = self.random.choice([
            ("ptrace", lambda: call(101, 16, process, 0, 0)),            # PTRACE_ATTACH
            ("seize", lambda: call(101, 0x4206, process, 0, 0)),         # PTRACE_SEIZE
            ("read memory of", lambda: self.read_memory(call, process)),
            ("limit", lambda: resource.prlimit(process, resource.RLIMIT_NOFILE, (3, 3))),
            ("pin to a processor", lambda: os.sched_setaffinity(process, {0})),
            ("make idle", lambda: os.sched_setscheduler(process, os.SCHED_IDLE, os.sched_param(0))),
            ("make nice", lambda: os.setpriority(os.PRIO_PROCESS, process, 19)),
        ])
        self.attempt(f"{name} a process", function, False)

    def read_memory(self, call, process):
        buffer = ctypes.create_string_buffer(8)
        local = (ctypes.c_void_p * 2)(ctypes.addressof(buffer), 8)
        remote = (ctypes.c_void_p * 2)(0x400000, 8)
        call(310, process, local, 1, remote, 1, 0)  # process_vm_readv

    # ---- The port ----

    def connect(self):
        connection = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        connection.settimeout(0.2)
        try:
            connection.connect(("127.0.0.1", self.port))
        except OSError:
            connection.close()
            self.counts["connect", "denied"] += 1
            return None
        self.counts["connect", "done"] += 1
        return connection

    def connect_many(self):
        """Keeps many connections open, some with a beginning of a registration."""
        if self.listener is not None:
            return
        for _ in range(self.random.choice([5, 20, 100])):
            connection = self.connect()
            if connection is not None:
                connection.setblocking(False)
                try:
                    connection.send(bytes(self.random.randrange(5)))
                except OSError:
                    pass
                self.held.append((time.monotonic() + self.random.uniform(0, 2), connection.close))

    def talk(self):
        """Speaks to the server without being served by it, reads slowly or not at all, ends with a reset or not."""
        connection = self.connect() if self.listener is None else None
        if connection is None:
            return
        try:
            connection.sendall(bytes(5))
            if connection.recv(1) == b"\0":
                self.breach("the file server serves the hostile user")
            length = self.random.choice([0, 100, 1 << 20, 1 << 31, 1 << 63])
            header = struct.pack("<HHBHHBQQQ", 1, 1, 0, 0, 101, 0, 1, 0, length)
            connection.sendall(header + self.random.randbytes(min(length, 5000)))
        except OSError:
            pass
        if self.random.random() < 0.5:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.held.append((time.monotonic() + self.random.uniform(0, 1), connection.close))

    def take_port(self):
        """Listens on the server's port beside the server, by any address and option."""
        if self.listener is not None:
            return
        family, address = self.random.choice([(socket.AF_INET, "127.0.0.1"), (socket.AF_INET, "0.0.0.0"),
                                              (socket.AF_INET6, "::"), (socket.AF_INET6, "::ffff:127.0.0.1")])

        def take():
            with socket.socket(family, socket.SOCK_STREAM) as taken:
                taken.setsockopt(socket.SOL_SOCKET, self.random.choice([socket.SO_REUSEADDR, socket.SO_REUSEPORT]), 1)
                taken.bind((address, self.port))
                taken.listen(100)
                taken.settimeout(0.05)
                try:
                    connection, _ = taken.accept()
                    connection.close()
                except TimeoutError:
                    raise OSError(errno.EAGAIN, "nobody came") from None

        self.attempt("take the port", take, False, address)

    def squat(self):
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", self.port))
        self.listener.listen(100)
        self.listener.setblocking(False)
        self.attack([(self.lie, 20), *self.actions])
        self.listener.close()
        self.listener = None

    def lie(self):
        """Answers a client with anything but the truth."""
        try:
            connection, _ = self.listener.accept()
        except BlockingIOError:
            return
        connection.settimeout(0.2)
        kind = self.random.choice(["nothing", "refusal", "silence", "length", "noise", "reset", "bytes"])
        self.counts["lie: " + kind, "done"] += 1
        try:
            if kind == "refusal":
                connection.sendall(b"\1")
            elif kind != "nothing":
                connection.recv(5)
                connection.sendall(b"\0")
            if kind in ("length", "noise", "bytes"):
                request = connection.recv(4096).ljust(34, b"\0")
                length = self.random.choice([16, 1 << 20, 1 << 29, (1 << 31) - 40, 1 << 31, HUGE, (1 << 64) - 1])
                header = (request[5:10] + request[:5] + struct.pack(
                    "<QQQ", struct.unpack_from("<Q", request, 10)[0] + 1, 0, length))
                connection.sendall(self.random.randbytes(4096) if kind == "noise" else header)
                if kind == "bytes":
                    connection.sendall(self.random.randbytes(min(length, 1 << 16)))
            if kind == "reset":
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        except OSError:
            pass
        wait = self.random.uniform(0, 3) if kind in ("nothing", "silence", "length") else 0
        self.held.append((time.monotonic() + wait, connection.close))

    # ---- Commands ----

    def let_go(self, until):
        due = [entry for entry in self.held if entry[0] <= until]
        self.held = [entry for entry in self.held if entry[0] > until]
        for _, close in due:
            close()

    def attack(self, actions):
        functions, weights = zip(*actions)
        while not select.select([0], [], [], self.random.uniform(0.004, 0.02))[0]:
            self.random.choices(functions, weights)[0]()
            self.let_go(time.monotonic())
        self.let_go(float("inf"))
        for path in sorted(self.made):
            self.remove(path)

    def place(self):
        for path in self.names:
            if self.random.random() < 0.8:
                self.try_to_make(path)

    def answer(self):
        counts = {f"{what}, {outcome}": count for (what, outcome), count in sorted(self.counts.items())}
        print(json.dumps({"counts": counts, "breaches": self.breaches}), flush=True)


def main():
    # Unbuffered, so that select sees each line.
    lines = os.fdopen(0, "rb", buffering=0)
    hostile = Hostile(json.loads(lines.readline()))
    hostile.answer()
    commands = {"place": hostile.place, "attack": lambda: hostile.attack(hostile.actions), "squat": hostile.squat}
    for line in iter(lines.readline, b""):
        command = line.strip().decode()
        if command != "stop":  # which ends an attack
            commands[command]()
            hostile.answer()


if __name__ == "__main__":
    main()
