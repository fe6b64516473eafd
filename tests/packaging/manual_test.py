"""The manual and the completions against the programs and files that they are about.

manual_test.py MANUAL BIN: the folder that the build has made, and that of the programs.
"""

import gzip
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

MANUAL = pathlib.Path(sys.argv.pop(1)).resolve()
BIN = pathlib.Path(sys.argv.pop(1)).resolve()


def page(name):
    text = gzip.decompress((MANUAL / f"man{name[-1]}" / f"{name}.gz").read_bytes()).decode()
    return text.replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")


def help_of(*words):
    return subprocess.run([BIN / "vorn", *words, "--help"], check=True, capture_output=True,
                          text=True).stdout


def subcommands():
    listed = help_of().split("\nsubcommands:\n")[1]
    return re.findall(r"^  (\S+)", listed, re.M)


def options(*words):
    listed = help_of(*words).split("\noptions:\n")[1].split("\n\n")[0]
    return sorted(set(re.findall(r"^ {2,6}(?:-\w, )?(--[\w-]+)", listed, re.M)))


def simulated(folder, *more):
    config = pathlib.Path(folder) / "vorn.ini"
    cpu = max(os.sched_getaffinity(0))
    config.write_text("[config]\ndevice = sim:seed=3&changes=2000&instruments=20&eof=stop\n"
                      f"insts = all\nshfe2ps = enabled\nine2ps = enabled\ncpucore = {cpu}\n")
    return config


class Pages(unittest.TestCase):
    def test_every_page_is_shown_without_a_warning(self):
        if shutil.which("man") is None:
            self.skipTest("man is not installed (Debian: man-db)")
        environment = dict(os.environ, LC_ALL="C.UTF-8", MANROFFSEQ="", MANWIDTH="80")
        pages = sorted(MANUAL.glob("man?/*.gz"))
        self.assertGreater(len(pages), 20)
        for file in pages:
            shown = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", file],
                                   cwd=MANUAL, env=environment, capture_output=True, check=True)
            self.assertEqual(shown.stderr.decode(), "", file.name)
            self.assertGreater(len(shown.stdout), 300, file.name)

    def test_every_subcommand_and_every_option_is_in_its_page(self):
        for name in subcommands():
            self.assertIn(f"\\fB{name}\\fR", page("vorn.1"))
            for option in options(name):
                self.assertRegex(page(f"vorn-{name}.1"), rf"(?m)^\\fB.*{option}\b", name)

    def test_every_page_that_another_names_is_there(self):
        made = {file.name[:-3] for file in MANUAL.glob("man?/*.gz")}
        for file in sorted(made):
            for name, section in re.findall(r"\\fB([\w.-]+)\\fR\((\d)\)", page(file)):
                self.assertIn(f"{name}.{section}", made, f"named in {file}")

    def test_the_recorder_says_how_it_is_called(self):
        run = subprocess.run([BIN / "ApiDemoCallback"], capture_output=True, text=True, check=False)
        self.assertIn("config.ini", run.stderr)
        self.assertEqual(run.returncode, 255)
        self.assertIn("255 when the command line is wrong", page("ApiDemoCallback.1").replace("\n", " "))


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def test_the_columns_of_the_rows_are_those_that_the_recorder_writes(self):
        subprocess.run([BIN / "ApiDemoCallback", simulated(self.folder)], cwd=self.folder, check=True,
                       capture_output=True)
        rows = next(self.folder.glob("exanic_md_*.csv")).read_text().splitlines()
        columns = page("vorn-csv.5").split('.SH "COLUMNS"')[1].split(".SH")[0]
        terms = [line for line in columns.splitlines() if line.startswith("\\fB")]
        self.assertEqual(re.findall(r"\\fB(\w+)\\fR", "\n".join(terms)), rows[0].split(","))
        self.assertGreater(len(rows), 100)

    def test_a_truth_file_is_laid_out_as_its_page_says(self):
        subprocess.run([BIN / "vorn", "sim", "-q", "-o", self.folder / "s.pcap", "--changes", "2000",
                        "--instruments", "20", "--seed", "9"], check=True)
        data = (self.folder / "s.truth").read_bytes()
        header = page("vorn-truth.5").split('.SH "HEADER"')[1].split(".SH")[0]
        offsets = {text: (int(at), int(size)) for at, size, text in
                   re.findall(r"(?m)^(\d+)\t(\d+)\t(?:T\{\n)?(.*)$", header)}

        def number(text):
            at, size = offsets[text]
            return int.from_bytes(data[at:at + size], "little")

        self.assertEqual(data[:8], b"VORNTRU1")
        self.assertEqual(number("version, 1"), 1)
        self.assertEqual(number("instruments"), 20)
        self.assertEqual(number("seed of the session"), 9)
        self.assertEqual(number("offset of the final records") + 20 * 336, len(data))
        at, changes = 64 + 20 * 24, 0
        while at < number("offset of the final records"):
            words = bin(struct.unpack_from("<Q", data, at)[0] >> 16).count("1")
            at, changes = at + 8 + 8 * words, changes + 1
        self.assertEqual(changes, number("changes"))


class Completion(unittest.TestCase):
    def complete(self, *words):
        script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vorn; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        run = subprocess.run(["bash", "-c", script, "bash", MANUAL / "vorn.bash", "vorn", *words],
                             capture_output=True, text=True, check=True)
        self.assertEqual(run.stderr, "")
        return sorted(run.stdout.split())

    def test_every_subcommand(self):
        self.assertEqual(self.complete(""), sorted([*subcommands(), "help", "-h", "--help", "--version"]))
        self.assertEqual(self.complete("ver"), ["verify"])
        self.assertEqual(self.complete("help", "ver"), ["verify"])

    def test_every_option(self):
        for name in subcommands():
            self.assertEqual(self.complete(name, "--"), options(name), name)

    def test_files_where_files_belong(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "day.pcap"
            file.touch()
            self.assertEqual(self.complete("info", f"{folder}/d"), [str(file)])
            self.assertEqual(self.complete("replay", "--config", f"{folder}/d"), [str(file)])
            self.assertEqual(self.complete("replay", "--speed", f"{folder}/d"), [])


class Documents(unittest.TestCase):
    def test_the_projects_of_the_page_about_installing_are_those_that_are_built(self):
        tree = pathlib.Path(__file__).resolve().parents[2]
        text = (tree / "docs/install.md").read_text(encoding="utf-8")
        shown = re.findall(r"<!-- file: (\S+) -->\n```\w+\n(.*?)```\n", text, re.S)
        self.assertEqual(len(shown), 5)
        for path, body in shown:
            self.assertEqual(body, (tree / path).read_text(encoding="utf-8"), path)


if __name__ == "__main__":
    unittest.main()
