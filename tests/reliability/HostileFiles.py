"""The attacks of HostileUser.py on files: its own at the victim's names, and the victim's."""
import ctypes
import errno
import fcntl
import os
import select
import socket
import stat
import time

# Content of this user's own files: whoever adopts one of them changes it.
CONTENT = b"a text of the hostile user\n"
HUGE = 1 << 40
LOCK_SECONDS = 3.0

libc = ctypes.CDLL(None, use_errno=True)


class FileAttacks:
    """A part of Hostile, which has the fields."""

    def new_name(self, path):
        """A free name, in the path's directory if this user may write there."""
        parent = os.path.dirname(path)
        parent = parent if parent in self.directories else self.directories[0]
        return f"{parent}/hostile-{self.random.getrandbits(64):x}"

    # ---- Files of this user at the victim's names ----

    def make(self, path):
        """Puts something at the path. The parent's rights decide whether it works."""
        kind = self.random.choice(["file", "file for nobody", "sparse", "large", "link", "hard link", "pipe", "socket",
                                   "directory"])
        keep = target = None
        if kind in ("file", "file for nobody", "sparse", "large"):
            descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
            os.write(descriptor, CONTENT * (10000 if kind == "large" else 1))
            if kind == "sparse":
                os.ftruncate(descriptor, HUGE)
            os.fchmod(descriptor, 0 if kind == "file for nobody" else 0o666)
            os.close(descriptor)
        elif kind == "link":
            target = self.random.choice(self.targets)
            os.symlink(target, path)
        elif kind == "hard link":
            target = self.new_name(path)
            with open(target, "xb") as file:
                file.write(CONTENT)
            os.chmod(target, 0o666)
            try:
                os.link(target, path)
            except OSError:
                os.unlink(target)
                raise
        elif kind == "pipe":
            os.mkfifo(path, 0o666)
            os.chmod(path, 0o666)
            keep = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        elif kind == "socket":
            keep = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            keep.bind(path)
            os.chmod(path, 0o777)
            keep.listen(1)
            keep.setblocking(False)
        else:
            os.mkdir(path, 0o777)
            os.chmod(path, 0o777)
        self.made[path] = (kind, keep, target)
        self.counts["put a " + kind, "done"] += 1

    def place_one(self):
        self.try_to_make(self.random.choice(self.names))

    def try_to_make(self, path):
        try:
            self.make(path)
        except OSError:
            self.counts["put something at a name", "denied"] += 1

    def remove_one(self):
        if self.made:
            self.remove(self.random.choice(sorted(self.made)))

    def remove(self, path):
        """Removes what this user has made, and checks that nobody has written to it."""
        kind, keep, target = self.made.pop(path)
        if kind == "link":
            if os.readlink(path) != target:
                self.breach(f"the link {path} was changed")
        elif kind == "pipe":
            try:
                if os.read(keep, 1):
                    self.breach(f"the pipe {path} got data")
            except BlockingIOError:  # somebody is just looking what it is
                pass
            os.close(keep)
        elif kind == "socket":
            try:
                keep.accept()
                self.breach(f"the socket {path} got a connection")
            except BlockingIOError:
                pass
            keep.close()
        elif kind == "directory":
            if os.listdir(path):
                self.breach(f"the directory {path} was used: {os.listdir(path)}")
        else:
            self.check_content(path, kind)
        if kind == "directory":
            os.rmdir(path)
        else:
            os.unlink(path)
        if kind == "hard link":
            os.unlink(target)

    def check_content(self, path, kind):
        status = os.lstat(path)
        mode = stat.S_IMODE(status.st_mode)
        if kind == "file for nobody":
            os.chmod(path, 0o400)
        with open(path, "rb") as file:
            begin = file.read(len(CONTENT))
        size = {"sparse": HUGE, "large": 10000 * len(CONTENT)}.get(kind, len(CONTENT))
        if begin != CONTENT or status.st_size != size or mode != (0 if kind == "file for nobody" else 0o666):
            self.breach(f"the {kind} {path} was changed: size {status.st_size}, mode {mode:o}, begins with {begin}")

    # ---- The victim's files ----

    def victims_paths(self):
        found = list(self.names)
        for directory in self.directories:
            try:
                found += [entry.path for entry in os.scandir(directory)]
            except OSError:
                pass
        return sorted(found)

    def use_file(self):
        """Uses a file that may be the victim's in a way that only its owner may."""
        path = self.random.choice(self.victims_paths())
        try:
            status = os.lstat(path)
        except OSError:
            return
        if status.st_uid == os.getuid():
            return
        shared = status.st_uid == 0  # a file of the administrator, as its mode says
        mode = stat.S_IMODE(status.st_mode)
        other = self.new_name(path)

        def opened(flags):
            os.close(os.open(path, flags | os.O_NONBLOCK | os.O_NOFOLLOW))

        def written():
            descriptor = os.open(path, os.O_WRONLY | os.O_NONBLOCK | os.O_NOFOLLOW)
            try:
                self.random.choice([lambda: os.ftruncate(descriptor, 0),
                                    lambda: os.ftruncate(descriptor, self.random.randrange(1 << 22)),
                                    lambda: os.write(descriptor, b"a lie\n" * self.random.randrange(1, 1000)),
                                    lambda: os.pwrite(descriptor, b"\0" * 100, status.st_size)])()
            finally:
                os.close(descriptor)

        def replaced():
            with open(other, "xb"):
                pass
            try:
                os.rename(other, path)
            except OSError:
                os.unlink(other)
                raise

        name, function, may_work = self.random.choice([
            ("read", lambda: opened(os.O_RDONLY), shared and mode & 4 or not stat.S_ISREG(status.st_mode)),
            ("write", written, shared and mode & 2),
            ("append", lambda: opened(os.O_WRONLY | os.O_APPEND), shared and mode & 2),
            ("create over", lambda: opened(os.O_WRONLY | os.O_CREAT | os.O_TRUNC), shared and mode & 2),
            ("truncate", lambda: os.truncate(path, self.random.randrange(1 << 20)), shared and mode & 2),
            ("remove", lambda: os.unlink(path), False),
            ("move", lambda: os.rename(path, other), False),
            ("replace", replaced, False),
            ("link", lambda: os.link(path, other, follow_symlinks=False), shared and mode & 2),
            ("change the mode of", lambda: os.chmod(path, 0o777), False),
            ("change the owner of", lambda: os.chown(path, os.getuid(), -1), False),
            ("change the time of", lambda: os.utime(path, (0, 0)), False),
        ])
        self.attempt(f"{name} a file of others", function, may_work, path)
        if os.path.lexists(other) and os.lstat(other).st_uid == os.getuid():
            os.unlink(other)  # not a link to the administrator's file, which stays

    def hold_lock(self):
        path = self.random.choice([path for path in self.victims_paths() if path not in self.made])
        try:
            descriptor = os.open(path, self.random.choice([os.O_RDONLY, os.O_RDWR]) | os.O_NONBLOCK | os.O_NOFOLLOW)
        except OSError:
            self.counts["lock", "denied"] += 1
            return
        try:
            if self.random.random() < 0.5:
                fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
            else:
                fcntl.lockf(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
            self.counts["lock", "done"] += 1
        except OSError:
            self.counts["lock", "denied"] += 1
        self.held.append((time.monotonic() + self.random.uniform(0, LOCK_SECONDS), lambda: os.close(descriptor)))

    def fill(self):
        """Takes all inodes or all room of the shared directory for a moment."""
        paths = []
        try:
            if self.random.random() < 0.5:
                for n in range(100000):
                    paths.append(f"{self.directories[0]}/fill-{n}")
                    os.close(os.open(paths[-1], os.O_CREAT | os.O_WRONLY, 0o600))
            else:
                paths.append(f"{self.directories[0]}/fill")
                with open(paths[0], "wb", buffering=0) as file:
                    piece = bytes(1 << 18)
                    while file.write(piece) == len(piece):
                        pass
        except OSError as error:
            if error.errno != errno.ENOSPC:
                raise
        self.counts["fill the disk", "done"] += 1
        time.sleep(0.1)
        for path in paths:
            if os.path.exists(path):
                os.unlink(path)

    # ---- New names ----

    def race(self):
        """Waits for new names in the shared directories, and uses each at once."""
        watch = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        for directory in self.directories:
            libc.inotify_add_watch(watch, directory.encode(), 0x180 | 0x2)  # created, moved here, written
        end = time.monotonic() + 0.1
        while (left := end - time.monotonic()) > 0 and select.select([watch], [], [], left)[0]:
            os.read(watch, 4096)
            for _ in range(10):
                self.use_file()
            self.counts["race", "done"] += 1
        os.close(watch)
