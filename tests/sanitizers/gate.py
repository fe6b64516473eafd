#!/usr/bin/env python3
"""The feed library under sanitizers, in every run of the tests.

    gate.py memory|threads BUILD FOLDER [--jobs J]

BUILD is the ordinary build. Programs of it are linked a second time, in FOLDER, with what a sanitizer
is to look at compiled for it:

memory   the library, under AddressSanitizer and UndefinedBehaviorSanitizer: its tests run whole, and
         the fuzz targets replay their corpora.
threads  the whole of `schedules`, in which the feed's threads meet in many orders, under
         ThreadSanitizer.

./dev asan and ./dev tsan compile everything so and run every test, which takes longer. Exit status:
0 nothing found, 1 found or a test failed.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from tests.support import core_variant  # noqa: E402
from tests.support.core_variant import UNITS  # noqa: E402

FLAGS = ["-O1", "-g1", "-w", "-fno-sanitize-recover=all", "-fno-omit-frame-pointer"]
SANITIZERS = {"memory": [*FLAGS, "-fsanitize=address,undefined"],
              "threads": [*FLAGS, "-fsanitize=thread"]}
# unit_feed takes the 200 MB of the cache once a test, which a sanitizer marks byte by byte; what it
# runs, component runs too.
PROGRAMS = [name for name in UNITS if name != "unit_feed"]
CORPORA = ROOT / "tests/fuzz/corpus"
SCHEDULES = 20


class Variant:
    """Programs of `build` with parts of them compiled with `flags`, in `folder`."""

    def __init__(self, build, folder, flags, pool):
        self.build = build
        self.folder = folder
        self.flags = flags
        self.pool = pool

    def compile(self, commands):
        """{object file of the build: the one made here}"""

        def compile_one(command):
            name, words = command
            made = self.folder / "objects" / name.replace("/", "_")
            words[words.index("-o") + 1] = str(made)
            subprocess.run([*words, *self.flags], cwd=self.build, check=True)
            return name, made

        return dict(self.pool.map(compile_one, commands))

    def link(self, names, objects, replaced):
        def link_one(name):
            core_variant.link(self.build, name, objects, replaced, self.folder / "bin" / name,
                              flags=self.flags)

        list(self.pool.map(link_one, names))

    def memory(self):
        core = self.compile(core_variant.commands(
            self.build, of_object=lambda name: "/vorn_md_objects.dir/" in name))
        # What stands in front of malloc leaves that to the sanitizer; the fuzz targets tell it which
        # bytes of a buffer are the input.
        aware = self.compile(core_variant.commands(
            self.build, lambda source: source.is_relative_to(ROOT / "tests") and
            re.search("TEST_ALLOCATION_STUB|__SANITIZE_ADDRESS__|asan_interface.h",
                      source.read_text()),
            lambda name: re.search("/(fuzz_[a-z]+|unit_[a-z]+).dir/", name) and
            "/unit_feed.dir/" not in name))
        card = [path for name, path in aware.items() if "/fuzz_card.dir/" in name]
        targets = {f"fuzz_{corpus.name}": corpus for corpus in sorted(CORPORA.iterdir())}
        self.link(PROGRAMS, list(core.values()), aware)
        self.link(targets, [*core.values(), *card], aware)
        return [*([name, "--gtest_brief=1"] for name in PROGRAMS),
                *([name, corpus] for name, corpus in targets.items())]

    def threads(self):
        inputs = set(subprocess.run(["ninja", "-C", self.build, "-t", "inputs", "bin/schedules"],
                                    capture_output=True, text=True, check=True).stdout.split())
        made = self.compile(core_variant.commands(
            self.build, of_object=lambda name: name in inputs))
        own = {name: path for name, path in made.items() if "/schedules.dir/" in name}
        self.link(["schedules"], [path for name, path in made.items() if name not in own], own)
        return [["schedules", str(SCHEDULES)]]

    def run(self, program):
        """What it has written, of one that failed."""
        name, *arguments = program
        began = time.monotonic()
        done = subprocess.run([self.folder / "bin" / name, *arguments], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, errors="replace", check=False)
        print(f"{name}: {'fine' if done.returncode == 0 else 'FAILED'}, "
              f"{time.monotonic() - began:.1f} s", flush=True)
        return "" if done.returncode == 0 else f"--- {name}\n{done.stdout[-20000:]}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("kind", choices=SANITIZERS)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    arguments = parser.parse_args()
    folder = arguments.folder.resolve()
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "objects").mkdir(parents=True)
    (folder / "bin").mkdir()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        variant = Variant(arguments.build.resolve(), folder, SANITIZERS[arguments.kind], pool)
        programs = variant.memory() if arguments.kind == "memory" else variant.threads()
        found = list(filter(None, pool.map(variant.run, programs)))
    print("\n".join(found))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
