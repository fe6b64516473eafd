#!/usr/bin/env python3
"""manual.py --vorn PROGRAM --source TREE --version VERSION --out FOLDER

Writes the manual and the completions of the shell: pages of the programs from what their --help
says, pages of the calls from the headers, pages of the files from the sample configuration and the
documents. So a page can only say what is so; what is missing for one ends the build.
"""

import argparse
import gzip
import json
import pathlib
import re
import shutil
import subprocess
import tempfile

from completion import completion
from header_text import Header
from help_text import Help
from roff import Page

# Documents that say more about a subcommand than its help, and their sections that do not belong
# here ("" is what stands before the first).
MORE = {
    "record": ("docs/recording.md", ()),
    "top": ("docs/top.md", ()),
    "serve": ("docs/serve.md", ("", "Options")),
}
FORMATS = ["vorn.ini(5)", "vorn-bus(5)", "vorn-capture(5)", "vorn-csv(5)", "vorn-truth(5)"]

# name: (header, summary, other names on the same page, records shown, constants shown)
CALLS = {
    "vorn_recv": ("ExanicMdImpl.h", "run the feed", (), (), ()),
    "set_update_md_callback": ("ExanicMdImpl.h", "be told of every update of the feed",
                               ("update_md",), ("instrument",), ()),
    "create_shm": ("ExanicMdImpl.h", "shared memory of one's own", ("free_shm",), (), ()),
    "vorn_md_table": ("ExanicMdMonitor.h", "the table of the running feed", (), ("share",), ()),
    "vorn_md_counters": ("ExanicMdMonitor.h", "what the feed counts", (),
                         ("vorn_md_counters_t", "vorn_md_gap_t"),
                         ("VORN_MD_PHASE_", "VORN_MD_FATE_", "VORN_MD_FEED_")),
    "vorn_md_set_event_callback": ("ExanicMdMonitor.h", "be told of phases, gaps and restarts", (),
                                   ("vorn_md_event_t",), ("VORN_MD_EVENT_",)),
}


