#!/usr/bin/env python3
"""A program signs at a steady rate for hours. Do its memory, descriptors, threads and latencies stay level?

LongLife.py run DIRECTORY COMMAND...   runs it, writes table.tsv and plot.svg into the directory, and judges the table;
                                       with "-", the directory is a temporary one
LongLife.py judge TABLE [PLOT]         judges a table, also one that is still written, and draws it

VEX_TEST_MINUTES   how many minutes to sign; without it, the short form of five seconds
VEX_TEST_RATE      signatures a second; without it, 200
VEX_TEST_SOFTHSM   path of SoftHSM's module

COMMAND starts a Java program of the tests (run-lives). SIGTERM or SIGINT ends a run before its time; what ran is
judged. "Level" compares the medians of the last third of the run with those of the second: the first warms up. A
latency also depends on what else the machine does, so only quiet periods count for it. Exit status 0: all held.
"""
import csv
import html
import math
import os
import signal
import statistics
import subprocess
import sys
import tempfile

RATE = int(os.environ.get("VEX_TEST_RATE", 200))  # signatures a second
PIN = "1234-long-life"
LOG_LIMIT = 2 << 20  # bytes
LOG_SLACK = 256 << 10  # the file is longer than its limit until the writer has cut it

# A period is quiet if others use less than this share of the processors.
QUIET = 0.25
# Fewer quiet periods in a third say nothing about its latencies.
LEAST_QUIET = 10

# Column, name, factor, and what is added: the last third may have at most factor * second third + addition.
MEMORY = [("rss_kib", "resident KiB", 1, 4096), ("malloc_kib", "malloc in use KiB", 1, 512),
          ("heap_kib", "Java heap KiB", 1, 1024), ("descriptors", "descriptors", 1, 0), ("threads", "threads", 1, 0)]
LATENCY = [(f"{who}_{quantile}", f"{who} {quantile} ms", factor, addition)
           for who in ("file", "token")
           for quantile, factor, addition in (("p50", 1.25, 0.1), ("p99", 1.5, 1), ("p99.9", 2, 2))]
# A JVM of five seconds is still compiling, loading classes and filling malloc's arenas.
SHORT_MEMORY = [("rss_kib", "resident KiB", 1, 24 << 10), ("malloc_kib", "malloc in use KiB", 1, 16 << 10),
                ("descriptors", "descriptors", 1, 2), ("threads", "threads", 1, 2)]
# A run of fewer periods is judged like the short form.
SHORT_PERIODS = 30


class Table:
    def __init__(self, path):
        with open(path, newline="", encoding="utf-8") as lines:
            rows = list(csv.DictReader((line for line in lines if line.endswith("\n")), delimiter="\t"))
        self.times = [row.pop("time") for row in rows]
        self.rows = [{name: float(value) for name, value in row.items()} for row in rows]

    def total(self, column):
        return sum(row[column] for row in self.rows)

    def thirds(self):
        """The second and the last third. A period that was cut short has too few signatures for quantiles."""
        rows = [row for row in self.rows if row["seconds"] >= 0.9 * self.rows[0]["seconds"]]
        third = len(rows) // 3
        return rows[len(rows) - 2 * third:len(rows) - third], rows[len(rows) - third:]


class Verdict:
    def __init__(self):
        self.all_held = True

    def say(self, held, text):
        self.all_held = self.all_held and held
        print(f"{'held  ' if held else 'FAILED'}  {text}")

    def level(self, second, last, column, name, factor, addition):
        before, after = (statistics.median(row[column] for row in third) for third in (second, last))
        bound = factor * before + addition
        self.say(after <= bound, f"{name}: {before:,.3f}, then {after:,.3f} (at most {bound:,.3f})")


