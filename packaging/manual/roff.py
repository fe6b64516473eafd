"""Pages of the manual: a Page takes sections and text, and Markdown as the documents of this tree use
it, and gives what man reads."""

import re


def escape(text):
    """Text as it is, wherever it comes in a line. A minus is a minus: options can be copied."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("^", "\\(ha").replace("~", "\\(ti")
    text = text.replace("'", "\\(aq").replace("`", "\\(ga")
    return re.sub(r"^\.", r"\\&.", text)


_INLINE = re.compile(r"`([^`]+)`|\*\*([^*]+)\*\*|\[([^\]]+)\]\(([^)]+)\)")


def inline(text):
    """Code and strong words in bold; of a link, its words, and its address if it is one."""
    parts, at = [], 0
    for match in _INLINE.finditer(text):
        parts.append(escape(text[at:match.start()]))
        code, strong, words, target = match.groups()
        if words is not None:
            parts.append(inline(words) if words else "")
            if "://" in target:
                parts.append(" (" + escape(target) + ")")
        else:
            parts.append("\\fB" + escape(code or strong) + "\\fR")
        at = match.end()
    parts.append(escape(text[at:]))
    line = "".join(parts)
    return line if not line.startswith(".") else "\\&" + line


class Page:
    def __init__(self, name, section, summary, version, also=()):
        self.file = f"{name}.{section}"
        self._version = version
        self._title = f'.TH "{name.upper()}" {section} "" "Vorn {version}" "Vorn"'
        self._lines = []
        self._tables = False
        self.section("NAME")
        self._lines.append(", ".join(map(escape, (name, *also))) + " \\- " + inline(summary))

    def text(self):
        first = ["'\\\" t"] if self._tables else []
        return "\n".join([*first, self._title, ".nh", ".ad l", *self._lines]) + "\n"

    def section(self, title):
        self._lines.append(f'.SH "{escape(title.upper())}"')

    def subsection(self, title):
        self._lines.append(".SS " + '"' + inline(title).replace('"', '\\(dq') + '"')

    def raw(self, *lines):
        self._lines.extend(lines)

    def paragraph(self, text):
        self._lines += [".PP", inline(" ".join(text.split()))]

    def item(self, term, text):
        """`term` is made bold."""
        self._lines += [".TP", "\\fB" + escape(term) + "\\fR", inline(" ".join(text.split())) or "\\&"]

    def code(self, lines):
        body = ["\\&" + line if line.startswith((".", "\\(aq")) else line
                for line in (escape(line) for line in lines)]
        self._lines += [".PP", ".RS 4", ".nf", *body, ".fi", ".RE"]

    def table(self, rows):
        """The first row is the heading. Two columns become terms with their text, and so do more when
        a screen has no room for them."""
        widths = [max(map(len, column)) for column in zip(*rows)]
        if len(rows[0]) == 2 or sum(widths[:-1]) > 50:
            for term, *cells in rows[1:]:
                named = [f"{name}: {cell}" if name and len(cells) > 1 else cell
                         for name, cell in zip(rows[0][1:], cells)]
                self._lines += [".TP", inline(term), inline("; ".join(named)) or "\\&"]
            return
        self._tables = True  # nokeep: a table may be longer than a page
        rows = rows if any(rows[0]) else rows[1:]
        wide = [width > 20 for width in widths]
        self._lines += [".PP", ".TS", "tab(\t) nokeep;",
                        " ".join("lx" if is_wide else "l" for is_wide in wide) + "."]
        for row in rows:
            self._lines.append("\t".join("T{\n" + (inline(cell) or "\\&") + "\nT}" if is_wide
                                         else inline(cell) for cell, is_wide in zip(row, wide)))
        self._lines.append(".TE")

    def see_also(self, names):
        self.section("See also")
        marked = [re.sub(r"^(.*)\((\d)\)$", r"\\fB\1\\fR(\2)", escape(name)) for name in names]
        self._lines.append(",\n".join(marked))

    # --- Markdown.

    def markdown(self, text, only=None, without=()):
        """Headings of the second order are sections; `only` and `without` choose by them. What comes
        before the first heading goes where the page stands; `only` "" is just that."""
        title = ""
        for block in _blocks(text):
            if block[0].startswith("## "):
                title = block[0][3:]
                if self._wanted(title, only, without):
                    self.section(title)
            elif self._wanted(title, only, without):
                self._block(block)

    @staticmethod
    def _wanted(title, only, without):
        return (only is None or title in only) and title not in without

    def _block(self, block):
        first = block[0]
        if first.startswith(("# ", "![", "<")):
            return
        if first.startswith("### "):
            self.subsection(first[4:])
        elif first.startswith("```"):
            self.code(block[1:-1])
        elif first.startswith("    "):
            self.code([line[4:] for line in block])
        elif first.startswith("|"):
            cells = [[cell.strip().replace("\0", "|") for cell in
                      line.replace("\\|", "\0").strip("|").split("|")] for line in block]
            self.table([cells[0]] + cells[2:])
        elif re.match(r"(-|\d+\.) ", first):
            self._list(block)
        else:
            self.paragraph(" ".join(block))

    def _list(self, block):
        items = []
        for line in block:
            if re.match(r"(-|\d+\.) ", line):
                items.append(line.split(" ", 1))
            else:
                items[-1][1] += " " + line.strip()
        for mark, text in items:
            bullet = "\\(bu 2" if mark == "-" else mark + " 4"
            self._lines += [f".IP {bullet}", inline(text)]


def _blocks(text):
    """Lines that belong together: a heading, a paragraph, a list, a table, code."""
    block, fenced = [], False
    lines = text.splitlines()
    for line in lines + [""]:
        if line.startswith("```"):
            if not fenced and block:
                yield block
                block = []
            block.append(line)
            fenced = not fenced
            if not fenced:
                yield block
                block = []
        elif fenced:
            block.append(line)
        elif line.strip() == "":
            if block and block[0].startswith("    "):
                block.append("")  # code goes on behind an empty line if more of it comes
            elif block:
                yield block
                block = []
        else:
            ends = block and ((block[0].startswith("    ") and not line.startswith("    "))
                              or line.startswith("#"))
            if ends:
                yield _trimmed(block)
                block = []
            block.append(line)
            if line.startswith("#"):
                yield block
                block = []
    if block:
        yield _trimmed(block)


def _trimmed(block):
    while block and block[-1] == "":
        block.pop()
    return block
