"""Scenarios: what the driver is told, and what the model makes of the same.

Each kind encodes itself for the driver (exchange_format.h) and writes the trace that the model
expects, item for item.
"""

import collections
import struct
from dataclasses import dataclass

from tests.model import feed as feed_model
from tests.model.cache import Cache
from tests.model.common import OK, Log
from tests.model.config import ConfigData, ConfigParse
from tests.model.device import Device, Registers
from tests.model.mirp import MirpDecoder
from tests.model.records import Instrument, Table
from tests.model.sessions import SnapshotChannel

FILE = "scenario.ini"
# What the card may refuse, and the text of its last error then.
REFUSALS = {1: ("handle", -1, "no such card"), 2: ("registers", -1, "no devkit image"),
            3: ("rx", 1, "no such port"), 4: ("rx", 0, "no such port")}
_STORE = struct.Struct("<II")


def sized(data):
    return struct.pack("<I", len(data)) + data


def listed(items):
    return struct.pack("<I", len(items)) + b"".join(sized(item) for item in items)


class Trace:
    def __init__(self):
        self.parts = []

    def item(self, tag, data=b""):
        self.parts.append(tag.encode() + struct.pack("<I", len(data)) + data)

    def bytes(self):
        return b"".join(self.parts)


def packed_stores(stores):
    return struct.pack("<I", len(stores)) + b"".join(_STORE.pack(*store) for store in stores)


def trace_table(trace, table, with_calc=True):
    trace.item("n", struct.pack("<iiii", *table.counters()))
    for slot, data in table.used():
        trace.item("r", struct.pack("<I", slot) + data)
    if with_calc:
        for slot in sorted(table.calc):
            data = struct.pack("<ddi", *table.calc[slot])
            if data != bytes(20):
                trace.item("k", struct.pack("<I", slot) + data)


def trace_log(trace, log):
    for thread in "CDW":
        for line in log.lines:
            if line[0] == thread:
                trace.item("g", line.encode("latin-1"))


@dataclass
class Incremental:
    """Decode buffers against a table that is there already."""

    mask: int
    topics: tuple
    options: int
    slots: list       # (slot, record bytes, tick, codec price, multiple)
    operations: list  # (letter, bytes)
    kind = "incremental"

    def encode(self):
        head = b"I" + struct.pack("<i4hbI", self.mask, *self.topics, self.options, len(self.slots))
        slots = b"".join(struct.pack("<I", slot) + record + struct.pack("<ddi", *scale)
                         for slot, record, *scale in self.slots)
        operations = b"".join(letter.encode() + sized(data) for letter, data in self.operations)
        return head + slots + struct.pack("<I", len(self.operations)) + operations

    def model(self, counts):
        config = ConfigData()
        (config.shfe2ps_topic_id, config.shfe4ps_topic_id, config.ine2ps_topic_id,
         config.ine4ps_topic_id) = self.topics
        config.options = self.options
        log, table, registers, trace = Log(self.mask), Table(), Registers(), Trace()
        for slot, record, *scale in self.slots:
            table.records[slot] = Instrument(record)
            table.calc[slot] = tuple(scale)
        mirp = MirpDecoder(config, table, registers, log)
        cache = Cache(mirp, log)
        for letter, data in self.operations:
            result = self._apply(letter, data, mirp, cache)
            trace.item("o", struct.pack("<iIiii", result, mirp.slot, cache.put, cache.consume,
                                        cache.count) + packed_stores(registers.stores)
                       + table.record(mirp.slot).pack())
            registers.stores.clear()
            if letter in "MUP":
                counts["decode buffers"] += 1
                counts[f"decode result {result}"] += 1
        trace_table(trace, table)
        trace_log(trace, log)
        return trace.bytes()

    @staticmethod
    def _apply(letter, data, mirp, cache):
        if letter == "M":
            return mirp.parse(data)
        if letter == "U":
            return mirp.receive(*polled(data))
        if letter == "u":
            return mirp.receive(struct.unpack("<q", data)[0], b"")
        if letter == "C":
            cache.receive(*polled(data))
        elif letter == "c":
            cache.receive(struct.unpack("<q", data)[0], b"")
        elif letter == "P":
            return cache.process()
        elif letter == "K":
            cache.clear()
        elif letter == "O":
            cache.put, cache.consume, cache.count = struct.unpack("<iii", data)
        elif letter == "W":
            cache.write(struct.unpack_from("<I", data)[0], data[4:])
        return 0


def polled(frame):
    """What the card's library answers for a frame: its size, or that it is larger than 2048."""
    return (len(frame), frame) if len(frame) <= 2048 else (-257, b"")


