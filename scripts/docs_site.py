#!/usr/bin/env python3
"""Makes the pages of the site from the Markdown of the tree: docs_site.py OUT VERSION.

A page lies in OUT where its Markdown lies in the tree, docs/README.md at index.html. Links between pages
lead to pages; links to other files of the tree become plain text. Needs Python's markdown package.
"""

import html
import json
import os
import pathlib
import re
import shutil
import string
import sys

import markdown

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/docs"))
from pages import anchor_of  # noqa: E402

START = "docs/README.md"
BESIDE = ("README.md", "ARCHITECTURE.md", "CHANGELOG.md", "softcard/README.md", "exchange_sim/README.md",
          "faults/README.md", "tools/wireshark/README.md")
PICTURES = (".svg", ".png")
SHORT_PAGE = 4  # sections; a page with fewer needs no list of them


def sources():
    """Paths of all pages, from the root of the tree."""
    inside = sorted(path.relative_to(ROOT).as_posix() for path in (ROOT / "docs").rglob("*.md"))
    return [*inside, *BESIDE]


def page_of(source):
    """Where the page of a source lies on the site."""
    return "index.html" if source == START else source.removesuffix(".md") + ".html"


def title_of(text, source):
    """The first heading; the project's name for a page that begins without one."""
    found = re.match(r"^# (.+)$", text, re.M)
    return found[1].replace("`", "") if found else "Vorn" if source == "README.md" else source


class Page:
    """One page: from Markdown to HTML."""

    def __init__(self, source):
        self.source = source
        self.name = page_of(source)
        self.up = "../" * self.name.count("/")
        self.text = (ROOT / source).read_text(encoding="utf-8")
        self.title = title_of(self.text, source)
        self.sections = []  # (level, title, anchor, text)

    def content(self):
        """The HTML of the page, links and anchors as on the site."""
        text = re.sub(r"^<!--.*?-->\n?", "", self.text, flags=re.S | re.M)
        if not text.startswith("# "):
            text = f"# {self.title}\n\n{text}"
        text = re.sub(r"^([-*] )\[ \] ", r"\1&#9744; ", text, flags=re.M)
        result = markdown.markdown(text, extensions=["tables", "fenced_code", "sane_lists"])
        result = re.sub(r'(<a href|<img [^>]*?src|<img src)="([^"]+)"', self.target, result)
        result = re.sub(r'<a href="">(.*?)</a>', r"\1", result, flags=re.S)
        result = re.sub(r"<table>.*?</table>", r'<div class="wide">\g<0></div>', result, flags=re.S)
        return self.with_anchors(result)

    def target(self, match):
        attribute, link = match[1], html.unescape(match[2])
        if re.match(r"^(https?:|mailto:)", link):
            return match[0]
        name, _, anchor = link.partition("#")
        path = os.path.normpath(os.path.join(os.path.dirname(self.source), name)) if name else self.source
        if path.endswith(".md") and path in sources():
            path = page_of(path)
        elif not path.endswith(PICTURES):
            return f'{attribute}=""'
        relative = os.path.relpath(path, os.path.dirname(self.name) or ".") if name else ""
        return f'{attribute}="{relative}{"#" + anchor if anchor else ""}"'

    def with_anchors(self, text):
        """Headings get the anchors that forges give them; remembers the sections for the search."""
        seen, parts = {}, re.split(r"(<h[1-6]>.*?</h[1-6]>)", text, flags=re.S)
        for index in range(1, len(parts), 2):
            found = re.match(r"<h([1-6])>(.*)</h", parts[index], re.S)
            plain = html.unescape(re.sub(r"<[^>]+>", "", found[2]))
            anchor = anchor_of(plain, seen)
            self.sections.append((int(found[1]), plain, anchor,
                                  html.unescape(re.sub(r"<[^>]+>|\s+", " ", parts[index + 1]))))
            mark = f'<a class="anchor" href="#{anchor}" aria-label="Link to this section">#</a>'
            parts[index] = (f'<h{found[1]} id="{anchor}">{found[2]}'
                            f'{mark if found[1] != "1" else ""}</h{found[1]}>')
        return "".join(parts)

    def contents(self):
        """The list of sections of a long page."""
        rows = [f'<li><a href="#{anchor}">{html.escape(title)}</a></li>'
                for level, title, anchor, _ in self.sections if level == 2]
        if len(rows) < SHORT_PAGE or self.source == START:
            return ""
        return f'<details class="toc"><summary>On this page</summary><ul>{"".join(rows)}</ul></details>'

    def index(self):
        """The sections as the search has them."""
        return [{"page": self.title, "title": title, "text": re.sub(r"\s+", " ", text).strip(),
                 "url": self.name + (f"#{anchor}" if level > 1 else "")}
                for level, title, anchor, text in self.sections]


def navigation():
    """[(group, [(title, source), ...]), ...] as the start page lists them."""
    groups = []
    for line in (ROOT / START).read_text(encoding="utf-8").splitlines():
        if line.startswith("## "):
            groups.append((line[3:], []))
        elif groups and line.startswith("| ["):
            for title, link in re.findall(r"\[([^\]]+)\]\(([^)#]+\.md)\)", line.split(" | ")[0]):
                source = os.path.normpath(os.path.join("docs", link))
                groups[-1][1].append((title[0].upper() + title[1:], source))
    return groups


def navigation_for(page, groups):
    """The list of pages beside a page."""
    out = []
    for group, entries in groups:
        out.append(f"<h2>{html.escape(group)}</h2><ul>")
        for title, source in entries:
            here = ' aria-current="page"' if source == page.source else ""
            out.append(f'<li><a href="{page.up}{page_of(source)}"{here}>{html.escape(title)}</a></li>')
        out.append("</ul>")
    out.append(f'<h2>API</h2><ul><li><a href="{page.up}api/index.html">Headers</a></li></ul>')
    return "\n".join(out)


def main():
    out, version = pathlib.Path(sys.argv[1]), sys.argv[2]
    template = string.Template((ROOT / "docs/site/page.html").read_text(encoding="utf-8"))
    groups, index = navigation(), []
    for source in sources():
        page = Page(source)
        content = page.content()
        target = out / page.name
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(template.substitute(
            title=html.escape(page.title), up=page.up, nav=navigation_for(page, groups),
            content=content.replace("</h1>", f"</h1>{page.contents()}", 1), version=version, source=source), encoding="utf-8")
        index += page.index()
    (out / "search-index.js").write_text(f"const SECTIONS = {json.dumps(index)};\n", encoding="utf-8")
    for name in ("style.css", "site.js"):
        shutil.copy(ROOT / "docs/site" / name, out / name)
    for picture in (path for path in (ROOT / "docs").rglob("*") if path.suffix in PICTURES):
        target = out / picture.relative_to(ROOT)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(picture, target)


if __name__ == "__main__":
    main()
