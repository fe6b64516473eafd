"""What a header of the feed says: its calls with their comments, and its records."""

import re


def _prose(comment):
    """Paragraphs, and lines "name  text" as pairs, of a comment's inner text."""
    lines = [re.sub(r"^\s*\* ?", "", line) for line in comment.splitlines()]
    for paragraph in "\n".join(lines).strip().split("\n\n"):
        first = paragraph.splitlines()[0]
        if re.match(r"\w+  +\S", first):
            pairs = []
            for line in paragraph.splitlines():
                match = re.match(r"(\w+)  +(\S.*)", line)
                if match:
                    pairs.append([match[1], match[2]])
                else:
                    pairs[-1][1] += " " + line.strip()
            yield pairs
        else:
            yield " ".join(paragraph.split())


class Header:
    def __init__(self, text):
        self._text = text

    def call(self, name):
        """(declaration, paragraphs)"""
        found = re.search(r"/\*((?:(?!\*/).)*)\*/\s*(?:VORN_EXPORT|VORN_MD_API) ((?:extern )?[^;{]*\b"
                          + name + r"\b[^;]*;)", self._text, re.S)
        return " ".join(found[2].split()), list(_prose(found[1]))

    def names(self):
        declarations = re.findall(r"^(?:VORN_EXPORT|VORN_MD_API) ([^;]*);", self._text, re.M)
        return [re.search(r"(?:\(\*(\w+)\)|(\w+))\(", line.replace("\n", " ")) for line in declarations]

    def record(self, name):
        """The lines of a record, with the comment before it."""
        end = re.search(r"^\} " + name + ";", self._text, re.M)
        start = self._text.rindex("typedef struct", 0, end.start())
        lines = self._text[start:end.end()].splitlines()
        comment = re.search(r"/\*((?:(?!\*/).)*)\*/\s*$", self._text[:start], re.S)
        return list(_prose(comment[1])) if comment else [], lines

    def constants(self, prefix):
        return re.findall(rf"^#define {prefix}\w* .*$", self._text, re.M)
