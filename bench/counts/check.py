#!/usr/bin/env python3
"""Holds the instructions that the feed's hot paths execute against the recorded counts.

Usage: check.py PROGRAM COMPILER RECORDED [--record]

Counts are exact where time is noisy. They are those of one compiler and its flags: with another one
the check is skipped (status 77) and says so. More than 1 % above the recorded count is a failure;
so is more than 1 % below, because the record is then out of date.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

SKIPPED = 77
TOLERANCE = 0.01
WORK = ["live", "replay", "cache", "frames"]
# The C library chooses its copies by the processor; with these switched off, any has the same.
PLAIN = "glibc.cpu.hwcaps=-AVX2,-AVX,-AVX512F,-AVX512VL,-ERMS,-FSRM,-AVX_Fast_Unaligned_Load"


def count(program, work):
    run = subprocess.run(
        ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--collect-atstart=no",
         "--toggle-collect=bench_measured", program, work],
        capture_output=True, text=True, env={**os.environ, "GLIBC_TUNABLES": PLAIN})
    found = re.search(r"Collected : (\d+)", run.stderr)
    if run.returncode != 0 or not found or int(found.group(1)) == 0:
        sys.exit(f"check.py: counting '{work}' failed:\n{run.stderr}")
    return int(found.group(1))


def main():
    program, compiler, recorded_path = sys.argv[1:4]
    record = sys.argv[4:] == ["--record"]
    if shutil.which("valgrind") is None:
        print("skipped: valgrind is not installed")
        sys.exit(SKIPPED)
    recorded = {} if record else json.loads(pathlib.Path(recorded_path).read_text())
    if not record and recorded["compiler"] != compiler:
        print(f"skipped: the counts are of {recorded['compiler']}, this is {compiler}")
        sys.exit(SKIPPED)
    counts = {work: count(program, work) for work in WORK}
    if record:
        pathlib.Path(recorded_path).write_text(
            json.dumps({"compiler": compiler, "counts": counts}, indent=1) + "\n")
        return
    failed = False
    for work, value in counts.items():
        before = recorded["counts"][work]
        change = value / before - 1
        print(f"{work:8} {value:12,} instructions, recorded {before:,} ({change:+.2%})")
        failed = failed or abs(change) > TOLERANCE
    if failed:
        sys.exit("more than 1 % off; if that is meant, record the counts again: ./dev counts")


if __name__ == "__main__":
    main()
