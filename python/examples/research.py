"""A session in pictures: mid and spread, depth over time, message rates.

    vorn sim -o session.pcap --seconds 300 --instruments 120 --rate 1000 --seed 3 --fault gap@130
    vorn convert session.pcap -o session.npy
    PYTHONPATH=python python3 python/examples/research.py session.npy --pictures pictures

Each `# %%` begins a cell for an editor that knows them; as a program it needs no screen. It needs
numpy and matplotlib (Debian: python3-numpy, python3-matplotlib).
"""

# %% Settings
import argparse
import os

import matplotlib

matplotlib.use("Agg")

import matplotlib.dates as mdates
import matplotlib.pyplot as plt
import numpy as np
from matplotlib.colors import LinearSegmentedColormap, LogNorm

import vorn

BID, ASK, MID, OUTAGE = "#1f6fb4", "#d1602a", "#2b2b2b", "#e4e4e4"
EXCHANGES = (("SHFE", "#3f8f8b"), ("INE", "#c9a13b"))  # by the column "type"

parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("file", help=".npy of vorn convert")
parser.add_argument("--instrument", help="identifier; by default the one with most updates")
parser.add_argument("--pictures", default=".", help="directory for the pictures (.)")
options = parser.parse_args()

plt.rcParams.update({
    "figure.dpi": 110, "figure.constrained_layout.use": True, "font.size": 9,
    "axes.spines.top": False, "axes.spines.right": False, "axes.titlesize": 10.5,
    "axes.titlelocation": "left", "axes.titleweight": "bold", "axes.axisbelow": True,
    "axes.grid": True, "axes.grid.axis": "y", "grid.color": "#ececec", "legend.frameon": False,
    "axes.formatter.useoffset": False,
})

# %% Load a session
rows = vorn.load(options.file, mmap=True)
updates = vorn.updates(rows)
if len(updates) == 0:
    raise SystemExit(f"{options.file} has no update")
identifiers, per_instrument = np.unique(updates["inst_id"], return_counts=True)
by_activity = np.argsort(-per_instrument, kind="stable")
instrument = options.instrument or identifiers[by_activity[0]].decode()
book = vorn.updates(updates, instrument)
if len(book) == 0:
    raise SystemExit(f"{options.file} has no update of {instrument}")
when = vorn.exchange_time(book)
date = str(when[0].astype("datetime64[D]"))
begin, end = vorn.exchange_time(rows)[[0, -1]]


# %% Where the feed had nothing to say
# The feed begins with a snapshot; a gap ends the books, and it begins again. What lies between is
# missing, not quiet: it is shaded in every picture, and no line is drawn across it.
def outages():
    since, why = (None, "") if rows["event"][0] == 0 else (rows["receive_time_ns"][0], "snapshot")
    for event in vorn.events(rows):
        kind = vorn.EVENTS[event["event"]]
        if kind in ("gap", "restart", "lost", "skip") and since is None:
            since, why = event["receive_time_ns"], kind
        live = kind == "phase" and event["phase"] == 4
        if (live or kind in ("lost", "skip")) and since is not None:
            yield *vorn.exchange_time(np.array([since, event["receive_time_ns"]])), why
            since = None
    if since is not None:
        yield vorn.exchange_time(since), end, why


gaps = list(outages())


def time_axis(axes):
    """Exchange time along the bottom, outages shaded."""
    locator = mdates.AutoDateLocator(minticks=4, maxticks=9)
    axes.xaxis.set_major_locator(locator)
    axes.xaxis.set_major_formatter(mdates.DateFormatter("%H:%M:%S"))
    axes.set_xlim(begin, end)
    axes.set_xlabel(f"time at the exchange (UTC+8), {date}")
    for since, until, _ in gaps:
        axes.axvspan(since, until, color=OUTAGE, lw=0, zorder=0)


