"""Runs each mutant with the tests that execute it, until one fails."""

import concurrent.futures
import csv
import dataclasses
import hashlib
import json
import threading

from . import ctests

FIELDS = ["key", "source", "verdict", "test", "how", "tests"]


@dataclasses.dataclass
class Verdict:
    found: bool
    test: str = ""
    how: str = ""
    tests: int = 0  # how many tests executed the mutant and were run
    passed: list = dataclasses.field(default_factory=list)  # the names of those that passed


class Results:
    """Verdicts by the mutant's key and the text of its source, in a file that is written as they come."""

    def __init__(self, path, root):
        self.path = path
        self.root = root
        self.lock = threading.Lock()
        self.rows = {}
        self.digests = {}
        self.passed_path = path.with_name("passed.json")
        # By the key of each survivor: the tests that passed, and the state of their programs.
        self.passed = json.loads(self.passed_path.read_text(encoding="utf-8")) if self.passed_path.exists() else {}
        if path.exists():
            with path.open(newline="", encoding="utf-8") as file:
                for row in csv.DictReader(file, delimiter="\t"):
                    self.rows[row["key"]] = row

    def source_of(self, mutant):
        if mutant.file not in self.digests:
            self.digests[mutant.file] = hashlib.sha256((self.root / mutant.file).read_bytes()).hexdigest()[:16]
        return self.digests[mutant.file]

    def get(self, mutant):
        row = self.rows.get(mutant.key())
        if row is None or row["source"] != self.source_of(mutant):
            return None
        return Verdict(row["verdict"] == "found", row["test"], row["how"], int(row["tests"]))

    def finders(self, file):
        """The names of the tests that found other mutants of the file."""
        with self.lock:
            return {row["test"] for key, row in self.rows.items() if row["test"] and key.startswith(f"{file} | ")}

    def passed_with(self, mutant):
        """The tests that passed with the mutant, and the state of their programs."""
        with self.lock:
            kept = self.passed.get(mutant.key(), {})
            return kept.get("tests", {}) if kept.get("source") == self.source_of(mutant) else {}

    def put_passed(self, mutant, states):
        with self.lock:
            kept = self.passed.setdefault(mutant.key(), {})
            if kept.get("source") != self.source_of(mutant):
                kept.update(source=self.source_of(mutant), tests={})
            kept["tests"].update(states)
            self.passed_path.write_text(json.dumps(self.passed), encoding="utf-8")

    def put(self, mutant, verdict):
        with self.lock:
            self.rows[mutant.key()] = {"key": mutant.key(), "source": self.source_of(mutant),
                                       "verdict": "found" if verdict.found else "survived",
                                       "test": verdict.test, "how": verdict.how, "tests": str(verdict.tests)}
            temporary = self.path.with_suffix(".new")
            with temporary.open("w", newline="", encoding="utf-8") as file:
                writer = csv.DictWriter(file, FIELDS, delimiter="\t")
                writer.writeheader()
                writer.writerows(self.rows.values())
            temporary.replace(self.path)


# Seconds of the tests that run in one process.
CHUNK = 4.0
# Seconds from which a test is slow.
SLOW = 5.0
# The names of slow tests that have passed without a mutant in this run.
PASSED = set()


def time_of(tests):
    """The seconds of tests in one process. They were recorded with one process each, of which the quickest test shows
    how long it takes to start."""
    start = min((seconds for _, seconds, _ in tests), default=0.0)
    return start + sum(seconds - start for _, seconds, _ in tests)


def chunks_of(tests):
    """Splits the tests of one program, quick ones first, so that slow ones run only if the quick ones find nothing."""
    chunks = []
    start = room = 0.0
    for entry in sorted(tests, key=lambda entry: entry[1]):
        if not chunks or entry[1] - start > room:
            chunks.append([])
            start, room = entry[1], CHUNK
        chunks[-1].append(entry)
        room -= entry[1] - start
    return chunks


