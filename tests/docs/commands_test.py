"""docs/reference/commands.md is what the programs say. VORN is the program."""

import os
import pathlib
import re
import sys
import unittest

import commands_page

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/reference/commands.md").read_text(encoding="utf-8")
VORN = os.environ["VORN"]
AGAIN = "make it again: python3 tests/docs/commands_page.py build/bin/vorn > docs/reference/commands.md"


def subcommands():
    """Names of all subcommands, and of those that this build has: a library may be missing."""
    rows = commands_page.two_columns(commands_page.section(commands_page.help_of(VORN), "subcommands"))
    return [name for name, _ in rows], [name for name, does in rows if "(not built" not in does]


def parts(text):
    """{heading: its part of the page}, and the rows of the list under their names."""
    found = dict(re.findall(r"^## (vorn \w+|ApiDemoCallback)\n(.*?)(?=^## |\Z)", text, re.M | re.S))
    found.update({f"row {name}": does for name, does in
                  re.findall(r"^\| \[`vorn (\w+)`\]\([^)]*\) \| (.*) \|$", text, re.M)})
    found["head"] = text[: text.index("| subcommand |")]
    return found


class CommandsPage(unittest.TestCase):
    maxDiff = None

    def test_the_page_is_what_the_programs_say(self):
        names, built = subcommands()
        shown, said = parts(PAGE), parts(commands_page.page(VORN))
        for name in set(names) - set(built):
            for key in (f"vorn {name}", f"row {name}"):
                shown.pop(key, None)
                said.pop(key, None)
        self.assertEqual(list(shown), list(said), AGAIN)
        for name in said:
            self.assertEqual(shown[name], said[name], AGAIN)

    def test_every_option_of_every_subcommand_is_on_the_page(self):
        for name in subcommands()[1]:
            part = parts(PAGE)[f"vorn {name}"]
            shown = commands_page.help_of(VORN, name)
            options = re.findall(r"^ {2,6}(?:-\w, )?(--[\w-]+)", shown[shown.index("\noptions:"):], re.M)
            self.assertIn("--help", options)
            for option in options:
                self.assertIn(option, part, name)

    def test_every_subcommand_says_where_more_is_said(self):
        for name in subcommands()[0]:
            self.assertIn(name, commands_page.PAGES)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
