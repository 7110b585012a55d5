#!/usr/bin/env python3
"""Holds the sources' #include lines to the table "Who knows whom" of docs/architecture.md.

Usage: CheckIncludes.py ROOT
"""

import pathlib
import re
import sys

# Made by the build.
GENERATED = {"ReportParts.h", "vex_jni_TAVClientJNI.h"}
# Headers that are neither the language's nor the operating system's.
LIBRARIES = ("CLI/", "asio", "jni.h", "openssl/", "p11-kit/", "zlib.h")
FOLDERS = ("BaseInclude", "TAVClientJNI", "VEXClientTK", "tools")


def read_table(page):
    """Maps each part, a folder, to what its files may include: folders and libraries."""
    section = page.split("## Who knows whom\n")[1].split("\n## ")[0]
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in section.splitlines() if "`" in line]
    return {re.search("`(.*?)/`", row[0])[1]: {name.rstrip("/") for name in re.findall("`<?(.*?)>?`", row[1])}
            for row in rows if len(row) == 3}


def part_of(path, parts):
    """The innermost part that the file lies in."""
    return max((part for part in parts if path.startswith(part + "/")), key=len, default=None)


def find(root, source, name):
    """The project's file that the name in quotation marks means."""
    for folder in (source.parent, root / "BaseInclude", root / "VEXClientTK", root / "tools"):
        if (folder / name).is_file():
            return (folder / name).resolve().relative_to(root).as_posix()
    return None


def problems(root, table):
    sources = [path for folder in FOLDERS for path in sorted((root / folder).rglob("*")) if path.suffix in (".h", ".cpp")]
    used = {part: set() for part in table}
    for source in sources:
        name = source.relative_to(root).as_posix()
        part = part_of(name, table)
        if part is None:
            yield f"{name} is in no part of the table"
            continue
        for quote, included in re.findall(r'^#include ([<"])(.*?)[>"]', source.read_text(encoding="utf-8"), re.M):
            if quote == "<":
                needed = next((lib.rstrip("/") for lib in LIBRARIES if included.startswith(lib)), None)
            elif included in GENERATED:
                continue
            else:
                target = find(root, source, included)
                if target is None:
                    yield f"{name}: there is no {included}"
                    continue
                needed = part_of(target, table)
            if needed is None or needed == part:
                continue
            used[part].add(needed)
            if needed not in table[part]:
                yield f"{name} includes {included}, but {part}/ must not know {needed}"
    for part, allowed in table.items():
        for unused in sorted(allowed - used[part]):
            yield f"{part}/ may include {unused}, but no file of it does"


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    table = read_table((root / "docs/architecture.md").read_text(encoding="utf-8"))
    if len(table) < 8:
        sys.exit("the table in docs/architecture.md cannot be read")
    found = list(problems(root, table))
    print("\n".join(found))
    sys.exit(1 if found else 0)


main()
