#!/usr/bin/env python3
"""The report's page in a real browser: VexlogReport.py <vexlog> <vexlog_sample_log> <directory for screenshots>

The browser draws the page of a log of several processes and threads, wide and narrow, light and dark. It prints no
message on the console and requests nothing from elsewhere. Dates, wrong clocks, torn records and 10,000 processes are
shown. A hostile log puts no element and no script into the page.
"""
import datetime
import html.parser
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import Chromium  # noqa: E402  (beside this file)

VEXLOG, SAMPLE_LOG, SCREENSHOTS = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3])
SKIPPED = 77
WIDE, NARROW = 1280, 375
HEADER = 38  # the height of the time axis
NATIVE = "Java_vex_jni_TAVClientJNI_"
# Counts the coloured pixels of the timeline.
CANVAS = """
(() => {
    const canvas = document.getElementById("timeline");
    const { data, width, height } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
    const rows = new Array(height).fill(0), columns = new Array(width).fill(0), colours = new Set();
    for (let i = 0; i < data.length; i += 4) {
        const [r, g, b] = data.slice(i, i + 3);
        if (Math.max(r, g, b) - Math.min(r, g, b) <= 60) continue;
        rows[Math.floor(i / 4 / width)]++;
        columns[i / 4 % width]++;
        colours.add(r << 16 | g << 8 | b);
    }
    return { width, height, rows, columns, colours: colours.size, background: data[0] + data[1] + data[2] };
})()
"""
# The elements that reach beyond the window, except inside of boxes that scroll.
SPILLED = """
[...document.body.querySelectorAll("*")].filter((node) => !node.closest(".scroll *, svg *, [hidden]"))
    .filter((node) => node.getBoundingClientRect().right > innerWidth + 0.5).map((node) => node.outerHTML.slice(0, 80))
"""


class Page(html.parser.HTMLParser):
    """Collects elements, and the rows of each table."""

    def __init__(self, text):
        super().__init__()
        self.tags, self.attributes, self.rows, self.state = [], [], {}, None
        self.table, self.in_cell = None, False
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
            self.rows.setdefault(self.table, []).append([])
        if tag in ("td", "th") and self.table:
            self.rows[self.table][-1].append("")
            self.in_cell = True

    def handle_data(self, data):
        if self.in_cell:
            self.rows[self.table][-1][-1] += data

    def handle_endtag(self, tag):
        if tag in ("td", "th"):
            self.in_cell = False
        if tag == "table":
            self.table = None

    def listed(self, table):
        return self.rows[table][1:]


def entry(when, process=4711, thread=-12, function=NATIVE + "P7Sign", line=325, message="x"):
    return (f"[INFO] [P{process}] [T{thread}] [{when:%Y-%m-%d %H:%M:%S:%f}] [src.cpp-{function}({line})]: {message}"
            "\r\n\r\n")


def call(when, milliseconds, **fields):
    return entry(when, **fields) + entry(when + datetime.timedelta(milliseconds=milliseconds), **fields, line=368)


def report(work, log, name="page.html", *selection):
    page = work / name
    source = work / "PILog.txt"
    if log is not None:
        source.write_bytes(b"\xff\xfe" + (log if isinstance(log, bytes) else log.encode()))
    subprocess.run([VEXLOG, "report", str(page), "--input", str(source), *selection], check=True)
    return page


def show(browser, page, **options):
    """Opens the page, which must draw without a message and without a request."""
    browser.open(page, **options)
    drawn = Page(browser.dom())
    assert drawn.state == "drawn", (drawn.state, browser.messages())
    assert not browser.messages(), browser.messages()
    assert set(browser.requests()) <= {page.as_uri()}, browser.requests()
    return drawn


def tile(browser, name):
    return int(browser.evaluate(f"""
        [...document.querySelectorAll(".tile")].find((tile) => tile.firstChild.textContent === {json.dumps(name)})
            .lastChild.textContent"""))


def written(browser):
    """What the last drawing wrote on the canvas: dates, times of day and the names of the rows, with their places."""
    texts = browser.evaluate(
        "texts.length = 0; document.getElementById('merge').dispatchEvent(new Event('change')); texts")
    dates = [(text["text"], text["x"]) for text in texts if re.fullmatch(r"\d{4}-\d\d-\d\d", text["text"])]
    times = [text["text"] for text in texts if re.fullmatch(r"\d\d:\d\d:\d\d(\.\d+)?", text["text"])]
    rows = [text["text"] for text in texts if text["y"] > HEADER]
    return dates, times, rows


