#!/usr/bin/env python3
"""Static analysis of ./dev lint: clang-tidy, cppcheck and g++'s -fanalyzer over the sources of the
feed, the card, the simulator, the libraries around them and the tools.

    lint.py BUILD_FOLDER [--jobs J] [--tool NAME]... [FILE | FOLDER]...

Each file is looked at alone. What is clean is remembered by what the tool saw of it (the
preprocessed text, the tool's settings), in BUILD_FOLDER/lint, so that a second run looks at what has
changed. Exit status: 0 clean, 1 findings, 2 usage.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import re
import resource
import shlex
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
FOLDERS = ["exchange", "public", "sample-code", "softcard", "faults", "bus", "wirekit",
           "exchange_sim", "tools"]
TOOLS = ["clang-tidy", "cppcheck", "fanalyzer"]

# What cppcheck 2.10 says wrongly, and why it is wrong. What is wrong about one line alone stands in
# that line, but for the feed's sources.
CPPCHECK = [
    "--enable=warning,performance,portability", "--inline-suppr", "--std=c++20", "--language=c++",
    "--quiet", "--error-exitcode=1", "--template={file}:{line}: {severity}: {message} [{id}]",
    # What system headers declare is not known to it.
    "--suppress=missingInclude", "--suppress=missingIncludeSystem",
    # clang-tidy's performance-unnecessary-value-param sees which of these are stored.
    "--suppress=passedByValue",
    # All bits zero is 0.0 in the only format of doubles here, and a record is bytes too.
    "--suppress=memsetClassFloat",
    # Buffers that are only read where they have been written, for the sake of the live path: what a
    # book side or a message has kept, a task's place, what came from a socket.
    *(f"--suppress=uninitMemberVar:*/{file}" for file in (
        "BookSide.h", "ExanicUdpFunc_mirp.cpp", "Task.h", "bounded_stream.cpp")),
    # Filled by a loop over a constant number that it takes for one that may be zero.
    "--suppress=uninitvar:*/ExanicMdMonitor.cpp",
]
# -fanalyzer of GCC 12 was made for C. With optimisation it looks into the library's inlined code and
# takes operator new for something that returns null; without, it looks at ours, function by function.
FANALYZER = ["-O0", "-fanalyzer", "-fanalyzer-verbosity=1"]

# Where it is wrong about C++, and what looks instead.
FANALYZER_WRONG = {
    # Objects that a function returns by value: valgrind, and the compiler's own warning.
    "use-of-uninitialized-value",
    # The object that a lambda without captures does not have, when it becomes a function.
    "null-argument",
    # What a member keeps beyond the call: LeakSanitizer.
    "malloc-leak", "file-leak",
    # operator new, which throws.
    "possible-null-dereference", "possible-null-argument",
}

# Some files of templates make it grow without end. They are named as not analysed.
FANALYZER_SECONDS = 60
FANALYZER_BYTES = 3 << 30


def version(command):
    return subprocess.run([command, "--version"], capture_output=True, text=True,
                          check=True).stdout


class Unit:
    """A translation unit as the build compiles it."""

    def __init__(self, entry):
        self.file = Path(entry["file"])
        self.directory = entry["directory"]
        words = shlex.split(entry["command"])
        if "ccache" in words[0]:
            words = words[1:]
        at = words.index("-o")
        words = words[:at] + words[at + 2:]
        self.command = [word for word in words if word not in ("-c", "-Werror", str(self.file))]

    def run(self, command, limit=None):
        return subprocess.run(command, cwd=self.directory, capture_output=True, text=True,
                              errors="replace", check=False, preexec_fn=limit)

    def seen(self):
        text = self.run([*self.command, "-E", "-P", str(self.file)])
        # With the file itself: suppressions stand in its comments.
        return text.stdout.encode(errors="replace") + self.file.read_bytes()


def clang_tidy(unit):
    # With the words of this one command: from the build's list it would look once for each program
    # that the file is compiled for.
    done = unit.run(["clang-tidy-14", "--quiet", "--warnings-as-errors=*", str(unit.file), "--",
                     *unit.command[1:], "-Wno-unknown-warning-option"])
    return done.returncode == 0, done.stdout + done.stderr


def cppcheck(unit):
    includes = [word for word in unit.command if word.startswith(("-I", "-D"))]
    done = unit.run(["cppcheck", *CPPCHECK, *includes, str(unit.file)])
    return done.returncode == 0, done.stdout + done.stderr


def bound_fanalyzer():
    resource.setrlimit(resource.RLIMIT_CPU, (FANALYZER_SECONDS, FANALYZER_SECONDS))
    resource.setrlimit(resource.RLIMIT_AS, (FANALYZER_BYTES, FANALYZER_BYTES))


def fanalyzer(unit):
    done = unit.run([*unit.command, *FANALYZER, "-S", "-o", "/dev/null", str(unit.file)],
                    bound_fanalyzer)
    if done.returncode != 0 and re.search(r"Killed|Aborted|CPU time|out of memory|cannot allocate",
                                          done.stderr):
        return None, ""
    said = set(re.findall(r"\[-Wanalyzer-([a-z-]+)", done.stderr)) - FANALYZER_WRONG
    return done.returncode == 0 and not said, done.stderr


RUN = {"clang-tidy": clang_tidy, "cppcheck": cppcheck, "fanalyzer": fanalyzer}


def settings():
    return {"clang-tidy": version("clang-tidy-14") + (ROOT / ".clang-tidy").read_text(),
            "cppcheck": version("cppcheck") + " ".join(CPPCHECK),
            "fanalyzer": version("g++") + " ".join(FANALYZER)}


def look(unit, tools, folder, keys):
    """The findings as text, and the file if there was too much of it to be analysed."""
    left_out = []
    seen = hashlib.sha256(unit.seen()).hexdigest()
    said = []
    for tool in tools:
        name = hashlib.sha256(f"{tool}\0{keys[tool]}\0{unit.file}\0{seen}".encode()).hexdigest()
        clean = folder / "lint" / name
        if clean.exists():
            left_out += [str(unit.file.relative_to(ROOT))] if clean.read_text() else []
            continue
        fine, text = RUN[tool](unit)
        if fine is None:
            clean.write_text("not analysed")
            left_out.append(str(unit.file.relative_to(ROOT)))
        elif fine:
            clean.touch()
        else:
            said.append(f"--- {tool}: {unit.file.relative_to(ROOT)}\n{text.strip()}")
    return said, left_out


def main():
    parser = argparse.ArgumentParser(prog="./dev lint", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=Path, help=argparse.SUPPRESS)
    parser.add_argument("files", nargs="*", type=Path, metavar="FILE",
                        help="these alone; of a folder, all in it")
    parser.add_argument("--tool", action="append", choices=TOOLS, help="this alone")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="files at a time")
    arguments = parser.parse_intermixed_args()
    (arguments.folder / "lint").mkdir(exist_ok=True)
    entries = json.loads((arguments.folder / "compile_commands.json").read_text())
    wanted = [file.resolve() for file in arguments.files]
    units = {}
    for entry in entries:
        file = Path(entry["file"])
        own = any(file.is_relative_to(ROOT / part) for part in FOLDERS)
        if own and file.suffix == ".cpp" and (
                not wanted or any(file.is_relative_to(part) for part in wanted)):
            units.setdefault(file, Unit(entry))
    if not units:
        parser.error(f"nothing of the build is in {' '.join(map(str, arguments.files)) or ROOT}")
    tools = arguments.tool or TOOLS
    keys = settings()
    wrong = 0
    left_out = []
    os.nice(10)
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        work = [pool.submit(look, unit, tools, arguments.folder, keys) for unit in units.values()]
        for one in concurrent.futures.as_completed(work):
            texts, too_large = one.result()
            left_out += too_large
            for text in texts:
                wrong += 1
                print(text, flush=True)
    if left_out:
        print(f"lint: too large for -fanalyzer: {' '.join(sorted(left_out))}", file=sys.stderr)
    print(f"lint: {len(units)} files, {' '.join(tools)}: "
          f"{f'findings in {wrong}' if wrong else 'clean'}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
