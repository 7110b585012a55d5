"""A copy of the project in which every mutant of a sample can be chosen at run time, and its build."""

import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess

from . import sample, schemata, syntax

TOOL = pathlib.Path(__file__).resolve().parent
HEADER = "VexMutant.h"


class BrokenBuild(Exception):
    pass


class Tree:
    """Below the directory: "tree" are the sources, "build" is their build, and the state of the tool."""

    def __init__(self, root, folders, directory, jobs, options=()):
        self.root = root
        self.folders = folders
        self.directory = directory
        self.jobs = jobs
        self.options = list(options)
        self.tree = directory / "tree"
        self.build = directory / "build"
        self.include = directory / "include"
        self.written = {}  # of the files with mutants
        directory.mkdir(parents=True, exist_ok=True)

    def product_files(self):
        """The product's sources, relative to the root."""
        return sorted(str(path.relative_to(self.root)) for folder in self.folders
                      for path in (self.root / folder).rglob("*") if path.suffix in (".cpp", ".h"))

    # ---- The copy ----

    def copy(self, mutants=()):
        """Copies what has changed. The mutants are pairs of number and mutant."""
        by_file = collections.defaultdict(list)
        for number, mutant in mutants:
            by_file[mutant.file].append((number, mutant))
        self.written = {file: schemata.write((self.root / file).read_bytes(), here) for file, here in by_file.items()}
        self.update(self.include / HEADER, (TOOL / HEADER).read_bytes(), 0o644)
        there = set()
        for path in self.all_files():
            relative = str(path.relative_to(self.root))
            there.add(relative)
            text = self.written[relative].text if relative in self.written else path.read_bytes()
            self.update(self.tree / relative, text, path.stat().st_mode)
        for path in self.tree.rglob("*"):
            if path.is_file() and str(path.relative_to(self.tree)) not in there:
                path.unlink()

    def all_files(self):
        skipped = {self.root / "build", self.root / ".git", self.directory}
        for folder, folders, files in os.walk(self.root):
            here = pathlib.Path(folder)
            folders[:] = [name for name in folders if here / name not in skipped and name != "__pycache__"]
            yield from (here / name for name in files if here / name not in skipped)

    @staticmethod
    def update(path, text, mode):
        if not path.exists() or path.read_bytes() != text:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(text)
        path.chmod(mode)

    # ---- The build ----

    def is_configured(self):
        """Whether the build is that of the sources that the project has now: each is named in a file of CMake."""
        files = [path.relative_to(self.root) for path in self.all_files()
                 if path.name == "CMakeLists.txt" or path.suffix == ".cmake"]
        return (self.build / "build.ninja").exists() and all(
            (self.tree / file).exists() and (self.tree / file).read_bytes() == (self.root / file).read_bytes()
            for file in files)

    def configure(self):
        # No warnings, because schemata have needless parentheses and unused results. Slow code is compiled fast.
        flags = f"-w -I{self.include} -fdiagnostics-column-unit=byte"
        command = ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                   "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O0", f"-DCMAKE_CXX_FLAGS={flags}", "-DBUILD_TESTING=ON",
                   "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=OFF", *self.options]
        ended = run(command)
        if ended.returncode != 0:
            raise BrokenBuild(f"cmake failed:\n{ended.stdout}")

    def generate(self):
        """Makes the headers that the build generates."""
        targets = run(["ninja", "-C", self.build, "-t", "targets", "all"]).stdout
        if re.search(r"^tavclientjni:", targets, re.MULTILINE):
            ended = run(["ninja", "-C", self.build, "tavclientjni"])
            if ended.returncode != 0:
                raise BrokenBuild(ended.stdout)

    def commands(self):
        """(source in the copy, compile command) of all product sources that are compiled."""
        entries = json.loads((self.build / "compile_commands.json").read_text(encoding="utf-8"))
        product = {self.tree / folder for folder in self.folders}
        found = {}
        for entry in entries:
            file = pathlib.Path(entry["file"])
            if any(file.is_relative_to(folder) for folder in product):
                found.setdefault(str(file), entry["command"])
        return sorted(found.items())

    def headers_alone(self, seen, files):
        """Compile commands for headers that no product source includes, with the folders of all commands."""
        command = shlex.join(["c++", "-std=c++20", *self.include_folders()])
        return [(str(self.tree / file), command) for file in files if file not in seen]

    def include_folders(self):
        """The options of all commands that name folders of headers."""
        return list(dict.fromkeys(argument for _, command in self.commands() for argument in shlex.split(command)
                                  if argument.startswith("-I")))

    def find(self, files):
        """All mutants of the files. The result is kept until a source changes."""
        digest = hashlib.sha256()
        for path in [TOOL / "syntax.py", TOOL / "texts.py", *(self.root / file for file in self.product_files())]:
            digest.update(path.read_bytes())
        kept = self.directory / "mutants.json"
        state = digest.hexdigest() + hashlib.sha256(" ".join(files).encode()).hexdigest()
        if kept.exists():
            content = json.loads(kept.read_text(encoding="utf-8"))
            if content["state"] == state:
                return [syntax.Mutant(**fields) for fields in content["mutants"]]

        wanted = set(files)
        mutants, seen = {}, set()
        sources = [(source, command) for source, command in self.commands()
                   if len(files) > 20 or str(pathlib.Path(source).relative_to(self.tree)) in wanted]
        with concurrent.futures.ProcessPoolExecutor(self.jobs) as pool:
            self.collect(pool, sources, wanted, mutants, seen)
            self.collect(pool, self.headers_alone(seen, files), wanted, mutants, seen)
        result = sample.number_twins(mutants.values())
        kept.write_text(json.dumps({"state": state, "mutants": [vars(mutant) for mutant in result]}), encoding="utf-8")
        return result

    def collect(self, pool, sources, wanted, mutants, seen):
        """Adds the mutants of the sources and of the headers that they are the first to include."""
        for found, files in pool.map(self.find_in, sources, [wanted] * len(sources)):
            for mutant in found:
                if mutant.file not in seen:
                    mutants[mutant.file, mutant.begin, mutant.end, mutant.form, mutant.fault] = mutant
            seen |= files

    def find_in(self, source_and_command, wanted):
        source, command = source_and_command
        arguments = [argument.replace(str(self.tree), str(self.root))
                     for argument in syntax.compile_arguments(command)]
        if source.endswith(".h"):
            arguments = ["-x", "c++", *arguments]
        return syntax.find_mutants(source.replace(str(self.tree), str(self.root)), arguments, self.root, wanted)

    def check_headers(self, mutants):
        """Returns the mutants without those in headers that do not compile. The build compiles headers many times."""
        left = dict(mutants)
        folders = sorted({str(pathlib.PurePath(mutant.file).parent) for mutant in left.values()
                          if mutant.file.endswith(".h")})
        while folders:
            self.copy(left.items())
            with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
                ended = list(pool.map(self.compile_headers_of, folders))
            folders = [folder for folder, result in zip(folders, ended) if result.returncode != 0]
            self.drop(left, "".join(result.stdout for result in ended if result.returncode != 0))
        return left

    def compile_headers_of(self, folder):
        commands = self.commands()
        here = [command for source, command in commands if str(pathlib.Path(source).parent) == f"{self.tree}/{folder}"]
        command = shlex.split((here or [command for _, command in commands])[0])
        taken = [argument for argument in command if not argument.startswith(("-M", "-o", "-c")) and
                 not argument.endswith((".o", ".d", ".cpp"))]
        taken += self.include_folders()
        source = self.directory / f"headers-{folder.replace('/', '-')}.cpp"
        headers = sorted(file for file in self.written if file.endswith(".h")
                         and str(pathlib.PurePath(file).parent) == folder)
        source.write_text("".join(f'#include "{self.tree / header}"\n' for header in headers), encoding="utf-8")
        return run([*taken, "-fsyntax-only", source], cwd=self.build)

    def make(self, mutants, targets):
        """Builds with all mutants that compile. Returns those."""
        left = dict(mutants)
        while True:
            self.copy(left.items())
            ended = run(["ninja", "-C", self.build, "-k", "0", "-j", str(self.jobs), *targets])
            if ended.returncode == 0:
                return left
            self.drop(left, ended.stdout)

    def drop(self, left, output):
        """Removes the mutants to which the compiler's errors belong."""
        bad = set()
        unknown = []
        place = re.compile(r"^([^\s:]+):(\d+):(\d+): ")
        errors = re.split(r"^(?=[^\s:]+:\d+:\d+: (?:fatal )?error: )", output, flags=re.MULTILINE)
        for error in errors[1:]:
            found = set()
            for line in error.splitlines():
                match = place.match(line)
                written = self.written.get(self.relative(match[1])) if match else None
                if written:
                    found |= set(written.mutants_at(int(match[2]), int(match[3]))[:1]
                                 or written.mutants_on(int(match[2])))
                if found & set(left):
                    break  # the notes are about other places
            bad |= found
            if not found:
                unknown.append(error)
        if output and not bad & set(left):
            raise BrokenBuild("".join(unknown) or output)
        for number in bad:
            left.pop(number, None)

    def relative(self, path):
        """The path that the compiler names, from the tree; ccache makes paths relative to the build."""
        found = os.path.normpath(self.build / path)
        return found[len(str(self.tree)) + 1:] if found.startswith(f"{self.tree}/") else None


def run(command, **options):
    return subprocess.run([str(argument) for argument in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, encoding="utf-8", errors="replace", check=False, **options)

