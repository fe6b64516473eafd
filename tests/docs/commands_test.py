"""docs/reference/commands.md is what the programs say. VORN is the program."""

import os
import pathlib
import re
import sys
import unittest

import commands_page

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs/reference/commands.md"
VORN = os.environ["VORN"]


class CommandsPage(unittest.TestCase):
    maxDiff = None

    def test_the_page_is_what_the_programs_say(self):
        self.assertEqual(PAGE.read_text(encoding="utf-8"), commands_page.page(VORN),
                         "make it again: tests/docs/commands_page.py build/bin/vorn > docs/reference/commands.md")

    def test_every_option_of_every_subcommand_is_on_the_page(self):
        text = PAGE.read_text(encoding="utf-8")
        for name, _ in commands_page.two_columns(commands_page.section(commands_page.help_of(VORN), "subcommands")):
            part = re.search(rf"^## vorn {name}\n(.*?)(?=^## |\Z)", text, re.M | re.S)[1]
            shown = commands_page.help_of(VORN, name)
            options = re.findall(r"^ {2,6}(?:-\w, )?(--[\w-]+)", shown[shown.index("\noptions:"):], re.M)
            self.assertIn("--help", options)
            for option in options:
                self.assertIn(option, part, name)

    def test_every_subcommand_says_where_more_is_said(self):
        for name, _ in commands_page.two_columns(commands_page.section(commands_page.help_of(VORN), "subcommands")):
            self.assertIn(name, commands_page.PAGES)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
