#!/usr/bin/env python3
"""Runs what a page of the documentation shows, as a reader would: its commands in order, in one
folder, with the programs of the build in front of the path; its programs compiled.

    run.py --root TREE --build BUILD [--python PYTHON] [--cxx CXX] [--verbose] PAGE...

Where the kernel allows it, in namespaces of its own, so that names of buses and ports of pages meet
nobody else's. Status 0 when all of it did what the page says, 1 when not.
"""

import argparse
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from pages import PageError, read_page  # noqa: E402

BLOCK_SECONDS = 600  # only to end what hangs
LOOK_SECONDS = 1.0  # how long a program that runs until it is stopped is looked at
APART = "VORN_DOCS_APART"  # set: it is done
# What of the tree a page may name by its path, as from the root of a clone.
SHOWN = ("bus", "docs", "exchange", "ops", "public", "python", "sample-code", "scripts", "softcard",
         "tools", "web")
INCLUDES = (".", "exchange/exanic_shfe_md/src", "public", "public/log")


class Failed(Exception):
    """What a block did is not what the page says."""


def go_apart():
    """Starts this program again in namespaces of its own; returns when that cannot be."""
    if APART in os.environ:
        subprocess.run(["ip", "link", "set", "lo", "up"], stderr=subprocess.DEVNULL, check=False)
        return
    flags = ["--mount", "--net"] + ([] if os.geteuid() == 0 else ["--user", "--map-root-user"])
    inner = 'mount -t tmpfs none /dev/shm && exec "$@"'
    command = ["unshare", *flags, "sh", "-c"]
    if not (shutil.which("unshare") and shutil.which("ip")):
        return
    if subprocess.run([*command, inner, "sh", "true"], capture_output=True, check=False).returncode != 0:
        return
    os.execvpe("unshare", [*command, inner, "sh", sys.executable, "-B", *sys.argv],
               {**os.environ, APART: "1"})


class Run:
    """One page in a folder of its own."""

    def __init__(self, options, page):
        self.options = options
        self.page = page
        self.output = ""
        self.background = []
        self.outputs = []  # files of what the blocks say
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="vorn-docs."))
        for name in SHOWN:
            (self.scratch / name).symlink_to(options.root / name)
        (self.scratch / "build").symlink_to(options.build)
        shutil.copy(options.root / "tests/docs/dev", self.scratch / "dev")
        self.environment = {
            **os.environ,
            "PATH": f"{options.build}/bin:{os.environ['PATH']}",
            "PYTHONPATH": str(options.root / "python"),
            "PYTHONDONTWRITEBYTECODE": "1",
            "VORN_TREE": str(options.root),
            "LC_ALL": "C.UTF-8",
            "TERM": "xterm-256color",
            "CXX": options.cxx,
        }

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.background:
            _end_group(process)
        for output in self.outputs:
            output.close()
        shutil.rmtree(self.scratch, ignore_errors=True)

    def blocks(self):
        ran = 0
        for block in self.page.blocks:
            try:
                ran += self.block(block)
            except Failed as failure:
                raise Failed(f"{block.where()}: {failure}") from None
        for process, block in [(p, p.block) for p in self.background]:
            status = _interrupt(process)
            if status not in (0, 130):
                raise Failed(f"{block.where()}: ended with status {status}:\n{process.said()}")
        return ran

    def block(self, block):
        marks = block.marks
        if "file" in marks:
            self.write(marks["file"], block.text)
            return 1
        if "shows" in marks:
            self.compare(block.text)
            return 1
        if "not run" in marks:
            return 0
        if not self.has(marks.get("needs", "")):
            print(f"{block.where()}: left out, there is no {marks['needs']}", flush=True)
            return 0
        handler = {"sh": self.shell, "c": self.compile, "cpp": self.compile, "python": self.python,
                   "ini": self.configuration}.get(block.language)
        if handler is None:
            return 0
        handler(block)
        return 1

    def write(self, name, text):
        """A file of the page. Never through a link: behind it lies the tree."""
        path = (self.scratch / name).resolve()
        if self.scratch.resolve() not in path.parents:
            raise Failed(f"'{name}' lies in the tree; a page writes beside it")
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def has(self, needed):
        """Whether every program or Python module of a list is there."""
        return all(shutil.which(name) or subprocess.run([self.options.python, "-c", f"import {name}"],
                                                        capture_output=True, check=False).returncode == 0
                   for name in needed.split())

    def start(self, command, block, **where):
        out = tempfile.TemporaryFile(dir=self.scratch)
        self.outputs.append(out)
        streams = {"stdin": subprocess.DEVNULL, "stdout": out, "stderr": subprocess.STDOUT, **where}
        process = subprocess.Popen(command, cwd=self.scratch, env=self.environment,
                                   start_new_session=True, **streams)
        process.block = block

        def said():
            out.seek(0)
            return out.read().decode("utf-8", "replace")

        process.said = said
        return process

    def finish(self, process, wanted):
        try:
            status = process.wait(timeout=BLOCK_SECONDS)
        except subprocess.TimeoutExpired:
            raise Failed(f"still running after {BLOCK_SECONDS} s:\n{process.said()[-2000:]}") from None
        finally:
            _end_group(process)
        self.output = process.said()
        if status != wanted:
            raise Failed(f"status {status}, not {wanted}:\n{self.output[-3000:]}")

    def shell(self, block):
        command = ["bash", "-euo", "pipefail", "-c", block.text]
        if "background" in block.marks:
            self.background.append(self.start(command, block))
        elif "until stopped" in block.marks:
            self.look(command, block)
        else:
            self.finish(self.start(command, block), int(block.marks.get("status", 0)))

    def look(self, command, block):
        """On a terminal, for a moment, then Ctrl+C."""
        controller, terminal = pty.openpty()
        process = self.start(["nice", *command], block, stdin=terminal, stdout=terminal, stderr=terminal)
        os.close(terminal)
        shown = bytearray()
        os.set_blocking(controller, False)
        until = time.monotonic() + LOOK_SECONDS
        while process.poll() is None:
            try:
                shown += os.read(controller, 65536)
            except BlockingIOError:
                time.sleep(0.02)
            except OSError:
                break
            # Not before it has said something: it may not have come as far yet.
            if time.monotonic() > until and (shown or time.monotonic() > until + 60):
                break
        early = process.poll()
        os.close(controller) if early is not None else None
        status = early if early is not None else _interrupt(process, controller)
        if status not in (0, 130) or early is not None:
            raise Failed(f"ended with status {status}{' by itself' if early is not None else ''}:\n"
                         f"{shown.decode('utf-8', 'replace')[-2000:]}")

    def compile(self, block):
        suffix = ".c" if block.language == "c" else ".cpp"
        standard = ["-x", "c", "-std=gnu11"] if suffix == ".c" else ["-std=c++20"]
        source = self.scratch / f"block{block.line}{suffix}"
        source.write_text(block.text, encoding="utf-8")
        includes = [f"-I{self.options.root / name}" for name in INCLUDES]
        self.finish(self.start([self.options.cxx, *standard, "-fsyntax-only", "-Wall", "-Wextra",
                                "-Werror", *includes, str(source)], block), 0)

    def python(self, block):
        source = self.scratch / f"block{block.line}.py"
        source.write_text(block.text, encoding="utf-8")
        self.finish(self.start([self.options.python, str(source)], block),
                    int(block.marks.get("status", 0)))

    def configuration(self, block):
        """Every key is one that the reference page knows."""
        known = re.findall(r"^\| `(\w+)` \|",
                           (self.options.root / "docs/reference/configuration.md").read_text(), re.M)
        for line in block.text.splitlines():
            key = re.split(r"[;#]", line)[0].partition("=")[0].strip()
            if key and not key.startswith("[") and key not in known:
                raise Failed(f"no such key: {key}")

    def compare(self, text):
        """Each line of the block comes in the output, in this order; ... stands for anything."""
        lines = [line.rstrip() for line in self.output.splitlines()]
        at = 0
        for wanted in (line.rstrip() for line in text.splitlines()):
            if wanted in ("", "..."):
                continue
            pattern = ".*".join(re.escape(piece) for piece in wanted.split("..."))
            while at < len(lines) and not re.fullmatch(pattern, lines[at]):
                at += 1
            if at == len(lines):
                raise Failed(f"the commands did not show the line\n  {wanted}\nbut\n{self.output[-3000:]}")
            at += 1


