"""The instrument table and what is kept beside it, slot by slot."""

import struct

from .common import INE_FEEDS, LAST_SLOT, SHFE_FEEDS, SLOTS, c_text, i32

_RECORD = struct.Struct("<16sdIIHHIddiidddd10d10i10i10d")
RECORD_BYTES = 336
assert _RECORD.size == RECORD_BYTES
EMPTY_RECORD = bytes(RECORD_BYTES)


class Instrument:
    """One record. Volumes are kept as the unsigned or signed 32-bit values that the record has."""

    __slots__ = ("inst_id", "last_px", "volume", "update_time", "update_milli_sec", "type",
                 "change_no", "turnover", "open_interest", "bid_totvol", "ask_totvol",
                 "bid_totamount", "ask_totamount", "highest_price", "lowest_price", "bid_px",
                 "bid_vol", "ask_vol", "ask_px")

    def __init__(self, data=EMPTY_RECORD):
        self.load(data)

    def load(self, data):
        fields = _RECORD.unpack(data)
        (self.inst_id, self.last_px, self.volume, self.update_time, self.update_milli_sec,
         self.type, self.change_no, self.turnover, self.open_interest, self.bid_totvol,
         self.ask_totvol, self.bid_totamount, self.ask_totamount, self.highest_price,
         self.lowest_price) = fields[:15]
        self.bid_px = list(fields[15:25])
        self.bid_vol = list(fields[25:35])
        self.ask_vol = list(fields[35:45])
        self.ask_px = list(fields[45:55])

    def pack(self):
        return _RECORD.pack(
            self.inst_id, self.last_px, self.volume, self.update_time, self.update_milli_sec,
            self.type, self.change_no, self.turnover, self.open_interest, self.bid_totvol,
            self.ask_totvol, self.bid_totamount, self.ask_totamount, self.highest_price,
            self.lowest_price, *self.bid_px, *self.bid_vol, *self.ask_vol, *self.ask_px)

    @property
    def id_text(self):
        return c_text(self.inst_id)


class Table:
    """The shared table, the price scaling and the limit prices. A slot never touched is all zeros."""

    def __init__(self):
        self.clear()
        self.calc = {}  # slot -> (price tick, codec price, volume multiple)

    def clear(self):
        """The records and the counters; not the scaling."""
        self.records = {}
        self.shfe_inst_cnt = self.ine_inst_cnt = 0
        self.shfe_pktno = self.ine_pktno = 0

    def record(self, slot):
        found = self.records.get(slot)
        if found is None:
            found = self.records[slot] = Instrument()
        return found

    def scale(self, slot):
        return self.calc.get(slot, (0.0, 0.0, 0))

    def counters(self):
        return (self.shfe_inst_cnt, self.ine_inst_cnt, i32(self.shfe_pktno), i32(self.ine_pktno))

    def used(self):
        """(slot, bytes) of every record that is not all zeros, by slot."""
        packed = ((slot, self.records[slot].pack()) for slot in sorted(self.records))
        return [(slot, data) for slot, data in packed if data != EMPTY_RECORD]


def slot_of(feed, number):
    """The slot of an exchange's number, or None when the table has none for it."""
    if feed in SHFE_FEEDS:
        slot = number
    elif feed in INE_FEEDS:
        slot = LAST_SLOT - number
    else:
        return None
    return slot if 0 <= slot < SLOTS else None
