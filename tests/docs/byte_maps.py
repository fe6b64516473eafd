#!/usr/bin/env python3
"""Draws the byte maps of docs/images from the tables of the reference pages. Run it when a table has
changed; a test holds the pictures against it."""

import html
import pathlib
import re

TABLE = re.compile(r"^\| (?P<record>\w+) \| offset \| bytes \| type \| meaning \|\n\|[- |:]+\|\n"
                   r"(?P<rows>(?:\|.*\|\n)+)", re.M)
ROW = re.compile(r"^\| `(\w+)` \| (\d+) \| (\d+) \|", re.M)
COLOURS = ("#dbe9ff", "#e3f4e1", "#fff1d6", "#f3e3f7", "#ffe1dd")
LEFT, TOP, CELL, HEIGHT = 56, 34, 88, 40

# Picture: title, bytes a row, records in their order.
MAPS = {
    "wire-decode-buffer.svg": ("Decode buffer with one price change", 8,
                               ("DecodeHeader", "MarketDataIncreField", "PriceChangeField")),
    "wire-deal-summary.svg": ("DealSummaryField", 8, ("DealSummaryField",)),
    "wire-snapshot.svg": ("Begin of a snapshot round", 8, ("MdqpHeader", "FieldHeader", "SnapField")),
    "record.svg": ("The instrument record", 16, ("instrument",)),
}


def tables_of(pages):
    """{record: [(member, offset, size), ...]} of the tables on the pages."""
    tables = {}
    for page in pages:
        for table in TABLE.finditer(pathlib.Path(page).read_text(encoding="utf-8")):
            tables[table["record"]] = [(name, int(offset), int(size))
                                       for name, offset, size in ROW.findall(table["rows"])]
    return tables


def _pieces(first, size, width):
    """Splits bytes into pieces that each lie in one row of the picture."""
    while size > 0:
        piece = min(size, width - first % width)
        yield first, piece
        first += piece
        size -= piece


def draw(title, width, records, tables):
    """The picture as text."""
    cell = CELL if width == 8 else CELL // 2
    fields, base = [], 0
    for index, record in enumerate(records):
        rows = tables[record]
        fields += [(name, base + offset, size, COLOURS[index % len(COLOURS)] if len(records) > 1
                    else COLOURS[number % len(COLOURS)])
                   for number, (name, offset, size) in enumerate(rows)]
        base += rows[-1][1] + rows[-1][2]
    height = TOP + (base + width - 1) // width * HEIGHT + 34
    total = LEFT + width * cell + 16
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {total} {height}" '
           f'font-family="sans-serif" font-size="13" role="img" aria-label="{html.escape(title)}">',
           f'  <rect width="{total}" height="{height}" fill="#ffffff"/>']
    for column in range(width):
        out.append(f'  <text x="{LEFT + column * cell + cell // 2}" y="22" text-anchor="middle" '
                   f'font-size="11" fill="#45536b">+{column}</text>')
    for row in range((base + width - 1) // width):
        out.append(f'  <text x="{LEFT - 10}" y="{TOP + row * HEIGHT + 25}" text-anchor="end" '
                   f'font-size="11" fill="#45536b">{row * width}</text>')
    for name, offset, size, colour in fields:
        pieces = list(_pieces(offset, size, width))
        widest = max(pieces, key=lambda piece: piece[1])
        for first, count in pieces:
            x, y = LEFT + first % width * cell, TOP + first // width * HEIGHT
            out.append(f'  <rect x="{x}" y="{y}" width="{count * cell}" height="{HEIGHT}" '
                       f'fill="{colour}" stroke="#45536b"/>')
            if (first, count) == widest:
                size_of = min(13, int(count * cell / (0.6 * len(name))))
                out.append(f'  <text x="{x + count * cell // 2}" y="{y + 25}" text-anchor="middle" '
                           f'font-size="{size_of}" fill="#1c2636">{name}</text>')
    x = LEFT
    for index, record in enumerate(records if len(records) > 1 else ()):
        out.append(f'  <rect x="{x}" y="{height - 23}" width="14" height="14" '
                   f'fill="{COLOURS[index % len(COLOURS)]}" stroke="#45536b"/>')
        out.append(f'  <text x="{x + 20}" y="{height - 12}" font-size="12" fill="#45536b">{record}</text>')
        x += 44 + 7 * len(record)
    out.append(f'  <text x="{total - 16}" y="{height - 12}" text-anchor="end" font-size="12" '
               f'fill="#45536b">{base} bytes</text>')
    return "\n".join([*out, "</svg>", ""])


def pictures(root):
    """{file name: text} of every picture, from the pages below `root`."""
    tables = tables_of([pathlib.Path(root, "docs/reference", page) for page in ("wire.md", "record.md")])
    return {name: draw(title, width, records, tables) for name, (title, width, records) in MAPS.items()}


if __name__ == "__main__":
    tree = pathlib.Path(__file__).resolve().parents[2]
    for file, text in pictures(tree).items():
        (tree / "docs/images" / file).write_text(text, encoding="utf-8")
