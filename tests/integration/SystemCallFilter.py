#!/usr/bin/env python3
"""Holds a program's system calls to the limits of its unit.

Usage: SystemCallFilter.py UNIT TRACE

UNIT has SystemCallFilter= and RestrictAddressFamilies=, TRACE is what strace has written. The sets of system calls are
those of systemd-analyze. Prints each call that the unit does not allow.
"""

import re
import subprocess
import sys


def sets():
    """Maps the name of each set to its members, which may be sets."""
    found = {}
    listed = subprocess.run(["systemd-analyze", "syscall-filter"], check=True, capture_output=True, text=True).stdout
    for line in listed.splitlines():
        if line.startswith("@"):
            members = found[line.strip()] = []
        elif re.fullmatch(r"    @?[a-z0-9_-]+", line) and found:
            members.append(line.strip())
    return found


def expand(names, known):
    calls = set()
    for name in names:
        calls |= expand(known[name], known) if name.startswith("@") else {name}
    return calls


def values(unit, name):
    return re.findall(rf"^{name}=(.*)$", unit, re.MULTILINE)


def main():
    unit = open(sys.argv[1], encoding="utf-8").read()
    trace = open(sys.argv[2], encoding="utf-8", errors="replace").read()
    known = sets()
    allowed = expand(["@default"], known)
    for value in values(unit, "SystemCallFilter"):
        if value.startswith("~"):
            allowed -= expand(value[1:].split(), known)
        else:
            allowed |= expand(value.split(), known)
    families = set(" ".join(values(unit, "RestrictAddressFamilies")).split())
    used = set(re.findall(r"^(?:\d+ +)?([a-z0-9_]+)\(", trace, re.MULTILINE))
    opened = set(re.findall(r"\bsocket\((AF_[A-Z0-9]+)", trace))
    if len(allowed) < 100 or not families or "epoll_wait" not in used or not opened:
        sys.exit(f"too little to compare: {len(allowed)} calls, {families}, {used}, {opened}")
    wrong = sorted(used - allowed) + sorted(opened - families)
    print("\n".join(wrong))
    sys.exit(1 if wrong else 0)


main()