def name_gaps(axes):
    """What the shades are, upright inside them."""
    for since, until, why in gaps:
        axes.annotate(why, (since + (until - since) / 2, 0.98), xycoords=("data", "axes fraction"),
                      rotation=90, ha="center", va="top", color="#777777", fontsize=8)


def with_breaks(times, values):
    """The series with a NaN where an outage begins, which ends its line there."""
    for since, _, _ in gaps:
        at = np.searchsorted(times, since, side="right")
        times = np.insert(times, at, since)
        values = np.insert(values.astype(float), at, np.nan)
    return times, values


def save(figure, name):
    path = os.path.join(options.pictures, f"research-{name}.png")
    os.makedirs(options.pictures, exist_ok=True)
    figure.savefig(path, metadata={"Software": None})  # the same rows give the same picture
    plt.close(figure)
    print(path)


# %% Mid and spread
bid, ask = book["bid_px"][:, 0], book["ask_px"][:, 0]
both = (bid > 0) & (ask > 0)
mid, spread = ((bid + ask) / 2)[both], (ask - bid)[both]
steps = np.diff(np.unique(np.concatenate([bid[bid > 0], ask[ask > 0]])))
tick = float(np.round(steps[steps > 1e-6].min(), 6)) if len(steps) else 1.0


# Of each interval the widest spread and the mean by time, which a line of every change would hide.
def spreads(bins=300):
    edges = begin + (end - begin) / bins * np.arange(bins + 1)
    index = np.searchsorted(edges, when[both], side="right") - 1
    lasts = np.diff(np.append(when[both], end)).astype(float)
    for since, until, _ in gaps:  # a spread does not last through an outage
        before = np.searchsorted(when[both], since, side="right") - 1
        if before >= 0 and when[both][before] + lasts[before].astype("timedelta64[ns]") > since:
            lasts[before] = max(0.0, float((since - when[both][before]).astype(np.int64)))
    weight = np.bincount(index, lasts, bins + 1)[:bins]
    mean = np.bincount(index, lasts * spread / tick, bins + 1)[:bins]
    widest = np.zeros(bins + 1)
    np.maximum.at(widest, index, spread / tick)
    some = weight > 0
    mean = np.divide(mean, weight, out=np.full(bins, np.nan), where=some)
    return edges[:-1], mean, np.where(some, widest[:bins], np.nan)


figure, (top, bottom) = plt.subplots(2, 1, figsize=(9, 5), sharex=True, height_ratios=(2.4, 1))
top.step(*with_breaks(when[both], mid), where="post", color=MID, lw=0.9)
top.set_title(f"{instrument}: mid price")
top.set_ylabel("currency")
times, mean, widest = spreads()
bottom.fill_between(times, 0, widest, step="post", color=ASK, alpha=0.25, lw=0, label="widest")
bottom.step(times, mean, where="post", color=ASK, lw=1.1, label="mean by time")
bottom.legend(loc="lower right", bbox_to_anchor=(1, 0.98), ncols=2, borderaxespad=0)
bottom.set_title("Spread")
bottom.set_ylabel(f"ticks of {tick:g}")
bottom.set_ylim(0, None)
bottom.yaxis.set_major_locator(plt.MaxNLocator(integer=True, nbins=5))
time_axis(top)
time_axis(bottom)
name_gaps(top)
top.set_xlabel("")
save(figure, "mid-spread")


# %% Depth over time
# The book at the end of each of some hundred intervals: lots by price, bids blue, asks orange.
def depth_picture(bins=450):
    edges = begin + (end - begin) / bins * np.arange(bins + 1)
    last = np.searchsorted(when, edges[1:], side="right") - 1
    seen = last >= 0
    for since, until, _ in gaps:
        seen &= (edges[1:] <= since) | (edges[:-1] >= until)
    centre = (bid + ask)[both] / 2
    low = np.floor((centre.min() - 12 * tick) / tick)
    high = np.ceil((centre.max() + 12 * tick) / tick)
    lots = np.full((2, int(high - low) + 1, bins), np.nan)
    for column in np.flatnonzero(seen):
        row = book[last[column]]
        for side, (prices, volumes) in enumerate(
                ((row["bid_px"], row["bid_vol"]), (row["ask_px"], row["ask_vol"]))):
            there = (prices > 0) & (volumes > 0)
            level = np.rint(prices[there] / tick - low).astype(int)
            inside = (level >= 0) & (level < lots.shape[1])
            lots[side, level[inside], column] = volumes[there][inside]
    return edges, (np.array([low, high]) - [0.5, -0.5]) * tick, lots


