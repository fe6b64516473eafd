"""The files of `vorn convert` as numpy sees them. docs/research.md has the columns."""

import numpy as np

from vorn import _layout as layout

EVENT = 1  # bits of the column "flags"
REPLAY = 2
FROM_CSV = 4

EVENTS = ("none", "phase", "gap", "restart", "round", "overflow", "lost", "skip")

EXCHANGE_ZONE_H = 8  # the exchanges are at UTC+8 all year

row = np.dtype(
    [("receive_time_ns", "<u8"), ("sequence", "<u8"), ("flags", "<u2"), ("event", "<u2"),
     ("slot", "<u4"), ("phase", "<u2"), ("previous_phase", "<u2"), ("expected", "<u4"),
     ("received", "<u4"), ("feed", "<u4"), ("count", "<u8")] +
    [(name, layout.instrument[name]) for name in layout.instrument.names])


class FileError(Exception):
    """What cannot be loaded, and why, in one line."""


def load(path, mmap=False):
    """The rows of an .npy file of `vorn convert`: a structured array, a row an update or an event.

        rows = vorn.load("session.npy")
        cu = vorn.updates(rows, "cu2603")
        mid = (cu["bid_px"][:, 0] + cu["ask_px"][:, 0]) / 2
        when = vorn.exchange_time(cu)

    With mmap=True the file is mapped instead of read: only what is looked at comes into memory. A
    .part file that a running or killed `vorn convert` has left loads as well, with the rows that
    were written until then. Raises FileError for a file that is none of these.
    """
    try:
        with open(path, "rb") as file:
            if file.read(6) != b"\x93NUMPY":
                raise FileError(f"{path} is no .npy file; `vorn convert` makes one of a capture, a "
                                "recording or a bus")
        rows = np.load(path, mmap_mode="r" if mmap else None, allow_pickle=False)
    except OSError as error:
        raise FileError(f"cannot read {path}: {error.strerror or error}") from None
    except ValueError as error:
        raise FileError(f"{path} is damaged: {error}") from None
    if rows.dtype != row:
        raise FileError(f"{path} has other columns than the files of `vorn convert`")
    return rows


def updates(rows, inst_id=None):
    """The rows that are updates; with `inst_id` ("cu2603") those of one instrument."""
    chosen = rows["event"] == 0
    if inst_id is not None:
        chosen &= rows["inst_id"] == inst_id.encode("ascii")
    return rows[chosen]


def events(rows, kind=None):
    """The rows that are events; with `kind` those of one: phase, gap, restart, round, overflow,
    lost or skip."""
    if kind is None:
        return rows[rows["event"] != 0]
    return rows[rows["event"] == EVENTS.index(kind)]


def exchange_time(rows):
    """When rows (or nanoseconds since 1970) were, as datetime64[ns] in the exchanges' time."""
    if getattr(rows, "dtype", None) is not None and rows.dtype.names:
        rows = rows["receive_time_ns"]
    time_ns = np.asarray(rows).astype("datetime64[ns]")
    return time_ns + np.timedelta64(EXCHANGE_ZONE_H, "h")
