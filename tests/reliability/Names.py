#!/usr/bin/env python3
"""Hostile names and texts in what people read: Names.py <hostile_names> <vexsign> <vexlog>

Lists, messages, reports of verification, JSON and log pages of certificates, files and log records whose names try to
be something else. A record stays a line, JSON stays one object, a page gets no other element; nothing but visible
characters reaches a reader; no shell runs any of it. VEX_TEST_NAMES is the number of certificates and log records.
"""
import concurrent.futures
import html.parser
import json
import os
import pathlib
import pty
import random
import re
import subprocess
import sys
import tempfile
import unicodedata

HOSTILE_NAMES, VEXSIGN, VEXLOG = sys.argv[1:4]
COUNT = int(os.environ.get("VEX_TEST_NAMES", "60"))
SEED = os.environ.get("VEX_TEST_SEED") or str(random.SystemRandom().randrange(1 << 31))
BATCH = 500  # a store has at most 16 MiB
FIELDS = 7
# Format characters that are seen, or that other scripts need.
SEEN = re.compile("[\u0600-\u0605\u06dd\u070f\u0890\u0891\u08e2\U000110bd\U000110cd\U00013430-\U0001345f"
                  "\U0001bca0-\U0001bca3\U0001d173-\U0001d17a]")
counts = {}


def count(what):
    counts[what] = counts.get(what, 0) + 1


def visible(text):
    return not [c for c in text if unicodedata.category(c) in ("Cc", "Cf", "Cs", "Zl", "Zp") and not SEEN.match(c)]


def lines(output):
    """The lines of an output, which has to be UTF-8 and visible."""
    text = output.decode("utf-8")
    assert text == "" or text.endswith("\n"), text[-200:]
    found = text[:-1].split("\n") if text else []
    for line in found:
        assert visible(line.replace("\t", "")), ascii(line)
    return found


def run(work, *command, **options):
    environment = {"PATH": os.environ["PATH"], "HOME": str(work), "LC_ALL": "C.UTF-8"}
    return subprocess.run(command, cwd=work, capture_output=True, env=environment, stdin=subprocess.DEVNULL, **options)


def messages(result):
    """A message is one line that says who speaks, and perhaps a hint."""
    first, *others = lines(result.stderr)
    assert first.startswith(("vexsign: ", "vexlog: ")), first
    assert others in ([], ["Run with --help for more information."]), others


class Certificate:
    def __init__(self, line, pem):
        self.serial, state, validity, *_ = line.split(" ")
        self.signs = state == "readable" and validity == "valid"
        self.pem = pem


def certificates(work):
    blocks = re.findall(r"-----BEGIN [^-]*-----\n.*?-----END [^-]*-----\n", (work / "keys.pem").read_text(), re.S)
    listed = (work / "certificates.txt").read_text().splitlines()
    assert len(blocks) == len(listed) + 1
    return blocks[0], [Certificate(line, pem) for line, pem in zip(listed, blocks[1:])]


def check_lists(work, known):
    signing = {c.serial for c in known if c.signs}
    records = {}
    for store in ("keys.pem", "keys.p12"):
        result = run(work, VEXSIGN, "list", f"./{store}")
        assert result.returncode == 0, result.stderr
        records = {}
        for line in lines(result.stdout):
            fields = line.split("\t")
            assert len(fields) == FIELDS, fields
            assert not re.search(r"[ \t]", "".join(fields)), fields
            records[fields[0]] = fields
            count("records of vexsign list")
        assert set(records) == signing
        everything = lines(run(work, VEXSIGN, "list", "--all", f"./{store}").stdout)
        assert len(everything) == len(known)
        assert {len(line.split("\t")) for line in everything} == {FIELDS + 1}
    return records


def check_terminal(work):
    """On a terminal of another locale, nothing but ASCII."""
    read, write = os.pipe()
    child, terminal = pty.fork()
    if child == 0:
        os.chdir(work)
        os.execve(VEXSIGN, [VEXSIGN, "list", "./keys.pem"], {"LC_ALL": "C", "HOME": str(work)})
    os.close(read)
    os.close(write)
    shown = b""
    while True:
        try:
            part = os.read(terminal, 65536)
        except OSError:  # the other end is closed
            break
        if not part:
            break
        shown += part
    assert os.waitpid(child, 0)[1] == 0
    shown = shown.replace(b"\r\n", b"\n")
    assert re.fullmatch(rb"[\n -~]*", shown.replace(b"\t", b"        ")), shown[:500]
    count("lists on an ASCII terminal")


