#!/usr/bin/env python3
"""Breaks the core in one small way at a time and sees whether its tests notice.

Every mutant is compiled into one set of test programs and chosen when they run. A first run of each
test says which mutants it comes by; a mutant then has to stand only the tests that do, the quickest
first, and at last a slice of the differential runner. A test that fails, crashes or does not end
kills it. Who survives is shown with the change.

The sample follows from the seed: it is drawn file by file, in proportion to the mutants of a file.

Mutants that change nothing which can be seen are listed in equivalent.py, each with the reason. One
that survives and is listed there is counted apart.

Exit status: 0, 1 when fewer than 95 % of the others are killed, 2 usage.
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import random
import resource
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from tests.mutants.equivalent import reason_of  # noqa: E402
from tests.mutants.tree import TARGETS, UNITS, Tree  # noqa: E402

GOAL = 0.95
QUICK_S = 0.5  # of tests that are run together
SCENARIOS = "600"
MEMORY = 8 << 30
TICK_S = 0.02
ASLEEP_S = 20
EQUIVALENT = "equivalent"


def limit_memory():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def session_of(leader):
    """(processor seconds, whether one could run) of the processes that it has started."""
    ticks = 0
    active = False
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = path.read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue  # it has ended
        if int(fields[3]) == leader:
            ticks += int(fields[11]) + int(fields[12])
            active = active or fields[0] in "RTtD"
    return ticks / os.sysconf("SC_CLK_TCK"), active


def run(command, seconds, environment, directory):
    """(exit status, processor seconds). The status is None when it did not end: it has used so many
    seconds of a processor, or slept for as long as nothing here sleeps. The clock on the wall says
    nothing: the machine may have had better to do."""
    process = subprocess.Popen(command, env=os.environ | environment, cwd=directory,
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True,
                               preexec_fn=limit_memory)
    used = 0.0
    asleep = 0
    try:
        while True:
            for _ in range(10):
                ended, status, usage = os.wait4(process.pid, os.WNOHANG)
                if ended:
                    process.returncode = os.waitstatus_to_exitcode(status)
                    return process.returncode, usage.ru_utime + usage.ru_stime
                time.sleep(TICK_S)
            before = used
            used, active = session_of(process.pid)
            asleep = 0 if active or used > before else asleep + 1
            if used > seconds or asleep * 10 * TICK_S > ASLEEP_S:
                return None, used
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


class Tests:
    """Which test comes by which mutants, and how long it takes."""

    def __init__(self, tree, count):
        self.tree = tree
        self.count = count
        self.seconds = {}  # (program, test) -> s
        self.reached = {}  # (program, test) -> set of mutants

    def names(self, program):
        listed = subprocess.run([program, "--gtest_list_tests"], capture_output=True, text=True,
                                check=True, cwd=self.tree.folder).stdout
        suite = ""
        for line in listed.splitlines():
            if line and not line.startswith(" "):
                suite = line.split("#")[0].strip()
            elif line.strip():
                yield suite + line.split("#")[0].strip()

    def learn(self, jobs, say):
        kept = self.tree.folder / "tests.json"
        programs = [self.tree.program(unit).stat().st_mtime_ns for unit in TARGETS]
        if kept.exists():
            old = json.loads(kept.read_text())
            if old["programs"] == programs:
                for unit, name, seconds, reached in old["tests"]:
                    self.seconds[(unit, name)] = seconds
                    self.reached[(unit, name)] = set(reached)
                return
        self._ask_all(jobs, say)
        kept.write_text(json.dumps({"programs": programs, "tests": [
            [*key, self.seconds[key], sorted(self.reached[key])] for key in self.seconds]}))

    def _ask_all(self, jobs, say):
        wanted = [(unit, name) for unit in UNITS
                  for name in self.names(self.tree.program(unit))]
        wanted.append(("differential_driver", ""))
        say(f"asking {len(wanted)} tests which mutants they come by")
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for key, seconds, reached in pool.map(lambda key: self._ask(*key), wanted):
                self.seconds[key] = seconds
                self.reached[key] = reached

    def _ask(self, unit, name):
        with tempfile.TemporaryDirectory(prefix="vorn-mutants-") as directory:
            path = pathlib.Path(directory) / "reached"
            path.write_bytes(bytes(self.count + 1))
            status, seconds = run(self.command(unit, [name]), 600,
                         {"VORN_MUTANTS_REACHED": str(path)}, directory)
            if status != 0:
                raise SystemExit(f"mutants: {unit} {name} fails without a mutant: {status}")
            return ((unit, name), seconds,
                    {number for number, byte in enumerate(path.read_bytes()) if byte})

    def command(self, unit, names):
        program = str(self.tree.program(unit))
        if unit == "differential_driver":
            return [sys.executable, "-B", str(ROOT / "tests/differential/run.py"), "--driver",
                    program, "--scenarios", SCENARIOS, "--seed", "7"]
        return [program, "--gtest_filter=" + ":".join(names), "--gtest_fail_fast",
                "--gtest_brief=1"]

    def plan(self, number):
        """Lists of (unit, tests), in the order in which they are to be run: short ones, so that one
        which does not end is soon found out."""
        mine = sorted((key for key, reached in self.reached.items() if number in reached),
                      key=self.seconds.get)
        plan = []
        open_lists = {}
        for unit, name in mine:
            if unit == "differential_driver":
                continue
            names, spent = open_lists.get(unit, ([], QUICK_S))
            if spent + self.seconds[(unit, name)] > QUICK_S:
                names, spent = [], 0.0
                plan.append((unit, names))
            names.append(name)
            open_lists[unit] = (names, spent + self.seconds[(unit, name)])
        if any(unit == "differential_driver" for unit, _ in mine):
            plan.append(("differential_driver", [""]))
        return plan

    def judge(self, number):
        """(who killed it or None, how)."""
        plan = self.plan(number)
        with tempfile.TemporaryDirectory(prefix="vorn-mutants-") as directory:
            for unit, names in plan:
                expected = sum(self.seconds[(unit, name)] for name in names)
                status, _ = run(self.command(unit, names), 2 + 3 * expected,
                                {"VORN_MUTANT": str(number)}, directory)
                if status != 0:
                    return unit, "no end" if status is None else f"status {status}"
        return None, "survived" if plan else "no test comes by"


def sample(mutants, count, seed):
    by_file = {}
    for mutant in mutants:
        by_file.setdefault(mutant["file"], []).append(mutant)
    chosen = []
    chance = random.Random(seed)
    for file in sorted(by_file):
        own = by_file[file]
        share = min(len(own), max(1, round(count * len(own) / len(mutants))))
        chosen += chance.sample(own, share)
    chance.shuffle(chosen)
    return chosen


# Of an earlier run that was interrupted, or of a smaller sample: what was killed then is dead.
def killed_before(folder, tree, chosen):
    path = folder / "results.json"
    if not path.exists() or path.stat().st_mtime < (folder / "mutants.json").stat().st_mtime:
        return []
    wanted = {mutant["number"] for mutant in chosen}
    return [result for result in json.loads(path.read_text())
            if result["number"] in wanted and result["killed_by"] is not None]


def table(results):
    by_file = {}
    for result in results:
        tally = by_file.setdefault(result["file"], [0, 0, 0])
        tally[0] += 1
        tally[1] += result["killed_by"] is not None
        tally[2] += result["killed_by"] is None and result["how"] == EQUIVALENT
    width = max(len(file) for file in by_file)
    lines = [f"{'file':{width}}  mutants  killed  equivalent"]
    for file, (all_of, killed, same) in sorted(by_file.items()):
        lines.append(f"{file:{width}}  {all_of:7}  {killed:6}  {same:10}")
    killed, same = (sum(tally[i] for tally in by_file.values()) for i in (1, 2))
    share = 100 * killed / max(1, len(results) - same)
    lines.append(f"{'all':{width}}  {len(results):7}  {killed:6}  {same:10}  "
                 f"killed of those that are not equivalent: {share:.1f} %")
    return "\n".join(lines)


def describe(mutant):
    change = mutant["kind"] if not mutant["after"] else f"{mutant['before']}  ->  {mutant['after']}"
    return (f"{mutant['number']}  {mutant['file']}:{mutant['line']}  {change}\n"
            f"      in: {mutant['source_line']}")


def main():
    parser = argparse.ArgumentParser(prog="./dev mutants", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=400, help="mutants of the sample (400)")
    parser.add_argument("--seed", type=int, default=1, help="of the sample (1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="tests at a time")
    parser.add_argument("--only", metavar="TEXT", help="files whose name has TEXT in it")
    parser.add_argument("--mutant", type=int, action="append", help="these alone, by number")
    arguments = parser.parse_args()
    if arguments.count < 1 or arguments.jobs < 1:
        parser.error("--count and --jobs must be at least 1")

    def say(text):
        print(f"mutants: {text}", file=sys.stderr, flush=True)

    folder = ROOT / "build-mutants"
    folder.mkdir(exist_ok=True)
    os.nice(19)
    tree = Tree(ROOT, folder)
    tree.prepare(arguments.jobs, say)
    chosen = [mutant for mutant in tree.mutants
              if not arguments.only or arguments.only in mutant["file"]]
    if arguments.mutant:
        chosen = [mutant for mutant in tree.mutants if mutant["number"] in arguments.mutant]
    if not chosen:
        parser.error("there is no such mutant")
    tests = Tests(tree, max(mutant["number"] for mutant in tree.mutants))
    tests.learn(arguments.jobs, say)
    if not arguments.mutant:
        chosen = sample(chosen, arguments.count, arguments.seed)
    results = [] if arguments.mutant else killed_before(folder, tree, chosen)
    done = {result["number"] for result in results}
    lock = threading.Lock()

    def judge(mutant):
        killed_by, how = tests.judge(mutant["number"])
        if killed_by is None and reason_of(tree, mutant):
            how = EQUIVALENT
        with lock:
            results.append(mutant | {"killed_by": killed_by, "how": how})
            part = folder / "results.part"
            part.write_text(json.dumps(results, indent=1) + "\n")
            if not arguments.mutant:
                part.replace(folder / "results.json")
            if killed_by is None and how != EQUIVALENT:
                say(f"{how}: {describe(mutant)}")
            if len(results) % 25 == 0:
                killed = sum(result["killed_by"] is not None for result in results)
                say(f"{len(results)} of {len(chosen)}: {killed} killed")

    say(f"{len(chosen)} of {len(tree.mutants)} mutants")
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        list(pool.map(judge, [mutant for mutant in chosen if mutant["number"] not in done]))
    print(table(results))
    alone = [result for result in results if result["killed_by"] is None]
    alive = [result for result in alone if result["how"] != EQUIVALENT]
    if alive:
        print("\nsurvivors, to be seen again with ./dev mutants --mutant NUMBER:")
        for result in sorted(alive, key=lambda item: item["number"]):
            print(describe(result) + f"\n      {result['how']}")
    judged = len(results) - len(alone) + len(alive)
    return 0 if judged - len(alive) >= GOAL * judged else 1


if __name__ == "__main__":
    sys.exit(main())
