"""The offsets on the reference pages are those of the headers, and the byte maps are drawn from them.
LAYOUTS is the program of layouts.cpp."""

import os
import pathlib
import re
import subprocess
import sys
import unittest

import byte_maps

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = ("wire.md", "record.md")


def headers():
    """{record: [(member, offset, size), ...]}, {record: size}, {register: word} of the headers."""
    text = subprocess.run([os.environ["LAYOUTS"]], capture_output=True, text=True, check=True).stdout
    members, sizes, registers = {}, {}, {}
    for words in map(str.split, text.splitlines()):
        if words[0] == "register":
            registers[words[1]] = int(words[2])
        elif words[1] == "-":
            sizes[words[0]] = int(words[2])
        else:
            members.setdefault(words[0], []).append((words[1], int(words[2]), int(words[3])))
    return members, sizes, registers


class Layouts(unittest.TestCase):
    maxDiff = None

    def test_every_record_on_the_pages_is_the_header_s(self):
        members, _, _ = headers()
        self.assertEqual(byte_maps.tables_of([ROOT / "docs/reference" / page for page in PAGES]), members)

    def test_no_member_of_a_record_is_missing(self):
        members, sizes, _ = headers()
        for record, rows in members.items():
            end = 0
            for member, offset, size in rows:
                self.assertEqual(offset, end, f"{record}.{member}")
                end = offset + size
            self.assertEqual(end, sizes[record], record)

    def test_every_register_is_the_header_s(self):
        page = (ROOT / "docs/reference/card.md").read_text(encoding="utf-8")
        rows = re.findall(r"^\| (\d+) \| `(EXANIC_FPGA_\w+)` \|", page, re.M)
        self.assertEqual({name: int(word) for word, name in rows}, headers()[2])

    def test_every_register_that_the_feed_uses_is_on_the_page(self):
        page = (ROOT / "docs/reference/card.md").read_text(encoding="utf-8")
        sources = (ROOT / "exchange/exanic_shfe_md/src").rglob("*.cpp")
        used = set().union(*(re.findall(r"EXANIC_FPGA_\w+", path.read_text()) for path in sources))
        self.assertEqual([name for name in sorted(used) if f"`{name}`" not in page], [])

    def test_the_byte_maps_are_drawn_from_these_tables(self):
        for name, picture in byte_maps.pictures(ROOT).items():
            self.assertEqual((ROOT / "docs/images" / name).read_text(encoding="utf-8"), picture,
                             f"{name}: draw it again with tests/docs/byte_maps.py")


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