def groups_of(reaching, budget, finders):
    """The tests in the order in which they run: tests of one GoogleTest program together, quick and special ones first.

    Of the quick ones, tests that found other mutants of the file come first, and so they do of the slow ones. A test
    that executes few mutants is more likely to be about this one. The budget limits the time of all groups except the
    first.
    """
    programs = {}
    for test, seconds, reached in reaching:
        own = test.case is None or seconds > 3 or test.environment
        known = test.name in finders
        programs.setdefault((known, test.name if own else test.program), []).append((test, seconds, reached))

    def cost(pair):
        known, group = pair
        time = time_of(group)
        return time > SLOW, not known, time * (min(reached for _, _, reached in group) + 5)

    spent = 0.0
    ordered = []
    chunks = [(known, chunk) for (known, _), tests in programs.items() for chunk in chunks_of(tests)]
    for _, group in sorted(chunks, key=cost):
        time = time_of(group)
        if ordered and spent + time > budget:
            continue
        spent += time
        ordered.append(group)
    return ordered


def limit_of(seconds):
    """Tests that take so long without a mutant have to end within this time. Other programs may slow them down."""
    return 6 + 6 * seconds


def try_mutant(number, reaching, budget, finders):
    """Whether a test finds the mutant. A failure counts if it can be repeated and goes away without the mutant."""
    ran = 0
    passed = []
    for group in groups_of(reaching, budget, finders):
        left = {test.case or test.name: (test, seconds) for test, seconds, _ in group}
        while left:
            first = next(iter(left.values()))[0]
            limit = limit_of(sum(seconds for _, seconds in left.values()))
            ended = ctests.run(first, limit, {"VEX_MUTANT": str(number)}, list(left) if len(left) > 1 else None)
            if ended.passed:
                ran += len(left)
                passed += [test.name for test, _ in left.values()]
                break
            test, seconds = left.pop(ctests.failed_case(ended.output, left))
            ran += 1
            if is_confirmed(test, seconds, number):
                return Verdict(True, test.name, ended.how, ran)
    return Verdict(False, tests=ran, passed=passed)


def is_confirmed(test, seconds, number):
    again = ctests.run(test, limit_of(seconds), {"VEX_MUTANT": str(number)})
    return not again.passed and passes_without_mutant(test, seconds)


def passes_without_mutant(test, seconds):
    """A slow test does not run once more after it has passed."""
    if test.name in PASSED:
        return True
    passed = ctests.run(test, limit_of(seconds), {}).passed
    if passed and seconds > SLOW:
        PASSED.add(test.name)
    return passed


def run(mutants, reach, results, jobs, budget, again):
    """Pairs of mutant and verdict. Mutants with a verdict are not run again, except survivors on request: with the
    tests that are new, have changed or did not run."""
    lock = threading.Lock()
    done = []

    def one(pair):
        number, mutant = pair
        verdict = results.get(mutant)
        if verdict is None or (again and not verdict.found):
            passed = results.passed_with(mutant)
            tests = reach.tests_of(number)
            left = [entry for entry in tests if passed.get(entry[0].name) != reach.state_of(entry[0])]
            verdict = try_mutant(number, left, budget, results.finders(mutant.file))
            verdict.tests += len(tests) - len(left)
            results.put(mutant, verdict)
            if not verdict.found:
                results.put_passed(mutant, {name: reach.state_of(reach.tests[name]) for name in verdict.passed})
            with lock:
                done.append(mutant)
                word = f"found by {verdict.test} ({verdict.how})" if verdict.found else "SURVIVED"
                print(f"[{len(done)}] {mutant.key()} (line {mutant.line}): {word}", flush=True)
        return mutant, verdict

    def quickest(pair):
        return min((seconds for _, seconds, _ in reach.tests_of(pair[0])), default=0.0)

    # Those that only slow tests can find come last.
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        return list(pool.map(one, sorted(mutants, key=quickest)))
