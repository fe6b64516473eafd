"""Links, anchors and pictures of every page of the tree lead somewhere; every page of docs is linked."""

import os
import pathlib
import re
import sys
import unittest

from pages import PageError, pages_of, read_page

ROOT = pathlib.Path(__file__).resolve().parents[2]
SKIPPED = re.compile(r"^(\.|build|node_modules$|dist$)")
OUTSIDE = re.compile(r"^(https?:|mailto:)")


def markdown_files():
    for folder, folders, files in os.walk(ROOT):
        folders[:] = sorted(name for name in folders if not SKIPPED.match(name))
        for name in sorted(files):
            if name.endswith(".md"):
                yield pathlib.Path(folder, name)


class Links(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.pages = {}
        cls.broken = []
        for path in markdown_files():
            try:
                cls.pages[path] = read_page(path, strict=path in pages_of(ROOT))
            except PageError as error:
                cls.broken.append(str(error))

    def test_every_page_can_be_read(self):
        self.assertEqual(self.broken, [])

    def targets(self, page):
        for line, target in page.links:
            if not OUTSIDE.match(target):
                name, _, anchor = target.partition("#")
                yield line, target, (page.path.parent / name).resolve() if name else page.path, anchor

    def test_every_link_leads_to_a_file(self):
        dead = [f"{page.path.relative_to(ROOT)}:{line}: {target}"
                for page in self.pages.values() for line, target, file, _ in self.targets(page)
                if not file.exists()]
        self.assertEqual(dead, [])

    def test_every_anchor_is_a_heading(self):
        dead = [f"{page.path.relative_to(ROOT)}:{line}: {target}"
                for page in self.pages.values() for line, target, file, anchor in self.targets(page)
                if anchor and file in self.pages and anchor not in self.pages[file].anchors]
        self.assertEqual(dead, [])

    def test_no_link_leaves_the_tree(self):
        away = [f"{page.path.relative_to(ROOT)}:{line}: {target}"
                for page in self.pages.values() for line, target, file, _ in self.targets(page)
                if ROOT not in file.parents and file != ROOT]
        self.assertEqual(away, [])

    def test_every_page_of_docs_can_be_reached_from_its_start_page(self):
        start = ROOT / "docs/README.md"
        reached, waiting = set(), [start]
        while waiting:
            path = waiting.pop()
            if path in reached or path not in self.pages:
                continue
            reached.add(path)
            waiting += [file for _, _, file, _ in self.targets(self.pages[path])]
        lost = [str(path.relative_to(ROOT)) for path in self.pages
                if ROOT / "docs" in path.parents and path not in reached]
        self.assertEqual(lost, [])

    def test_every_picture_of_docs_is_shown(self):
        shown = {file for page in self.pages.values() for _, _, file, _ in self.targets(page)}
        pictures = [path for path in (ROOT / "docs").rglob("*") if path.suffix in (".svg", ".png")]
        self.assertEqual([str(path.relative_to(ROOT)) for path in pictures if path not in shown], [])

    def test_a_picture_says_what_it_shows(self):
        for page in self.pages.values():
            text = page.path.read_text(encoding="utf-8")
            self.assertEqual(re.findall(r"!\[\s*\]\([^)]*\)", text), [], page.path)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
