#!/usr/bin/env python3
"""The report's page in a real browser: VexlogReport.py <vexlog> <vexlog_sample_log> <directory for screenshots>

The browser draws the page of a log of several processes and threads. It prints no message on the console and requests
nothing from elsewhere. A hostile log puts no element and no script into the page.
"""
import html.parser
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import zlib

VEXLOG, SAMPLE_LOG, SCREENSHOTS = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3])
SKIPPED = 77
BROWSER = shutil.which("chromium") or shutil.which("chromium-browser")


def browse(work, page, *options):
    """Returns standard output and the lines that the page wrote to the console."""
    command = [
        BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--hide-scrollbars",
        "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
        "--enable-logging=stderr", "--v=0", "--force-device-scale-factor=1", "--virtual-time-budget=5000",
        f"--user-data-dir={work / 'profile'}", *options, page.as_uri(),
    ]
    done = subprocess.run(command, capture_output=True, timeout=120, check=False)
    log = done.stderr.decode("utf-8", "replace")
    assert done.returncode == 0, log
    return done.stdout.decode("utf-8"), [line for line in log.splitlines() if ":CONSOLE" in line]


class Page(html.parser.HTMLParser):
    """Collects elements, and the text in each kind of element."""

    def __init__(self, text):
        super().__init__()
        self.tags, self.attributes, self.rows, self.state = [], [], {}, None
        self.table = None
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        self.tags.append(tag)
        self.attributes += [name for name, _ in attrs]
        values = dict(attrs)
        if tag == "html":
            self.state = values.get("data-state")
        if tag == "table":
            self.table = values.get("id")
        if tag == "tr" and self.table:
            self.rows[self.table] = self.rows.get(self.table, 0) + 1

    def handle_endtag(self, tag):
        if tag == "table":
            self.table = None


