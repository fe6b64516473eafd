#!/usr/bin/env python3
"""Holds the feed against the model of tests/model, scenario by scenario.

Every scenario follows from the seed and its number alone. The driver runs it on the feed's own
object files, the model on its own reading; results, records bit for bit, register stores in order,
log lines of each thread, return codes and cache offsets must be equal. The first difference is
shown and ends the run.

Exit status: 0 equal, 2 usage, 3 a difference, or the driver did not survive a scenario.
"""

import argparse
import collections
import gc
import multiprocessing
import multiprocessing.util
import pathlib
import random
import struct
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from tests.differential.difference import describe  # noqa: E402
from tests.differential.generate_config import config  # noqa: E402
from tests.differential.generate_feed import feed  # noqa: E402
from tests.differential.generate_incremental import incremental  # noqa: E402
from tests.differential.generate_snapshot import snapshot  # noqa: E402
from tests.differential.rules import RulesMet  # noqa: E402

# Share of each kind, in thousandths. A whole run takes as long as fifty of the others.
MIX = {"incremental": 149, "snapshot": 803, "config": 40, "feed": 8}
GENERATORS = {"incremental": incremental, "snapshot": snapshot, "config": config, "feed": feed}
CHUNK = 100
SHOWN = ("decode buffers", "MDQP messages", "session sequences", "whole runs", "frames put in")


class DriverFailed(Exception):
    pass


class Driver:
    """One process on the feed's object files; scenarios in, traces out."""

    def __init__(self, program, directory):
        self._process = subprocess.Popen([program, tempfile.mkdtemp(dir=directory)],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def run(self, body):
        try:
            self._process.stdin.write(struct.pack("<I", len(body)) + body)
            self._process.stdin.flush()
        except BrokenPipeError:
            pass
        head = self._process.stdout.read(4)
        if len(head) < 4:
            raise DriverFailed(f"the driver ended with {self._process.wait()}")
        return self._process.stdout.read(struct.unpack("<I", head)[0])

    def close(self):
        self._process.stdin.close()
        self._process.wait()


def make_scenario(seed, number, only=None):
    rng = random.Random(f"{seed}:{number}")
    kind = rng.choices(list(MIX), list(MIX.values()))[0]
    return GENERATORS[only or kind](rng)


def compare(driver, seed, number, only, counts):
    """None, or the difference as text."""
    scenario = make_scenario(seed, number, only)
    expected = scenario.model(counts)
    actual = driver.run(scenario.encode())
    counts["scenarios"] += 1
    if actual == expected:
        return None
    again = f"--seed {seed} --first {number} --scenarios 1" + (f" --only {only}" if only else "")
    return (f"scenario {number} of seed {seed} ({scenario.kind}) differs; run it alone with\n"
            f"    {again}\n" + describe(scenario, expected, actual))


_state = {}


def _start_worker(program, directory):
    driver = _state["driver"] = Driver(program, directory)
    multiprocessing.util.Finalize(driver, driver.close, exitpriority=10)


def _run_chunk(task):
    gc.disable()  # nothing of a scenario is a cycle worth looking for while it runs
    try:
        return _run_scenarios(*task)
    finally:
        gc.collect()


def _run_scenarios(seed, first, count, only):
    counts = collections.Counter()
    for number in range(first, first + count):
        try:
            difference = compare(_state["driver"], seed, number, only, counts)
        except DriverFailed as error:
            return counts, f"scenario {number} of seed {seed}: {error}"
        if difference:
            return counts, difference
    return counts, None


def run_all(arguments, tasks, run_chunk, unit):
    """Hands the chunks to the workers: what was counted, and whether nothing differed."""
    total = collections.Counter()
    began = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="vorn-differential-") as directory:
        with multiprocessing.Pool(arguments.jobs, _start_worker,
                                  (arguments.driver, directory)) as pool:
            for counts, difference in pool.imap(run_chunk, tasks):
                total.update(counts)
                if difference:
                    print(difference)
                    return total, False
                if arguments.progress and total[unit] % (100 * CHUNK) == 0:
                    counted = ", ".join(f"{total[name]} {name}" for name in SHOWN if total[name])
                    print(f"{total[unit]} {unit}, {time.monotonic() - began:.0f} s: {counted}",
                          file=sys.stderr, flush=True)
            pool.close()
            pool.join()
    return total, True


def summary(arguments, total, equal, began):
    """Prints what was done; the exit status."""
    for name in sorted(total):
        print(f"{total[name]:>12}  {name}")
    print(f"seed {arguments.seed}, {time.monotonic() - began:.1f} s, "
          f"{'no difference' if equal else 'A DIFFERENCE'}")
    return 0 if equal else 3


def show_rules(arguments):
    with RulesMet() as rules:
        for number in range(arguments.first, arguments.first + arguments.scenarios):
            make_scenario(arguments.seed, number, arguments.only).model(collections.Counter())
    met, total, missed = rules.report()
    print("\n".join(missed))
    print(f"{met} of {total} lines of the model met by {arguments.scenarios} scenarios")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--driver", default=str(ROOT / "build/bin/differential_driver"))
    parser.add_argument("--scenarios", type=int, default=5000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--first", type=int, default=0, help="number of the first scenario")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--only", choices=GENERATORS)
    parser.add_argument("--progress", action="store_true")
    parser.add_argument("--rules", action="store_true",
                        help="instead: which lines of the model the scenarios meet (no driver)")
    arguments = parser.parse_args()
    if arguments.scenarios < 1 or arguments.jobs < 1 or arguments.first < 0:
        parser.error("--scenarios and --jobs are at least 1, --first at least 0")
    if arguments.rules:
        return show_rules(arguments)
    if not pathlib.Path(arguments.driver).is_file():
        parser.error(f"{arguments.driver} is not there; build the target differential_driver")

    began = time.monotonic()
    end = arguments.first + arguments.scenarios
    tasks = [(arguments.seed, first, min(CHUNK, end - first), arguments.only)
             for first in range(arguments.first, end, CHUNK)]
    total, equal = run_all(arguments, tasks, _run_chunk, "scenarios")
    return summary(arguments, total, equal, began)


if __name__ == "__main__":
    sys.exit(main())
