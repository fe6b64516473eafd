"""Scenarios of the incremental channel: orderly trading, and everything that it must survive."""

import struct

from tests.model.common import SLOTS, Log
from tests.model.config import ConfigData
from tests.model.device import Registers
from tests.model.mirp import MirpDecoder
from tests.model.records import EMPTY_RECORD, Instrument, Table

from . import wire
from .scenarios import Incremental

TOPICS = (1000, 1101, 5000, 5101)
INT32 = (-2**31, -2**31 + 1, -1, 0, 1, 2**31 - 1)
INT64 = (-2**63, -1, 0, 1, 2**53 + 1, 2**63 - 1)
UINT32 = (0, 1, 2, 2**31 - 1, 2**31, 2**32 - 2, 2**32 - 1)
_IDS = (b"cu2609", b"au2612", b"sc2601", b"rb2610", b"ni2611TAS", b"sc2601TAS", b"cu2609C75000",
        b"sp a-b", b"ag2609-ag2612", b"TAS", b"x", b"abcdefghijklmno", b"abcdefghijklmnop",
        b" lead", b"\xff\xfe")
_SCALES = ((10.0, 70000.0, 5), (0.02, 550.0, 1000), (0.1, 480.5, 1000), (1.0, 0.0, 1),
           (5.0, 3500.0, 10), (0.05, -12.3, 100), (0.0, 0.0, 0))
_WILD_SCALES = ((1e300, 1e308, 2**31 - 1), (-1.0, 1e-300, -2**31), (float("inf"), 0.0, 1),
                (5e-324, -0.0, 7), (0.1, 1.7976931348623157e308, -1))


def log_mask(rng):
    return rng.choice((31, 31, 15, 7, 7, 7, 7, 0, 1, 16, 8, 2))


class Market:
    """Instruments of a scenario, and the model's view of them, so that most messages fit."""

    def __init__(self, rng, count, topics, options, wild):
        self.rng = rng
        self.topics = topics
        self.config = ConfigData()
        (self.config.shfe2ps_topic_id, self.config.shfe4ps_topic_id, self.config.ine2ps_topic_id,
         self.config.ine4ps_topic_id) = topics
        self.config.options = options
        self.table = Table()
        self.decoder = MirpDecoder(self.config, self.table, Registers(), Log(0))
        self.slots = []
        self.places = []  # (topic, number, slot)
        for _ in range(count):
            self._add(wild)

    def _add(self, wild):
        rng = self.rng
        shfe = rng.random() < 0.6
        number = rng.choice((0, 1, 16383, rng.randrange(16384)) if shfe
                            else (0, 4095, rng.randrange(4096)))
        slot = number if shfe else SLOTS - 1 - number
        if any(place[2] == slot for place in self.places):
            return
        scale = rng.choice(_WILD_SCALES if wild and rng.random() < 0.3 else _SCALES)
        record = self._record(scale, wild)
        topic = self.topics[rng.choice((0, 1) if shfe else (2, 3))]
        self.places.append((topic, number, slot))
        self.slots.append((slot, record, *scale))
        self.table.records[slot] = Instrument(record)
        self.table.calc[slot] = scale

    def _record(self, scale, wild):
        rng = self.rng
        if rng.random() < 0.05:
            return EMPTY_RECORD
        record = Instrument()
        record.inst_id = rng.choice(_IDS[:4] if rng.random() < 0.6 else _IDS).ljust(16, b"\0")
        if rng.random() < 0.02:
            record.inst_id = b"\0" + record.inst_id[1:]
        record.change_no = rng.choice(UINT32) if rng.random() < 0.1 else rng.randrange(1000)
        record.volume = rng.randrange(100000)
        record.turnover = rng.random() * 1e9
        record.open_interest = float(rng.randrange(100000))
        record.bid_totvol, record.ask_totvol = rng.choice(INT32), rng.randrange(5000)
        tick, codec, _ = scale
        levels = rng.choice((0, 1, 3, 5, 5, 5, 6, 10))
        for i in range(levels):
            record.bid_px[i] = float(-1 - i) * tick + codec
            record.ask_px[i] = float(1 + i) * tick + codec
            record.bid_vol[i] = rng.randrange(1, 100)
            record.ask_vol[i] = rng.randrange(1, 100)
        if wild and rng.random() < 0.3:
            side = rng.randrange(10)
            record.bid_px[side] = rng.choice((0.0, 1e-5, 9.9e-6, -1e-5, codec, float("nan")))
            record.ask_vol[rng.randrange(10)] = rng.choice((0, -1, 1, -2**31))
        return record.pack()


