#!/usr/bin/env python3
"""LongLife.py's verdict about tables in which one thing at a time goes wrong."""
import io
import tempfile
import unittest
import xml.dom.minidom
from contextlib import redirect_stdout

import LongLife

LEVEL = {"seconds": 60, "signed": 12000, "failed": 0, "verified": 292, "opened": 72, "rss_kib": 170_000,
         "malloc_kib": 30_000, "heap_kib": 9_000, "descriptors": 40, "threads": 25, "log_bytes": 2_000_000,
         "log_cuts": 9, "own_cpu": 0.1, "other_cpu": 0.05, "file_p50": 0.8, "file_p99": 2, "file_p99.9": 8,
         "file_max": 30, "token_p50": 1.5, "token_p99": 4, "token_p99.9": 12, "token_max": 30, "late_p50": 0.1, "late_p99": 1,
         "late_p99.9": 5, "late_max": 20}
PERIODS = 90


class LongLifeTest(unittest.TestCase):
    def judge(self, change=lambda number, row: None, periods=PERIODS, tail=""):
        with tempfile.TemporaryDirectory() as directory:
            path, picture = f"{directory}/table.tsv", f"{directory}/plot.svg"
            with open(path, "w", encoding="utf-8") as out:
                out.write("\t".join(["time", *LEVEL]) + "\n")
                for number in range(periods):
                    row = dict(LEVEL)
                    change(number, row)
                    out.write("\t".join(["2026-11-23T02:00:00Z", *map(str, row.values())]) + "\n")
                out.write(tail)
            with redirect_stdout(io.StringIO()) as said:
                held = LongLife.finish(path, picture)
            if periods > 0:
                xml.dom.minidom.parse(picture)
        return held, said.getvalue()

    def assert_fails(self, what, change, **others):
        held, said = self.judge(change, **others)
        failed = [line for line in said.splitlines() if line.startswith("FAILED")]
        self.assertFalse(held, said)
        self.assertTrue(failed and all(what in line for line in failed), said)

    def test_a_level_run_holds(self):
        held, said = self.judge()
        self.assertTrue(held, said)
        self.assertIn("1,080,000 signatures in 1.50 hours", said)

    def test_growth_fails(self):
        for column, name, each in (("rss_kib", "resident", 200), ("malloc_kib", "malloc", 20), ("heap_kib", "heap", 40),
                                   ("descriptors", "descriptors", 0.1), ("threads", "threads", 0.1)):
            def grow(number, row):
                row[column] += int(number * each)
            self.assert_fails(name, grow)

    def test_growth_that_has_ended_in_the_first_third_holds(self):
        def warm_up(number, row):
            row["rss_kib"] += 500 * min(number, PERIODS // 3)
        self.assertTrue(self.judge(warm_up)[0])

    def test_slower_signatures_fail(self):
        for column, name in (("file_p50", "file p50"), ("token_p99", "token p99 "), ("token_p99.9", "token p99.9")):
            def slow_down(number, row):
                row[column] *= 3 if number > 70 else 1
            self.assert_fails(name, slow_down)

    def test_busy_periods_do_not_count_for_latencies(self):
        def busy(number, row):
            if number > 75:
                row.update({"other_cpu": 0.9, "file_p50": 9, "file_p99": 99, "file_p99.9": 999})
        self.assertTrue(self.judge(busy)[0])

    def test_a_run_without_quiet_periods_says_so(self):
        held, said = self.judge(lambda number, row: row.update({"other_cpu": 0.9}))
        self.assertTrue(held)
        self.assertIn("latencies are not judged: 0 and 0 quiet periods", said)

    def test_one_failure_fails(self):
        self.assert_fails("failures: 1", lambda number, row: row.update({"failed": int(number == 7)}))

    def test_a_rate_that_is_not_held_fails(self):
        self.assert_fails("rate", lambda number, row: row.update({"signed": 11_900}))

    def test_no_verified_signature_fails(self):
        self.assert_fails("verified", lambda number, row: row.update({"verified": 0}))

    def test_a_log_that_is_too_large_or_never_cut_fails(self):
        self.assert_fails("largest log", lambda number, row: row.update({"log_bytes": 3_000_000}))
        self.assert_fails("cut", lambda number, row: row.update({"log_cuts": 0}))

    def test_a_table_that_is_still_written_is_judged(self):
        self.assertTrue(self.judge(tail="2026-11-23T02:00:00Z\t60\t12")[0])

    def test_a_last_period_that_was_cut_short_does_not_count_for_levels(self):
        def cut_short(number, row):
            if number == PERIODS - 1:
                row.update({"seconds": 1, "signed": 200, "rss_kib": 10 ** 9})
        self.assertTrue(self.judge(cut_short)[0])

    def test_a_short_run_is_judged_without_latencies(self):
        held, said = self.judge(periods=12)
        self.assertTrue(held, said)
        self.assertIn("too short", said)
        self.assert_fails("resident", lambda number, row: row.update({"rss_kib": 170_000 + 9_000 * number}), periods=12)

    def test_too_few_periods_fail(self):
        self.assert_fails("too few", lambda number, row: None, periods=2)

    def test_an_empty_table_fails(self):
        self.assert_fails("empty", lambda number, row: None, periods=0)


if __name__ == "__main__":
    unittest.main()
