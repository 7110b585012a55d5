"""The command line of scripts/mutate."""

import argparse
import fnmatch
import hashlib
import os
import pathlib
import signal
import sys

from . import campaign, ctests, reach, report, sample, tree

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent.parent
FOLDERS = ["BaseInclude", "TAVClientJNI", "VEXClientTK", "tools"]
# About the files of a build, its documents, packages or pictures; or slow, as a JVM is for each mutant.
LEFT_OUT = ("^(Completion|Hardening|Includes|java\\.(?!natives\\.).*|Mutation.*|NoSurprise|OperatorsDay|Packages|"
            "page.*|Reproducible|RunPaths|Sbom|Secrets|VexfiledUnits|VexlogReport)$")
# More than the sample, because some mutants do not compile.
SPARE = 0.15


def arguments_of(description):
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=1000, help="mutants in the sample (default: 1000)")
    parser.add_argument("--seed", default="1", help="chooses the sample (default: 1)")
    parser.add_argument("--first", type=int, metavar="N", help="run only the first N mutants of the sample")
    parser.add_argument("--files", nargs="+", metavar="PATTERN", help="only mutants of these files")
    parser.add_argument("--targets", nargs="+", default=[], metavar="TARGET",
                        help="build only these targets (default: all); tests of other programs are not used")
    parser.add_argument("--partial", action="store_true",
                        help="leave out mutants that no test of the targets executes, for a first look")
    parser.add_argument("--least", type=float, default=85.0, help="percentage that the tests must find (default: 85)")
    parser.add_argument("--again", action="store_true", help="run mutants again that survived an earlier run")
    parser.add_argument("--budget", type=float, default=90.0, metavar="SECONDS",
                        help="of tests for each mutant (default: 90)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(),
                        help="mutants at the same time (default: processors)")
    parser.add_argument("--directory", type=pathlib.Path, help="for build and results (default: build/mutation)")
    parser.add_argument("--check", action="store_true", help="only check the table of equivalents")
    parser.add_argument("--root", type=pathlib.Path, default=ROOT, help="the project (default: this one)")
    parser.add_argument("--folders", nargs="+", default=FOLDERS, help="its folders with product sources")
    parser.add_argument("--cmake", action="append", default=[], metavar="OPTION", help="an option for cmake")
    arguments = parser.parse_args()
    arguments.root = arguments.root.resolve()
    arguments.directory = (arguments.directory or arguments.root / "build/mutation").resolve()
    return arguments


def say(text):
    print(text, flush=True)


def main(description):
    arguments = arguments_of(description)
    # A shell lets its background programs ignore some signals, and nohup one more. The tests must not inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    if signal.getsignal(signal.SIGHUP) == signal.SIG_IGN:
        signal.signal(signal.SIGHUP, lambda *_: None)
    try:
        problems = mutate(arguments)
    except (tree.BrokenBuild, ValueError, RuntimeError) as problem:
        sys.exit(f"mutate: {problem}")
    if problems:
        sys.exit("\n".join(f"mutate: {problem}" for problem in problems))


def prepare(arguments):
    """The tree, configured and with generated sources, and all mutants of the wanted files."""
    work = tree.Tree(arguments.root, arguments.folders, arguments.directory, arguments.jobs, arguments.cmake)
    files = work.product_files()
    if arguments.files:
        files = [file for file in files if any(fnmatch.fnmatch(file, pattern) for pattern in arguments.files)]
        if not files:
            raise ValueError("no file matches")
    if not work.is_configured():
        work.copy()
        work.configure()
        if not arguments.targets:
            work.generate()
    return work, files, work.find(files)


def mutate(arguments):
    """Returns what is wrong."""
    equivalents = report.Equivalents(arguments.root / "tests/mutation/equivalent.list")
    work, files, mutants = prepare(arguments)
    say(f"{len(mutants)} mutants in {len(files)} files")
    stale = [f"in the table of equivalents, but not in the sources: {key}" for key in equivalents.stale(mutants)
             if key.split(" | ")[0] in files]
    if arguments.check:
        return stale

    count = min(arguments.count, len(mutants))
    chosen = sample.choose(mutants, count, arguments.seed, SPARE)
    compiled = build(arguments, work, chosen)
    final = sample.final(chosen, compiled, mutants, count, arguments.seed)
    if arguments.least == 100:
        final = [(number, mutant) for number, mutant in final if mutant.key() not in equivalents.reasons]
    say(f"{len(chosen) - len(compiled)} of {len(chosen)} mutants do not compile; the sample has {len(final)}")

    tests = ctests.list_tests(work.build, LEFT_OUT)
    if not tests:
        raise ValueError("the build has no tests")
    digest = hashlib.sha256("\n".join(mutant.key() for mutant in chosen).encode()).hexdigest()
    record = reach.Reach(work.directory / "reach.json", tests, digest)
    record.record(work.directory, len(chosen), arguments.jobs)
    say(f"{len(record.usable())} of {len(tests)} tests can be used")
    if not record.usable():
        raise ValueError("no test passes without a mutant")

    final = final[:arguments.first]
    if arguments.partial:
        executed = record.executed()
        final = [(number, mutant) for number, mutant in final if number in executed]
        say(f"the tests execute {len(final)} mutants of the sample")
    results = campaign.Results(work.directory / "results.tsv", arguments.root)
    verdicts = campaign.run(final, record, results, arguments.jobs, arguments.budget, arguments.again)
    return stale + report.report(verdicts, equivalents, arguments.least)


def build(arguments, work, chosen):
    """Builds the chosen mutants. Returns the numbers of those that compile, also kept from an earlier run."""
    digest = hashlib.sha256("\n".join(mutant.key() for mutant in chosen).encode()).hexdigest()
    kept = work.directory / "compiled.txt"
    left = dict(enumerate(chosen, 1))

    def keep(numbers):
        kept.write_text("\n".join([digest, *map(str, numbers)]), encoding="utf-8")

    lines = kept.read_text(encoding="utf-8").split() if kept.exists() else []
    if lines and lines[0] == digest:
        left = {number: left[number] for number in map(int, lines[1:])}
    else:
        say(f"compiling {len(left)} mutants")
        left = work.check_headers(left)
        keep(left)
    left = work.make(left, arguments.targets)
    keep(left)
    return left
