"""The tests of a build as ctest lists them, and how they are run: isolated, with a limit, one by one or in groups."""

import dataclasses
import functools
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

# A process namespace ends what a test leaves behind. The shell stays, because a test must not be the first process.
# A build in /tmp has to stay visible. A mutant that takes all memory must end before anything else does.
ISOLATED = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c",
            "case $PWD in /tmp/*) ;; *) mount -t tmpfs -o size=20% tmp /tmp ;; esac && ip link set lo up && "
            'echo 1000 >/proc/self/oom_score_adj && "$@"; exit $?', "sh"]


@dataclasses.dataclass(frozen=True)
class Test:
    name: str
    command: tuple
    environment: tuple
    directory: str
    skip_code: int

    @functools.cached_property
    def case(self):
        """The test in its GoogleTest program, or one of its suites as "Suite.*". None: it is another test."""
        filters = [argument for argument in self.command[1:] if argument.startswith("--gtest_filter=")]
        return filters[0].split("=", 1)[1] if filters else None

    @property
    def program(self):
        return self.command[0]


@dataclasses.dataclass
class Ended:
    passed: bool
    skipped: bool
    how: str
    seconds: float
    output: str


def list_tests(build, left_out):
    """The tests of the build whose names do not match the expression and whose programs have been built."""
    listed = subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, check=True, stdout=subprocess.PIPE, text=True)
    native = pathlib.Path(build) / "native_tests.txt"
    programs = native.read_text(encoding="utf-8").split() if native.exists() else []
    tests = []
    for test in json.loads(listed.stdout)["tests"]:
        properties = {one["name"]: one["value"] for one in test.get("properties", [])}
        if "command" not in test or properties.get("DISABLED") or re.search(left_out, test["name"]):
            continue
        used = re.findall(rf"{re.escape(str(build))}/[^\s:=]+", " ".join(test["command"]))
        if not all(os.path.exists(path) for path in used):
            continue
        found = Test(test["name"], tuple(test["command"]), tuple(properties.get("ENVIRONMENT", ())),
                     properties.get("WORKING_DIRECTORY", str(build)), properties.get("SKIP_RETURN_CODE", -1))
        tests += suites_of(found) if found.command == (found.program,) and found.name in programs else [found]
    return tests


def suites_of(test):
    """The suites of a GoogleTest program that is one test. A whole program takes too long for each mutant."""
    listed = subprocess.run([*test.command, "--gtest_list_tests"], cwd=test.directory, check=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    suites = [line.split("#")[0].strip() for line in listed.stdout.splitlines() if re.match(r"\S+\.(\s|$)", line)]
    return [dataclasses.replace(test, name=f"{test.name}: {suite}*", command=(test.program, f"--gtest_filter={suite}*"))
            for suite in suites]


@functools.cache
def isolation():
    """What starts a program with a network, processes and a /tmp of its own, as far as this user may do that."""
    if not shutil.which("unshare"):
        return []
    tried = subprocess.run([*ISOLATED, "true"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, check=False)
    return ISOLATED if tried.returncode == 0 else []


def run(test, limit, environment, cases=None):
    """Runs a test, or several cases of its GoogleTest program. Fails if it does not end within the limit."""
    command = list(test.command)
    if cases:
        command = [test.program, f"--gtest_filter={':'.join(cases)}", "--gtest_also_run_disabled_tests",
                   "--gtest_fail_fast"]
    variables = {**os.environ, "VEX_TEST_DIVISOR": "10", "GTEST_FAIL_FAST": "1",
                 **dict(pair.split("=", 1) for pair in test.environment), **environment}
    begin = time.monotonic()
    with tempfile.TemporaryFile() as output:
        with subprocess.Popen([*isolation(), *command], cwd=test.directory, env=variables, stdin=subprocess.DEVNULL,
                              stdout=output, stderr=subprocess.STDOUT, start_new_session=True) as process:
            try:
                code = process.wait(timeout=limit)
            except subprocess.TimeoutExpired:
                code = None
            finally:
                try:
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
        output.seek(0)
        text = output.read(2_000_000).decode("utf-8", "replace")
    seconds = time.monotonic() - begin
    if code is None:
        return Ended(False, False, f"does not end within {limit:.0f} s", seconds, text)
    # gtest_discover_tests recognises skipped tests by what they print. After a failure GoogleTest skips the others.
    all_skipped = code == 0 and "[  SKIPPED ]" in text and "[  PASSED  ] 0 tests" in text
    skipped = code == test.skip_code or (not cases and all_skipped)
    return Ended(code == 0 or skipped, skipped, f"ends with {code}", seconds, text)


def failed_case(output, cases):
    """The one of these cases and suites of a GoogleTest program that failed or crashed it; by default the first."""
    failed = re.findall(r"^\[  FAILED  \] ([^\s,]+)", output, re.MULTILINE)[:1]
    begun = failed or re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)[-1:]
    names = [found for name in begun for found in (name, name.rsplit(".", 1)[0] + ".*") if found in cases]
    return (names or list(cases))[0]
