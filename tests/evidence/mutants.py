#!/usr/bin/env python3
"""Breaks the feed's sources in small ways, one at a time, and sees whether the tests notice.

    mutants.py [FILE...] [--jobs N] [--limit N] [--seed N] [--list]

A mutant is one operator, constant or bound changed, or one statement left out. It is built in a copy
of the tree below build-mutants/, never in the tree itself, into the unit tests of the feed and the
driver of the differential runs, and those are run until one of them fails or does not end: the
mutant is then killed. One that the compiler refuses is none. With --limit so many are taken, spread
over all files by the seed.

A survivor is either a test that is missing or a mutant that cannot be told from the original.
Those of the second kind stand, with the reason, in mutants_explained.txt.

Exit status: 0 every mutant was killed or is explained, 1 the unchanged tree does not pass,
2 usage, 3 a survivor that nobody explains.
"""

import argparse
import collections
import concurrent.futures
import os
import pathlib
import queue
import random
import re
import shutil
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
CORE = ROOT / "exchange" / "exanic_shfe_md" / "src"
EXPLAINED = pathlib.Path(__file__).with_name("mutants_explained.txt")
UNITS = ("unit_log", "unit_config", "unit_dev", "unit_tcp", "unit_udp", "unit_feed", "component")
DRIVER = "differential_driver"
SCENARIOS = 300
# Far more than an unchanged program takes on a busy machine; one that hangs is killed by it.
PATIENCE_S = 240

Mutant = collections.namedtuple("Mutant", "path line before after text")

# What stands for what. Binary operators have blanks around them in this tree's layout.
OPERATORS = (
    (r" < ", (" <= ",)), (r" <= ", (" < ",)), (r" > ", (" >= ",)), (r" >= ", (" > ",)),
    (r" == ", (" != ",)), (r" != ", (" == ",)), (r" && ", (" || ",)), (r" \|\| ", (" && ",)),
    (r" \+ ", (" - ",)), (r" - ", (" + ",)), (r" \* ", (" / ",)), (r" \+= ", (" -= ", " = ")),
    (r" -= ", (" += ",)), (r" & ", (" | ",)), (r" \| ", (" & ",)), (r" << ", (" >> ",)),
    (r"\+\+(?=\w)", ("--",)), (r"(?<=\()!(?=\w)", ("",)), (r"\btrue\b", ("false",)),
    (r"\bfalse\b", ("true",)),
)
NUMBER = re.compile(r"(?<![\w.'])(0x[0-9A-Fa-f]+|\d+)(?=[uUlL]*\b)(?![\w.']*\.)")
STATEMENT = re.compile(r"^\s*[A-Za-z_][\w:.\->\[\]]*\s*(\(.*\)|(=|\+=|-=|\|=|&=)\s.*);$")
NO_STATEMENT = re.compile(r"^\s*(return|using|static_assert|namespace|typedef|throw)\b")
SKIPPED_LINE = re.compile(r"^\s*(//|#|\*|/\*)|MD_LOG|g_mdMonitor|static_assert|__builtin|assert\(")


def mutants_of(path):
    lines = path.read_text().splitlines()
    found = []
    in_log = False
    for number, line in enumerate(lines):
        code = line.split("//")[0].rstrip()
        begins_log = "MD_LOG" in code
        if begins_log or in_log or SKIPPED_LINE.search(code) or not code.strip():
            # The texts of the log are held by tests of their own.
            in_log = (begins_log or in_log) and not code.endswith(";")
            continue
        strings = [match.span() for match in re.finditer(r'"[^"]*"|\'[^\']*\'|<\w+(\.h)?>', code)]

        def put(begin, end, text, number=number, line=line, strings=strings):
            if not any(a <= begin < b for a, b in strings):
                changed = line[:begin] + text + line[end:]
                found.append(Mutant(path.relative_to(ROOT), number + 1, line.strip(),
                                    changed.strip(), changed))

        for pattern, others in OPERATORS:
            for match in re.finditer(pattern, code):
                for other in others:
                    put(*match.span(), other)
        for match in NUMBER.finditer(code):
            put(*match.span(), str(int(match.group(), 0) + 1))
        if STATEMENT.match(code) and not NO_STATEMENT.match(code):
            indent = len(line) - len(line.lstrip())
            put(indent, len(code), ";")
    return found