def check_full_log(browser, work):
    subprocess.run([SAMPLE_LOG, "4", "4", "80", "0", "1000"], check=True, stdout=subprocess.DEVNULL,
                   env={**os.environ, "VEX_TEST_LOG_DIR": str(work), "LC_ALL": "C.UTF-8"})
    page = report(work, None)
    stats = json.loads(
        subprocess.run([VEXLOG, "stats", "--json", work / "PILog.txt"], check=True, capture_output=True).stdout)
    text = page.read_text(encoding="utf-8")
    addresses = set(re.findall(r"(?:https?:)?//[\w.]+\.\w+[^\s\"'`]*", text))
    assert addresses <= {"http://www.w3.org/2000/svg"}, addresses

    for width in (WIDE, NARROW):
        for dark in (False, True):
            drawn = show(browser, page, width=width, dark=dark)
            failed = sum(function["failed"] for function in stats["functions"])
            assert failed > 0
            assert len(drawn.listed("failures")) == min(failed, 200), (drawn.rows, failed)
            assert len(drawn.listed("threads")) == 16, drawn.rows
            assert len(drawn.listed("functions")) == len(stats["functions"]), drawn.rows
            measured = sum(1 for function in stats["functions"] if function["measured"] > 0)
            assert drawn.tags.count("figure") == measured, (drawn.tags.count("figure"), measured)

            # The canvas shows the calls of sixteen threads in several colours.
            canvas = browser.evaluate(CANVAS)
            assert (canvas["background"] > 600) == (not dark), canvas["background"]
            lanes = [row for row in canvas["rows"] if row > 20]
            assert len(lanes) >= 16 * 8, (width, len(lanes))
            assert canvas["colours"] >= 8, (width, canvas["colours"])

            spilled = browser.evaluate(SPILLED)
            assert not spilled, (width, spilled)
            assert browser.evaluate("document.scrollingElement.scrollWidth") <= width
            browser.screenshot(SCREENSHOTS / f"vexlog-report-{width}-{'dark' if dark else 'light'}.png")


def check_origin(browser, work):
    show(browser, report(work, call(datetime.datetime(2024, 3, 5, 9, 7, 2), 5)))
    host = os.uname().nodename
    made = browser.evaluate("document.getElementById('made').textContent")
    found = re.fullmatch(rf"Made on {re.escape(host)} at (\S+ \d\d:\d\d:\d\d) (UTC\S*|GMT)( \(\w+\))?\. .*", made)
    assert found, made
    age = datetime.datetime.now() - datetime.datetime.strptime(found[1], "%Y-%m-%d %H:%M:%S")
    assert datetime.timedelta(seconds=-1) < age < datetime.timedelta(minutes=5), made
    assert str(work / "PILog.txt") in browser.evaluate("document.querySelector('.source').textContent")


def check_dates(browser, work):
    """The axis has a date at its beginning and where a day begins."""
    evening = datetime.datetime(2024, 2, 28, 23, 59, 50)
    seconds = "".join(call(evening + datetime.timedelta(seconds=n), 500) for n in range(20))
    days = "".join(call(evening + datetime.timedelta(minutes=10 * n), 500) for n in range(3 * 24 * 6))
    years = "".join(call(evening.replace(year=year), 500) for year in range(2004, 2025))
    for width in (WIDE, NARROW):
        show(browser, report(work, seconds), width=width)
        dates, times, _ = written(browser)
        assert [date for date, _ in dates] == ["2024-02-29", "2024-02-28"], dates
        assert dates[1][1] < dates[0][1], dates
        assert times, times
        shown = browser.evaluate("document.getElementById('shown').textContent")
        assert re.fullmatch(r"2024-02-28 23:59:49\.\d+ to 2024-02-29 00:00:09\.\d+ \(.*\)", shown), shown
        # Enlarged, one day is in view: the one before midnight, then the one behind it.
        browser.evaluate("document.getElementById('timeline').focus()")
        for keys, date in (("+" * 9, None), ("←" * 20, "2024-02-28"), ("→" * 60, "2024-02-29")):
            for key in keys:
                name = {"←": "ArrowLeft", "→": "ArrowRight"}.get(key, key)
                browser.evaluate("document.getElementById('timeline')"
                                 f".dispatchEvent(new KeyboardEvent('keydown', {{ key: '{name}' }}))")
            dates, _, _ = written(browser)
            assert date is None or [text for text, _ in dates] == [date], (date, dates)

        show(browser, report(work, days), width=width)
        dates, _, _ = written(browser)
        # A narrow axis has room for every other date.
        wanted = {"2024-02-29", "2024-03-01", "2024-03-02"} if width == WIDE else {"2024-02-29", "2024-03-02"}
        assert wanted <= {date for date, _ in dates}, dates
        show(browser, report(work, years), width=width)
        dates, times, _ = written(browser)
        places = sorted(place for _, place in dates)
        assert not times and len(dates) >= 2, (dates, times)
        assert all(after - before >= 60 for before, after in zip(places, places[1:])), dates
    browser.screenshot(SCREENSHOTS / "vexlog-report-years.png")


