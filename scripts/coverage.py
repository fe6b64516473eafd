#!/usr/bin/env python3
"""Source-based coverage of the feed library: by the fuzz corpora alone and by its tests alone.

usage: coverage.py BUILD_DIR [--by corpora|tests] [--jobs J]

Prints a table for each, writes BUILD_DIR/coverage/{corpora,tests}/html/index.html, and fails when a
goal is missed: all lines and 98 % of the branches, of the decoders by the corpora, of the whole
library by the tests. Source-based coverage counts what stands in the source: the compiler's own
exception edges are not in it. The exceptions are in coverage_exceptions.py.
"""

import argparse
import concurrent.futures
import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

from coverage_exceptions import EXCEPTIONS

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT))

from tests.support.core_variant import UNITS as TEST_PROGRAMS  # noqa: E402

LIBRARY = ("exchange/exanic_shfe_md/src/", "public/")
CORPUS_TARGETS = ("frame", "session", "mdqp", "decode", "cache", "config", "log", "capture")
# What decodes input; the corpora alone must cover it.
DECODERS = (
    "config/ConfigParse.cpp",
    "tcp/Checksum.h",
    "tcp/ExanicTcpFunc_frame.cpp",
    "tcp/ExanicTcpFunc_mdqp.cpp",
    "tcp/ExanicTcpFunc_price_check.cpp",
    "tcp/ExanicTcpFunc_session.cpp",
    "tcp/FrameLayout.h",
    "udp/BookChanges.h",
    "udp/BookSide.h",
    "udp/BookUndo.h",
    "udp/ExanicUdpFunc.cpp",
    "udp/ExanicUdpFunc_mirp.cpp",
    "PriceRules.h",
    "WireRead.h",
)
BRANCH_GOAL = 0.98


def tool(name):
    for candidate in (name + "-14", name):
        if shutil.which(candidate):
            return candidate
    sys.exit(f"coverage: {name} was not found; install the package llvm-14")


class File:
    """Lines and branches of one source file, and which of them nothing has reached."""

    def __init__(self, path, data):
        self.path = path
        self.source = (ROOT / path).read_text().splitlines()
        self.lines = data["summary"]["lines"]["count"]
        self.branches = data["summary"]["branches"]["count"]
        self.missed_lines = set(missed_lines(data))
        self.missed_branches = self.find_missed_branches(data)

    def find_missed_branches(self, data):
        """(line, which way) of every branch not taken; of a template, in every instance."""
        taken = {}
        for branch in data["branches"]:
            self.note(taken, branch, tuple(branch[:4]), branch[0])
        for expansion in data["expansions"]:
            region = expansion["source_region"]
            for branch in expansion.get("branches", []):
                self.note(taken, branch, tuple(region[:4]) + tuple(branch[:4]), region[0])
        missed = []
        for (_, line), (yes, no) in taken.items():
            if yes == 0 and no == 0 and not self.is_reachable(line):
                continue  # neither way: folded by the compiler, or on a missed line
            missed += [(line, "true")] if yes == 0 else []
            missed += [(line, "false")] if no == 0 else []
        return missed

    @staticmethod
    def note(taken, branch, key, line):
        yes, no = taken.get((key, line), (0, 0))
        taken[(key, line)] = (yes + branch[4], no + branch[5])

    def is_reachable(self, line):
        return line in self.missed_lines

    def excuse(self, name, used):
        for entry in EXCEPTIONS:
            if entry.file != self.path or name not in entry.by:
                continue
            places = [i + 1 for i, text in enumerate(self.source) if entry.code in text]
            if not places:
                sys.exit(f"coverage: the exception '{entry.code}' is not in {entry.file} any more")
            reach = {line + i for line in places for i in range(entry.lines)}
            lines = self.missed_lines & reach
            branches = [b for b in self.missed_branches
                        if b[0] in reach and entry.way in (None, b[1])]
            if lines or branches:
                used.add((name, entry))
            self.missed_lines -= lines
            self.lines -= len(lines)
            self.branches -= len(branches)
            self.missed_branches = [b for b in self.missed_branches if b not in branches]


def missed_lines(data):
    """Lines whose every counted region was never entered, from the sorted segments."""
    segments = data["segments"]
    missed = []
    if not segments:
        return missed
    last = segments[-1][0]
    index, wrapped = 0, None
    for line in range(segments[0][0], last + 1):
        here = []
        while index < len(segments) and segments[index][0] == line:
            here.append(segments[index])
            index += 1
        starts = [s for s in here if s[3] and s[4] and not s[5]]
        skipped = here and not here[0][3] and here[0][4]
        mapped = not skipped and (bool(wrapped and wrapped[3]) or bool(starts))
        if mapped:
            counts = [s[2] for s in starts]
            if wrapped is not None and wrapped[3]:
                counts.append(wrapped[2])
            if max(counts, default=0) == 0:
                missed.append(line)
        if here:
            wrapped = here[-1]
    return missed


def percent(missed, count):
    return "      -" if count == 0 else f"{100 * (count - missed) / count:6.2f}%"


