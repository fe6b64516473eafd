"""The Python package against a writer in a process of its own, and the documented layout against the
header's. BUS_STAGE is the program of stage.cpp, BUS_DOC docs/bus.md."""

import contextlib
import io
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import numpy as np

import vorn
from vorn import _layout

STAGE = os.environ["BUS_STAGE"]
DOC = os.environ["BUS_DOC"]
_names = 0


def becomes_true(condition):
    until = time.monotonic() + 60
    while not condition():
        if time.monotonic() > until:
            return False
        time.sleep(0.002)
    return True


class Written:
    """A bus with a writer."""

    def __init__(self, ring=1024):
        global _names
        _names += 1
        self.name = f"test.{os.getpid()}.py{_names}"
        self.ring = ring
        self.start()

    def start(self):
        self.writer = subprocess.Popen([STAGE, "write", self.name, str(self.ring)],
                                       stdout=subprocess.DEVNULL)

    def open(self):
        bus = None

        def there():
            nonlocal bus
            try:
                bus = vorn.open(self.name)
            except vorn.BusError:
                return False
            return bus.writer_state != "replaced" and bus.ring_head > 5000

        assert becomes_true(there)
        return bus

    def end(self, number=signal.SIGTERM):
        self.writer.send_signal(number)
        self.writer.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.writer.kill()
        self.writer.wait()
        for path in (_path(self.name), _path(self.name) + ".lock"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)


def _path(name):
    return f"/dev/shm/vorn.{name}.bus"


class TableTest(unittest.TestCase):
    def test_has_a_row_for_every_instrument_in_use(self):
        with Written() as written:
            bus = written.open()
            written.end()
            rows = bus.table()
            self.assertGreaterEqual(len(rows), 4990)
            self.assertEqual(rows["inst_id"].dtype, np.dtype("S16"))
            self.assertEqual(rows["bid_px"].shape, (len(rows), 10))
            self.assertTrue((np.diff(rows["slot"].astype(int)) > 0).all())
            self.assertTrue((rows["ring_number"] % np.uint64(20480) == rows["slot"]).all())

    def test_cannot_be_written_through(self):
        with Written() as written:
            bus = written.open()
            with self.assertRaises(ValueError):
                bus._table["sequence"][0] = 1


class FollowTest(unittest.TestCase):
    def test_ends_with_the_last_record_when_the_bus_closes(self):
        with Written() as written:
            bus = written.open()
            first = last = taken = lost = 0
            for batch in bus.follow(limit=300):
                self.assertLessEqual(len(batch), 300)
                if first != 0:
                    lost += batch.lost  # in front of the batch's records
                elif len(batch) > 0:
                    first = int(batch.records["number"][0])
                    written.writer.terminate()
                if len(batch) > 0:
                    taken += len(batch)
                    last = int(batch.records["number"][-1])
            self.assertEqual(taken + lost, last - first + 1)
            self.assertEqual(last, bus.ring_head)

    def test_tells_updates_and_events_apart(self):
        with Written(65536) as written:
            bus = written.open()
            self.assertTrue(becomes_true(lambda: bus.ring_head > 40000))
            written.end()
            cursor = bus.cursor(oldest=True)
            batch = cursor.read(5000)
            self.assertEqual(len(batch), 5000)
            self.assertEqual(batch.lost, 0)
            self.assertEqual(len(batch.events), 5)
            self.assertEqual(len(batch.updates), 4995)
            event = batch.events[0]
            self.assertEqual(event.type, "restart")
            self.assertEqual(event.count, event.number)
            self.assertEqual(event.number % 1000, 0)

    def test_says_when_nothing_came(self):
        with Written() as written:
            bus = written.open()
            written.writer.send_signal(signal.SIGSTOP)
            batches = bus.follow(idle_s=0.01)

            def nothing_came():
                batch = next(batches)
                return len(batch) == 0 and batch.lost == 0

            self.assertTrue(becomes_true(nothing_came))


class WriterTest(unittest.TestCase):
    def test_is_seen_to_stop_to_die_and_to_be_replaced(self):
        with Written() as written:
            bus = written.open()
            self.assertTrue(becomes_true(lambda: bus.alive))
            written.writer.send_signal(signal.SIGSTOP)
            self.assertTrue(becomes_true(lambda: bus.writer_state == "stalled"))
            written.writer.send_signal(signal.SIGCONT)
            self.assertTrue(becomes_true(lambda: bus.writer_state == "alive"))
            written.writer.kill()
            self.assertTrue(becomes_true(lambda: bus.writer_state == "dead"))
            written.writer.wait()
            self.assertEqual(list(bus.follow()), [])
            written.start()
            self.assertTrue(becomes_true(lambda: bus.writer_state == "replaced"))
            again = written.open()
            self.assertEqual(again.generation, bus.generation + 1)
            written.end()
            self.assertEqual(again.writer_state, "closed")
            self.assertFalse(again.alive)

    def test_beats_with_the_counters(self):
        with Written() as written:
            bus = written.open()
            self.assertTrue(becomes_true(lambda: bus.counters is not None))
            counters = bus.counters
            self.assertEqual(counters["phase"], "stopped")
            self.assertGreater(counters["frames"], 0)
            self.assertEqual(counters["frames"], counters["updates"])
            self.assertEqual(counters["last_gap"]["time_ns"], counters["frames"])
            self.assertEqual(set(counters["time_in_phase_ns"]), set(_layout.PHASES))
            moment = bus.to_realtime_ns(time.monotonic_ns())
            self.assertLess(abs(moment - time.time_ns()), 10_000_000_000)
            times = bus.to_realtime_ns(np.array([0, 5], np.uint64))
            self.assertEqual(int(times[1] - times[0]), 5)