def check_wrong_clock(browser, work):
    """One record with a wrong clock is shown apart and counted, and the rest is drawn as without it."""
    start = datetime.datetime(2024, 3, 5, 9, 7, 2)
    calls = [call(start + datetime.timedelta(milliseconds=100 * n), 80, thread=-12 - n % 2) for n in range(100)]
    show(browser, report(work, "".join(calls)))
    whole = browser.evaluate("document.getElementById('shown').textContent")
    coloured = browser.evaluate(CANVAS)["columns"]
    for wrong in (datetime.datetime(1970, 1, 1, 0, 0, 1), datetime.datetime(2024, 3, 4, 9, 7, 2),
                  datetime.datetime(2024, 3, 7, 9, 7, 2), datetime.datetime(2099, 1, 1)):
        torn = entry(wrong, thread=7) + entry(start + datetime.timedelta(seconds=3), thread=7, line=368)
        drawn = show(browser, report(work, "".join(calls[:50]) + torn + "".join(calls[50:])))
        assert browser.evaluate("document.getElementById('shown').textContent") == whole
        assert browser.evaluate(CANVAS)["columns"] == coloured, wrong
        assert tile(browser, "Wrong clock") == 1
        assert tile(browser, "Calls") == 101
        assert drawn.listed("clocks") == [[f"{wrong:%Y-%m-%d %H:%M:%S.%f}"] * 2 + ["1"]], drawn.rows
        assert drawn.listed("apart") == [
            [f"{wrong:%Y-%m-%d %H:%M:%S.%f}", "2024-03-05 09:07:05.000000", "4711", "7", "P7Sign"]], drawn.rows
        assert browser.evaluate("document.getElementById('apart-count').textContent") == "1 of 1."
        longest = drawn.listed("functions")[0][-1]
        assert longest == "80 ms", longest
    browser.screenshot(SCREENSHOTS / "vexlog-report-clock.png")


def check_selection(browser, work):
    """A page of a part of the log says so, where every reader sees it."""
    start = datetime.datetime(2024, 3, 5, 9, 7, 2)
    log = "".join(call(start + datetime.timedelta(seconds=n), 80, process=4711 + n % 2) for n in range(20))
    wrong = call(start + datetime.timedelta(days=9), 80, process=4713)
    page = report(work, log + wrong + log, "part.html", "--pid", "4711", "--pid", "4713", "--since", "2024-03-05")
    for width in (WIDE, NARROW):
        show(browser, page, width=width)
        said, top, bottom = browser.evaluate("""(() => { const part = document.getElementById("selection");
            const at = part.getBoundingClientRect(); return [part.innerText, at.top, at.bottom]; })()""")
        assert said == ("This page shows only a part of the log: process 4711 or 4713; from 2024-03-05 "
                        "00:00:00.000000."), said
        assert 0 < top < bottom < 400, (top, bottom)
        assert not browser.evaluate(SPILLED)
        assert tile(browser, "Calls") == 21
        assert tile(browser, "Wrong clock") == 2
        browser.screenshot(SCREENSHOTS / f"vexlog-report-part-{width}.png")

    # Only the calls with a wrong clock: nothing is drawn, and the page says why.
    show(browser, report(work, None, "wrong.html", "--pid", "4713"), width=NARROW)
    _, _, rows = written(browser)
    assert rows == ["All calls have a wrong clock; see their list."], rows
    assert browser.evaluate("document.getElementById('apart-count').textContent") == "1 of 1."