@dataclass
class Snapshot:
    """Frames against the sessions of the snapshot channel."""

    mask: int
    topics: tuple
    ports: tuple
    recvall: int
    options: int
    shield: int
    recovery: int
    enabled: int
    on_worker: int
    listen: list  # text
    frames: list  # bytes, or an int: a status of the poll (on the worker only)
    kind = "snapshot"

    def encode(self):
        head = b"S" + struct.pack("<i4hHHbbBBBB", self.mask, *self.topics, *self.ports, self.recvall,
                                  self.options, self.shield, self.recovery, self.enabled,
                                  self.on_worker)
        listen = listed([text.encode("latin-1") for text in self.listen])
        frames = b"".join(
            b"\0" + sized(struct.pack("<q", frame)) if isinstance(frame, int)
            else b"\1" + sized(frame) for frame in self.frames)
        return head + listen + struct.pack("<I", len(self.frames)) + frames

    def channel(self):
        config = ConfigData()
        (config.shfe2ps_topic_id, config.shfe4ps_topic_id, config.ine2ps_topic_id,
         config.ine4ps_topic_id) = self.topics
        config.md2ps_snap_port, config.md4ps_snap_port = self.ports
        config.recvall, config.options = self.recvall, self.options
        config.shield_price_check = bool(self.shield)
        config.recovery = bool(self.recovery)
        config.listen_insts = self.listen
        return SnapshotChannel(config, Table(), Registers(), Log(self.mask), self.enabled)

    def model(self, counts):
        trace = Trace()
        channel = self.channel()
        decoder = feed_model.SnapshotDecoder(channel, channel.log)
        for frame in self.frames:
            if self.on_worker:
                self._on_worker(decoder, frame)
                continue
            channel.task(frame)
            trace.item("f", struct.pack("<B", channel.finished)
                       + struct.pack("<iiii", *channel.table.counters()))
        trace.item("w", packed_stores(channel.registers.stores))
        self._trace_channel(trace, channel)
        trace_table(trace, channel.table)
        trace_log(trace, channel.log)
        counts["frames"] += len(self.frames)
        counts["MDQP messages"] += channel.decoder.messages
        counts["session sequences"] += 1
        counts["snapshots cleaned"] += channel.cleanups
        counts["snapshots finished"] += channel.finished == self.enabled
        return trace.bytes()

    @staticmethod
    def _on_worker(decoder, frame):
        result, data = (frame, b"") if isinstance(frame, int) else polled(frame)
        lines = decoder.log.lines
        before = len(lines)
        decoder.receive(result, data)
        # Here the poll is made by the caller.
        lines[before:] = ["C" + line[1:] if line[0] == "D" else line for line in lines[before:]]

    @staticmethod
    def _trace_channel(trace, channel):
        decoder = channel.decoder
        trace.item("m", bytes((decoder.finished, decoder.shfe_80, decoder.ine_80,
                               decoder.shfe_limit, decoder.ine_limit)))
        for slot in sorted(decoder.limits):
            data = struct.pack("<dd", *decoder.limits[slot])
            if data != bytes(16):
                trace.item("l", struct.pack("<I", slot) + data)
        for port in sorted(channel.sessions):
            s = channel.sessions[port]
            data = s.source + s.destination + struct.pack(
                "<HHIIIBBBBii", s.source_port, s.port, s.held_count, s.next_seq, s.start_seq,
                s.frag_flag, s.lost_flag, s.init, s.has_buffer, s.feed, len(s.joined))
            held = b"".join(sized(bytes(segment.frame)) for segment in s.held)
            trace.item("s", struct.pack("<I", port) + data + bytes(s.joined) + held)


@dataclass
class Config:
    """A configuration file and the bring-up that follows from it."""

    mask: int
    content: bytes  # None: no file
    bring_up: bool
    refused: int    # 0 nothing, 1 handle, 2 registers, 3 and 4 the buffer of port 1 and 0
    kind = "config"

    def encode(self):
        return b"C" + struct.pack("<iB", self.mask, self.content is not None) + sized(
            self.content or b"") + bytes((self.bring_up, self.refused))

    def model(self, counts):
        log, trace, registers, data = Log(self.mask), Trace(), Registers(), ConfigData()
        result = ConfigParse(data, log).init_config(FILE, self.content)
        trace.item("c", struct.pack("<i", result) + self._members(data))
        if result == OK and self.bring_up:
            device = Device(data, log, registers, REFUSALS.get(self.refused))
            device.enabled = 0xFF
            outcome = device.init_dev()
            trace.item("d", struct.pack("<iB", outcome, device.enabled))
            trace.item("w", packed_stores(registers.stores))
            device.release()
            for call in device.calls:
                trace.item("q", call.encode("latin-1"))
            counts["bring-ups"] += 1
        trace_log(trace, log)
        counts["configuration files"] += 1
        return trace.bytes()

    @staticmethod
    def _members(d):
        texts = (d.device, d.insts, d.shfe2ps_ip_a, d.shfe2ps_ip_b, d.shfe4ps_ip_a,
                 d.shfe4ps_ip_b, d.ine2ps_ip_a, d.ine2ps_ip_b, d.ine4ps_ip_a, d.ine4ps_ip_b)
        return b"".join(sized(text.encode("latin-1")) for text in texts) + listed(
            [text.encode("latin-1") for text in d.listen_insts]) + struct.pack(
            "<hhhhHHhhbbbBBBBBB", d.shfe2ps_topic_id, d.shfe4ps_topic_id, d.ine2ps_topic_id,
            d.ine4ps_topic_id, d.md2ps_snap_port, d.md4ps_snap_port, d.cpucore, d.timeout_cnt,
            d.recvall, d.options, d.split_all_field, d.shield_price_check, d.shfe2ps, d.shfe4ps,
            d.ine2ps, d.ine4ps, d.recovery)