def shades(colour):
    return LinearSegmentedColormap.from_list("", [(0, "#f4f4f4"), (0.72, colour), (1, "#2a2a2a")])


edges, prices, lots = depth_picture()
figure, axes = plt.subplots(figsize=(9, 4.6))
axes.grid(False)
norm = LogNorm(1, max(10, np.nanpercentile(lots, 99.5)))
extent = (*mdates.date2num([begin, end]), *prices)
for side, colour, name in ((0, BID, "bid"), (1, ASK, "ask")):
    image = axes.imshow(lots[side], cmap=shades(colour), norm=norm, aspect="auto", origin="lower",
                        extent=extent, interpolation="nearest")
    bar = figure.colorbar(image, ax=axes, pad=0.022, aspect=30, fraction=0.026,
                          format=plt.FuncFormatter(lambda value, _: f"{value:g}"))
    bar.ax.set_title(name, loc="center", fontsize=8, fontweight="normal")
    bar.outline.set_visible(False)
    bar.ax.minorticks_off()
    if side == 0:  # the outer one names the values of both
        bar.set_label("lots")
    else:
        bar.ax.set_yticks([])
time_axis(axes)
name_gaps(axes)
axes.set_title(f"{instrument}: resting volume by price")
axes.set_ylabel("price, currency")
used = prices[0] + tick * np.flatnonzero(~np.isnan(lots).all(axis=(0, 2)))[[0, -1]]
axes.set_ylim(used[0] - tick, used[1] + 2 * tick)
save(figure, "depth")

# %% Message rates
span = (end - begin) / np.timedelta64(1, "s")
width_s = next((width for width in (0.01, 0.1, 1, 10, 60) if span / width <= 400), 300)
marks = begin + (np.arange(int(span / width_s) + 2) * width_s * 1e9).astype("timedelta64[ns]")
all_times = vorn.exchange_time(updates)
figure, (left, right) = plt.subplots(1, 2, figsize=(9, 4), width_ratios=(2, 1))
below = np.zeros(len(marks) - 1)
for code, (name, colour) in enumerate(EXCHANGES):
    counts = np.histogram(all_times[updates["type"] == code].astype(np.int64),
                          marks.astype(np.int64))[0] / width_s
    left.fill_between(marks[:-1], below, below + counts, step="post", color=colour, lw=0,
                      label=name)
    below = below + counts
time_axis(left)
name_gaps(left)
left.set_ylim(0, below.max() * 1.12)
left.set_title(f"Updates a second, in steps of {width_s:g} s")
left.yaxis.set_major_formatter(plt.FuncFormatter(lambda value, _: f"{value:,.0f}"))
left.legend(loc="lower right", bbox_to_anchor=(1, 0.985), ncols=2, borderaxespad=0)
busiest = by_activity[:12][::-1]
of_exchange = {name: updates["type"][updates["inst_id"] == name][0]
               for name in identifiers[busiest]}
right.barh([name.decode() for name in identifiers[busiest]], per_instrument[busiest],
           color=[EXCHANGES[of_exchange[name]][1] for name in identifiers[busiest]], height=0.72)
right.grid(axis="x", color="#ececec")
right.grid(axis="y", visible=False)
right.xaxis.set_major_formatter(plt.FuncFormatter(lambda value, _: f"{value:,.0f}"))
right.xaxis.set_major_locator(plt.MaxNLocator(4))
right.set_title("Busiest instruments")
right.set_xlabel("updates")
save(figure, "rates")
