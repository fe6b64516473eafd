#!/usr/bin/env python3
"""The tests reach every line of the feed library, and the branches that ./dev coverage asks for.

    gate.py BUILD FOLDER [--jobs J]

BUILD is the ordinary build. Its test programs are linked a second time, in FOLDER, with the library's
sources compiled by clang to count what runs, and run whole. Exit status: 0 reached, 1 missed or a
test failed, 77 when clang 14 is missing.
"""

import argparse
import concurrent.futures
import os
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from tests.support import core_variant  # noqa: E402
from tests.support.core_variant import CORE, UNITS  # noqa: E402

COMPILER = "clang++-14"
COUNTED = ["-fprofile-instr-generate", "-fcoverage-mapping"]
LEFT_OUT = 77


def compile_core(folder, pool):
    flags = ["-std=c++20", "-O1", "-fPIC", "-ffp-contract=off", *COUNTED,
             *core_variant.include_flags(ROOT, ROOT)]

    def compile_one(source):
        made = folder / "objects" / f"{source.name}.o"
        subprocess.run([COMPILER, *flags, "-c", source, "-o", made], check=True)
        return made

    sources = [path for part in CORE for path in sorted((ROOT / part).rglob("*.cpp"))]
    return list(pool.map(compile_one, sources))


def compile_tests_of_headers(build, folder, pool):
    # What is compiled nowhere but in their tests: of some headers all, of others a template.
    headers = [path for part in CORE for path in (ROOT / part).rglob("*.h")
               if not path.with_suffix(".cpp").exists() or "template <" in path.read_text()]

    def compile_one(test):
        name, words = test
        made = folder / "objects" / pathlib.Path(name).name
        words[words.index("-o") + 1] = str(made)
        # Behind the compiler, and the program in front of it that keeps what it has compiled.
        words = words[next(i for i, word in enumerate(words) if word.startswith("-")):]
        words = [word for word in words if not word.startswith("-W")]
        subprocess.run([COMPILER, *words, "-O1", "-w", *COUNTED], cwd=build, check=True)
        return name, made

    return dict(pool.map(compile_one, core_variant.tests_of_headers(build, headers)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    arguments = parser.parse_args()
    for tool in (COMPILER, "llvm-profdata-14", "llvm-cov-14"):
        if shutil.which(tool) is None:
            print(f"coverage gate: left out, {tool} is not installed")
            return LEFT_OUT
    build = arguments.build.resolve()
    folder = arguments.folder.resolve()
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "objects").mkdir(parents=True)
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        objects = compile_core(folder, pool)
        tests = compile_tests_of_headers(build, folder, pool)
        list(pool.map(lambda name: core_variant.link(
            build, name, objects, tests, folder / "bin" / name, COMPILER, COUNTED), UNITS))
    return subprocess.run([sys.executable, "-B", ROOT / "scripts/coverage.py", folder, "--by", "tests",
                           "--jobs", str(arguments.jobs)], check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
