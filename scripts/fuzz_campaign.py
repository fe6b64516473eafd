"""Mass campaigns of ./dev fuzz --campaign: so many inputs for each target, over many runs.

    fuzz_campaign.py FOLDER [--jobs J] [N] [TARGET...]

FOLDER is the build folder of the preset "campaign". A target is run in slices of some million
inputs, each a process of its own with a seed of its own, on the committed corpus and what earlier
slices found. What a slice has executed is added up in FOLDER/campaign.json when it ends, for the
sources it was built from, so that a campaign that was interrupted goes on where it was. Inputs that
are only read back from the corpus at the start of a slice are not counted.

Leaks are looked for at the end, by replaying the grown corpus: looking after each input would halve
the inputs a second.
"""

import argparse
import hashlib
import json
import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
# What a figure depends on.
SOURCES = ["exchange", "public", "wirekit", "tests/fuzz", "cmake", "CMakePresets.json"]
# Target and the size of its inputs, below that of an ordinary search.
SIZES = {"decode": 128, "mdqp": 300, "frame": 256, "session": 300}
SLICE = 2_000_000
# The time of an input is that of the clock on the wall: a machine may be asleep for a while.
OPTIONS = ["-reduce_inputs=0", "-reload=0", "-entropic=0", "-use_cmp=0", "-detect_leaks=0",
           "-verbosity=0", "-timeout=1200", "-report_slow_units=1200", "-print_final_stats=1"]
SANITIZER = "quarantine_size_mb=4:malloc_context_size=1:detect_leaks=0"


class Interrupted(Exception):
    pass


def digest_of_sources():
    digest = hashlib.sha256()
    for source in SOURCES:
        path = ROOT / source
        files = sorted(path.rglob("*")) if path.is_dir() else [path]
        for file in files:
            # The corpus says where a search starts, not what is held.
            if file.is_file() and "corpus" not in file.parts:
                digest.update(str(file.relative_to(ROOT)).encode() + b"\0")
                digest.update(hashlib.sha256(file.read_bytes()).digest())
    return digest.hexdigest()[:16]


def commit():
    said = subprocess.run(["git", "describe", "--always", "--dirty"], cwd=ROOT, text=True,
                          capture_output=True, check=False)
    return said.stdout.strip() or "unknown"


class Account:
    """Executions by target, for the sources as they are. One file, replaced as a whole."""

    def __init__(self, path):
        self.path = path
        self.all = json.loads(path.read_text()) if path.exists() else {}
        entry = {"commit": commit(), "since": time.strftime("%F"), "targets": {}}
        self.entry = self.all.setdefault(digest_of_sources(), entry)

    def of(self, target):
        return self.entry["targets"].setdefault(
            target, {"executions": 0, "slices": 0, "seconds": 0.0, "findings": []})

    def save(self):
        part = self.path.with_suffix(".part")
        part.write_text(json.dumps(self.all, indent=2) + "\n")
        part.replace(self.path)


class Slice:
    """One run of libFuzzer."""

    def __init__(self, folder, target, number, runs):
        self.target = target
        self.findings = folder / "findings"
        grown = folder / "corpus" / target
        self.findings.mkdir(exist_ok=True)
        grown.mkdir(parents=True, exist_ok=True)
        corpora = [grown, ROOT / "tests/fuzz/corpus" / target]
        # libFuzzer tries the empty input first, then every file.
        self.read_back = 1 + sum(1 for path in corpora for file in path.iterdir()
                                 if file.stat().st_size > 0)
        self.before = self.found()
        dictionary = ROOT / f"tests/fuzz/dictionaries/{target}.dict"
        arguments = [f"-dict={dictionary}"] if dictionary.exists() else []
        self.log = open(folder / f"campaign-{target}.log", "w+", encoding="utf-8",
                        errors="replace")
        self.began = time.monotonic()
        self.process = subprocess.Popen(
            [folder / "bin" / f"fuzz_{target}", f"-max_len={SIZES[target]}", *OPTIONS, *arguments,
             f"-seed={1 + number}", f"-runs={runs + self.read_back}",
             f"-artifact_prefix={self.findings}/{target}-", *corpora],
            stdout=self.log, stderr=self.log, start_new_session=True,
            env=os.environ | {"ASAN_OPTIONS": SANITIZER})

    def found(self):
        return {str(path) for path in self.findings.glob(f"{self.target}-*")}

    def finish(self, account):
        """Adds up what was executed. What went wrong, or None."""
        self.log.seek(0)
        text = self.log.read()
        self.log.close()
        said = re.search(r"stat::number_of_executed_units:\s*(\d+)", text)
        entry = account.of(self.target)
        entry["executions"] += max(0, int(said.group(1)) - self.read_back) if said else 0
        entry["slices"] += 1
        entry["seconds"] += time.monotonic() - self.began
        new = sorted(self.found() - self.before)
        entry["findings"] += new
        account.save()
        if new:
            return f"{self.target}: found {' '.join(new)}"
        # Interrupted ones end with 0 too, but for one that was interrupted before its first input.
        if self.process.returncode not in (0, -signal.SIGINT, -signal.SIGTERM):
            return (f"{self.target}: ended with status {self.process.returncode}; see "
                    f"{self.log.name}")
        return None


