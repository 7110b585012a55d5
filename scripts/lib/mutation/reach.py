"""Records which mutants each test executes."""

import concurrent.futures
import json
import os
import queue
import sys
import threading

from . import ctests

LONGEST = 120


class Reach:
    """For each usable test its time and the mutants that it executes. Kept in a file, so that a record goes on."""

    def __init__(self, path, tests, sample_digest):
        self.path = path
        self.tests = {test.name: test for test in tests}
        self.digest = sample_digest
        self.lock = threading.Lock()
        self.entries = {}  # name -> {"state", "seconds", "reached", "unusable"}
        if path.exists():
            content = json.loads(path.read_text(encoding="utf-8"))
            if content["sample"] == sample_digest:
                self.entries = content["tests"]

    @staticmethod
    def state_of(test):
        """Changes when a test's program or script does."""
        state = []
        for part in (test.program, *test.command[1:2]):
            try:
                status = os.stat(part)
                state.append([status.st_mtime_ns, status.st_size])
            except OSError:
                pass
        return state

    def is_missing(self, entry, test):
        if entry is None or entry["state"] != self.state_of(test):
            return True
        # What a failed test needs may have been built since.
        return entry["unusable"] == "failed" or (entry["unusable"] == "slow" and entry["seconds"] < LONGEST)

    def record(self, directory, count, jobs):
        missing = [test for name, test in self.tests.items() if self.is_missing(self.entries.get(name), test)]
        marks = queue.SimpleQueue()
        for job in range(jobs):
            marks.put(directory / f"marks-{job}")

        def one(test):
            path = marks.get()
            try:
                entry = self.record_one(test, path, count)
            finally:
                marks.put(path)
            with self.lock:
                self.entries[test.name] = entry
                if len(self.entries) % 50 == 0:
                    self.save()

        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            list(pool.map(one, missing))
        self.entries = {name: entry for name, entry in self.entries.items() if name in self.tests}
        self.save()

    def record_one(self, test, path, count):
        for _ in range(2):
            path.write_bytes(bytes(count + 1))
            path.chmod(0o666)
            ended = ctests.run(test, LONGEST, {"VEX_MUTANT_RECORD": str(path)})
            if ended.passed:
                break
        else:
            print(f"not used: {test.name} {ended.how} without a mutant", file=sys.stderr, flush=True)
        reached = [number for number, mark in enumerate(path.read_bytes()) if mark]
        return {"state": self.state_of(test), "seconds": round(ended.seconds, 3), "reached": reached,
                "unusable": "skipped" if ended.skipped else "slow" if ended.seconds >= LONGEST else
                            "" if ended.passed else "failed"}

    def save(self):
        temporary = self.path.with_suffix(".new")
        temporary.write_text(json.dumps({"sample": self.digest, "tests": self.entries}), encoding="utf-8")
        temporary.replace(self.path)

    def usable(self):
        return [name for name, entry in self.entries.items() if not entry["unusable"]]

    def executed(self):
        """The numbers of all mutants that a usable test executes."""
        return set().union(*(self.entries[name]["reached"] for name in self.usable()))

    def tests_of(self, number):
        """(test, seconds, number of mutants that it executes) of the tests that execute the mutant."""
        return [(self.tests[name], entry["seconds"], len(entry["reached"])) for name, entry in self.entries.items()
                if number in entry["reached"] and not entry["unusable"]]