def _end_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def _interrupt(process, controller=None):
    """SIGINT until it has ended, as from a terminal; returns the status of a shell. Reads what a
    program still has to say to its terminal, or it might never end."""
    until = time.monotonic() + 120
    while process.poll() is None and time.monotonic() < until:
        try:
            os.killpg(process.pid, signal.SIGINT)
        except ProcessLookupError:
            break
        for _ in range(50):
            if controller is not None:
                try:
                    os.read(controller, 65536)
                except OSError:
                    pass
            if process.poll() is not None:
                break
            time.sleep(0.02)
    status = process.poll()
    _end_group(process)
    if controller is not None:
        os.close(controller)
    return 130 if status == -signal.SIGINT else "none" if status is None else status


def runs_something(path):
    """Whether a page has commands. One that cannot be read is reported later."""
    try:
        return any(block.language in ("sh", "python") for block in read_page(path).blocks)
    except PageError:
        return False


def options_from(arguments):
    """The options of a command line."""
    parser = argparse.ArgumentParser(description="Run what pages of the documentation show.")
    parser.add_argument("--root", type=pathlib.Path, required=True)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--python", default=sys.executable)
    parser.add_argument("--cxx", default="g++")
    parser.add_argument("pages", nargs="+", type=pathlib.Path)
    options = parser.parse_args(arguments)
    options.root, options.build = options.root.resolve(), options.build.resolve()
    return options


def run_page(options, path):
    """Runs one page; returns how many blocks it ran. Raises Failed or PageError."""
    with Run(options, read_page(path)) as run:
        return run.blocks()


def main():
    options = options_from(sys.argv[1:])
    if any(runs_something(path) for path in options.pages):
        go_apart()
    failures = 0
    for path in options.pages:
        started = time.monotonic()
        try:
            count = run_page(options, path)
            print(f"{path}: {count} blocks, {time.monotonic() - started:.1f} s", flush=True)
        except (Failed, PageError) as failure:
            print(failure, file=sys.stderr, flush=True)
            failures += 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
