"""Reads a running feed from its bus: the table, every update, and how the feed is.

    import vorn

    bus = vorn.open("live")
    table = bus.table()                      # a structured array, one row an instrument
    table[table["inst_id"] == b"cu2603"]["bid_px"]

    for batch in bus.follow():               # what came since the last one, for ever
        batch.updates["record"]["last_px"]   # a structured array, in order
        batch.events                         # phases, gaps, restarts among them
        batch.lost                           # records that this reader was too slow for

and what `vorn convert` writes of one, for research:

    rows = vorn.load("session.npy")          # a structured array, a row an update or an event

Nothing here can slow the feed: the file is mapped read-only, and the writer knows of no reader. It
needs numpy and a machine on which loads are not reordered (x86-64).
"""

import io
import mmap
import os
import platform
import re
import stat
import time

import numpy as np

from vorn import _layout as layout
from vorn._files import EVENTS, FileError, events, exchange_time, load, updates

__all__ = ["Batch", "Bus", "BusError", "EVENTS", "Event", "FileError", "events", "exchange_time",
           "load", "open", "updates"]

_WORD = 0xFFFFFFFFFFFFFFFF
_TRIES = 10000  # a slot that is still being written then has a writer that is stopped or dead


class BusError(Exception):
    """What cannot be opened, and why, in one line."""


def open(name="live"):  # noqa: A001 - as in gzip.open
    """The bus of this name, or of this path if there is a slash in it."""
    return Bus(name)


def _path_of(name):
    if "/" in name:
        return name
    if not re.fullmatch(r"[A-Za-z0-9_-][A-Za-z0-9_.-]{0,63}", name):
        raise BusError(f"'{name}' is not a name for a bus: at most 64 letters, digits, '_', '-' and '.'")
    return f"{layout.DIRECTORY}/vorn.{name}.bus"


class Event:
    """Something that happened to the feed. `type` is one of phase, gap, restart, round, overflow."""

    def __init__(self, number, record):
        self.number = number  # of the ring record
        self.type = layout.EVENT_TYPES.get(int(record["type"]), int(record["type"]))
        self.time_ns = int(record["time_ns"])
        self.phase = _named(layout.PHASES, record["phase"])
        self.previous_phase = _named(layout.PHASES, record["previous_phase"])
        self.count = int(record["count"])
        self.slot = int(record["slot"])
        self.expected = int(record["expected"])
        self.received = int(record["received"])
        self.feed = _named(layout.FEEDS, record["feed"])
        self.inst_id = record["inst_id"].decode("ascii", "replace")

    def __repr__(self):
        more = {
            "phase": f"{self.previous_phase} -> {self.phase}",
            "gap": f"{self.inst_id}: {self.expected} expected, {self.received} came",
            "round": f"{self.feed}, {self.count} instruments",
        }.get(self.type, str(self.count))
        return f"<{self.type} {more}>"


class Batch:
    """Consecutive ring records.

    records  structured array of all of them (number, receive_time_ns, slot, flags, record, event)
    lost     records that were overwritten before this batch was read
    """

    def __init__(self, records, lost):
        self.records = records
        self.lost = lost

    def __len__(self):
        return len(self.records)

    @property
    def updates(self):
        """The records that carry an instrument."""
        return self.records[(self.records["flags"] & layout.FLAG_EVENT) == 0]

    @property
    def events(self):
        """The records that carry an event, as Event."""
        chosen = self.records[(self.records["flags"] & layout.FLAG_EVENT) != 0]
        return [Event(int(record["number"]), record["event"]) for record in chosen]


class Cursor:
    """A place in the ring. `lost` and `laps` count what it was too slow for."""

    def __init__(self, bus, position):
        self._bus = bus
        self.position = position  # number of the last record taken or missed
        self.lost = 0
        self.laps = 0

    def read(self, limit=4096):
        """A Batch of at most `limit` records that have come; it may be empty."""
        ring = self._bus._ring
        size = len(ring)
        lost_before = self.lost
        head = self._bus.ring_head
        if head > self.position and head - self.position >= size:
            self._resume(head)
        count = max(0, min(limit, head - self.position))
        steps = np.arange(count, dtype=np.uint64)
        index = (steps + np.uint64(self.position)) & np.uint64(size - 1)
        expected = steps + np.uint64((self.position + 1) & _WORD)
        # The records were there before the copy, because the head was behind them. A number that has
        # not changed behind it says that none was being overwritten.
        records = ring[index]
        whole = (records["number"] == expected) & (ring["number"][index] == expected)
        # Records are overwritten oldest first: what was lost is the front.
        bad = np.flatnonzero(~whole)
        if len(bad) > 0:
            good = int(bad[-1]) + 1
            self.lost += good
            self.laps += 1
            records = records[good:]
        self.position += count
        return Batch(records, self.lost - lost_before)

    def _resume(self, head):
        position = head - len(self._bus._ring) // 2
        self.lost += position - self.position
        self.laps += 1
        self.position = position


