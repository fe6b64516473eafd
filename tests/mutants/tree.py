"""The mutants' core: a copy of the core's sources that holds every mutant, compiled once and linked
with the test programs' own object files.

The tests of a header, by their name its own, are compiled with the header's mutants too. What other
tests call of it by themselves is not a mutant; what the core does with it is.
"""

import concurrent.futures
import json
import re
import shlex
import subprocess
from pathlib import Path

from tests.mutants.points import Finder
from tests.mutants.render import DEFINITION, HEADER, render
from tests.support import core_variant
from tests.support.core_variant import CORE, UNITS

# Read by C compilers too: constants and declarations only.
LEFT_ALONE = {"ExanicMdTypes.h", "ExanicMdMonitor.h"}
DEFINED_IN = "public/log/CommonLog.cpp"
TARGETS = [*UNITS, "differential_driver"]


class Tree:
    def __init__(self, root, folder):
        self.root = root
        self.folder = folder
        self.source = folder / "tree"
        self.files = {}    # name -> text, as it is
        self.mutants = []  # by number: {"number", "file", "line", "kind", "before", "after"}

    def prepare(self, jobs, say):
        files = {}
        for part in CORE:
            for path in sorted((self.root / part).rglob("*")):
                if path.suffix in (".cpp", ".h") and path.name not in LEFT_ALONE:
                    files[path.relative_to(self.root)] = path.read_bytes()
        say(f"looking for places in {len(files)} files")
        self.files = files
        places = self._find(files)
        numbers = self._number(files, places)
        refused = self._write(files, places, numbers, say)
        self.mutants = [mutant for mutant in self.mutants if mutant["number"] not in refused]
        say(f"{len(self.mutants)} mutants; {len(refused)} more would not compile")
        self._make(jobs)
        _write_if_new(self.folder / "mutants.json", json.dumps(self.mutants, indent=1) + "\n")

    def _arguments(self):
        source = self.root / CORE[0]
        return ["-x", "c++", "-std=c++20", f"-I{source}", f"-I{self.root}/public",
                f"-I{self.root}/public/log", f"-I{self.root}/softcard/include"]

    def _find(self, files):
        finder = Finder({str(self.root / name): text for name, text in files.items()})
        for name in files:
            if name.suffix == ".cpp":
                finder.parse(self.root / name, self._arguments())
        return {name: list(finder.places[str(self.root / name)].values()) for name in files}

    def _number(self, files, places):
        numbers = {}
        for name, found in places.items():
            text = files[name].decode()
            for place in sorted(found, key=lambda item: (item.start, item.end)):
                for i, (kind, after) in enumerate(place.changes):
                    number = len(self.mutants)
                    numbers[(name, place.start, place.end, place.statement, i)] = number
                    before = files[name][place.start:place.end].decode()
                    self.mutants.append({
                        "number": number, "file": str(name), "kind": kind,
                        "line": files[name][:place.start].decode().count("\n") + 1,
                        "before": " ".join(before.split()), "after": " ".join(after.split()),
                        "source_line": text.splitlines()[
                            files[name][:place.start].decode().count("\n")].strip()})
        return numbers

    # Writes the core with all its mutants. What the compiler refuses is left out, by line.
    def _write(self, files, places, numbers, say):
        _write_if_new(self.folder / "mutant.h", HEADER)
        refused = set()

        def write(name):
            def number(place, i):
                found = numbers[(name, place.start, place.end, place.statement, i)]
                return None if found in refused else found
            text = render(files[name], places[name], number)
            if str(name) == DEFINED_IN:
                text += DEFINITION
            _write_if_new(self.source / name, text)

        for name in files:
            write(name)
        for part in CORE:
            for path in (self.root / part).rglob("*.h"):
                if path.name in LEFT_ALONE:
                    _write_if_new(self.source / path.relative_to(self.root), path.read_text())
        by_place = {}
        for mutant in self.mutants:
            by_place.setdefault((mutant["file"], mutant["line"]), []).append(mutant["number"])
        for name in files:
            if name.suffix != ".cpp":
                continue
            for _ in range(30):
                wrong = self._compile(name)
                if not wrong:
                    break
                for file, line in wrong:
                    # The line may be the later one of an expression that begins above it.
                    at = line
                    while (file, at) not in by_place or not set(by_place[(file, at)]) - refused:
                        at -= 1
                        if at < line - 8:
                            raise RuntimeError(f"{file}:{line} does not compile")
                    refused.update(by_place[(file, at)])
                for file in {file for file, _ in wrong}:
                    write(Path(file))
            else:
                raise RuntimeError(f"{name} does not compile")
        return refused

    def _compile(self, name):
        source = self.source
        done = subprocess.run(
            ["g++", *self._flags(), "-fsyntax-only", source / name],
            capture_output=True, text=True, check=False)
        if done.returncode == 0:
            return set()
        wrong = set()
        for file, line in re.findall(r"^(\S+?):(\d+):\d+: error:", done.stderr, re.MULTILINE):
            if Path(file).is_relative_to(source):
                wrong.add((str(Path(file).relative_to(source)), int(line)))
        if not wrong:
            raise RuntimeError(f"{name}: {done.stderr[:2000]}")
        return wrong

    def _make(self, jobs):
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            sources = [name for name in self.files if name.suffix == ".cpp"]
            objects = list(pool.map(self._object, sources))
            headers = [name for name in self.files if name.suffix == ".h"
                       and name.with_suffix(".cpp") not in self.files]
            build = self.root / "build"
            tests = dict(pool.map(self._test_object,
                                  core_variant.tests_of_headers(build, headers)))
            list(pool.map(lambda name: core_variant.link(build, name, objects, tests,
                                                         self.program(name)), TARGETS))

    def _test_object(self, test):
        name, words = test
        made = self.folder / "objects" / Path(name).name
        if made.exists() and made.stat().st_mtime > max(
                (self.source / file).stat().st_mtime for file in self.files):
            return name, made
        at = words.index("-o")
        words[at + 1] = str(made)
        words = [word.replace(f"-I{self.root}/exchange", f"-I{self.source}/exchange").replace(
            f"-I{self.root}/public", f"-I{self.source}/public") for word in words]
        subprocess.run([*words, "-w", "-Wno-error", "-include", self.folder / "mutant.h"],
                       cwd=self.root / "build", check=True)
        return name, made

    def _object(self, name):
        made = self.folder / "objects" / (name.name + ".o")
        made.parent.mkdir(exist_ok=True)
        newest = max((self.source / file).stat().st_mtime for file in self.files
                     if file == name or file.suffix == ".h")
        if not made.exists() or made.stat().st_mtime < newest:
            part = made.with_suffix(".part")
            subprocess.run(["g++", *self._flags(), "-O1", "-fPIC", "-ffp-contract=off",
                            "-c", "-o", part, self.source / name], check=True)
            part.rename(made)
        return made

    def program(self, name):
        return self.folder / "bin" / name

    def _flags(self):
        return ["-std=c++20", "-w", "-include", self.folder / "mutant.h",
                *core_variant.include_flags(self.source, self.root)]


def _write_if_new(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    if not path.exists() or path.read_text() != text:
        path.write_text(text)
