"""Reads the Markdown pages of the tree: blocks with their marks, headings, links.

A block is what stands between two fences. Comments in the lines above it are its marks; what they
mean is in docs/development/documentation.md.
"""

import dataclasses
import pathlib
import re

FENCE = re.compile(r"^(?P<indent> *)(?P<fence>`{3,}|~{3,})(?P<info>[^`]*)$")
COMMENT = re.compile(r"^<!--\s*(?P<text>.*?)\s*-->$")
HIDDEN = re.compile(r"^<!-- (?P<what>run|run in the background)$")
HEADING = re.compile(r"^(?P<marks>#{1,6}) +(?P<text>.+?) *#*$")
# [text](target "title"), where the text may hold an image.
LINK = re.compile(r"!?\[(?:[^\[\]]|\[[^\]]*\](?:\([^)]*\))?)*\]\((?P<target>[^)\s]+)(?:\s+\"[^\"]*\")?\)")
IMAGE_IN_LINK = re.compile(r"!\[[^\]]*\]\((?P<target>[^)\s]+)\)")
HTML_TARGET = re.compile(r"<(?:img|a)\b[^>]*?(?:src|href)=\"(?P<target>[^\"]+)\"")
MARKS = ("not run", "needs", "file", "status", "until stopped", "background", "shows")
LANGUAGES = ("sh", "c", "cpp", "python", "ini", "text", "json", "sql", "cmake", "make", "yaml", "js")


class PageError(Exception):
    """A page that cannot be read as it was meant; the text says where and what to do."""


@dataclasses.dataclass
class Block:
    """What stands between two fences, or in a comment that is run."""

    page: pathlib.Path
    line: int  # of the first line of the text, from 1
    language: str
    text: str
    marks: dict  # name to value; the value of a mark without one is ""

    def where(self):
        return f"{self.page}:{self.line}"


@dataclasses.dataclass
class Page:
    path: pathlib.Path
    blocks: list
    anchors: set
    links: list  # (line, target)


def anchor_of(heading, seen):
    """The anchor that forges make of a heading; `seen` counts those of the page."""
    text = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    text = re.sub(r"[^\w\- ]", "", text.replace("`", "").strip().lower()).replace(" ", "-")
    seen[text] = seen.get(text, -1) + 1
    return text if seen[text] == 0 else f"{text}-{seen[text]}"


def _mark(text):
    for name in MARKS:
        if text == name:
            return name, ""
        if text.startswith(name + ":"):
            return name, text[len(name) + 1 :].strip()
    return None


class _Reader:
    def __init__(self, path, text, strict):
        self.path = path
        self.strict = strict
        self.lines = text.split("\n")
        self.at = 0
        self.marks = {}
        self.page = Page(path, [], set(), [])
        self.headings = {}
        self.in_list = False
        self.text = [""] * len(self.lines)  # the prose alone

    def fail(self, line, what):
        raise PageError(f"{self.path}:{line}: {what}")

    def read(self):
        while self.at < len(self.lines):
            line = self.lines[self.at]
            self.at += 1
            if HIDDEN.match(line):
                self.hidden(HIDDEN.match(line)["what"])
            elif COMMENT.match(line.strip()):
                self.comment(COMMENT.match(line.strip())["text"])
            elif line.strip().startswith("<!--"):
                while "-->" not in self.lines[self.at - 1]:
                    self.at += 1
            elif FENCE.match(line):
                self.fence(FENCE.match(line))
            elif line.strip():
                self.prose(line)
        if self.marks:
            self.fail(self.at, f"the mark '{next(iter(self.marks))}' has no block below it")
        self.links()
        return self.page

    def comment(self, text):
        found = _mark(text)
        if found is not None:
            self.marks[found[0]] = found[1]
            if found == ("not run", ""):
                self.fail(self.at, "say why: <!-- not run: the reason -->")

    def hidden(self, what):
        first = self.at
        while self.at < len(self.lines) and self.lines[self.at] != "-->":
            self.at += 1
        if self.at == len(self.lines):
            self.fail(first, "the comment does not end: put --> on a line of its own")
        marks = {"background": ""} if what.endswith("background") else {}
        text = "\n".join(self.lines[first : self.at]) + "\n"
        self.page.blocks.append(Block(self.path, first + 1, "sh", text, marks))
        self.at += 1

    def fence(self, opened):
        indent, fence = len(opened["indent"]), opened["fence"]
        words = opened["info"].split()
        first = self.at
        while self.at < len(self.lines) and self.lines[self.at].strip() != fence:
            self.at += 1
        if self.at == len(self.lines):
            self.fail(first, "the block does not end")
        if self.strict and (not words or words[0] not in LANGUAGES):
            self.fail(first, f"a block names its language, one of {', '.join(LANGUAGES)}")
        text = "".join(line[indent:] + "\n" for line in self.lines[first : self.at])
        self.page.blocks.append(Block(self.path, first + 1, words[0] if words else "", text, self.marks))
        self.marks = {}
        self.at += 1

    def prose(self, line):
        if self.marks:
            self.fail(self.at, f"the mark '{next(iter(self.marks))}' has no block below it")
        previous = self.lines[self.at - 2] if self.at > 1 else ""
        if re.match(r"^ *([-*+]|\d+\.) ", line):
            self.in_list = True
        elif not line.startswith(" "):
            self.in_list = False
        indented = line.startswith("    ") and not previous.strip() and not self.in_list
        if indented and self.strict:
            self.fail(self.at, "an indented block would not be checked: put it between ``` fences")
        heading = HEADING.match(line)
        if heading:
            self.page.anchors.add(anchor_of(heading["text"], self.headings))
        self.page.anchors.update(re.findall(r"<a (?:id|name)=\"([^\"]+)\"", line))
        self.text[self.at - 1] = re.sub(r"`[^`]*`", "", line)

    def links(self):
        """Links may break over the ends of lines: looked for in the whole of the prose."""
        text = "\n".join(self.text)
        for pattern in (LINK, IMAGE_IN_LINK, HTML_TARGET):
            for match in pattern.finditer(text):
                self.page.links.append((text.count("\n", 0, match.start()) + 1, match["target"]))


def read_page(path, text=None, strict=True):
    """Reads one page; `text` stands for the file's own. Strict: a block that would be overlooked is a
    PageError. So is whatever cannot be read."""
    path = pathlib.Path(path)
    return _Reader(path, path.read_text(encoding="utf-8") if text is None else text,
                   strict).read()


def pages_of(root):
    """Every page whose blocks are run: README.md and docs, in the order of their names."""
    root = pathlib.Path(root)
    return [root / "README.md", *sorted((root / "docs").rglob("*.md"))]
