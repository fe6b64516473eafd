#!/usr/bin/env python3
"""A terminal's screen as a picture: escape sequences in, SVG out.

    tmux capture-pane -e -p | scripts/screen_to_svg.py WIDTH HEIGHT > screen.svg

WIDTH and HEIGHT are columns and rows. Colours are the eight of a terminal; bold, dim and reverse are
known, everything else is left out. Bars and lines are drawn rather than written, so that they meet
whatever the font.
"""

import re
import sys
from html import escape

CELL_WIDTH, CELL_HEIGHT, FONT_SIZE, MARGIN = 8.4, 18, 14, 12
OVERLAP = 0.8  # of neighbours, against seams
BACKGROUND, FOREGROUND, DIM = "#16191d", "#d6dade", "#8a9199"
COLOURS = {1: "#ff7b72", 2: "#5fd38d", 3: "#e8b84a", 4: "#6cb6ff",
           5: "#d2a8ff", 6: "#76e3ea", 7: FOREGROUND}


class Style:
    def __init__(self):
        self.reset()

    def reset(self):
        self.bold = self.dim = self.reverse = False
        self.colour = None

    def apply(self, numbers):
        for number in numbers:
            if number == 0:
                self.reset()
            elif number == 1:
                self.bold = True
            elif number == 2:
                self.dim = True
            elif number == 7:
                self.reverse = True
            elif number == 22:
                self.bold = self.dim = False
            elif number == 27:
                self.reverse = False
            elif number == 39:
                self.colour = None
            elif 31 <= number <= 37:
                self.colour = number - 30

    def fill(self):
        if self.colour is not None:
            return COLOURS[self.colour]
        return DIM if self.dim else FOREGROUND

    def key(self):
        return (self.fill(), self.bold, self.reverse)


def cells_of(line, style):
    """Yields (character, look) for each column; the style goes on from line to line."""
    for part in re.split(r"(\x1b\[[0-9;]*m)", line):
        if part.startswith("\x1b["):
            style.apply([int(number or 0) for number in part[2:-1].split(";")])
        else:
            for character in part:
                yield character, style.key()


def rectangle(x, y, width, height, fill):
    return (f'<rect x="{x:.2f}" y="{y:.2f}" width="{width:.2f}" height="{height:.2f}" '
            f'fill="{fill}"/>')


def drawn(character, x, y, fill):
    """A bar or a line as rectangles; None: the character is to be written."""
    if "\u2588" <= character <= "\u258f":
        eighths = 8 - (ord(character) - 0x2588)
        width = CELL_WIDTH * eighths / 8 + (OVERLAP if eighths == 8 else 0)
        return [rectangle(x, y + 3, width, CELL_HEIGHT - 6, fill)]
    across = rectangle(x, y + CELL_HEIGHT / 2, CELL_WIDTH + OVERLAP, 1, fill)
    middle = x + CELL_WIDTH / 2
    return {"\u2500": [across],
            "\u2502": [rectangle(middle, y, 1, CELL_HEIGHT, fill)],
            "\u252c": [across, rectangle(middle, y + CELL_HEIGHT / 2, 1, CELL_HEIGHT / 2, fill)],
            }.get(character)


def row_shapes(cells, y):
    runs = []  # [first column, text, look] of the same look, without what is drawn
    for column, (character, look) in enumerate(cells):
        x = MARGIN + column * CELL_WIDTH
        fill, _, reverse = look
        if reverse:
            yield rectangle(x, y, CELL_WIDTH + OVERLAP, CELL_HEIGHT, fill)
        shapes = drawn(character, x, y, fill)
        if shapes:
            yield from shapes
        elif character != " ":
            if runs and runs[-1][2] == look and runs[-1][0] + len(runs[-1][1]) == column:
                runs[-1][1] += character
            else:
                runs.append([column, character, look])
    for column, text, (fill, bold, reverse) in runs:
        x = MARGIN + column * CELL_WIDTH
        weight = ' font-weight="bold"' if bold else ""
        yield (f'<text x="{x:.2f}" y="{y + 13.5:.2f}" textLength="{len(text) * CELL_WIDTH:.2f}" '
               f'fill="{BACKGROUND if reverse else fill}"{weight}>{escape(text)}</text>')


def main():
    if len(sys.argv) != 3 or not all(argument.isdigit() for argument in sys.argv[1:]):
        sys.exit(__doc__)
    columns, rows = map(int, sys.argv[1:])
    width, height = columns * CELL_WIDTH + 2 * MARGIN, rows * CELL_HEIGHT + 2 * MARGIN
    print(f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{height:.0f}" '
          f'viewBox="0 0 {width:.0f} {height:.0f}" font-size="{FONT_SIZE}" '
          f'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace">')
    print(f'<rect width="100%" height="100%" rx="6" fill="{BACKGROUND}"/>')
    style = Style()
    for row, line in enumerate(sys.stdin.read().split("\n")[:rows]):
        for shape in row_shapes(list(cells_of(line, style))[:columns], MARGIN + row * CELL_HEIGHT):
            print(shape)
    print("</svg>")


if __name__ == "__main__":
    sys.stdin.reconfigure(encoding="utf-8")
    main()