def judge(table):
    """Prints what held and returns whether all did."""
    verdict = Verdict()
    seconds, signed = table.total("seconds"), int(table.total("signed"))
    print(f"{signed:,} signatures in {seconds / 3600:.2f} hours, {table.total('verified'):,.0f} of them verified;"
          f" {table.total('opened'):,.0f} objects opened; {table.total('log_cuts'):,.0f} cuts of the log;"
          f" {100 * table.total('own_cpu') / max(1, len(table.rows)):.1f} percent of the processors")
    verdict.say(table.total("failed") == 0, f"failures: {table.total('failed'):.0f}")
    # A busy machine may have held up the last second's signatures when the run ended.
    verdict.say(signed >= 0.999 * RATE * seconds - RATE, f"rate: {signed / seconds:.2f} signatures a second")
    verdict.say(table.total("verified") > 0, "signatures were verified")
    verdict.say(max(row["log_bytes"] for row in table.rows) <= LOG_LIMIT + LOG_SLACK,
                f"largest log: {max(row['log_bytes'] for row in table.rows):,.0f} bytes")
    if signed * 100 > LOG_LIMIT:  # a signature's two records have more bytes
        verdict.say(table.total("log_cuts") > 0, "the log was cut")

    second, last = table.thirds()
    if not second:
        verdict.say(False, "too few periods to compare")
        return False
    short = len(table.rows) < SHORT_PERIODS
    for entry in SHORT_MEMORY if short else MEMORY:
        verdict.level(second, last, *entry)
    if short:
        print("        latencies are not judged: the run is too short")
        return verdict.all_held
    quiet = [[row for row in third if row["other_cpu"] < QUIET] for third in (second, last)]
    if min(map(len, quiet)) < LEAST_QUIET:
        print(f"        latencies are not judged: {' and '.join(str(len(part)) for part in quiet)} quiet periods")
        return verdict.all_held
    print(f"        latencies from {len(quiet[0])} and {len(quiet[1])} quiet of {len(second)} and {len(last)} periods")
    for entry in LATENCY:
        verdict.level(*quiet, *entry)
    return verdict.all_held


# ---- The plot ----

BLUE, BROWN, RED, GREEN = "#1b5e9c", "#8a5a00", "#a02040", "#3a7d34"
# Title, and for each line: column, name, colour, unit.
PANELS = [
    ("Memory (MiB)", [("rss_kib", "resident", BLUE, 1024), ("malloc_kib", "malloc in use", BROWN, 1024),
                      ("heap_kib", "Java heap", GREEN, 1024)]),
    ("Descriptors, threads", [("descriptors", "descriptors", BLUE, 1), ("threads", "threads", BROWN, 1)]),
    *((f"Latency with a {who} (ms)", [(f"{who}_p50", "p50", BLUE, 1), (f"{who}_p99", "p99", BROWN, 1),
                                      (f"{who}_p99.9", "p99.9", RED, 1)]) for who in ("file", "token")),
    ("Processors (percent)", [("own_cpu", "this process", BLUE, 0.01), ("other_cpu", "others", BROWN, 0.01)])]
POINTS = 300


def scale(title, values):
    """The ends of an axis, and a function that maps a value to 0..1 on it. Latencies differ by powers of ten."""
    largest = max(values) or 1
    if not title.startswith("Latency"):
        return 0, largest, lambda value: value / largest
    low = 10 ** math.floor(math.log10(max(min(values), 0.001)))
    high = 10 ** math.ceil(math.log10(max(largest, 0.001)))
    high = max(high, 10 * low)
    return low, high, lambda value: math.log(max(value, low) / low) / math.log(high / low)


def plot(table):
    """A panel for each quantity. A point is the median of neighbouring periods."""
    left, width, height, gap = 60, 700, 120, 40
    step = max(1, -(-len(table.rows) // POINTS))
    groups = [table.rows[i:i + step] for i in range(0, len(table.rows), step)]
    hours, passed = [], 0.0
    for group in groups:
        passed += sum(row["seconds"] for row in group) / 3600
        hours.append(passed)
    parts, top = [], gap
    for title, lines in PANELS:
        series = [[statistics.median(row[column] for row in group) / unit for group in groups]
                  for column, _, _, unit in lines]
        low, high, place = scale(title, [value for values in series for value in values])
        parts.append(f'<text x="{left}" y="{top - 8}" font-weight="bold">{html.escape(title)}</text>'
                     f'<rect x="{left}" y="{top}" width="{width}" height="{height}" fill="none" stroke="#c0c0c0"/>'
                     f'<text x="{left - 4}" y="{top + 10}" text-anchor="end">{high:.3g}</text>'
                     f'<text x="{left - 4}" y="{top + height}" text-anchor="end">{low:.3g}</text>')
        for number, ((_, name, colour, _), values) in enumerate(zip(lines, series)):
            points = " ".join(f"{left + width * hour / hours[-1]:.1f},{top + height * (1 - place(value)):.1f}"
                              for hour, value in zip(hours, values))
            parts.append(f'<polyline points="{points}" fill="none" stroke="{colour}"/>'
                         f'<text x="{left + width + 8}" y="{top + 14 + 16 * number}" fill="{colour}">'
                         f'{name} {values[-1]:.3g}</text>')
        top += height + gap
    parts.append(f'<text x="{left}" y="{top - 20}">{table.times[0]}</text>'
                 f'<text x="{left + width}" y="{top - 20}" text-anchor="end">{hours[-1]:.2f} hours</text>')
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 140}" height="{top}" '
            'font-family="sans-serif" font-size="12"><rect width="100%" height="100%" fill="#fff"/>'
            + "".join(parts) + "</svg>\n")


