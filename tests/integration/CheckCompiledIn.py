#!/usr/bin/env python3
"""Checks that it is known what is compiled into the shipped files: CheckCompiledIn.py <build directory> <script "sbom">

Asks Ninja which headers the shipped objects include, and dpkg which packages the headers come from. A package must be
the compiler's, or belong to a library that our packages depend on, or be one whose code is compiled in. Those have a
notice in packaging/copyright.* and an entry in the SPDX document. Headers that come from no package are not looked at.
"""
import pathlib
import re
import runpy
import subprocess
import sys

build = pathlib.Path(sys.argv[1])
listed = {name for names in runpy.run_path(sys.argv[2])["COMPILED_IN"].values() for name in names}

COMPILER = re.compile(r"(libc6|linux-libc|libstdc\+\+-\d+|libgcc-\d+)-dev|gcc-\d+.*|libcrypt-dev")
JDK = re.compile(r"(openjdk|temurin)-.*")  # jni.h, whose notice is in packaging/copyright.bridge
LINKED = {"libssl-dev", "zlib1g-dev"}
SHIPPED = ("TAVClientJNI/", "VEXClientTK/", "tools/")

deps = subprocess.run(["ninja", "-C", str(build), "-t", "deps"], check=True, capture_output=True, text=True).stdout
headers, objects, shipped = set(), 0, False
for line in deps.splitlines():
    if line and not line.startswith(" "):
        shipped = line.startswith(SHIPPED)
        objects += shipped
    elif shipped and line.strip().startswith("/usr/"):
        headers.add(str(pathlib.Path(line.strip()).resolve()))
found = subprocess.run(["dpkg-query", "-S", *sorted(headers)], check=False, capture_output=True, text=True).stdout
packages = {owner for line in found.splitlines() if not line.startswith("diversion ")
            for owner in re.sub(":[a-z0-9]+", "", line.split(": ")[0]).split(", ")}
used = {name for name in packages if not COMPILER.fullmatch(name) and not JDK.fullmatch(name)}

print(f"{objects} objects include {len(headers)} headers of {', '.join(sorted(packages))}")
assert objects > 100, "no objects"
assert used - LINKED <= listed, f"compiled in without a notice: {used - LINKED - listed}"
# An entry whose headers come from a package must be in use.
for name in listed - used:
    assert subprocess.run(["dpkg-query", "-W", name], check=False, capture_output=True).returncode != 0, \
        f"{name} is listed and installed, but not compiled in"