class Workshop:
    """A copy of the tree with a build folder of its own."""

    def __init__(self, folder):
        self._tree = folder / "tree"
        self._build = folder / "build"
        shutil.rmtree(self._tree, ignore_errors=True)
        self._tree.parent.mkdir(parents=True, exist_ok=True)
        shutil.copytree(ROOT, self._tree, ignore=shutil.ignore_patterns("build*", ".git", ".*"))

    def _run(self, *command, patience=PATIENCE_S):
        """Exit status; None when it did not end in time."""
        process = subprocess.Popen(command, cwd=self._build, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   start_new_session=True)
        try:
            return process.wait(timeout=patience)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, 9)  # with the children it started
            process.wait()
            return None

    def build(self):
        return self._run("cmake", "--build", ".", "-j", "1", "--target", *UNITS, DRIVER,
                         patience=3600) == 0

    def prepare(self):
        self._build.mkdir(exist_ok=True)
        launcher = shutil.which("ccache")
        options = [f"-DCMAKE_CXX_COMPILER_LAUNCHER={launcher}",
                   f"-DCMAKE_C_COMPILER_LAUNCHER={launcher}"] if launcher else []
        # Not an error that a variable is unused now.
        options += ["-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS=-w"]
        return self._run("cmake", "-G", "Ninja", *options, self._tree) == 0 and self.build()

    def killer(self, path):
        """What notices the change in `path`; empty when nothing does."""
        own = f"unit_{path.parent.name}"
        programs = sorted(UNITS, key=lambda unit: unit != own)
        for program in programs:
            status = self._run(f"{self._build}/bin/{program}", "--gtest_brief=1",
                               "--gtest_fail_fast")
            if status != 0:
                return f"{program}{' (no end)' if status is None else ''}"
        status = self._run(sys.executable, "-B", self._tree / "tests/differential/run.py",
                           "--driver", self._build / "bin" / DRIVER, "--scenarios", str(SCENARIOS),
                           "--jobs", "1")
        return "" if status == 0 else "differential"

    def judge(self, mutant):
        """Whoever killed it, "" for a survivor, None when it does not compile."""
        source = self._tree / mutant.path
        original = source.read_text()
        lines = original.splitlines()
        lines[mutant.line - 1] = mutant.text
        try:
            source.write_text("\n".join(lines) + "\n")
            return self.killer(mutant.path) if self.build() else None
        finally:
            source.write_text(original)


def read_explained():
    """Each line: file | line as it is | line as it was changed | why nothing can tell."""
    explained = {}
    for line in EXPLAINED.read_text().splitlines() if EXPLAINED.exists() else []:
        if line.strip() and not line.startswith("#"):
            path, before, after, reason = (part.strip() for part in line.split(" ## "))
            explained[(path, before, after)] = reason
    return explained


def choose(arguments):
    files = arguments.files or [path for path in sorted(CORE.rglob("*.cpp"))]
    found = []
    for name in files:
        path = pathlib.Path(name).resolve()
        if not path.is_file() or ROOT not in path.parents:
            sys.exit(f"mutants: {name} is no source of this tree")
        found += mutants_of(path)
    if arguments.limit and arguments.limit < len(found):
        found = random.Random(arguments.seed).sample(found, arguments.limit)
    return sorted(found)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("files", nargs="*", help="sources; all .cpp of the feed when none is named")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--limit", type=int, default=0)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--list", action="store_true", help="only show the mutants")
    arguments = parser.parse_args()
    if arguments.jobs < 1 or arguments.limit < 0:
        parser.error("--jobs is at least 1 and --limit not below 0")
    mutants = choose(arguments)
    if arguments.list:
        for mutant in mutants:
            print(f"{mutant.path}:{mutant.line}: {mutant.before}\n    {mutant.after}")
        return 0
    workshops = queue.Queue()
    for number in range(arguments.jobs):
        workshop = Workshop(ROOT / "build-mutants" / str(number))
        if not workshop.prepare() or workshop.killer(mutants[0].path) != "":
            print("mutants: the unchanged tree does not build or does not pass its tests")
            return 1
        workshops.put(workshop)

    def judge(mutant):
        workshop = workshops.get()
        begin = time.monotonic()
        try:
            return workshop.judge(mutant), time.monotonic() - begin
        finally:
            workshops.put(workshop)

    explained = read_explained()
    counts = collections.Counter()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for mutant, (killer, seconds) in zip(mutants, pool.map(judge, mutants)):
            reason = explained.get((str(mutant.path), mutant.before, mutant.after))
            verdict = ("not built" if killer is None else "killed" if killer else
                       "explained" if reason else "SURVIVED")
            counts[verdict] += 1
            print(f"{verdict:9} {mutant.path}:{mutant.line}  {killer or reason or ''}  "
                  f"({seconds:.0f} s)\n    {mutant.before}\n    {mutant.after}", flush=True)
    print(", ".join(f"{count} {verdict}" for verdict, count in sorted(counts.items())))
    return 3 if counts["SURVIVED"] else 0


if __name__ == "__main__":
    sys.exit(main())