class Bus:
    """One mapped file. All times are of the monotonic clock; see to_realtime_ns()."""

    def __init__(self, name="live"):
        if platform.machine() not in ("x86_64", "AMD64"):
            raise BusError(f"reading a bus from Python needs x86-64, this is {platform.machine()}")
        self.path = _path_of(name)
        try:
            file = os.open(self.path, os.O_RDONLY | os.O_CLOEXEC | os.O_NOFOLLOW | os.O_NONBLOCK)
        except FileNotFoundError:
            raise BusError(f"there is no bus {self.path}: start its writer (vorn publish)") from None
        except OSError as error:
            raise BusError(f"cannot open the bus {self.path}: {error.strerror}") from None
        try:
            self._map(file)
        finally:
            os.close(file)

    def _map(self, file):
        status = os.fstat(file)
        if not stat.S_ISREG(status.st_mode):
            self._refuse("it is not a regular file")
        if status.st_size < layout.HEADER_SIZE:
            self._refuse("it is too short")
        self._identity = (status.st_dev, status.st_ino)
        mapped = mmap.mmap(file, status.st_size, mmap.MAP_SHARED, mmap.PROT_READ)
        self._live = np.ndarray((), layout.header, mapped)
        kept = self._live.copy()
        self._check(kept, status.st_size)
        self._kept = kept

        def area(dtype, count, offset, step):
            return np.ndarray((count,), dtype, mapped, int(offset), (int(step),))

        self._counters = area(layout.counters_block, 1, kept["counters_offset"],
                              kept["counters_size"])
        self._table = area(layout.slot, layout.SLOTS, kept["table_offset"], kept["slot_size"])
        self._ring = area(layout.ring_record, int(kept["ring_records"]), kept["ring_offset"],
                          kept["ring_record_size"])

    def _refuse(self, why):
        raise BusError(f"{self.path} is not a bus that can be read: {why}")

    def _check(self, kept, size):
        if kept["magic"].tobytes() != layout.MAGIC:
            self._refuse("it begins otherwise")
        if kept["version"] != layout.VERSION:
            self._refuse(f"layout version {kept['version']}, this reader knows {layout.VERSION}: "
                         "use the reader that came with its writer")
        if kept["header_size"] != layout.HEADER_SIZE or kept["record_size"] != 336:
            self._refuse(f"header of {kept['header_size']} and records of {kept['record_size']} bytes")
        if kept["file_size"] != size:
            self._refuse(f"it has {size} bytes, its header says {kept['file_size']}")
        if kept["table_slots"] != layout.SLOTS:
            self._refuse(f"{kept['table_slots']} slots")
        ring = int(kept["ring_records"])
        if ring < 2 or ring & (ring - 1) != 0:
            self._refuse(f"ring of {ring} records")
        for what, offset, count, step, least in (
                ("counters", kept["counters_offset"], 1, kept["counters_size"],
                 layout.counters_block.itemsize),
                ("slots", kept["table_offset"], layout.SLOTS, kept["slot_size"],
                 layout.slot.itemsize),
                ("ring records", kept["ring_offset"], ring, kept["ring_record_size"],
                 layout.ring_record.itemsize)):
            offset, step = int(offset), int(step)
            if step < least or step % 64 != 0 or step > 1 << 20:
                self._refuse(f"size of {what}: {step}")
            if offset < layout.HEADER_SIZE or offset % 64 != 0 or offset + count * step > size:
                self._refuse(f"{what} reach beyond the file")

    # --- The table.

    def table(self):
        """The newest state of every instrument: a structured array with a row for each one in use.

        Columns are those of the record, and slot, receive_time_ns and ring_number. Every row is
        whole; two rows may be of two moments. Rows that stay half written because the writer died
        in the middle of one are left out.
        """
        live = self._table
        # The numbers before and behind each copy: in what order the copy itself goes is not said.
        before = live["sequence"].copy()
        copy = live.copy()
        pending = np.flatnonzero((before & np.uint64(1) != 0) | (live["sequence"] != before))
        for _ in range(_TRIES):
            if len(pending) == 0:
                break
            numbers = live["sequence"][pending]
            again = live[pending]
            whole = (numbers & np.uint64(1) == 0) & (live["sequence"][pending] == numbers)
            copy[pending[whole]] = again[whole]
            before[pending[whole]] = numbers[whole]
            pending = pending[~whole]
        before[pending] = 0
        used = np.flatnonzero((before != 0) & (copy["record"]["inst_id"] != b""))
        rows = np.zeros(len(used), _ROW)
        for name in layout.instrument.names:
            rows[name] = copy["record"][name][used]
        rows["slot"] = used
        rows["receive_time_ns"] = copy["receive_time_ns"][used]
        rows["ring_number"] = copy["ring_number"][used]
        return rows

    # --- The ring.

    @property
    def ring_head(self):
        """Records written so far: the number of the newest one."""
        return int(self._live["ring_head"])

    @property
    def ring_records(self):
        return len(self._ring)

    def cursor(self, oldest=False):
        """A place in the ring: in front of the next record, or of the older half of it."""
        head = self.ring_head
        return Cursor(self, max(0, head - len(self._ring) // 2) if oldest else head)

    def follow(self, oldest=False, poll_s=0.001, idle_s=None, limit=4096):
        """Yields batches for ever, until the writer is no longer there and all is read.

        With idle_s an empty batch comes after so many seconds without a record, so that the loop
        can do something else.
        """
        cursor = self.cursor(oldest)
        since = time.monotonic()
        while True:
            over = self.writer_state not in ("alive", "stalled")
            batch = cursor.read(limit)
            while len(batch) > 0 or batch.lost > 0:
                yield batch
                since = time.monotonic()
                batch = cursor.read(limit)
            if over:
                return
            if idle_s is not None and time.monotonic() - since >= idle_s:
                yield batch
                since = time.monotonic()
            time.sleep(poll_s)

    # --- How the feed and its writer are.

    def _counters_block(self):
        for _ in range(_TRIES):
            before = int(self._counters["sequence"][0])
            copy = self._counters[0].copy()
            if before != 0 and before % 2 == 0 and int(self._counters["sequence"][0]) == before:
                return copy
            if before == 0:
                return None
        return None

    @property
    def counters(self):
        """The feed's counters at the last heartbeat, as a dict; None before the first."""
        block = self._counters_block()
        if block is None:
            return None
        record = block["counters"]
        scalars = [name for name in layout.counters.names
                   if layout.counters[name].shape == () and layout.counters[name].names is None]
        result = {name: int(record[name]) for name in scalars}
        result["phase"] = _named(layout.PHASES, record["phase"])
        result["time_ns"] = int(block["time_ns"])
        result["time_in_phase_ns"] = _dict(layout.PHASES, record["time_in_phase_ns"])
        result["snapshot_fate"] = _dict(layout.FATES, record["snapshot_fate"])
        result["snapshot_rounds"] = _dict(layout.FEEDS, record["snapshot_rounds"])
        last_gap = record["last_gap"]
        result["last_gap"] = None if last_gap["time_ns"] == 0 else {
            "time_ns": int(last_gap["time_ns"]),
            "slot": int(last_gap["slot"]),
            "expected": int(last_gap["expected"]),
            "received": int(last_gap["received"]),
            "inst_id": last_gap["inst_id"].decode("ascii", "replace"),
        }
        return result

    @property
    def generation(self):
        return int(self._kept["generation"])

    @property
    def writer_pid(self):
        return int(self._kept["writer_pid"])

    @property
    def heartbeat_age_s(self):
        return max(0, time.monotonic_ns() - int(self._live["heartbeat_ns"])) / 1e9

    @property
    def writer_state(self):
        """alive, stalled (its heartbeat is late), dead, closed (it ended in order) or replaced."""
        state = int(self._live["state"])
        try:
            status = os.stat(self.path)
            moved = (status.st_dev, status.st_ino) != self._identity
        except OSError:
            moved = True
        if state == layout.STATE_REPLACED or moved:
            return "replaced"
        if state == layout.STATE_CLOSED:
            return "closed"
        late = self.heartbeat_age_s * 1e9 > 10.0 * int(self._kept["heartbeat_interval_ns"])
        try:
            here = os.stat("/proc/self/ns/pid").st_ino
        except OSError:
            here = 0
        if here != int(self._kept["writer_pid_namespace"]):
            return "dead" if late else "alive"
        if _process_is_gone(self.writer_pid, int(self._kept["writer_start_ticks"])):
            return "dead"
        return "stalled" if late else "alive"

    @property
    def alive(self):
        return self.writer_state == "alive"

    def to_realtime_ns(self, time_ns):
        """A time of the bus (or an array of them) as nanoseconds since the Unix epoch."""
        block = self._counters_block()
        if block is None:
            difference = int(self._kept["clock_realtime_ns"]) - int(self._kept["clock_monotonic_ns"])
        else:
            difference = int(block["realtime_ns"]) - int(block["time_ns"])
        return time_ns + np.uint64(difference) if isinstance(time_ns, np.ndarray) else (
            int(time_ns) + difference)


_ROW = np.dtype([(name, layout.instrument[name]) for name in layout.instrument.names] +
                [("slot", "<u4"), ("receive_time_ns", "<u8"), ("ring_number", "<u8")])


def _named(names, index):
    return names[int(index)] if int(index) < len(names) else str(int(index))


def _dict(names, values):
    return {name: int(value) for name, value in zip(names, values)}


def _process_is_gone(pid, start_ticks):
    if pid <= 0 or pid > 0x7FFFFFFF:
        return True
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return True
    except OSError:
        pass
    try:
        with io.open(f"/proc/{pid}/stat", "rb") as file:
            fields = file.read().rpartition(b")")[2].split()
        return int(fields[19]) != start_ticks or fields[0] in (b"Z", b"X")
    except (OSError, IndexError, ValueError):
        return False
