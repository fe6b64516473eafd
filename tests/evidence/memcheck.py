#!/usr/bin/env python3
"""System tests under valgrind: the recorder and the tools of `vorn`, and what starts them.

Each test runs alone, with every process that it starts under memcheck. Its result counts as ever,
and no process may read or write where it must not, use what has no value, or lose memory. Left out
are tests that take descriptors, processors or the disk away, which valgrind needs itself, or a
standard file, which it opens again, and those of a minute and more.

Exit status: 0, 1 when a test fails or memcheck has found something, 2 usage.
"""

import argparse
import concurrent.futures
import fnmatch
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

PROGRAMS = ["system_recorder", "system_vorn_session", "system_vorn_check"]
LEFT_OUT = ["BadDay.*", "FullFileSystem.*", "DiskFull.*", "StandardFiles.*", "Killed.*",
            "Determinism.*", "Damage.OfALive*", "LogLevels.SelectTheLinesAndNothingElse",
            "StartFailure.IsNotToBeRefusedAProcessor", "CheckProgram.Finds*", "*Terminal*",
            "Conventions.OutputThatCannotBeWrittenIsAFailure"]
HERE = pathlib.Path(__file__).resolve().parent
# The software card reads registers out of a signal's frame, so all of them must be up to date there.
# --fair-sched: the feed's threads wait for each other by yielding.
VALGRIND = ["valgrind", "-q", "--trace-children=yes", "--trace-children-skip=*/sh,*/bash,*/python3*",
            "--fair-sched=try", "--vex-iropt-register-updates=allregs-at-mem-access",
            "--leak-check=full", "--errors-for-leak-kinds=definite", "--error-exitcode=99",
            f"--suppressions={HERE / 'memcheck.supp'}", "--gen-suppressions=all"]


def tests_of(program):
    listed = subprocess.run([program, "--gtest_list_tests"], capture_output=True, text=True,
                            check=True).stdout
    suite = ""
    for line in listed.splitlines():
        name = line.split("#")[0].strip()
        if line and not line.startswith(" "):
            suite = name
        elif name and not any(fnmatch.fnmatch(suite + name, left) for left in LEFT_OUT):
            yield program, suite + name


def run(program, name):
    """(what is wrong or None, processes looked at)."""
    with tempfile.TemporaryDirectory(prefix="vorn-memcheck-") as directory:
        done = subprocess.run([*VALGRIND, f"--log-file={directory}/log.%p", program,
                               f"--gtest_filter={name}", "--gtest_brief=1"],
                              capture_output=True, text=True, errors="replace", check=False,
                              stdin=subprocess.DEVNULL)
        logs = [path.read_text(errors="replace") for path in pathlib.Path(directory).glob("log.*")]
    found = [log for log in logs if re.search(r"^==\d+== \S", log, re.MULTILINE)]
    if found:
        return f"{name}:\n" + "\n".join(found), len(logs)
    if done.returncode != 0:
        return f"{name}: failed\n{done.stdout[-3000:]}{done.stderr[-1000:]}", len(logs)
    return None, len(logs)


def main():
    parser = argparse.ArgumentParser(prog="./dev memcheck", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--only", default="*", metavar="PATTERN", help="tests named so, as Verify.*")
    parser.add_argument("--seconds", type=float, default=3600,
                        help="begin no test after so many (3600)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="tests at a time")
    arguments = parser.parse_args()
    os.nice(19)
    tests = [test for program in PROGRAMS for test in tests_of(arguments.bin / program)
             if fnmatch.fnmatch(test[1], arguments.only)]
    if not tests:
        parser.error(f"no test is named '{arguments.only}'")
    began = time.monotonic()
    done = processes = wrong = 0

    def one(test):
        return run(*test) if time.monotonic() - began < arguments.seconds else None

    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for result in pool.map(one, tests):
            if result is None:
                continue
            done += 1
            processes += result[1]
            if result[0] is not None:
                wrong += 1
                print(result[0], flush=True)
            if sys.stderr.isatty():
                print(f"\rmemcheck: {done} of {len(tests)}", end="", file=sys.stderr)
    print(f"memcheck: {done} of {len(tests)} tests, {processes} processes, "
          f"{f'{wrong} with errors' if wrong else 'no error'}")
    return 1 if wrong or done == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