def check_signature(work, key, certificate, fields):
    directory = work / certificate.serial
    directory.mkdir()
    (directory / "keys.pem").write_text(key + certificate.pem)
    (directory / "signer.pem").write_text(certificate.pem)
    (directory / "letter").write_text("I owe you 100 euros.\n")
    filters = []
    for name, field in (("subject-name", fields[5]), ("issuer-name", fields[6])):
        # What vexsign list has escaped is not the name any more; the system limits arguments to 128 KiB.
        if field and len(field) < 100000 and not re.search(r"\\x|\\u\{", field):
            filters += ["--filter", f"{name}={field}"]
            count("names from vexsign list given as filters")
    result = run(directory, VEXSIGN, "p7", "./keys.pem", "letter", "-o", "letter.p7s", *filters)
    assert result.returncode == 0, (filters, result.stderr)
    verify = [VEXSIGN, "verify", "letter.p7s", "letter", "--ca", "signer.pem"]
    result = run(directory, *verify)
    assert result.returncode == 0, result.stdout
    report = lines(result.stdout)
    for title in ("signed by", "issued by", "serial number", "fingerprint", "valid"):
        assert sum(line.startswith(f"  {title}: ") or line == f"  {title}:" for line in report) == 1, report
    result = run(directory, *verify, "--json")
    (line,) = lines(result.stdout)
    signer = json.loads(line)["signers"][0]["certificate"]
    assert signer["serial"] == certificate.serial and signer["fingerprint_sha256"] == fields[1], signer
    count("signatures verified, in plain text and JSON")


def file_name(text):
    name = text.encode("utf-8").replace(b"/", b"|")[:200]
    name = name.decode("utf-8", "ignore").rstrip("\n")
    return name if name not in ("", ".", "..") else "x"


def check_file(work, key, certificate, name):
    """Files with hostile names, and the command that --verify-hint prints for a shell."""
    directory = work / "files"
    (directory / name).write_text("I owe you 100 euros.\n")
    (directory / "keys.pem").write_text(key + certificate.pem)
    signature = name + ".p7s"
    result = run(directory, VEXSIGN, "p7", "./keys.pem", "./" + name, "-o", "./" + signature, "--cert-out", "c.pem",
                 "--verify-hint")
    assert result.returncode == 0, result.stderr
    (hint,) = lines(result.stderr)
    assert hint.startswith("To verify: "), hint
    checked = run(directory, "sh", "-c", hint.removeprefix("To verify: "))
    assert checked.returncode == 0, (hint, checked.stderr)
    (report,) = lines(run(directory, VEXSIGN, "verify", "./" + signature, "./" + name, "--ca", "c.pem",
                          "--json").stdout)
    assert json.loads(report)["signature"] == "./" + signature, report
    report = run(directory, VEXSIGN, "verify", "./" + signature, "./" + name, "--ca", "c.pem")
    assert report.returncode == 0 and lines(report.stdout)
    count("files with hostile names signed and verified, also by a shell")


def check_messages(work, text):
    argument = text[:10000]
    for command in (["list", argument], ["list", "file:/" + argument], ["p7", "./keys.pem", "./missing/" + argument],
                    ["p7", "./keys.pem", "--filter", "subject-name=" + argument], ["verify", "./missing/" + argument],
                    ["p7", "./keys.pem", "--digest", argument], ["list", "./keys.pem", "--" + argument]):
        result = run(work, VEXSIGN, *command)
        if result.returncode == 0:
            continue  # "-" and the like are no error
        assert result.returncode in (1, 2), (command, result)
        messages(result)
        count("messages of vexsign")
    for command in (["./missing/" + argument], ["--since", argument, "log"], ["--" + argument],
                    ["report", "./missing/" + argument]):
        result = run(work, VEXLOG, *command)
        if result.returncode == 0:
            continue
        assert result.returncode in (1, 2), (command, result)
        messages(result)
        count("messages of vexlog")


