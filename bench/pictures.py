"""Small SVG pictures of measured figures, readable on light and dark pages."""

from xml.sax.saxutils import escape

COLOURS = {"vorn": "#2a7de1", "limit": "#7a8794", "literal": "#c2653a"}
OTHER = ["#2a7de1", "#c2653a", "#7a8794", "#3d9a50"]
INK = "#6b7580"  # has contrast enough on white and on near-black
FONT = 'font-family="system-ui, sans-serif" font-size="13"'
WIDTH = 720


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.1f}"


def page(height, parts, title):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
            f'role="img" aria-label="{escape(title)}">\n' + "\n".join(parts) + "\n</svg>\n")


def label(x, y, text, anchor="start", weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" {FONT} fill="{INK}" text-anchor="{anchor}" '
            f'font-weight="{weight}">{escape(text)}</text>')


def bars(question, points):
    """Horizontal bars, one group for each place of measurement, each group to its own scale."""
    parts = []
    y = 26
    parts.append(label(0, y, f"{question}: time of one operation", weight="bold"))
    groups = {}
    for point in points:
        groups.setdefault(point["at"], []).append(point)
    for at, group in groups.items():
        y += 30
        parts.append(label(0, y, at))
        longest = max(point["value"] for point in group)
        for point in group:
            y += 22
            length = max(2, 400 * point["value"] / longest)
            colour = COLOURS.get(point["series"], OTHER[len(point["series"]) % len(OTHER)])
            parts.append(label(112, y, point["series"], anchor="end"))
            parts.append(f'<rect x="120" y="{y - 12}" width="{length:.1f}" height="15" rx="2" '
                         f'fill="{colour}"/>')
            parts.append(label(128 + length, y, f"{number(point['value'])} {point['unit']}"))
    return page(y + 20, parts, f"Times of {question}")


def curve(series, points):
    """Nanoseconds for a message against size; the horizontal axis is logarithmic."""
    from math import log10
    left, right, top, bottom = 60, WIDTH - 20, 50, 260
    xs = [log10(float(point["at"])) for point in points]
    low, high = min(xs), max(max(xs), min(xs) + 1)
    most = max(point["value"] for point in points) * 1.1
    place = lambda x: left + (right - left) * (x - low) / (high - low)
    rise = lambda v: bottom - (bottom - top) * v / most
    parts = [label(0, 26, f"Nanoseconds for a message by {series}", weight="bold")]
    for share in (0, 0.5, 1):
        value = most * share
        parts.append(f'<line x1="{left}" x2="{right}" y1="{rise(value):.1f}" '
                     f'y2="{rise(value):.1f}" stroke="{INK}" stroke-opacity="0.3"/>')
        parts.append(label(left - 8, rise(value) + 4, number(value), anchor="end"))
    for index, flavour in enumerate(("x86-64", "native")):
        path = [(place(log10(float(p["at"]))), rise(p["value"])) for p in points
                if p["flavour"] == flavour]
        if not path:
            continue
        colour = OTHER[index]
        parts.append(f'<polyline fill="none" stroke="{colour}" stroke-width="2" points="'
                     + " ".join(f"{x:.1f},{y:.1f}" for x, y in path) + '"/>')
        parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in path]
        parts.append(label(right - 90, top - 20 + 18 * index, flavour))
        parts.append(f'<rect x="{right - 110}" y="{top - 30 + 18 * index}" width="14" height="10" '
                     f'fill="{colour}"/>')
    for point in points:
        if point["flavour"] == points[0]["flavour"]:
            parts.append(label(place(log10(float(point["at"]))), bottom + 20,
                               f"{int(point['at']):,}", anchor="middle"))
    return page(bottom + 34, parts, f"Cost by {series}")
