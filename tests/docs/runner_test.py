"""What the runner of the documentation does with a page: what fails it, and what does not. RUN is the
command line of run.py without a page."""

import contextlib
import io
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile
import unittest

import run
from pages import PageError, anchor_of, read_page


def fence(language, text):
    return f"```{language}\n{text}```\n"


class Runner(unittest.TestCase):
    def run_page(self, text):
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder, "page.md")
            page.write_text(text, encoding="utf-8")
            interpreter = 3  # words in front of the options: python -B run.py
            options = run.options_from([*shlex.split(os.environ["RUN"])[interpreter:], str(page)])
            with contextlib.redirect_stdout(io.StringIO()) as said:
                run.run_page(options, page)
            return said.getvalue()

    def passes(self, text):
        return self.run_page(text)

    def fails(self, text, says):
        with self.assertRaises((run.Failed, PageError)) as failure:
            self.run_page(text)
        self.assertIn(says, str(failure.exception))

    def test_the_commands_of_a_page_run_in_one_folder(self):
        self.passes(fence("sh", "echo a > file\n") + "text\n\n" + fence("sh", "grep -q a file\n"))

    def test_a_command_that_fails_fails_the_page_and_is_named(self):
        self.fails("# Page\n\n" + fence("sh", "true\nfalse\ntrue\n"), "page.md:4: status 1")

    def test_a_command_that_is_not_there_fails_the_page(self):
        self.fails(fence("sh", "vornn --help\n"), "vornn")

    def test_a_failure_inside_a_pipe_counts(self):
        self.fails(fence("sh", "false | cat\n"), "status 1")

    def test_a_status_that_the_page_announces_is_wanted(self):
        self.passes("<!-- status: 3 -->\n" + fence("sh", "exit 3\n"))
        self.fails("<!-- status: 3 -->\n" + fence("sh", "true\n"), "status 0, not 3")

    def test_what_is_marked_with_a_reason_is_not_run(self):
        self.passes("<!-- not run: needs the card -->\n" + fence("sh", "exit 1\n"))

    def test_a_block_without_a_reason_cannot_be_left_out(self):
        self.fails("<!-- not run -->\n" + fence("sh", "exit 1\n"), "say why")

    def test_what_needs_a_program_that_is_missing_is_left_out_and_said(self):
        said = self.passes("<!-- needs: no-such-program -->\n" + fence("sh", "exit 1\n"))
        self.assertIn("left out, there is no no-such-program", said)
        self.fails("<!-- needs: bash json -->\n" + fence("sh", "exit 1\n"), "status 1")

    def test_hidden_commands_run(self):
        self.passes("<!-- run\necho b > file\n-->\n\n" + fence("sh", "grep -q b file\n"))
        self.fails("<!-- run\nexit 1\n-->\n", "status 1")

    def test_a_file_is_written_as_the_page_has_it(self):
        self.passes("<!-- file: a.ini -->\n" + fence("ini", "[config]\n") +
                    fence("sh", "test \"$(cat a.ini)\" = '[config]'\n"))

    def test_a_file_may_have_a_folder_but_never_lies_in_the_tree(self):
        self.passes("<!-- file: new/folder/a.txt -->\n" + fence("text", "a\n") +
                    fence("sh", "grep -q a new/folder/a.txt\n"))
        self.fails("<!-- file: docs/a.txt -->\n" + fence("text", "a\n"), "lies in the tree")

    def test_the_output_on_the_page_is_held_against_the_output(self):
        shown = "<!-- shows -->\n" + fence("text", "one ...\nthree\n")
        self.passes(fence("sh", "printf 'one 1\\ntwo\\nthree\\n'\n") + shown)
        self.fails(fence("sh", "printf 'three\\none 1\\n'\n") + shown, "did not show")

    def test_a_program_in_the_background_is_interrupted_at_the_end(self):
        self.passes("<!-- background -->\n" + fence("sh", "trap 'exit 0' INT\nwhile :; do sleep 0.05; done\n") +
                    fence("sh", "true\n"))
        gone = "until grep -q zombie /proc/$(cat pid)/status; do sleep 0.01; done\n"
        self.fails("<!-- background -->\n" + fence("sh", "echo $$ > new\nmv new pid\nexit 4\n") +
                   fence("sh", "until [ -e pid ]; do sleep 0.01; done\n" + gone), "ended with status 4")

    def test_a_program_that_runs_until_it_is_stopped_must_not_end_by_itself(self):
        self.passes("<!-- until stopped -->\n" + fence("sh", "echo here\nexec sleep 600\n"))
        self.fails("<!-- until stopped -->\n" + fence("sh", "echo here\n"), "by itself")

    def test_programs_are_compiled(self):
        self.passes(fence("cpp", "#include \"ExanicMdImpl.h\"\nint main() { return RET_OK; }\n"))
        self.fails(fence("cpp", "int main() { return missing; }\n"), "missing")
        self.fails(fence("c", "int main(void) { return *\"\"; }}\n"), "page.md:2")

    def test_a_bus_of_a_page_is_its_own_where_the_kernel_allows_it(self):
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder, "page.md")
            page.write_text(fence("sh", "touch /dev/shm/vorn-docs-test.$$\n"), encoding="utf-8")
            before = set(os.listdir("/dev/shm"))
            done = subprocess.run([*shlex.split(os.environ["RUN"]), str(page)], capture_output=True,
                                  text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        left = {name for name in set(os.listdir("/dev/shm")) - before if name.startswith("vorn-docs-test")}
        for name in left:
            os.unlink(os.path.join("/dev/shm", name))
        user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
        allowed = subprocess.run(["unshare", "--mount", "--net", *user, "sh", "-c",
                                  "mount -t tmpfs none /dev/shm && command -v ip"],
                                 capture_output=True, check=False).returncode == 0
        self.assertEqual(not left, allowed)

    def test_the_status_says_whether_all_pages_did_what_they_say(self):
        with tempfile.TemporaryDirectory() as folder:
            good, bad = pathlib.Path(folder, "good.md"), pathlib.Path(folder, "bad.md")
            good.write_text("# Good\n", encoding="utf-8")
            bad.write_text("    indented\n", encoding="utf-8")
            for pages, status in (([good], 0), ([bad, good], 1)):
                done = subprocess.run([*shlex.split(os.environ["RUN"]), *map(str, pages)],
                                      capture_output=True, text=True, check=False)
                self.assertEqual(done.returncode, status, done.stderr)

    def test_python_is_run(self):
        self.passes(fence("python", "print(1)\n"))
        self.fails(fence("python", "raise SystemExit(5)\n"), "status 5")

    def test_a_key_of_a_configuration_must_be_one(self):
        self.passes(fence("ini", "[config]\ncpucore = 2 ; the isolated one\n"))
        self.fails(fence("ini", "cpu_core = 2\n"), "no such key: cpu_core")

    def test_commands_of_dev_must_exist(self):
        self.passes(fence("sh", "./dev build vorn\n./dev tsan\n./dev docs\n"))
        self.fails(fence("sh", "./dev bulid\n"), "no command 'bulid'")


class Pages(unittest.TestCase):
    def read(self, text):
        return read_page("page.md", text)

    def refused(self, text, says):
        with self.assertRaisesRegex(PageError, says):
            self.read(text)

    def test_no_block_can_be_overlooked(self):
        self.refused("Text:\n\n    vorn demo\n", "page.md:3: an indented block")
        self.refused("```\nvorn demo\n```\n", "names its language")
        self.refused("```bash\nvorn demo\n```\n", "names its language")
        self.refused("```sh\nvorn demo\n", "does not end")
        self.refused("<!-- run\nvorn demo\n", "does not end")

    def test_a_mark_belongs_to_a_block(self):
        self.refused("<!-- status: 3 -->\n\nText.\n", "'status' has no block")
        self.refused("<!-- shows -->\n", "'shows' has no block")

    def test_other_comments_are_only_comments(self):
        page = self.read("<!-- a note -->\n<!-- one\nof two lines -->\n\n```sh\ntrue\n```\n")
        self.assertEqual([(block.line, block.marks) for block in page.blocks], [(6, {})])

    def test_lists_may_be_indented(self):
        self.assertEqual(self.read("- one\n\n    more of it\n").blocks, [])

    def test_links_are_found_over_the_end_of_a_line_and_around_pictures(self):
        page = self.read("See [a long\nname](a.md#b) and [![p](i.png)](c.md).\n`[no](link.md)`\n")
        self.assertEqual(sorted(target for _, target in page.links), ["a.md#b", "c.md", "i.png"])

    def test_anchors_are_those_of_forges(self):
        seen = {}
        self.assertEqual(anchor_of("Every message: `log_level` with 16", seen), "every-message-log_level-with-16")
        self.assertEqual(anchor_of("Start", seen), "start")
        self.assertEqual(anchor_of("Start", seen), "start-1")


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