def check_torn(browser, work):
    start = datetime.datetime(2024, 3, 5, 9, 7, 2)
    calls = [call(start + datetime.timedelta(milliseconds=100 * n), 80) for n in range(20)]
    torn = entry(start + datetime.timedelta(milliseconds=1090), line=501, function=NATIVE + "GetLastError").strip()
    log = "lost\r\n\r\n" + "".join(calls[:11]) + torn + "".join(calls[11:])
    drawn = show(browser, report(work, log), width=NARROW)
    assert tile(browser, "Torn records") == 1
    assert tile(browser, "Fragments") == 1
    place = log.index(torn) + 2
    assert drawn.listed("damages") == [
        ["2", "8", "fragment", "", "", "", ""],
        [str(place), str(len(torn)), "torn record", "2024-03-05 09:07:03.090000", "4711", "-12", "GetLastError"],
    ], drawn.rows["damages"]
    assert "torn record" in browser.evaluate("document.getElementById('legend').textContent")
    browser.screenshot(SCREENSHOTS / "vexlog-report-torn.png")


def check_many_processes(browser, work):
    """10,000 processes, two of which run at a time. None is left out."""
    count, start = 10_000, datetime.datetime(2024, 3, 5, 9, 0)
    log = "".join(call(start + datetime.timedelta(milliseconds=10 * n), 15, process=20_000 + n) for n in range(count))
    page = report(work, log)
    for width in (NARROW, WIDE):
        show(browser, page, width=width)
        lanes = browser.evaluate("document.getElementById('lanes').textContent")
        assert lanes.startswith(f"{count} threads in 2 lanes:"), lanes
        canvas = browser.evaluate(CANVAS)
        gutter = canvas["width"] - sum(1 for column in canvas["columns"] if column)
        assert gutter < 170, gutter
        assert canvas["height"] < 1000, canvas["height"]
        _, _, rows = written(browser)
        assert rows == ["5000 threads"] * 2, rows
        browser.screenshot(SCREENSHOTS / f"vexlog-report-many-{width}.png")

    # A call of a shared lane tells its process.
    place = browser.evaluate("""(() => { const box = document.getElementById("timeline"); box.scrollIntoView();
        const at = box.getBoundingClientRect(); return [at.left, at.top, at.width]; })()""")
    browser.mouse("mouseMoved", place[0] + place[2] / 2, place[1] + HEADER + 10)
    tip = browser.evaluate("document.getElementById('tip').innerText")
    process = re.fullmatch(r"P7Sign: 15 ms\n2024-03-05 09:00:\d\d\.\d{6}\nP(\d+) T-12", tip)
    assert process and 20_000 <= int(process[1]) < 20_000 + count, tip

    # One lane for each thread: as many rows, of which the canvas draws those in view.
    browser.evaluate("document.getElementById('merge').click()")
    browser.settle()
    assert browser.evaluate("document.getElementById('lanes').textContent").startswith(f"{count} threads.")
    box = "document.getElementById('timeline-box')"
    for part, process in (("0", 20_000), (f"{box}.scrollHeight", 20_000 + count - 1)):
        browser.evaluate(f"texts.length = 0; {box}.scrollTop = {part}; {box}.dispatchEvent(new Event('scroll'))")
        browser.settle()
        assert f"Process {process}" in [text["text"] for text in browser.evaluate("texts")], process
        assert sum(browser.evaluate(CANVAS)["columns"]) > 0, process
    assert browser.evaluate(f"{box}.scrollHeight") > 2 * 20 * count
    assert browser.evaluate("document.getElementById('threads-count').textContent") == f"200 of {count}."
    browser.evaluate("document.getElementById('threads-more').click()")
    assert browser.evaluate("document.getElementById('threads-count').textContent") == f"400 of {count}."


def check_mouse_and_keys(browser, work):
    """The timeline follows the first mouse button. It leaves others, and Alt with an arrow, to the browser."""
    start = datetime.datetime(2024, 3, 5, 9, 7, 2)
    show(browser, report(work, "".join(call(start + datetime.timedelta(seconds=n), 500) for n in range(20))))
    canvas = "document.getElementById('timeline')"
    left, top, wide = browser.evaluate(f"""(() => {{ {canvas}.scrollIntoView(); {canvas}.focus();
        const at = {canvas}.getBoundingClientRect(); return [at.left, at.top, at.width]; }})()""")

    def shown():
        browser.settle()
        return browser.evaluate("document.getElementById('shown').textContent")

    def press(key, **modifiers):
        """Whether the page leaves the key to the browser."""
        event = json.dumps({"key": key, "cancelable": True, **modifiers})
        return browser.evaluate(f"{canvas}.dispatchEvent(new KeyboardEvent('keydown', {event}))")

    assert not press("+") and not press("+")
    before = shown()
    for button, follows in (("right", False), ("middle", False), ("left", True)):
        browser.mouse("mousePressed", left + wide / 2, top + HEADER + 10, button)
        browser.mouse("mouseMoved", left + wide / 2 - 200, top + HEADER + 10)
        assert (shown() != before) == follows, (button, before, shown())
        browser.mouse("mouseReleased", left + wide / 2 - 200, top + HEADER + 10, button)
        before = shown()
        browser.mouse("mouseMoved", left + wide / 2, top + HEADER + 10)
        assert shown() == before, (button, before, shown())
    for modifier in ("altKey", "ctrlKey", "metaKey"):
        assert press("ArrowLeft", **{modifier: True}), modifier
        assert shown() == before, (modifier, before, shown())
    assert not press("ArrowLeft") and shown() != before