class Messages:
    def __init__(self, rng, market, wild):
        self.rng = rng
        self.market = market
        self.wild = wild

    def next(self):
        """One decode buffer; the market's own decoder has seen it."""
        rng, market = self.rng, self.market
        topic, number, slot = rng.choice(market.places)
        record = market.table.record(slot)
        change_no = record.change_no + 1
        field_id = 3
        fields = b"".join(self._field(record) for _ in range(rng.choice((0, 1, 1, 1, 2, 3, 6))))
        odd = rng.random()
        if odd < 0.03:
            change_no = record.change_no - rng.choice((0, 0, 0, 1, 5))
        elif odd < 0.045:
            change_no = rng.choice((record.change_no + 2, record.change_no + 100, *UINT32))
        elif odd < 0.06:
            field_id = rng.choice((0, 2, 4, 0x1001, 0x8003, 0xFFFF))
        elif odd < 0.075:
            number = rng.choice((16383, 16384, 4095, 4096, 20479, *UINT32))
        elif odd < 0.085:
            topic = rng.choice((*market.topics, 0, 0xFFFF, 64536, 999))
        elif odd < 0.11:
            fields += rng.choice((b"\x01", b"\x01\x10", b"\x01\x10\0", b"\x02\x10" + bytes(29),
                                  b"\x11\x10" + bytes(5), b"\x34\x12" + bytes(30),
                                  b"\x19\x90" + bytes(14), rng.randbytes(rng.randrange(1, 60))))
        buffer = wire.decode_buffer(topic, number, change_no, fields, rng.choice(
            (93000, rng.randrange(2**32))), rng.randrange(65536), rng.choice(INT32), field_id)
        odd = rng.random()
        if odd < 0.01:
            buffer = buffer[:rng.choice((0, 1, 13, 23, 24, 25, 26, 27, len(buffer) - 1))]
        elif odd < 0.02 and buffer:
            at = rng.randrange(len(buffer))
            buffer = buffer[:at] + rng.randbytes(1) + buffer[at + 1:]
        elif odd < 0.022:
            buffer = buffer.ljust(rng.choice((2047, 2048)), b"\x11\x10"[:1])
        market.decoder.parse(buffer)
        return buffer

    def _field(self, record):
        rng = self.rng
        kind = rng.random()
        wild = self.wild and rng.random() < 0.3
        offset = rng.choice(INT32) if wild else rng.randrange(-20, 20)
        if kind < 0.7:
            return self._price_change(record, wild, offset)
        if kind < 0.8:
            return wire.deal_summary(offset, rng.choice(INT32) if wild else rng.randrange(50),
                                     rng.choice(INT64) if wild else rng.randrange(-9, 999),
                                     rng.choice(INT64) if wild else rng.randrange(-99, 99))
        if kind < 0.9:
            return wire.statics(rng.choice((0x1019, 0x101A)),
                                rng.choice(INT32) if wild else rng.randrange(-50, 50),
                                rng.choice(INT64) if wild else rng.randrange(-999, 999))
        return wire.high_low(rng.choice((0x1011, 0x1012)), offset)

    def _price_change(self, record, wild, offset):
        rng = self.rng
        entry, event, level = rng.randrange(2), rng.choice((1, 1, 2, 3)), rng.randrange(1, 6)
        if rng.random() < 0.15:
            level = rng.randrange(6, 11)
        if wild:
            entry = rng.choice((0, 1, 1, 2, 255))
            event = rng.choice((0, 1, 2, 3, 4, 255))
            level = rng.choice((0, 1, 5, 6, 10, 11, 255))
            volume = rng.choice(UINT32)
        else:
            volume = rng.randrange(1, 200)
            # Around the level's own place in an orderly book, so that about half of them fit.
            offset = -level - rng.randrange(2) if entry == 0 else level + rng.randrange(2)
            if rng.random() < 0.1:
                offset = rng.randrange(-12, 12)
            if rng.random() < 0.03:
                volume = 0
        return wire.price_change(entry, level, offset, volume, event)


def _topics(rng):
    if rng.random() < 0.85:
        return TOPICS
    return tuple(rng.choice((1000, 1101, 5000, -1, -1000, 0, 32767, -32768)) for _ in range(4))


def _cache_operations(rng, buffers):
    """Buffers go through the cache, with entries spoiled and offsets at the edge now and then."""
    capacity = 209715200
    operations = []
    filled = []
    if rng.random() < 0.2:
        at = rng.choice((capacity - 2056, capacity - 2055, capacity - 4000, capacity))
        operations.append(("O", struct.pack("<iii", at, 0, rng.choice((0, 3)))))
    for buffer in buffers:
        operations.append(("C", buffer))
        filled.append(buffer)
        if rng.random() < 0.05:
            operations.append(("c", struct.pack("<q", rng.choice((0, 1, 23, 2049, -1, -256, -257)))))
        if rng.random() < 0.4:
            operations.append(("P", b""))
    if rng.random() < 0.15:
        size = rng.choice((2**32 - 1, capacity, capacity - 8, capacity - 7, 0, 5, 2**31))
        if size not in (capacity, capacity - 8):
            operations.append(("W", struct.pack("<II", 0, size)))
        operations.append(("O", struct.pack("<iii", 0, 0, 2)))
    if rng.random() < 0.1:
        at = rng.choice((capacity - 8, capacity - 7, capacity, capacity - 9))
        operations.append(("O", struct.pack("<iii", 0, at, 1)))
    operations += [("P", b"")] * (len(buffers) // 2 + 2)
    if rng.random() < 0.05:
        operations.append(("K", b""))
    return operations


def incremental(rng):
    wild = rng.random() < 0.4
    topics = _topics(rng)
    options = int(rng.random() < 0.8)
    market = Market(rng, rng.randrange(1, 7), topics, options, wild)
    messages = Messages(rng, market, wild)
    mask = log_mask(rng)
    count = rng.randrange(20, 50 if mask & 16 else 160)
    buffers = [messages.next() for _ in range(count)]
    road = rng.random()
    if road < 0.5:
        operations = [("M", buffer) for buffer in buffers]
    elif road < 0.9:
        operations = []
        for buffer in buffers:
            operations.append(("U", buffer or b"\0"))
            if rng.random() < 0.02:
                operations.append(("u", struct.pack("<q", rng.choice(
                    (0, 1, 23, 2049, 5000, -1, -255, -256, -257, 2**32 - 1)))))
        if rng.random() < 0.05:
            operations.append(("U", rng.randbytes(rng.choice((23, 2049, 2048)))))
    else:
        operations = _cache_operations(rng, [buffer or b"\0" for buffer in buffers[:40]])
    return Incremental(mask, topics, options, market.slots, operations)