COMPLETES, STOPPED, OUT_OF_TIME = 0, 1, 2


@dataclass
class Cycle:
    cached: list  # decode buffers, cached before the first raw frame
    frames: list  # raw frames
    after: list   # decode buffers; an empty one: a poll that finds nothing
    loading: int = COMPLETES


@dataclass
class Feed:
    """A whole run of the entry. The run flag drops when the last cycle's frames are handled."""

    content: bytes
    cycles: list
    refused: int = 0
    kind = "feed"

    def encode(self):
        return b"F" + struct.pack("<i", 31) + sized(self.content) + struct.pack(
            "<BI", self.refused, len(self.cycles)) + b"".join(
            listed(c.cached) + listed(c.frames) + listed(c.after) + bytes((c.loading,))
            for c in self.cycles)

    def model(self, counts):
        trace, log = Trace(), Log()
        card = ScriptedCard(self)
        run = feed_model.Feed(card, FILE, log, lambda slot, record: trace.item(
            "b", struct.pack("<I", slot) + record))
        run.device.failing = REFUSALS.get(self.refused)
        card.at_end = lambda: trace_table(trace, run.table, with_calc=False)
        result = run.run()
        trace.item("e", struct.pack("<i", result))
        trace_log(trace, log)
        trace.item("w", packed_stores(run.registers.stores))
        for call in run.device.calls:
            trace.item("q", call.encode("latin-1"))
        counts["whole runs"] += 1
        counts["cycles"] += card.cycle
        counts["callbacks"] += run.callbacks
        counts["MDQP messages"] += run.channel.decoder.messages
        return trace.bytes()


class ScriptedCard:
    """The card of a whole run, driven by the polls of the decode port as the driver's is."""

    def __init__(self, scenario):
        self.scenario = scenario
        self.running = True
        self.clock_runs = False
        self.at_end = None
        self.cycle = 0
        self._loading = False
        self._ports = (collections.deque(), collections.deque())
        self._now = 1000000
        self._polls = self._step = self._buffers = 0

    def configuration(self):
        return self.scenario.content

    def clock(self):
        return self._now

    @property
    def loading(self):
        return self._loading

    @loading.setter
    def loading(self, on):
        if on and not self._loading:
            self.cycle += 1
        self._loading = on
        self._polls = self._step = 0

    def poll_raw(self):
        if self.clock_runs:
            self._now += 121
        return self._answer(1)

    def poll_decode(self):
        self._polls += 1
        if self.cycle > len(self.scenario.cycles):  # a gap in the last cycle
            self.running = False
        elif self._loading:
            self._load(self.scenario.cycles[self.cycle - 1])
        else:
            self._replay(self.scenario.cycles[self.cycle - 1])
        return self._answer(0)

    def _answer(self, port):
        if not self._ports[port]:
            return 0, b""
        return polled(self._ports[port].popleft())

    def _load(self, cycle):
        if self._step == 0:
            # What a gap left unread on the port belongs to this cycle now.
            self._buffers = len(self._ports[0]) + len(cycle.cached) + len(cycle.after)
            self._ports[0].extend(cycle.cached)
            self._step = 1
        if self._step == 1 and not self._ports[0]:
            self._ports[1].extend(cycle.frames)
            self._step = 2
        if self._step == 2 and cycle.loading != COMPLETES and not self._ports[1]:
            if cycle.loading == STOPPED:
                self.running = False
            else:
                self.clock_runs = True

    def _replay(self, cycle):
        if self._step == 0:
            self._ports[1].clear()
            self._ports[0].extend(cycle.after)
            self._step = 1
        if self._polls > self._buffers:
            self.at_end()
            self.running = False