def check_hostile_log(browser, work):
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
    log, page = work / "hostile<img src=x onerror=alert(1)>\u202e.txt", work / "hostile.html"
    with log.open("wb") as file:
        file.write(b"\xff\xfe")
        for n, attack in enumerate(attacks):
            for line, word in ((1, "Enter."), (2, "Leave."), (3, "Enter.")):
                head = f"[INFO] [P{n}] [T-1] [2024-03-05 09:07:0{line}:000] [src-"
                text = f"{head}{attack}({line})]: {attack} {word}\r\n\r\n"
                file.write(text.replace("/", "|").encode() if n % 2 else text.encode())
                # Names with dots and slashes are not function names: replaces these characters.
                name = re.sub(r"[/.]", "|", attack)
                file.write(f"{head.replace('T-1', 'T-2')}{name}({line})]: {word[:5]} {word}\r\n\r\n".encode())
            file.write(b"\xe9\xff<b>\r\n\r\n")
    subprocess.run([VEXLOG, "report", str(page), "--input", str(log)], check=True)
    drawn = show(browser, page)
    dom = browser.dom()
    assert drawn.tags.count("script") == 2, drawn.tags.count("script")
    for tag in ("img", "b", "iframe", "object", "embed", "link", "a"):
        assert tag not in drawn.tags, tag
    assert not [name for name in drawn.attributes if name.startswith("on")], drawn.attributes
    assert "<title>Diagnostic log</title>" in dom
    assert len(drawn.listed("functions")) >= 6, drawn.rows
    # Characters that reorder others, and control characters, are escapes that everyone can read.
    text = browser.evaluate("document.body.innerText") + page.read_text(encoding="utf-8") + dom
    assert not re.search("[\u200e\u200f\u2028-\u202e\u2066-\u2069\x00-\x08\x0b-\x1f]", text)
    names = [row[0] for row in drawn.listed("functions")]
    assert r"\u{2028}\u{202e}evil\0\x1b[31m" in names, names
    assert r"onerror=alert(1)>\u{202e}.txt" in browser.evaluate("document.querySelector('.source').textContent")
    legend = browser.evaluate("document.getElementById('legend').textContent")
    assert r"\u{2028}\u{202e}evil\0\x1b[31m" in legend, legend

    # Whatever text gets into the page, only its own script runs.
    text = page.read_text(encoding="utf-8")
    injected = work / "injected.html"
    injected.write_text(text.replace("</h1>", "</h1><script>document.title='owned'</script>", 1), encoding="utf-8")
    browser.open(injected)
    assert "<title>Diagnostic log</title>" in browser.dom()
    assert "Content Security Policy" in json.dumps(browser.messages()), browser.messages()


def check_empty_log(browser, work):
    show(browser, report(work, b""))
    _, _, rows = written(browser)
    assert rows == ["No calls."], rows


def main():
    if Chromium.PROGRAM is None:
        print("There is no Chromium here.")
        return SKIPPED
    SCREENSHOTS.mkdir(parents=True, exist_ok=True)
    checks = (check_full_log, check_origin, check_dates, check_wrong_clock, check_selection, check_torn,
              check_many_processes, check_mouse_and_keys, check_hostile_log, check_empty_log)
    with tempfile.TemporaryDirectory(prefix="vextest.") as profile, Chromium.Chromium(profile) as browser:
        for check in checks:
            with tempfile.TemporaryDirectory(prefix="vextest.") as directory:
                print(check.__name__, flush=True)
                check(browser, pathlib.Path(directory))
    return 0


if __name__ == "__main__":
    sys.exit(main())