class Page(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.tags, self.attributes, self.texts, self.scripts = set(), set(), [], 0
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        self.tags.add(tag)
        self.attributes |= {name for name, _ in attrs}
        self.scripts += tag == "script"

    def handle_data(self, data):
        self.texts.append(data)


def report(work, log, *conditions):
    assert run(work, VEXLOG, "report", "page.html", "--input", log, *conditions).returncode == 0
    page = (work / "page.html").read_bytes().decode("utf-8")
    assert all(visible(line) for line in page.replace("\t", "").split("\n"))
    return Page(page)


def check_log(work, texts, seed):
    log = (work / "PILog.txt").read_bytes()
    listed = lines(run(work, VEXLOG, "PILog.txt").stdout)
    records = [json.loads(line) for line in lines(run(work, VEXLOG, "--json", "PILog.txt").stdout)]
    assert len(listed) == len(records), (len(listed), len(records))
    whole = [record for record in records if record["kind"] == "record"]
    assert len(whole) == len(texts), (len(whole), len(texts))
    for record, text in zip(whole, texts):
        # The log cuts messages; an empty line in one ends the record, and the rest is "continued". Line ends at the
        # end of a message cannot be told from those of the entry.
        begin = re.split(r"(?:\r?\n){2}", text[:8000])[0].rstrip("\r\n")
        if "torn" in record:
            # Every tenth text is also a source file's name. The log has no quoting, so an empty line tears the record.
            assert re.search(r"(?:\r?\n){2}", text), (record, text)
            count("log records torn by empty lines in a file's name")
            continue
        assert record["message"].startswith(begin), (record, text)
        count("log records")
    assert lines(run(work, VEXLOG, "stats", "PILog.txt").stdout)

    hostile = report(work, "PILog.txt")
    (work / "plain").write_bytes(b"\xff\xfe[INFO] [P1] [T1] [2024-03-05 09:07:02:48213] [a-b(1)]: c\r\n\r\n"
                                 b"[INFO] [P1] [T1] [2024-03-05 09:07:03:48213] [a-b(1)]: c")
    for name in {file_name(text) for text in random.Random(seed).sample(texts, min(len(texts), 20))}:
        (work / "logs" / name).write_bytes(log[:2000])
        assert lines(run(work / "logs", VEXLOG, "./" + name, "./../PILog.txt").stdout)
        for line in lines(run(work / "logs", VEXLOG, "--json", "./" + name, "./../PILog.txt").stdout):
            json.loads(line)
        hostile = report(work, "./logs/" + name)
        plain = report(work, "plain")
        allowed = plain.tags | {"li", "tr", "td", "th", "figure", "figcaption", "details", "summary", "table", "ul"}
        assert hostile.tags <= allowed, hostile.tags - allowed
        assert hostile.scripts == plain.scripts, hostile.scripts
        assert not {a for a in hostile.attributes if a.startswith("on")}, hostile.attributes
        count("log pages")


def check_batch(work, seed, amount):
    for name in ("files", "logs"):
        (work / name).mkdir()
    subprocess.run([HOSTILE_NAMES, str(seed), str(amount), str(work)], check=True,
                   env={"VEX_TEST_LOG_DIR": str(work), "LC_ALL": "C.UTF-8"})
    key, known = certificates(work)
    texts = ["" if line == "-" else bytes.fromhex(line).decode("utf-8")
             for line in (work / "texts.txt").read_text().splitlines()]
    assert len(known) == len(texts) == amount
    check_log(work, texts, seed)
    records = check_lists(work, known)
    check_terminal(work)
    signing = [c for c in known if c.signs]
    (work / "keys.pem").write_text(key + signing[0].pem)
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for future in [pool.submit(check_signature, work, key, c, records[c.serial]) for c in signing]:
            future.result()
    for text in texts[:max(amount // 10, 6)]:
        check_file(work, key, signing[0], file_name(text))
    for text in texts[:max(amount // 20, 5)]:
        check_messages(work, text)
    executed = list(work.rglob("canary*"))
    assert not executed, executed


def main():
    print(f"VEX_TEST_SEED={SEED}", flush=True)
    for done in range(0, COUNT, BATCH):
        with tempfile.TemporaryDirectory() as directory:
            check_batch(pathlib.Path(directory), int(SEED) + done, min(BATCH, COUNT - done))
    for what in sorted(counts):
        print(f"{what}: {counts[what]}")


main()
