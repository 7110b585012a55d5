#!/usr/bin/env python3
"""Checks that the shipped libraries and programs are hardened: CheckHardening.py <build directory> <file>...

Looks into each file, and into each object that the build made for them, also those of object libraries. Objects are
checked one by one because the linker drops a note that one of the C library's own start files lacks.
"""
import json
import pathlib
import re
import shlex
import subprocess
import sys

build = pathlib.Path(sys.argv[1])
files = [pathlib.Path(name) for name in sys.argv[2:]]
failures = []

# Where the build puts the objects of what is shipped, with one object of each kind of library.
SHIPPED = ("TAVClientJNI/", "VEXClientTK/", "tools/")
KINDS = ("/TAVClientJNI.dir/", "/vextk_compat.dir/", "/vextk_signing.dir/", "/vex_posix.dir/", "/vexsign.dir/",
         "/vexlog_reader.dir/", "/vexfiled_core.dir/", "/vexfiled.dir/")
ENDBR64 = bytes.fromhex("f30f1efa")


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, env={"LC_ALL": "C"}).stdout


def expect(condition, file, problem):
    if not condition:
        failures.append(f"{file}: {problem}")


def last(arguments, *beginnings):
    """The last argument that begins with one of these texts: the one that counts."""
    found = [argument for argument in arguments if argument.startswith(beginnings)]
    return found[-1] if found else ""


def check_command(name, arguments):
    wanted = {
        ("-fstack-protector", "-fno-stack-protector"): "-fstack-protector-strong",
        ("-fcf-protection",): "-fcf-protection=full",
        ("-D_FORTIFY_SOURCE", "-U_FORTIFY_SOURCE"): "-D_FORTIFY_SOURCE=2",
        ("-D_GLIBCXX_ASSERTIONS", "-U_GLIBCXX_ASSERTIONS"): "-D_GLIBCXX_ASSERTIONS",
    }
    for beginnings, option in wanted.items():
        expect(last(arguments, *beginnings) == option, name, f"compiled without {option}")
    expect(last(arguments, "-O") in ("-O2", "-O3"), name, "not optimised, so _FORTIFY_SOURCE does nothing")
    expect(last(arguments, "-fPIC", "-fPIE", "-fno-pic", "-fno-pie", "-fno-PIC", "-fno-PIE") in ("-fPIC", "-fPIE"),
           name, "not position-independent")


def check_object(path):
    notes = output("readelf", "-nW", str(path))
    expect(re.search("x86 feature: IBT, SHSTK", notes), path, "no note of -fcf-protection")
    # The compiler records its options in the debug information or in its intermediate code.
    expect(b"-fstack-protector-strong" in path.read_bytes(), path, "the stack protector is not recorded")


def symbols(path, *options):
    """Yields value, type, binding, section and name of each symbol, the name without its version."""
    for line in output("readelf", "-W", *options, str(path)).splitlines():
        fields = line.split()
        if len(fields) >= 8 and re.fullmatch(r"\d+:", fields[0]):
            yield int(fields[1], 16), fields[3], fields[4], fields[6], fields[7].split("@")[0]


def bytes_at(path, address, count):
    for line in output("readelf", "-lW", str(path)).splitlines():
        fields = line.split()
        if fields[:1] == ["LOAD"]:
            offset, start, size = (int(fields[i], 16) for i in (1, 2, 4))
            if start <= address < start + size:
                return path.read_bytes()[offset + address - start:][:count]
    return b""


def check_file(path):
    header = output("readelf", "-hW", str(path))
    dynamic = output("readelf", "-dW", str(path))
    segments = output("readelf", "-lW", str(path))
    flags = re.search(r"\(FLAGS\)\s+(.*)", dynamic)
    flags_1 = re.search(r"\(FLAGS_1\)\s+Flags: (.*)", dynamic)
    expect(re.search(r"Type:\s+DYN", header), path, "not position-independent")
    expect(flags and "BIND_NOW" in flags[1], path, "not bound at load time (FLAGS)")
    expect(flags_1 and "NOW" in flags_1[1].split(), path, "not bound at load time (FLAGS_1)")
    if ".so" not in path.name:
        expect(flags_1 and "PIE" in flags_1[1].split(), path, "no PIE")
    expect("TEXTREL" not in dynamic, path, "relocations in its code")
    expect("GNU_RELRO" in segments, path, "no segment that becomes read-only after relocation")
    stack = re.search(r"GNU_STACK.*", segments)
    expect(stack and stack[0].split()[6] == "RW", path, "an executable stack")
    expect(not re.search(r"^\s*LOAD.* RWE ", segments, re.MULTILINE), path, "memory to write and execute")

    dynamic_symbols = list(symbols(path, "--dyn-syms"))
    imports = {name for _, _, _, section, name in dynamic_symbols if section == "UND"}
    expect("__stack_chk_fail" in imports, path, "no stack protector")
    expect(any(re.fullmatch(r"__\w+_chk", name) for name in imports), path, "calls no function of _FORTIFY_SOURCE")

    # Functions that others call begin with a mark for indirect branches. A program only has main.
    entries = {name: value for value, kind, binding, section, name in
               (dynamic_symbols if ".so" in path.name else symbols(path, "--syms"))
               if kind == "FUNC" and section != "UND" and (".so" in path.name or name == "main")}
    expect(entries, path, "no functions found")
    for name, value in entries.items():
        expect(bytes_at(path, value, 4) == ENDBR64, path, f"{name} does not begin with endbr64")
    return imports


objects = {}
for command in json.load(open(build / "compile_commands.json", encoding="utf-8")):
    arguments = shlex.split(command["command"])
    name = arguments[arguments.index("-o") + 1]
    if name.startswith(SHIPPED):
        objects[name] = arguments
for kind in KINDS:
    expect(any(kind in name for name in objects), build, f"compiles nothing for {kind}")
for name, arguments in objects.items():
    check_command(name, arguments)
    check_object(build / name)

# A library that indexes no container of C++ has nothing to check.
asserting = [path for path in files if any("__glibcxx_assert_fail" in name for name in check_file(path))]
expect(len(asserting) >= len(files) - 1, build, f"_GLIBCXX_ASSERTIONS only in {asserting}")

print("\n".join(failures), file=sys.stderr)
print(f"{len(files)} files and {len(objects)} objects: {len(failures)} problems")
sys.exit(1 if failures else 0)
