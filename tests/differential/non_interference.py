#!/usr/bin/env python3
"""Frames that the feed rejects change nothing, wherever they stand.

Each case runs a scenario twice on the feed's own object files: as it is, and with rejected frames
put in at random places. Snapshot: frames that fail one of the frame checks; table, scaling, limits,
sessions, masks and filter registers must come out the same. Incremental: polls that fail, buffers
too short or too long, instruments out of range or not subscribed, repeated changes; callbacks, with
whole records, and the final table must be the same.

A decode buffer of an unknown topic is not among them: it is the sign of a stream that cannot be
trusted, and the feed answers it by starting its cycle again.

Exit status: 0 equal, 2 usage, 3 a difference, or the driver did not survive a case.
"""

import argparse
import collections
import dataclasses
import pathlib
import random
import struct
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from tests.differential import run, wire  # noqa: E402
from tests.differential.difference import NAMES, items, lines_of  # noqa: E402
from tests.differential.generate_incremental import TOPICS, Market, Messages  # noqa: E402
from tests.differential.generate_snapshot import Connection, bad_frame, snapshot  # noqa: E402
from tests.differential.scenarios import Incremental  # noqa: E402
from tests.model.common import Log  # noqa: E402
from tests.model.frames import examine  # noqa: E402

CHUNK = 50


def snapshot_case(rng):
    """(the scenario, the same with rejected frames, which items of a trace count)"""
    plain = dataclasses.replace(snapshot(rng), mask=0, on_worker=0)
    plain.frames = [frame for frame in plain.frames if not isinstance(frame, int)]
    connection = Connection(rng, rng.choice((40000, 40001)))
    config = plain.channel().config
    frames = list(plain.frames)
    for _ in range(rng.randrange(1, 12)):
        frame = bad_frame(rng, connection)
        if examine(frame, config, Log(0)) is None:
            frames.insert(rng.randrange(len(frames) + 1), frame)
    return plain, dataclasses.replace(plain, frames=frames), "rklnmsw"


def incremental_case(rng):
    options = rng.randrange(2)
    market = Market(rng, rng.randrange(1, 5), TOPICS, options, False)
    messages = Messages(rng, market, False)
    plain, more = [], []
    for _ in range(rng.randrange(5, 40)):
        buffer = messages.next() or b"\0"
        plain.append(("U", buffer))
        more.append(("U", buffer))
        for _ in range(rng.choice((0, 0, 1, 2))):
            more.append(_rejected(rng, market, buffer))
    make = lambda operations: Incremental(0, TOPICS, options, market.slots, operations)
    return make(plain), make(more), "r"


def _rejected(rng, market, last):
    change_no = rng.randrange(2000)
    fields = wire.price_change(rng.randrange(2), rng.randrange(1, 6), rng.randrange(9), 5, 1)
    what = rng.randrange(6)
    if what == 0:
        return "u", struct.pack("<q", rng.choice((1, 23, 2049, -1, -256, -257, 5000)))
    if what == 1:
        return "U", rng.randbytes(rng.choice((1, 2, 12, 23, 2049)))
    if what == 2:
        return "U", wire.decode_buffer(1000, rng.choice((16384, 20479, 2**32 - 1)), change_no, fields)
    if what == 3:
        return "U", wire.decode_buffer(5000, rng.choice((4096, 16383, 2**31)), change_no, fields)
    if what == 4 and len(last) >= 24 and struct.unpack_from("<H", last, 12)[0] == 3:
        return "U", last  # the other line
    taken = {place[2] for place in market.places}
    number = next(n for n in iter(lambda: rng.randrange(16384), None) if n not in taken)
    return "U", wire.decode_buffer(1101, number, change_no, fields)


def outcome(trace, tags):
    """The items that count, and of operations those that end in a callback."""
    found = []
    for tag, data in items(trace):
        if tag in tags:
            found.append((tag, data))
        elif tag == "o" and struct.unpack_from("<i", data)[0] == 1:
            slot, = struct.unpack_from("<I", data, 4)
            found.append(("b", struct.pack("<I", slot) + data[-336:]))
    return found


def make_case(seed, number):
    rng = random.Random(f"non-interference {seed}:{number}")
    return (snapshot_case if rng.random() < 0.5 else incremental_case)(rng)


def compare(driver, seed, number, counts):
    plain, more, tags = make_case(seed, number)
    expected = outcome(driver.run(plain.encode()), tags)
    actual = outcome(driver.run(more.encode()), tags)
    counts["cases"] += 1
    counts[f"{plain.kind} cases"] += 1
    items_of = lambda scenario: len(getattr(scenario, "frames", None) or scenario.operations)
    counts["frames put in"] += items_of(more) - items_of(plain)
    if expected == actual:
        return None
    text = [f"case {number} of seed {seed} ({plain.kind}): rejected frames change the outcome"]
    for one, other in zip(expected, actual):
        if one != other:
            text += [f"  without: {NAMES[one[0]]}"] + ["    " + line for line in lines_of(*one)]
            text += [f"  with:    {NAMES[other[0]]}"] + ["    " + line for line in lines_of(*other)]
            break
    return "\n".join(text)


def _run_chunk(task):
    seed, first, count = task
    counts = collections.Counter()
    for number in range(first, first + count):
        try:
            difference = compare(run._state["driver"], seed, number, counts)
        except run.DriverFailed as error:
            return counts, f"case {number} of seed {seed}: {error}"
        if difference:
            return counts, difference
    return counts, None


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("cases", type=int, nargs="?", default=2000)
    parser.add_argument("--driver", default=str(ROOT / "build/bin/differential_driver"))
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--first", type=int, default=0, help="number of the first case")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--progress", action="store_true")
    arguments = parser.parse_args()
    if arguments.cases < 1 or arguments.jobs < 1 or arguments.first < 0:
        parser.error("cases and --jobs are at least 1, --first at least 0")
    if not pathlib.Path(arguments.driver).is_file():
        parser.error(f"{arguments.driver} is not there; build the target differential_driver")

    began = time.monotonic()
    end = arguments.first + arguments.cases
    tasks = [(arguments.seed, first, min(CHUNK, end - first))
             for first in range(arguments.first, end, CHUNK)]
    total, equal = run.run_all(arguments, tasks, _run_chunk, "cases")
    return run.summary(arguments, total, equal, began)


if __name__ == "__main__":
    sys.exit(main())
