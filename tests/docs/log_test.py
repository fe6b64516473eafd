"""docs/reference/log.md has every line of the feed, as the sources write it, and no other."""

import pathlib
import re
import sys
import unittest

from log_lines import LogLine, _lines_of, lines_in_sources

ROOT = pathlib.Path(__file__).resolve().parents[2]
ROW = re.compile(r"^\| ([EWIDX]) \| (\w+), (\w+) \| `([^`]*)` \|(.*)\|(.*)\|$", re.M)


class LogPage(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        page = (ROOT / "docs/reference/log.md").read_text(encoding="utf-8")
        self.rows = ROW.findall(page)
        self.page = [LogLine(source, function, level, text)
                     for level, source, function, text, _, _ in self.rows]

    def test_every_line_of_the_sources_is_on_the_page_and_no_other(self):
        self.assertEqual(sorted(set(self.page)), sorted(lines_in_sources(ROOT)))

    def test_no_line_is_there_twice(self):
        self.assertEqual(len(self.page), len(set(self.page)))

    def test_every_line_says_when_it_comes_and_above_debug_what_to_do(self):
        for level, _, _, text, when, advice in self.rows:
            self.assertTrue(when.strip(), text)
            if level in "EW" and "not in operation" not in when:
                self.assertTrue(advice.strip(), text)


class Sources(unittest.TestCase):
    """The reading of the sources itself."""

    def test_a_line_has_its_file_function_level_and_whole_text(self):
        source = ('constexpr char LOG_FILE_TAG[] = "Tag";\n'
                  "int Class::_Method(int a) {\n"
                  '    MD_LOG(LOG_WARNING, "first %d, "\n           "second", a);\n'
                  '    MD_LOG_AS("_Other", LOG_DEBUG_EX, "by name");\n}\n')
        self.assertEqual(list(_lines_of(source)), [LogLine("Tag", "_Method", "W", "first %d, second"),
                                                   LogLine("Tag", "_Other", "X", "by name")])

    def test_no_line_is_written_in_a_way_that_it_would_overlook(self):
        # The macro is the only way to the log: nothing calls the logger's own functions.
        for folder in ("exchange", "public"):
            for path in (ROOT / folder).rglob("*.cpp"):
                if path.name != "CommonLog.cpp":
                    self.assertNotRegex(path.read_text(encoding="utf-8"), r"MdWriteLine|WriteLog\(|WriteText\(")


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
