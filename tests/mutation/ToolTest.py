#!/usr/bin/python3
"""Tests scripts/mutate with a small project: every kind of mutant is made, and survivors are told from the others.

Usage: ToolTest.py PROJECT
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(sys.argv.pop(1)).resolve()
SAMPLE = PROJECT / "tests/mutation/sample"

# One of each kind and form that the sample's test finds.
FOUND = [
    "Clamped | operator swapped | n < kLeast -> n <= kLeast in if (n < kLeast) {",
    "Clamped | condition forced | n < kLeast -> true",
    "Clamped | condition forced | n < kLeast -> false",
    "Clamped | condition negated | n < kLeast -> negated",
    "Clamped | constant changed | kLeast -> kLeast + 1 in if (n < kLeast) {",
    "Clamped | statement deleted | return kLeast - 1 after if (n < kLeast) {",
    "Counted | operator swapped | ++nPlaces -> --nPlaces in ++nPlaces;",
    "Counted | condition forced | *p != '\\0' -> false",
    "Counted | constant changed | '\\0' -> '\\0' + 1 in for (const char* p = pszText; *p != '\\0'; ++p) {",
    "Counted | constant changed | \"ab\" -> \"Xb\" in const char* const pszKnown = \"ab\";",
    "Counted | statement deleted | break after if (!bFirst) {",
    "Counted | operator swapped | !bFirst -> bFirst in if (!bFirst) {",
    "Tested | call dropped | Count() after int Tested(int n) {",
    "Tested | call dropped | Wrapped(n).Value() -> its type's zero in "
    "const int nResult = Clamped(Wrapped(n).Value()) + SAMPLE_TWICE(s_nCalls);",
    "Doubled | operator swapped | n * 2 -> n / 2 in return n * 2;",
]
SURVIVORS = [
    "NotChecked | condition forced | n == 7 -> false",
    "NotChecked | condition forced | n == 7 -> true",
    "NotChecked | condition negated | n == 7 -> negated",
    "NotChecked | constant changed | 1 -> 0 in return n == 7 ? 1 : 2;",
    "NotChecked | constant changed | 2 -> 2 + 1 in return n == 7 ? 1 : 2;",
    "NotChecked | constant changed | 7 -> 7 + 1 in return n == 7 ? 1 : 2;",
    "NotChecked | operator swapped | n == 7 -> n != 7 in return n == 7 ? 1 : 2;",
    "NotExecuted | constant changed | 1 -> 0 in return n - 1;",
    "NotExecuted | operator swapped | n - 1 -> n + 1 in return n - 1;",
]


class ToolTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.project = pathlib.Path(folder.name) / "project"
        shutil.copytree(SAMPLE, cls.project)
        cls.first = cls.mutate("--least", "50")

    @classmethod
    def mutate(cls, *options):
        return subprocess.run([PROJECT / "scripts/mutate", "--root", cls.project, "--folders", "src", *options],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False)

    def table(self, text):
        path = self.project / "tests/mutation/equivalent.list"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        self.addCleanup(path.unlink, missing_ok=True)

    def test_makes_each_kind_and_finds_what_the_test_checks(self):
        self.assertEqual(self.first.returncode, 0, self.first.stdout)
        found = re.findall(r"^\[\d+\] src/\S+ \| (.*) \(line \d+\): found by Sample", self.first.stdout,
                           re.MULTILINE)
        for key in FOUND:
            self.assertIn(key, found)

    def test_leaves_out_mutants_that_do_not_compile(self):
        self.assertRegex(self.first.stdout, r"\n1 of \d+ mutants do not compile")

    def test_survivors_are_those_that_no_test_checks_or_executes(self):
        survivors = re.findall(r"^survived: src/Sample.cpp \| (.*) \(line .*\)$", self.first.stdout, re.MULTILINE)
        self.assertEqual(sorted(survivors), sorted(SURVIVORS), self.first.stdout)
        self.assertIn("NotExecuted | constant changed | 1 -> 0 in return n - 1; (line 62, no test executes it)", self.first.stdout)

    def test_fails_if_too_few_are_found(self):
        ended = self.mutate("--least", "99")
        self.assertEqual(ended.returncode, 1, ended.stdout)
        self.assertIn("less than 99 percent", ended.stdout)

    def test_goes_on_where_it_stopped(self):
        ended = self.mutate("--least", "50")
        self.assertEqual(ended.returncode, 0, ended.stdout)
        self.assertNotIn("found by", ended.stdout)
        ended = self.mutate("--least", "50", "--again")
        self.assertEqual(ended.stdout.count(": SURVIVED"), len(SURVIVORS), ended.stdout)

    def test_a_table_of_equivalents_names_survivors_of_the_sources(self):
        self.table(f"src/Sample.cpp | {SURVIVORS[0]}\n  nobody looks\n")
        ended = self.mutate("--least", "50")
        self.assertEqual(ended.returncode, 0, ended.stdout)
        self.assertIn("Of the 9 others, 1 are known to be equivalent.", ended.stdout)
        for key, message in [(f"src/Sample.cpp | {FOUND[0]}", "but Sample finds it"),
                             ("src/Sample.cpp | Gone | call dropped | Gone()", "but not in the sources")]:
            self.table(f"{key}\n  nobody looks\n")
            ended = self.mutate("--least", "50")
            self.assertEqual(ended.returncode, 1, ended.stdout)
            self.assertIn(message, ended.stdout)

    def test_a_source_may_move(self):
        def move(old, new):
            (self.project / "src" / old).rename(self.project / "src" / new)
            path = self.project / "CMakeLists.txt"
            path.write_text(path.read_text(encoding="utf-8").replace(f"src/{old}", f"src/{new}"), encoding="utf-8")

        move("Sample.cpp", "Moved.cpp")
        self.addCleanup(move, "Moved.cpp", "Sample.cpp")
        ended = self.mutate("--check")
        self.assertEqual(ended.returncode, 0, ended.stdout)
        commands = (self.project / "build/mutation/build/compile_commands.json").read_text(encoding="utf-8")
        self.assertIn("src/Moved.cpp", commands)
        self.assertNotIn("src/Sample.cpp", commands)

    def test_an_entry_needs_a_reason(self):
        self.table(f"src/Sample.cpp | {SURVIVORS[0]}\n")
        ended = self.mutate("--check")
        self.assertEqual(ended.returncode, 1, ended.stdout)
        self.assertIn("no reason", ended.stdout)


if __name__ == "__main__":
    unittest.main()