def pixels(png):
    """Returns the rows of (r, g, b) of an 8-bit PNG without interlace."""
    assert png[:8] == b"\x89PNG\r\n\x1a\n"
    at, packed, header = 8, b"", None
    while at < len(png):
        size, kind = struct.unpack(">I4s", png[at:at + 8])
        body = png[at + 8:at + 8 + size]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        if kind == b"IDAT":
            packed += body
        at += 12 + size
    width, height, depth, colour, _, _, interlace = header
    assert depth == 8 and colour in (2, 6) and interlace == 0, header
    step = 3 if colour == 2 else 4
    data, stride, previous, rows = zlib.decompress(packed), width * step, bytes(width * step), []
    for y in range(height):
        kind, line = data[y * (stride + 1)], bytearray(data[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            left = line[i - step] if i >= step else 0
            up = previous[i]
            corner = previous[i - step] if i >= step else 0
            if kind == 1:
                line[i] = line[i] + left & 255
            elif kind == 2:
                line[i] = line[i] + up & 255
            elif kind == 3:
                line[i] = line[i] + (left + up) // 2 & 255
            elif kind == 4:
                guess = left + up - corner
                distances = abs(guess - left), abs(guess - up), abs(guess - corner)
                line[i] = line[i] + (left, up, corner)[distances.index(min(distances))] & 255
        previous = bytes(line)
        rows.append([tuple(line[i:i + 3]) for i in range(0, stride, step)])
    return rows


def is_colourful(pixel):
    return max(pixel) - min(pixel) > 60


def check_full_log(work):
    subprocess.run([SAMPLE_LOG, "4", "4", "80", "0", "1000"], check=True, stdout=subprocess.DEVNULL,
                   env={**os.environ, "VEX_TEST_LOG_DIR": str(work), "LC_ALL": "C.UTF-8"})
    log, page = work / "PILog.txt", work / "page.html"
    subprocess.run([VEXLOG, "report", str(page), "--input", str(log)], check=True)
    stats = json.loads(subprocess.run([VEXLOG, "stats", "--json", str(log)], check=True, capture_output=True).stdout)
    text = page.read_text(encoding="utf-8")
    addresses = set(re.findall(r"(?:https?:)?//[\w.]+\.\w+[^\s\"'`]*", text))
    assert addresses <= {"http://www.w3.org/2000/svg"}, addresses

    dom, console = browse(work, page, "--dump-dom")
    assert not console, console
    drawn = Page(dom)
    assert drawn.state == "drawn", drawn.state
    failed = sum(function["failed"] for function in stats["functions"])
    assert failed > 0
    assert drawn.rows["failures"] - 1 == min(failed, 200), (drawn.rows, failed)
    assert drawn.rows["threads"] - 1 == 16, drawn.rows
    assert drawn.rows["functions"] - 1 == len(stats["functions"]), drawn.rows
    measured = sum(1 for function in stats["functions"] if function["measured"] > 0)
    assert dom.count("<figure>") == measured, (dom.count("<figure>"), measured)

    for name, options in (("light", []), ("dark", ["--blink-settings=preferredColorScheme=0"])):
        picture = SCREENSHOTS / f"vexlog-report-{name}.png"
        _, console = browse(work, page, "--window-size=1300,2400", f"--screenshot={picture}", *options)
        assert not console, console
        rows = pixels(picture.read_bytes())
        corner = rows[2][2]
        assert (sum(corner) > 600) == (name == "light"), (name, corner)
        # The canvas shows the calls of sixteen threads in more than three colours. Most pixels of these rows are coloured.
        lanes = [row for row in rows if sum(map(is_colourful, row)) > 300]
        colours = {pixel for row in lanes for pixel in row if is_colourful(pixel)}
        assert len(lanes) >= 16 * 8, (name, len(lanes))
        assert len(colours) >= 8, (name, len(colours))


def check_hostile_log(work):
    attacks = [
        "</script><script>document.title='owned';console.error('owned')</script>",
        "<img src=x onerror=\"document.title='owned'\">",
        "\"><svg onload=alert(1)>",
        "<!--<script>",
        "{{data}}\\u003cscript\\u003e",
        "';alert(1);//",
        "\u2028\u202eevil\u0000\x1b[31m",
        "javascript:alert(1)",
    ]
    log, page = work / "hostile<img src=x onerror=alert(1)>.txt", work / "hostile.html"
    with log.open("wb") as file:
        file.write(b"\xff\xfe")
        for n, attack in enumerate(attacks):
            for line, word in ((1, "Enter."), (2, "Leave."), (3, "Enter.")):
                entry = f"[INFO] [P{n}] [T-1] [2024-03-05 09:07:0{line}:000] [src-{attack}({line})]: {attack} {word}\r\n\r\n"
                file.write(entry.replace("/", "|").encode() if n % 2 else entry.encode())
                # Names with dots and slashes are not function names: replaces these characters.
                entry = re.sub(r"[/.]", "|", attack)
                file.write(f"[INFO] [P{n}] [T-2] [2024-03-05 09:07:0{line}:000] [src-{entry}({line})]: {word[:5]} {word}\r\n\r\n".encode())
            file.write(b"\xe9\xff<b>\r\n\r\n")
    subprocess.run([VEXLOG, "report", str(page), "--input", str(log)], check=True)
    dom, console = browse(work, page, "--dump-dom")
    assert not console, console
    drawn = Page(dom)
    assert drawn.state == "drawn"
    assert drawn.tags.count("script") == 2, drawn.tags.count("script")
    for tag in ("img", "b", "iframe", "object", "embed", "link", "a"):
        assert tag not in drawn.tags, tag
    assert not [name for name in drawn.attributes if name.startswith("on")], drawn.attributes
    assert "<title>Diagnostic log</title>" in dom
    assert drawn.rows["functions"] - 1 >= 6, drawn.rows

    # Whatever text gets into the page, only its own script runs.
    text = page.read_text(encoding="utf-8")
    injected = work / "injected.html"
    injected.write_text(text.replace("</h1>", "</h1><script>document.title='owned'</script>", 1), encoding="utf-8")
    dom, console = browse(work, injected, "--dump-dom")
    assert "<title>Diagnostic log</title>" in dom
    assert any("Content Security Policy" in line for line in console), console


def check_empty_log(work):
    page = work / "empty.html"
    subprocess.run([VEXLOG, "report", str(page), "--input", os.devnull], check=True)
    dom, console = browse(work, page, "--dump-dom")
    assert not console, console
    assert Page(dom).state == "drawn"


def main():
    if BROWSER is None:
        print("There is no Chromium here.")
        return SKIPPED
    SCREENSHOTS.mkdir(parents=True, exist_ok=True)
    for check in (check_full_log, check_hostile_log, check_empty_log):
        with tempfile.TemporaryDirectory(prefix="vextest.") as directory:
            print(check.__name__, flush=True)
            check(pathlib.Path(directory))
    return 0


if __name__ == "__main__":
    sys.exit(main())
