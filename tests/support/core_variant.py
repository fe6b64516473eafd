"""The core compiled in another way, linked with the test programs' own object files.

Tests need not be compiled again for it, but for those of a header: by their name its own, they are
all that compiles it. The variant's objects stand first on the link line, so that of two copies of an
inline function theirs is taken.
"""

import json
import shlex
import subprocess
from pathlib import Path

CORE = ["exchange/exanic_shfe_md/src", "public"]
UNITS = ["unit_log", "unit_config", "unit_dev", "unit_udp", "unit_tcp", "unit_feed", "component"]


def include_flags(core, root):
    """Of the core's sources below `core`; the card's headers are those of the tree at `root`."""
    return [f"-I{core / CORE[0]}", f"-I{core}/public", f"-I{core}/public/log",
            f"-I{root}/softcard/include"]


def commands(build, of_source=lambda source: True, of_object=lambda name: True):
    """(object file of the build, the command that compiles it) of what is chosen."""
    for entry in json.loads((build / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        made = words[words.index("-o") + 1]
        if of_source(Path(entry["file"])) and of_object(made):
            yield made, words


def tests_of_headers(build, headers):
    """The commands of the tests of `headers`, paths without a source file of their own."""
    names = {f"{Path(header).stem}_test.cpp.o" for header in headers}
    return commands(build, of_object=lambda made: Path(made).name in names)


def link(build, name, objects, replaced, made, compiler=None, flags=()):
    """Links the test program `name` of `build` as `made`, with the core's `objects` in place of its
    library and the object files in `replaced` in place of the build's own."""
    said = subprocess.run(["ninja", "-C", build, "-t", "commands", f"bin/{name}"],
                          capture_output=True, text=True, check=True).stdout
    target = f"-o bin/{name}"
    command = next(part for line in said.splitlines() for part in line.split(" && ")
                   if target + " " in part)
    usual, rest = command.split(" ", 1)
    rest = rest.replace(target, "").replace("lib/libvorn_md.a", "")
    for old, new in replaced.items():
        rest = rest.replace(f" {old} ", f" {new} ")
    made.parent.mkdir(exist_ok=True)
    parts = [build / word for word in rest.split() if word.endswith((".o", ".a"))] + objects
    if made.exists() and made.stat().st_mtime > max(part.stat().st_mtime for part in parts):
        return
    subprocess.run([compiler or usual, *flags, *map(str, objects), *shlex.split(rest), "-o", made],
                   cwd=build, check=True)
