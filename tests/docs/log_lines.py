"""The log lines of the feed, as they stand in its sources."""

import pathlib
import re
import typing

LEVELS = {"LOG_ERROR": "E", "LOG_WARNING": "W", "LOG_INFO": "I", "LOG_DEBUG": "D", "LOG_DEBUG_EX": "X"}
CALL = re.compile(r"\bMD_LOG(?P<named>_AS)?\((?P<arguments>.*?)\);", re.S)
STRING = re.compile(r'"((?:[^"\\]|\\.)*)"')
STRINGS = re.compile(r'(?:"(?:[^"\\]|\\.)*"\s*)+')
TAG = re.compile(r'LOG_FILE_TAG\[\] = "(\w+)"')
FUNCTION = re.compile(r"^(?![ #}/])[^;=\n]*?(\w+)\(", re.M)


class LogLine(typing.NamedTuple):
    """One kind of line: the file and the function that it names, the letter of its level, its text."""

    source: str
    function: str
    level: str
    text: str


def _lines_of(text):
    tag = TAG.search(text)
    for call in CALL.finditer(text):
        arguments = call["arguments"]
        level = re.search(r"\bLOG_\w+", arguments)
        if tag is None or level is None or level[0] not in LEVELS:
            continue
        pieces = ["".join(STRING.findall(found)) for found in STRINGS.findall(arguments)]
        if call["named"]:
            function = pieces.pop(0)
        else:
            function = FUNCTION.findall(text[: call.start()])[-1]
        yield LogLine(tag[1], function, LEVELS[level[0]], pieces[0].rstrip())


def lines_in_sources(root):
    """The set of all lines of the feed and the logger below `root`."""
    found = set()
    for folder in ("exchange", "public"):
        for path in sorted(pathlib.Path(root, folder).rglob("*.cpp")):
            found.update(_lines_of(path.read_text(encoding="utf-8")))
    return found
