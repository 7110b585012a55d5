#!/usr/bin/env python3
"""Checks that built files do not tell where and when they were built.

CheckReproducible.py <date> <source directory> <build directory> <file or directory>...

The date is in seconds since 1970. No file contains the name of one of both directories. All entries of a
jar have the date. scripts/reproducible compares two whole builds; this is quick.
"""
import datetime
import io
import pathlib
import sys
import zipfile

date = datetime.datetime.fromtimestamp(int(sys.argv[1]), datetime.timezone.utc)
# A jar stores even seconds.
wanted = (date.year, date.month, date.day, date.hour, date.minute, date.second // 2 * 2)
directories = [name.encode() for name in sys.argv[2:4]]
failures = []
checked = 0


def check(name, content):
    global checked
    checked += 1
    for directory in directories:
        at = content.find(directory)
        if at >= 0:
            failures.append(f"{name}: contains {content[max(0, at - 20):at + 80]!r}")
    if content[:4] == b"PK\x03\x04":
        with zipfile.ZipFile(io.BytesIO(content)) as jar:
            for entry in jar.infolist():
                if entry.date_time != wanted:
                    failures.append(f"{name}: {entry.filename} has the date {entry.date_time}")
                check(f"{name}: {entry.filename}", jar.read(entry))


for path in map(pathlib.Path, sys.argv[4:]):
    found = [path] if path.is_file() else sorted(child for child in path.rglob("*") if child.is_file())
    if not found:
        failures.append(f"{path}: nothing there")
    for file in found:
        check(file, file.read_bytes())

for failure in failures[:50]:
    print(failure, file=sys.stderr)
print(f"{checked} files and entries of jars: {len(failures)} problems")
sys.exit(1 if failures else 0)