# ---- The run ----

def command(*arguments, **others):
    subprocess.run(arguments, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, **others)


def make_stores(directory):
    """Creates a PKCS #12 file for each key, and two tokens with both keys. Returns the URIs for LongLife.java."""
    module = os.environ["VEX_TEST_SOFTHSM"]
    os.mkdir(f"{directory}/tokens")
    with open(f"{directory}/softhsm2.conf", "w", encoding="utf-8") as configuration:
        configuration.write(f"directories.tokendir = {directory}/tokens\nobjectstore.backend = file\n")
    os.environ["SOFTHSM2_CONF"] = f"{directory}/softhsm2.conf"
    for token in ("Used", "Visited"):
        command("softhsm2-util", "--init-token", "--free", "--label", token, "--so-pin", "87654321", "--pin", PIN)
    uris = []
    for number, (name, *key) in enumerate([("rsa", "rsa:2048"), ("ec", "ec", "-pkeyopt", "ec_paramgen_curve:P-256")]):
        command("openssl", "req", "-x509", "-newkey", *key, "-nodes", "-days", "30", "-subj", f"/CN={name}", "-keyout",
                f"{name}.key", "-out", f"{name}.crt", cwd=directory)
        command("openssl", "pkcs12", "-export", "-inkey", f"{name}.key", "-in", f"{name}.crt", "-passout",
                f"pass:{PIN}", "-out", f"{name}.p12", cwd=directory)
        command("openssl", "x509", "-in", f"{name}.crt", "-outform", "DER", "-out", f"{name}.der", cwd=directory)
        for token in ("Used", "Visited"):
            command("softhsm2-util", "--import", f"{name}.key", "--token", token, "--label", name, "--id",
                    f"0{number + 1}", "--pin", PIN, cwd=directory)
            command("pkcs11-tool", "--module", module, "--token-label", token, "--login", "--pin", PIN,
                    "--write-object", f"{name}.der", "--type", "cert", "--id", f"0{number + 1}", "--label", name,
                    cwd=directory)
        uris.append(f"file:{directory}/{name}.p12?pin-value={PIN}")
    return uris + [f"pkcs11:token={token}?pin-value={PIN}&module-path={module}" for token in ("Used", "Visited")]


def run(directory, start):
    minutes = os.environ.get("VEX_TEST_MINUTES")
    seconds, periods = (60, int(minutes)) if minutes else (0.5, 10)
    os.makedirs(directory, exist_ok=True)
    if os.listdir(directory):
        sys.exit(f"LongLife.py: {directory} is not empty")
    directory = os.path.abspath(directory)
    uris = make_stores(directory)
    table = f"{directory}/table.tsv"
    # The program ends when its standard input ends, so also when this one is killed. A session of its own keeps a
    # terminal's or a group's signals from it.
    program = subprocess.Popen([*start, "vex.jni.LongLife", table, str(seconds), str(periods), str(RATE), *uris],
                               stdin=subprocess.PIPE, start_new_session=True)
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: program.stdin.close())
    print(f"Process {os.getpid()} signs for {seconds * periods / 60:,.0f} minutes; SIGTERM ends it with its verdict. "
          f"The table is {table}.", flush=True)
    status = program.wait()
    if status != 0:
        print(f"FAILED  the program ended with status {status}")
    return finish(table, f"{directory}/plot.svg") and status == 0


def finish(path, picture):
    table = Table(path)
    if not table.rows:
        print("FAILED  the table is empty")
        return False
    if picture:
        with open(picture, "w", encoding="utf-8") as out:
            out.write(plot(table))
    return judge(table)


def main():
    if sys.argv[1:3] == ["run", "-"]:
        with tempfile.TemporaryDirectory() as directory:
            return run(directory, sys.argv[3:])
    if sys.argv[1] == "run":
        return run(sys.argv[2], sys.argv[3:])
    return finish(sys.argv[2], sys.argv[3] if len(sys.argv) > 3 else None)


if __name__ == "__main__":
    sys.exit(0 if main() else 1)
