"""Readers of a bus in Python, as the ones in stage.cpp.

  stage.py ring NAME    follows the ring until the bus closes
  stage.py table NAME   reads the whole table and the counters over and over
"""

import sys
import time

import numpy as np

import vorn

WORDS = 42  # of a record
EVENT_EVERY = 1000
SLOTS = 20480


def open_when_there(name):
    until = time.monotonic() + 60
    while True:
        try:
            return vorn.open(name)
        except vorn.BusError:
            if time.monotonic() > until:
                raise
            time.sleep(0.001)


def numbers_of(words):
    """The numbers of whole records, 0 for torn ones; `words` has a row of 42 for each."""
    factors = np.arange(WORDS - 1, dtype=np.uint64) * np.uint64(2) + np.uint64(1)
    expected = words[:, :1] * factors
    whole = (words[:, :-1] == expected).all(axis=1)
    whole &= np.bitwise_xor.reduce(expected, axis=1) == words[:, -1]
    return np.where(whole, words[:, 0] >> np.uint64(8), np.uint64(0))


def ring(bus):
    cursor = bus.cursor()
    first = cursor.position
    print("ready 1", flush=True)
    taken = torn = jumped = 0
    last = first
    over = False
    while not over:
        over = not bus.writer_state in ("alive", "stalled")
        while True:
            batch = cursor.read(512)
            if len(batch) == 0 and batch.lost == 0:
                break
            records = batch.records
            taken += len(records)
            if len(records) == 0:
                continue
            numbers = records["number"]
            words = records.view(np.uint64).reshape(len(records), -1)[:, 3:3 + WORDS]
            events = (records["flags"] & 1) != 0
            said = np.where(events, records["event"]["count"], numbers_of(words))
            slots = np.where(events, 0xFFFFFFFF, said % np.uint64(SLOTS))
            torn += int(((said != numbers) | (slots != records["slot"]) |
                         (events != (numbers % np.uint64(EVENT_EVERY) == 0))).sum())
            steps = np.diff(numbers.astype(np.int64), prepend=last)
            jumped += int((steps - 1).sum())
            last = int(numbers[-1])
    head = bus.ring_head
    print(f"first {first} taken {taken} lost {cursor.lost} laps {cursor.laps} torn {torn} head {head}")
    sums = taken + cursor.lost == head - first and jumped + head - last == cursor.lost
    return 0 if torn == 0 and sums else 3


def table(bus):
    print("ready 1", flush=True)
    taken = torn = beats = 0
    over = False
    while not over:
        over = not bus.writer_state in ("alive", "stalled")
        rows = bus.table()
        taken += len(rows)
        words = np.frombuffer(rows.tobytes(), np.uint8).reshape(len(rows), rows.itemsize)[:, :WORDS * 8]
        numbers = numbers_of(np.ascontiguousarray(words).view(np.uint64))
        torn += int(((numbers == 0) | (numbers % np.uint64(SLOTS) != rows["slot"]) |
                     (numbers != rows["ring_number"])).sum())
        counters = bus.counters
        if counters is not None:
            beats += 1
            alike = {counters[name] for name in ("frames", "updates", "stale", "snapshot_wipes")}
            torn += len(alike) - 1
    print(f"taken {taken} torn {torn} counters {beats}")
    return 0 if torn == 0 else 3


if __name__ == "__main__":
    sys.exit({"ring": ring, "table": table}[sys.argv[1]](open_when_there(sys.argv[2])))