class RefusalTest(unittest.TestCase):
    def refusal(self, path):
        with self.assertRaises(vorn.BusError) as caught:
            vorn.open(path)
        return str(caught.exception)

    def test_says_why(self):
        self.assertIn("there is no bus /dev/shm/vorn.no-such.bus", self.refusal("no-such"))
        self.assertIn("is not a name for a bus", self.refusal("a b"))
        self.assertIn("not a regular file", self.refusal("/dev/null"))

    def test_of_a_header_that_lies(self):
        with Written() as written, tempfile.TemporaryDirectory() as directory:
            written.open()
            written.end()
            path = os.path.join(directory, "bus")
            shutil.copyfile(_path(written.name), path)
            vorn.open(path).table()
            with io.open(path, "r+b") as file:
                for name, value, reason in (
                        ("magic", 0, "begins otherwise"),
                        ("version", 9, "layout version 9"),
                        ("record_size", 8, "records of 8 bytes"),
                        ("file_size", 1, "its header says 1"),
                        ("table_slots", 1, "1 slots"),
                        ("ring_records", 3, "ring of 3 records"),
                        ("ring_records", 1 << 63, "ring records reach beyond"),
                        ("ring_offset", (1 << 64) - 64, "ring records reach beyond"),
                        ("table_offset", 8193, "slots reach beyond"),
                        ("slot_size", 0, "size of slots: 0")):
                    dtype, offset = _layout.header.fields[name][:2]
                    file.seek(offset)
                    before = file.read(dtype.itemsize)
                    file.seek(offset)
                    file.write(value.to_bytes(dtype.itemsize, "little"))
                    file.flush()
                    self.assertIn(reason, self.refusal(path))
                    file.seek(offset)
                    file.write(before)
                # Nothing that changes while the bus lives is believed either.
                for head in (0, 1 << 63, (1 << 64) - 1):
                    file.seek(256)
                    file.write(head.to_bytes(8, "little"))
                    file.flush()
                    cursor = vorn.open(path).cursor(oldest=True)
                    for _ in range(3):
                        cursor.read()


class LayoutTest(unittest.TestCase):
    """The layout is written down three times; the header's is the one that counts."""

    def setUp(self):
        text = subprocess.run([STAGE, "layout"], capture_output=True, text=True, check=True).stdout
        self.header = {}
        for line in text.splitlines():
            record, name, offset, size = line.split()
            self.header.setdefault(record, {})[name] = (int(offset), int(size))

    def test_of_the_package_is_the_headers(self):
        records = {"Header": _layout.header, "Counters": _layout.counters_block,
                   "Slot": _layout.slot, "RingRecord": _layout.ring_record}
        for record, dtype in records.items():
            fields = {name: (dtype.fields[name][1], dtype.fields[name][0].itemsize)
                      for name in dtype.names}
            self.assertEqual(fields, self.header[record], record)

    def test_of_the_document_is_the_headers(self):
        found = {}
        record = None
        with io.open(DOC, encoding="utf-8") as file:
            for line in file:
                heading = re.match(r"\| (\w+) \| offset \| bytes \|", line)
                row = re.match(r"\| `(\w+)` \| (\d+) \| (\d+) \|", line)
                if heading:
                    record = heading.group(1)
                elif row:
                    found.setdefault(record, {})[row.group(1)] = (int(row.group(2)),
                                                                  int(row.group(3)))
        self.assertEqual(found, self.header)


class DocumentTest(unittest.TestCase):
    def test_example_runs(self):
        with io.open(DOC, encoding="utf-8") as file:
            example = re.search(r"```python\n(.*?)```", file.read(), re.S).group(1)
        with Written() as written:
            written.open()
            written.writer.send_signal(signal.SIGSTOP)  # so that the example comes to its end
            run = subprocess.run(
                [sys.executable, "-c", example.replace('"live"', repr(written.name))],
                capture_output=True, timeout=120, check=False)
            self.assertEqual(run.returncode, 0, run.stderr)


if __name__ == "__main__":
    unittest.main()
