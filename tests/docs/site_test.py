"""The site is made without a warning, and every link on it leads somewhere. DOCS is scripts/docs.sh, a
folder to build in behind it."""

import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import unittest
from html.parser import HTMLParser

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT, BUILD = shlex.split(os.environ["DOCS"])
SITE = pathlib.Path(BUILD, "docs/html").resolve()


class Links(HTMLParser):
    """Ids, targets and text of one page."""

    def __init__(self, text):
        super().__init__()
        self.ids, self.targets, self.words = set(), [], []
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        values = dict(attrs)
        if "id" in values:
            self.ids.add(values["id"])
        self.targets += [values[name] for name in ("href", "src") if values.get(name)]

    def handle_data(self, data):
        self.words.append(data)


class Site(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        run = subprocess.run([SCRIPT, BUILD], capture_output=True, text=True, check=False)
        if run.returncode != 0:
            raise AssertionError(run.stderr)
        cls.pages = {path: Links(path.read_text(encoding="utf-8")) for path in SITE.rglob("*.html")
                     if path.relative_to(SITE).parts[0] != "api"}

    def test_every_page_of_the_tree_is_there(self):
        for path in (ROOT / "docs").rglob("*.md"):
            name = path.relative_to(ROOT).with_suffix(".html")
            self.assertTrue((SITE / (name if str(name) != "docs/README.html" else "index.html")).exists(), name)

    def test_every_link_leads_to_a_page_a_section_or_a_picture(self):
        dead = []
        for path, page in self.pages.items():
            for target in page.targets:
                if re.match(r"^(https?:|mailto:)", target):
                    continue
                name, _, anchor = target.partition("#")
                file = (path.parent / name).resolve() if name else path
                if not file.is_file() or (anchor and file in self.pages and anchor not in self.pages[file].ids):
                    dead.append(f"{path.relative_to(SITE)}: {target}")
        self.assertEqual(dead, [])

    def test_no_markdown_is_left_over(self):
        for path, page in self.pages.items():
            text = re.sub(r"<(pre|code|script).*?</\1>", "", path.read_text(encoding="utf-8"), flags=re.S)
            self.assertIsNone(re.search(r"^(#{1,6} |\| |```)|\]\([^)]*\)|\*\*\w", text, re.M), path)

    def test_every_page_has_the_list_of_pages_and_is_marked_in_it(self):
        for path in self.pages:
            text = path.read_text(encoding="utf-8")
            self.assertGreater(text.count("<li><a href="), 20, path)
        tutorial = (SITE / "docs/tutorial.html").read_text(encoding="utf-8")
        self.assertEqual(tutorial.count('aria-current="page"'), 1)

    def test_the_log_lines_are_shown_as_they_are(self):
        shown = "".join(self.pages[SITE / "docs/reference/log.html"].words)
        self.assertIn("get [%s] handle failed, %s", shown)
        self.assertIn("more than 80%% max cnt[%d]", shown)

    def test_the_search_knows_every_section(self):
        index = (SITE / "search-index.js").read_text(encoding="utf-8")
        sections = json.loads(index.removeprefix("const SECTIONS = ").rstrip().removesuffix(";"))
        urls = {section["url"] for section in sections}
        self.assertIn("docs/reference/configuration.html#keys", urls)
        self.assertIn("docs/operations/hardware.html#the-first-hour", urls)
        self.assertEqual({url.partition("#")[0] for url in urls},
                         {path.relative_to(SITE).as_posix() for path in self.pages})

    def test_the_api_has_every_public_name(self):
        text = "".join(path.read_text(encoding="utf-8") for path in (SITE / "api").glob("*.html"))
        for name in ("vorn_recv", "set_update_md_callback", "update_md", "create_shm", "free_shm", "vorn_md_table",
                     "vorn_md_counters", "vorn_md_set_event_callback", "BusReader", "RingCursor", "bid_totamount"):
            self.assertIn(name, text)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
