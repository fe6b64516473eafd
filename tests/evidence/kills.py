#!/usr/bin/env python3
"""Kills recorders with SIGKILL, in turn ApiDemoCallback and `vorn record -o x.csv --write-through`.

The programs are linked once more with a count of the updates whose callback has returned, in memory
that outlives them (acknowledged.cpp). When that count comes to a number that the seed and the kill's
own number choose, the process is killed. What it leaves must be a beginning of what it would have
written, row for row, with every acknowledged row whole; one more may be there, or a part of one.

Exit status: 0 fine, 1 a file that is not so, 2 usage.
"""

import argparse
import mmap
import os
import pathlib
import random
import signal
import struct
import subprocess
import sys
import tempfile
import time

SESSION = "sim:seed=4&changes=12000&instruments=40&rounds=1"
PATIENCE_S = 240  # not a bound on speed: reached only by a recorder that hangs


class Recorder:
    def __init__(self, name, command):
        self.name = name
        self._command = command
        self.whole = b""

    def start(self, directory, eof, acknowledged):
        config = directory / "feed.ini"
        config.write_text(
            f"[config]\ndevice = {SESSION}&eof={eof}\ninsts = all\nshfe2ps = enabled\n"
            f"ine2ps = enabled\ncpucore = {max(os.sched_getaffinity(0))}\nlog_level = 7\n")
        return subprocess.Popen(
            self._command, cwd=directory, stdout=subprocess.DEVNULL,
            stderr=(directory / "errors").open("wb"),
            env={**os.environ, "VORN_ACKNOWLEDGED": str(acknowledged), "TMPDIR": str(directory)})

    @staticmethod
    def rows(directory):
        files = list(directory.glob("*.csv")) + list(directory.glob("*.csv.part"))
        return files[0].read_bytes() if len(files) == 1 else b""


class SharedCount:
    def __init__(self, path):
        self.path = path
        path.write_bytes(bytes(mmap.PAGESIZE))
        with path.open("r+b") as file:
            self._memory = mmap.mmap(file.fileno(), mmap.PAGESIZE)

    def get(self):
        return struct.unpack_from("<Q", self._memory)[0]


def record_whole(recorder, root):
    """All that the recorder writes when nobody kills it."""
    with tempfile.TemporaryDirectory(dir=root) as name:
        directory = pathlib.Path(name)
        count = SharedCount(directory / "count")
        process = recorder.start(directory, "stop", count.path)
        status = process.wait(timeout=PATIENCE_S)
        recorder.whole = recorder.rows(directory)
        rows = recorder.whole.count(b"\n") - 1
        if status != 0 or rows < 1000 or count.get() != rows:
            sys.exit(f"kills: {recorder.name} ended with status {status}, {rows} rows, "
                     f"{count.get()} acknowledged")
        return rows


def await_count(process, count, wanted):
    """False when the process ended before the count was there."""
    limit = time.monotonic() + PATIENCE_S
    while count.get() < wanted:
        if process.poll() is not None or time.monotonic() > limit:
            return False
        time.sleep(0.0001)
    return True


def judge(recorder, kept, acknowledged):
    """What is wrong with the file; empty when nothing is."""
    if not recorder.whole.startswith(kept):
        at = next(i for i, byte in enumerate(kept) if recorder.whole[i:i + 1] != bytes([byte]))
        return f"differs from what it would have written at byte {at}, line {kept[:at].count(10) + 1}"
    rows = kept.count(b"\n") - 1  # without the header
    if rows < acknowledged:
        return f"{acknowledged} rows were acknowledged, {max(rows, 0)} are there"
    if rows > acknowledged + 1:
        return f"{rows} rows are there, of which only {acknowledged} were acknowledged"
    return ""


def kill_one(recorder, wanted, root):
    with tempfile.TemporaryDirectory(dir=root) as name:
        directory = pathlib.Path(name)
        count = SharedCount(directory / "count")
        process = recorder.start(directory, "idle", count.path)
        there = await_count(process, count, wanted)
        process.send_signal(signal.SIGKILL)
        status = process.wait()
        kept = recorder.rows(directory)
        if not there:
            said = (directory / "errors").read_text(errors="replace")
            return f"ended with status {status} before it was killed: {said}", kept
        return judge(recorder, kept, count.get()), kept


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("kills", nargs="?", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--bin", type=pathlib.Path, required=True, help="folder of the programs")
    arguments = parser.parse_args()
    programs = arguments.bin.resolve()
    if arguments.kills < 1:
        parser.error("the number of kills must be at least 1")
    with tempfile.TemporaryDirectory(prefix="vorn-kills-") as root:
        recorders = [
            Recorder("ApiDemoCallback", [programs / "acknowledging_recorder", "feed.ini"]),
            Recorder("vorn record", [programs / "acknowledging_vorn", "record", "--config",
                                     "feed.ini", "-q", "-o", "rows.csv", "--write-through"]),
        ]
        rows = min([record_whole(recorder, root) for recorder in recorders])
        unfinished = 0
        for number in range(arguments.kills):
            recorder = recorders[number % len(recorders)]
            wanted = random.Random(f"{arguments.seed} {number}").randrange(rows)
            wrong, kept = kill_one(recorder, wanted, root)
            if wrong:
                print(f"kill {number} of seed {arguments.seed}, {recorder.name}, at row {wanted} of "
                      f"{rows}: {wrong}")
                return 1
            unfinished += not kept.endswith(b"\n")
        print(f"{arguments.kills} kills: every acknowledged row is whole and in its place; "
              f"{unfinished} files end in a part of a row that was not acknowledged")
    return 0


if __name__ == "__main__":
    sys.exit(main())