def progress(account, goals, began, at_start):
    parts = []
    seconds = max(time.monotonic() - began, 1e-9)
    for target, goal in goals.items():
        done = account.of(target)["executions"]
        rate = (done - at_start[target]) / seconds
        parts.append(f"{target} {done / 1e6:.1f} of {goal / 1e6:.0f} million ({rate / 1e3:.0f} k/s)")
    return ", ".join(parts)


def campaign(folder, account, goals, jobs):
    """Runs slices until every goal is met. What went wrong, or None."""
    began = said = time.monotonic()
    at_start = {target: account.of(target)["executions"] for target in goals}
    running = []
    failure = None
    try:
        while True:
            for piece in [piece for piece in running if piece.process.poll() is not None]:
                running.remove(piece)
                failure = piece.finish(account) or failure
            # The target that is furthest behind and not running is next.
            open_goals = [target for target, goal in goals.items()
                          if account.of(target)["executions"] < goal
                          and all(piece.target != target for piece in running)]
            if failure or (not open_goals and not running):
                break
            if open_goals and len(running) < jobs:
                target = min(open_goals, key=lambda name: account.of(name)["executions"])
                entry = account.of(target)
                left = goals[target] - entry["executions"]
                running.append(Slice(folder, target, entry["slices"], min(SLICE, left)))
                continue
            if time.monotonic() - said >= (5 if sys.stderr.isatty() else 60):
                said = time.monotonic()
                print("fuzz: " + progress(account, goals, began, at_start), file=sys.stderr)
            time.sleep(0.2)
    finally:
        for piece in running:
            piece.process.send_signal(signal.SIGINT)
        for piece in running:
            piece.process.wait()
            failure = piece.finish(account) or failure
    return failure


def leaks(folder, target):
    """Replays the grown corpus with leak detection. What went wrong, or None."""
    corpora = [folder / "corpus" / target, ROOT / "tests/fuzz/corpus" / target]
    done = subprocess.run([folder / "bin" / f"fuzz_{target}", "-runs=0", "-max_len=65536",
                           *[path for path in corpora if path.exists()]],
                          capture_output=True, text=True, errors="replace", check=False,
                          env=os.environ | {"ASAN_OPTIONS": "detect_leaks=1"})
    if done.returncode == 0:
        return None
    return f"{target}: the replay of its corpus failed:\n{done.stderr[-4000:]}"


def interrupt(*_):
    raise Interrupted


def main():
    parser = argparse.ArgumentParser(prog="./dev fuzz --campaign", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=Path, help=argparse.SUPPRESS)
    parser.add_argument("what", nargs="*", metavar="N|TARGET", help="inputs for each target "
                        "(100000000) and targets (decode mdqp frame session)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="targets at a time")
    arguments = parser.parse_args()
    number = 100_000_000
    targets = []
    for what in arguments.what:
        if what in SIZES:
            targets.append(what)
        elif what.isdigit() and int(what) > 0:
            number = int(what)
        else:
            parser.error(f"'{what}' is neither a number of inputs nor one of {' '.join(SIZES)}")
    if arguments.jobs < 1:
        parser.error("--jobs must be at least 1")
    os.nice(19)
    signal.signal(signal.SIGINT, interrupt)
    signal.signal(signal.SIGTERM, interrupt)
    account = Account(arguments.folder / "campaign.json")
    goals = {target: number for target in targets or SIZES}
    failure = None
    interrupted = False
    try:
        failure = campaign(arguments.folder, account, goals, arguments.jobs)
        for target in goals if failure is None else []:
            failure = leaks(arguments.folder, target) or failure
    except Interrupted:
        interrupted = True
        print("fuzz: interrupted; the same command goes on from here", file=sys.stderr)
    for target in goals:
        entry = account.of(target)
        seconds = max(entry["seconds"], 1e-9)
        print(f"{target:8} {entry['executions']:>13,} inputs, {len(entry['findings'])} findings, "
              f"{entry['executions'] / seconds:,.0f} a second in {entry['slices']} slices; "
              f"commit {account.entry['commit']}")
    if failure:
        print(f"fuzz: {failure}", file=sys.stderr)
        return 1
    if not interrupted:
        print("fuzz: no finding, and no leak in the replay", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
