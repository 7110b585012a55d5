#!/usr/bin/env python3
"""blocks.py PAGE DIRECTORY: writes the fenced blocks of a page that a reader would use into the directory.

The files are called NUMBER-LINE.LANGUAGE: the block's place among these blocks, and the line of the page that it begins
behind. Fails for a block without a language, and if not-run.txt names a command that is not on the page. Those commands
are left out.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# Pictures, output and messages.
NOT_USED = {"json", "mermaid", "text"}
FENCE = re.compile(r"^( *)(```+|~~~+) *([^\s`]*)")


def blocks_of(page):
    """Yields each block as its line, its language and its text."""
    lines = iter(enumerate(page.read_text(encoding="utf-8").splitlines(), 1))
    for number, line in lines:
        begin = FENCE.match(line)
        if not begin:
            continue
        indent, fence, language = begin.groups()
        text = []
        for _, line in lines:
            if line.strip().startswith(fence) and not line.strip().strip(fence[0]):
                break
            text.append(line.removeprefix(indent) + "\n")
        else:
            sys.exit(f"{page}:{number}: the block does not end")
        yield number, language, text


def not_run(name):
    """The commands of the page that are not run."""
    entries = (pathlib.Path(__file__).parent / "not-run.txt").read_text(encoding="utf-8").splitlines()
    commands = set()
    for entry, reason in zip(entries[0::2], entries[1::2], strict=True):
        page, separator, command = entry.partition(": ")
        if not separator or not reason.startswith("  "):
            sys.exit(f"not-run.txt: no command with a reason: {entry}")
        if not any((ROOT / folder / page).exists() for folder in ("", "docs")):
            sys.exit(f"not-run.txt: there is no page {page}")
        if page == name:
            commands.add(command)
    return commands


def main():
    page, directory = (pathlib.Path(argument) for argument in sys.argv[1:])
    unused = not_run(page.name)
    left_out = set()
    for number, language, text in blocks_of(page):
        if not language:
            sys.exit(f"{page}:{number}: a block without a language; that of pictures and output is text")
        if language in NOT_USED:
            continue
        for i, line in enumerate(text):
            command = line.partition("#")[0].strip()
            if language == "sh" and command in unused:
                left_out.add(command)
                text[i] = "\n"
        name = f"{len(list(directory.iterdir())):02}-{number}.{language}"
        (directory / name).write_text("".join(text), encoding="utf-8")
    if left_out != unused:
        sys.exit(f"not-run.txt: not on {page.name}: {', '.join(unused - left_out)}")


main()