class Manual:
    def __init__(self, arguments):
        self.program = arguments.vorn
        self.source = pathlib.Path(arguments.source)
        self.version = arguments.version
        self.out = pathlib.Path(arguments.out)
        for folder in self.out.glob("man?"):
            shutil.rmtree(folder)
        self.out.mkdir(parents=True, exist_ok=True)

    def write(self, page):
        self._put(page.file, page.text())

    def _put(self, file, text):
        folder = self.out / f"man{file[-1]}"
        folder.mkdir(exist_ok=True)
        # No time stamp: the same tree gives the same bytes.
        (folder / f"{file}.gz").write_bytes(gzip.compress(text.encode(), 9, mtime=0))

    def page(self, name, section, summary, also=()):
        return Page(name, section, summary, self.version, also)

    def text_of(self, path):
        return (self.source / path).read_text(encoding="utf-8")

    def own_text(self, name):
        return self.text_of(f"packaging/manual/pages/{name}.md")

    # --- Programs.

    def programs(self):
        top = Help(self.program)
        subcommands = {name: Help(self.program, name) for name, _ in top.subcommands}
        page = self.page("vorn", 1, top.summary)
        page.section("Synopsis")
        page.raw("\\fBvorn\\fR \\fISUBCOMMAND\\fR [\\fIOPTIONS\\fR]", ".br", "\\fBvorn help\\fR \\fISUBCOMMAND\\fR")
        text = self.own_text("vorn")
        page.markdown(text, only=("Description",))
        page.section("Subcommands")
        for name, summary in top.subcommands:
            page.item(name, summary)
        page.paragraph("Each has a page of its own: **vorn-demo**(1) and so on.")
        self._entries(page, "Options", top.options)
        self._examples(page, top.examples)
        page.markdown(text, without=("", "Description"))
        page.see_also([f"vorn-{name}(1)" for name in subcommands] + ["ApiDemoCallback(1)"] + FORMATS
                      + ["vorn_recv(3)"])
        self.write(page)
        for name, help_text in subcommands.items():
            self._subcommand(name, help_text)
        return top, subcommands

    def _subcommand(self, name, help_text):
        page = self.page(f"vorn-{name}", 1, help_text.summary)
        page.section("Synopsis")
        program, _, rest = help_text.usage.partition(f" {name}")
        page.raw(f"\\fB{program} {name}\\fR" + rest.replace("-", "\\-"))
        path, without = MORE.get(name, (None, ()))
        more = self.text_of(path) if path else ""
        if more and "" not in without:
            page.section("Description")
            page.markdown(more, only=("",))
        self._entries(page, "Arguments", help_text.arguments)
        self._entries(page, "Options", help_text.options)
        for title, lines in help_text.others:
            page.section(title.split(",")[0].split(" as ")[0])
            page.paragraph(title[0].upper() + title[1:] + ":")
            page.code(lines)
        self._examples(page, help_text.examples)
        page.markdown(more, without=("", *without))
        page.section("Exit status")
        page.paragraph("As in **vorn**(1).")
        page.see_also(["vorn(1)"] + FORMATS)
        self.write(page)

    @staticmethod
    def _entries(page, title, entries):
        if entries:
            page.section(title)
            for name, text in entries:
                page.item(name, text)

    @staticmethod
    def _examples(page, examples):
        if examples:
            page.section("Examples")
            for command, meaning in examples:
                page.item(command, meaning)

    def recorder(self):
        page = self.page("ApiDemoCallback", 1, "record every update of the feed as a row")
        page.section("Synopsis")
        page.raw("\\fBApiDemoCallback\\fR \\fICONFIG\\fR")
        page.markdown(self.own_text("ApiDemoCallback"))
        page.see_also(["vorn-record(1)", "vorn.ini(5)", "vorn-csv(5)"])
        self.write(page)

    # --- Calls.

    def calls(self):
        headers = {file: Header(self.text_of("exchange/exanic_shfe_md/src/" + file)) for file in
                   ("ExanicMdImpl.h", "ExanicMdMonitor.h", "ExanicMdTypes.h")}
        shown = {name for name in CALLS} | {also for call in CALLS.values() for also in call[2]}
        declared = {match[1] or match[2] for file in headers.values() for match in file.names()}
        if shown != declared:
            raise SystemExit(f"manual: pages for {sorted(shown)}, declared are {sorted(declared)}")
        for name, (file, summary, also, records, constants) in CALLS.items():
            page = self.page(name, 3, summary, also)
            described = [headers[file].call(each) for each in (name, *also)]
            page.section("Synopsis")
            page.code([f"#include <vorn/{file}>", "", *(call[0] for call in described)])
            page.section("Description")
            for each, (_, prose) in zip((name, *also), described):
                if also:
                    page.subsection(each)
                self._prose(page, prose)
            home = headers["ExanicMdTypes.h" if file == "ExanicMdImpl.h" or name == "vorn_md_table"
                           else file]
            for record in records:
                self._record(page, home, record)
            if constants:
                page.section("Values")
                for prefix in constants:
                    page.code(home.constants(prefix))
            page.section("Linking")
            page.paragraph("With CMake, `find_package(vorn)` and `vorn::md`; otherwise "
                           "`pkg-config --cflags --libs vorn-md`. To test without a card, "
                           "`vorn::md_softcard` or `vorn-md-softcard`.")
            page.see_also([f"{other}(3)" for other in CALLS if other != name] + ["vorn.ini(5)"])
            self.write(page)
            for each in also:
                self._put(f"{each}.3", f".so man3/{name}.3\n")

    def _record(self, page, header, record):
        prose, lines = header.record(record)
        page.section(f"Record {record}")
        self._prose(page, prose)
        page.code(lines)

    @staticmethod
    def _prose(page, prose):
        for paragraph in prose:
            if isinstance(paragraph, list):
                for name, text in paragraph:
                    page.item(name, text)
            else:
                page.paragraph(paragraph)

    # --- Files.

    def configuration(self):
        defaults = self._defaults()
        page = self.page("vorn.ini", 5, "configuration of the feed")
        blocks = [block.splitlines() for block in
                  self.text_of("sample-code/vorn.ini").replace("[config]\n", "[config]\n\n").split("\n\n")]
        page.section("Description")
        page.paragraph("The file that **vorn_recv**(3), **ApiDemoCallback**(1) and the option "
                       "`--config` of **vorn**(1) take. `/usr/share/vorn/vorn.ini` is one to begin with:")
        intro = "\n".join(line.lstrip("# ").rstrip() if line != "#" else "" for line in blocks[0]
                          if line.startswith("#"))
        for paragraph in intro.split("\n\n"):
            page.paragraph(paragraph)
        page.section("Keys")
        told = set()
        for block in blocks[1:]:
            comment = [line[1:].removeprefix(" ") for line in block if line.startswith("#")]
            keys = [line.split(" = ", 1) for line in block if " = " in line and line[0] != "#"]
            if not keys:
                continue
            told.update(key for key, _ in keys)
            for key, _ in keys:
                default = defaults[key] if key in defaults and defaults[key] else "none"
                page.raw(".PD 0" if key != keys[0][0] else ".PD", ".TP",
                         f"\\fB{key}\\fR (default {_inline_plain(default)})")
            page.raw(".PD")
            self._comment(page, comment)
        if told != set(defaults):
            raise SystemExit(f"manual: vorn.ini and the program differ in {sorted(told ^ set(defaults))}")
        page.see_also(["vorn-check(1)", "vorn_recv(3)"])
        self.write(page)

    @staticmethod
    def _comment(page, lines):
        """Prose, with indented lines as they are, at the indentation of an item."""
        text = []
        for line in lines + [""]:
            if line.startswith("  ") or not line:
                if text:
                    page.raw(_inline_plain(" ".join(text)))
                    text = []
                if line:
                    page.raw(".RS", ".nf", _inline_plain(line.strip()), ".fi", ".RE", ".IP")
            else:
                text.append(line)

    def _defaults(self):
        """By key, as text: what the program says it takes for a file that names nothing."""
        with tempfile.NamedTemporaryFile("w", suffix=".ini") as file:
            file.write("[config]\n")
            file.flush()
            said = subprocess.run([self.program, "check", "--json", file.name], capture_output=True,
                                  text=True, check=False).stdout
        effective = json.loads(said.splitlines()[-1])["effective"]
        named = {"device": "", "insts": "", "options": "recv" if effective["options"] else "norecv"}
        for key, value in effective.items():
            if key in named or key in ("recvall", "shfe4ps", "ine4ps"):
                continue  # not keys: what all of insts means, and feeds that nothing switches on
            if key == "shield_price_check":
                value = int(value)
            named[key] = ("enabled" if value else "off") if isinstance(value, bool) else str(value)
        return named

    def formats(self):
        for name, summary, also in (
                ("vorn-csv", "rows of the recorder", ["ApiDemoCallback(1)", "vorn-record(1)"]),
                ("vorn-truth", "what a simulated exchange knows of its session",
                 ["vorn-sim(1)", "vorn-verify(1)", "set_update_md_callback(3)"])):
            page = self.page(name, 5, summary)
            page.markdown(self.own_text(name))
            page.see_also(also)
            self.write(page)
        page = self.page("vorn-bus", 5, "the bus by which a running feed is seen from outside")
        page.section("Description")
        page.markdown(self.text_of("docs/bus.md"))
        page.see_also(["vorn-publish(1)", "vorn-top(1)", "vorn_md_counters(3)"])
        self.write(page)
        page = self.page("vorn-capture", 5, "captures of the traffic of the feed")
        page.section("Description")
        captures = self.text_of("docs/captures.md")
        page.markdown(captures, only=("",))
        page.markdown(captures, only=("What is in one",))
        page.see_also(["vorn-record(1)", "vorn-replay(1)", "vorn-info(1)", "vorn-truth(5)"])
        self.write(page)


def _inline_plain(text):
    return re.sub(r"^\.", r"\\&.", text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq"))


def main():
    parser = argparse.ArgumentParser()
    for name in ("--vorn", "--source", "--version", "--out"):
        parser.add_argument(name, required=True)
    manual = Manual(parser.parse_args())
    top, subcommands = manual.programs()
    manual.recorder()
    manual.calls()
    manual.configuration()
    manual.formats()
    (manual.out / "vorn.bash").write_text(completion(top, subcommands), encoding="utf-8")


if __name__ == "__main__":
    main()
