#!/usr/bin/env python3
"""Makes docs/reference/commands.md from what `vorn --help` says: commands_page.py VORN > PAGE. A test
holds the page against it."""

import re
import subprocess
import sys

# Where more is said about a subcommand.
PAGES = {
    "demo": None,
    "sim": "[the simulated exchange](../../exchange_sim/README.md)",
    "record": "[recording](../recording.md)",
    "publish": "[the bus](../bus.md)",
    "top": "[the screen](../top.md)",
    "serve": "[the page](../serve.md)",
    "replay": "[captures](../captures.md#running)",
    "verify": "[test a strategy](../howto/test-a-strategy.md)",
    "info": "[captures](../captures.md#what-is-in-this-one)",
    "client": "[the lab](../lab.md#by-hand-or-on-other-machines)",
    "check": "[configuration](configuration.md)",
    "fanout": "[more than one machine](../fanout.md)",
    "tap": "[more than one machine](../fanout.md)",
    "convert": "[research files](../research.md)",
}
HEAD = """# Commands

This page is made from what the programs say themselves: `vorn --help`, `vorn help SUBCOMMAND`. A test
holds it against them.

Data goes to standard output, everything else to standard error. `--json` reports one object a line.
Files are written as `NAME.part` and renamed when they are whole. Ctrl+C and SIGTERM end a program in
order.

| status | means |
| ---: | --- |
| 0 | all went well; also behind Ctrl+C and SIGTERM |
| 1 | failed while it ran |
| 2 | command line or configuration wrong |
| 3 | the data differ, or have gaps |
| 4 | timed out |

"""
TAIL = """## ApiDemoCallback

The recorder, `Usage: ApiDemoCallback config.ini`: runs the feed and writes every update as a row of
`exanic_md_YYYYMMDD_HHMMSS.csv` in the working directory, until Ctrl+C. Its source,
`sample-code/demo/callback_a/ApiDemoCallback.cpp`, shows what a consumer looks like.
"""


def help_of(vorn, *arguments):
    """The help text of the program or of one subcommand."""
    return subprocess.run([vorn, *arguments, "--help"], capture_output=True, text=True, check=True).stdout


def section(text, name):
    """The lines of a section, without its name."""
    found = re.search(rf"^{name}:\n((?:  .*\n)+)", text, re.M)
    return found[1].splitlines() if found else []


def two_columns(lines):
    """[(left, right), ...] of lines in two columns; what stands alone continues the row above."""
    rows = []
    for line in lines:
        parts = re.match(r"^  (?P<left> {0,6}\S.*?)(?: {2,}(?P<right>\S.*)| (?P<tight>[a-z].*))?$", line)
        if line.startswith(" " * 20):
            rows[-1][1] = f"{rows[-1][1]} {line.strip()}".strip()
        elif len(line) > 28 and line[27] == " " and line[:28].strip() and "  " not in line[2:28].strip():
            rows.append([line[:28].strip(), line[28:].strip()])
        else:
            rows.append([parts["left"].strip(), (parts["right"] or "").strip()])
    return rows


def cell(text):
    """Text that a cell of a table can hold."""
    return text.replace("|", "\\|").replace("<", "&lt;")


def page(vorn):
    """The whole page."""
    out = [HEAD, "| subcommand | does |\n| --- | --- |\n"]
    subcommands = two_columns(section(help_of(vorn), "subcommands"))
    for name, does in subcommands:
        out.append(f"| [`vorn {name}`](#vorn-{name}) | {cell(does)} |\n")
    for name, does in subcommands:
        text = help_of(vorn, name)
        out.append(f"\n## vorn {name}\n\n{does[0].upper()}{does[1:]}.")
        out.append(f" More: {PAGES[name]}.\n" if PAGES.get(name) else "\n")
        usage = re.search(r"^usage: (.*(?:\n  .*)*)", text, re.M)[1]
        out.append(f"\n```text\n{usage}\n```\n\n| example | |\n| --- | --- |\n")
        for line in section(text, "examples"):
            command, _, says = line.strip().partition("  ")
            out.append(f"| `{cell(command)}` | {cell(says.strip())} |\n")
        for kind in ("arguments", "options"):
            rows = two_columns(section(text, kind))
            if rows:
                out.append(f"\n| {kind[:-1]} | |\n| --- | --- |\n")
                out += [f"| `{cell(left)}` | {cell(right)} |\n" for left, right in rows]
    return "".join([*out, "\n", TAIL])


if __name__ == "__main__":
    sys.stdout.write(page(sys.argv[1]))