def print_table(title, files):
    print(f"\n{title}\n{'':44}{'lines':>15}{'branches':>18}")
    totals = [0, 0, 0, 0]
    for file in files:
        row = [len(file.missed_lines), file.lines, len(file.missed_branches), file.branches]
        totals = [a + b for a, b in zip(totals, row)]
        print_row(file.path.replace("exchange/exanic_shfe_md/src/", ""), row)
    print_row("all", totals)


def print_row(name, row):
    lines = f"{row[1] - row[0]}/{row[1]}"
    branches = f"{row[3] - row[2]}/{row[3]}"
    print(f"{name:42}{lines:>9} {percent(row[0], row[1])}{branches:>11} {percent(row[2], row[3])}")


class Campaign:
    def __init__(self, build, name, commands):
        self.build = build
        self.folder = build / "coverage" / name
        self.name = name
        self.commands = commands

    def run(self, jobs):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            failed = [said for said in pool.map(self.run_one, self.commands) if said is not None]
        if failed:
            sys.exit("\n".join(failed))
        raw = sorted(str(path) for path in self.folder.glob("*.profraw"))
        (self.folder / "raw.txt").write_text("\n".join(raw))
        subprocess.run([tool("llvm-profdata"), "merge", "-sparse", "-f", str(self.folder / "raw.txt"),
                        "-o", str(self.profile())], check=True)
        for path in raw:
            os.remove(path)

    def run_one(self, command):
        """What went wrong, or None."""
        log = self.folder / (Path(command[0]).name + ".log")
        environment = dict(os.environ, LLVM_PROFILE_FILE=str(self.folder / "%m-%p.profraw"))
        with open(log, "w") as out:
            status = subprocess.run(command, env=environment, stdout=out, stderr=out).returncode
        if status == 0:
            return None
        return f"{log.read_text()[-2000:]}\ncoverage: {command[0]} failed with {status}, see {log}"

    def profile(self):
        return self.folder / "merged.profdata"

    def llvm_cov(self, what, *arguments):
        programs = [command[0] for command in self.commands]
        objects = [a for program in programs[1:] for a in ("-object", program)]
        command = [tool("llvm-cov"), what, programs[0], *objects,
                   f"-instr-profile={self.profile()}", f"-compilation-dir={self.build}",
                   "-ignore-filename-regex=.*/(tests|wirekit|softcard|exchange_sim|faults|tools)/.*",
                   *arguments]
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(f"coverage: {' '.join(command)}\n{done.stderr}")
        return done.stdout

    def files(self):
        found = {}
        for data in json.loads(self.llvm_cov("export"))["data"][0]["files"]:
            path = os.path.relpath(os.path.realpath(self.build / data["filename"]), ROOT)
            if path.startswith(LIBRARY) and data["summary"]["lines"]["count"] != 0:
                found[path] = File(path, data)
        return [found[path] for path in sorted(found)]

    def write_html(self):
        self.llvm_cov("show", "-format=html", f"-output-dir={self.folder / 'html'}",
                      "-show-branches=count", "-show-line-counts-or-regions")
        print(f"\nreport: {self.folder / 'html' / 'index.html'}")


def judge(name, files):
    """Whether the goal is reached; says what is missing."""
    good = True
    for file in files:
        for line in sorted(file.missed_lines):
            good = False
            print(f"{file.path}:{line}: not reached by the {name}: {file.source[line - 1].strip()}")
    missed = sum(len(file.missed_branches) for file in files)
    count = sum(file.branches for file in files)
    reached = missed <= (1 - BRANCH_GOAL) * count
    for file in files:
        for line, way in sorted(file.missed_branches):
            print(f"{file.path}:{line}: never {way} by the {name}: {file.source[line - 1].strip()}")
    return good and reached


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--by", choices=("corpora", "tests"), help="this alone")
    parser.add_argument("--jobs", type=int, default=1, help="programs at a time")
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    corpora = Campaign(build, "corpora", [
        [str(build / "bin" / f"fuzz_{target}"), str(ROOT / "tests/fuzz/corpus" / target)]
        for target in CORPUS_TARGETS])
    tests = Campaign(build, "tests", [[str(build / "bin" / name)] for name in TEST_PROGRAMS])

    good = True
    used = set()
    campaigns = [one for one in (corpora, tests) if arguments.by in (None, one.name)]
    for campaign in campaigns:
        print(f"running the {campaign.name} ...", file=sys.stderr)
        campaign.run(arguments.jobs)
        files = campaign.files()
        wanted = files
        if campaign is corpora:
            wanted = [f for f in files if f.path.removeprefix(LIBRARY[0]) in DECODERS]
        print_table(f"By the {campaign.name} alone, nothing left out", files)
        for file in wanted:
            file.excuse(campaign.name, used)
        print_table(f"By the {campaign.name} alone, without the exceptions: what the goal is for",
                    wanted)
        campaign.write_html()
        good = judge(campaign.name, wanted) and good
    judged = {campaign.name for campaign in campaigns}
    for name, entry in ((name, entry) for entry in EXCEPTIONS for name in entry.by if name in judged):
        if (name, entry) not in used and not entry.chance:
            print(f"coverage: the {name} reach what is excepted by '{entry.code}' in {entry.file}")
            good = False
    print("coverage: goals reached" if good else "coverage: a goal is missed")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
