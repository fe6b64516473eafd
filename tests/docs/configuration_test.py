"""docs/reference/configuration.md has the keys, defaults and conversions of the feed. VORN is the
program; `vorn check --json` says what the feed makes of a file."""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/reference/configuration.md").read_text(encoding="utf-8")
SOURCE = (ROOT / "exchange/exanic_shfe_md/src/config/ConfigParse.cpp").read_text(encoding="utf-8")
KEY_ROW = re.compile(r"^\| `(\w+)` \| (none|off|`[^`]+`) \|(.*)\|(.*)\|$", re.M)
WRONG_ROW = re.compile(r"^\| `(\w+) =([^`]*)` \| (.*?) \|(.*)\|$", re.M)


def effective(text):
    """What the feed makes of a configuration, by key."""
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder, "vorn.ini")
        path.write_text("[config]\n" + text, encoding="utf-8")
        run = subprocess.run([os.environ["VORN"], "check", str(path), "--json"], capture_output=True,
                             text=True, check=False)
    return json.loads(run.stdout.splitlines()[-1])["effective"]


def as_shown(key, value):
    """The value as the page writes it."""
    if key == "options":
        return "recv" if value else "norecv"
    if key == "shield_price_check":
        return "1" if value else "0"
    if isinstance(value, bool):
        return "enabled" if value else "off"
    if isinstance(value, list):
        return ",".join(value) or "none"
    return str(value) or "none"


class ConfigurationPage(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.defaults = {key: default.strip("`") for key, default, _, _ in KEY_ROW.findall(PAGE)}

    def test_every_key_of_the_feed_is_on_the_page_and_no_other(self):
        read = set(re.findall(r'_(?:Text|Number)\("(\w+)"', SOURCE))
        self.assertEqual(sorted(self.defaults), sorted(read))

    def test_every_key_is_in_the_sample(self):
        sample = (ROOT / "sample-code/vorn.ini").read_text(encoding="utf-8")
        self.assertEqual(sorted(re.findall(r"^(\w+) *=", sample, re.M)), sorted(self.defaults))

    def test_the_defaults_are_the_feed_s(self):
        made = effective("")
        self.assertEqual({key: as_shown(key, made[key]) for key in self.defaults}, self.defaults)

    def test_the_sources_have_the_same_defaults(self):
        for key, default in re.findall(r'_(?:Text|Number)\("(\w+)", "([^"]+)"\)', SOURCE):
            self.assertEqual(self.defaults[key], default, key)

    def test_a_key_has_a_meaning(self):
        for key, _, meaning, _ in KEY_ROW.findall(PAGE):
            self.assertTrue(meaning.strip(), key)

    def test_a_wrong_value_does_what_the_page_says(self):
        rows = WRONG_ROW.findall(PAGE)
        self.assertGreater(len(rows), 10)
        for key, value, result, _ in rows:
            made = effective(f"{key} = {value}\n")
            if result in ("unknown key", "no port"):
                continue
            shown = re.search(r"`([^`]+)`", result)
            wanted = shown[1] if shown else "none" if result == "nothing" else result
            self.assertEqual(as_shown(key, made[key]), wanted, f"{key} = {value}")


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
