"""The MDQP decoder: dictionary, values and books of the snapshot."""

import struct

from .common import (DEBUG, DEBUG_EX, EPSILON, ERROR, FEED_BIT, INE_2PS, INE_4PS, INE_FEEDS,
                     INE_LAST_NUMBER, INFO, NO_VALUE, SHFE_2PS, SHFE_4PS, SHFE_FEEDS,
                     SHFE_LAST_NUMBER, U32, WARNING, c_text, lf)
from .device import INE_ADDR, INE_DATA, SHFE_ADDR, SHFE_DATA
from .records import slot_of

HEADER_BYTES = 8
_HEADER = struct.Struct("<BbHi")
_FIELD = struct.Struct("<HH")
_SILENT = (0x0031, 0x0032, 0x1001, 0x1002, 0x1003)
_PRICE_DETAIL = 0x0103
_FINISHED_NAME = {SHFE_2PS: "shfe2ps", SHFE_4PS: "shfe4ps", INE_2PS: "ine2ps", INE_4PS: "ine4ps"}
_ORIGIN = "ExanicTcpFunc _ParseMdqp"


def _value(price):
    return 0.0 if price == NO_VALUE else price


def _get(form, data, offset):
    return struct.unpack_from("<" + form, data, offset)[0]


class MdqpDecoder:
    """What a snapshot has brought so far, in table and limits, and which feeds are finished."""

    def __init__(self, config, table, registers, log):
        self.config = config
        self.table = table
        self.registers = registers
        self.log = log
        self.finished = 0
        self.limits = {}  # slot -> (upper, lower)
        # Each warning is given once; none after the first clean-up.
        self.shfe_80 = self.ine_80 = self.shfe_limit = self.ine_limit = True
        self.messages = 0

    def clean(self):
        self.table.clear()
        self.table.calc.clear()
        self.limits.clear()
        self.finished = 0
        self.shfe_80 = self.ine_80 = self.shfe_limit = self.ine_limit = False

    def parse(self, data, at, session):
        """One message at `at`. `data` (a bytearray) goes on behind it with whatever lies there."""
        self.messages += 1
        flag, type_id, length, request_id = _HEADER.unpack_from(data, at)
        feed = session.feed
        log = self.log
        if log.mask & DEBUG_EX:
            log.write(DEBUG_EX, _ORIGIN, f"MDQP flag: 0x{flag:x}, type_id: 0x{type_id & U32:x}, "
                      f"length: {length}, requset_id: {request_id}")
        previous = 0
        offset = HEADER_BYTES
        while length > 8 and offset < length:
            field_id, size = _FIELD.unpack_from(data, at + offset)
            if log.mask & DEBUG_EX:
                log.write(DEBUG_EX, _ORIGIN, f"field_id: 0x{field_id:x}, field_size: {size}")
            self._field(field_id, data, at + offset + 4, feed, previous)
            previous = field_id
            offset += 4 + size
        if flag == 1:
            if feed in FEED_BIT:
                table = self.table
                total = table.shfe_inst_cnt if feed in SHFE_FEEDS else table.ine_inst_cnt
                log.write(INFO, _ORIGIN, f"{_FINISHED_NAME[feed]} init finished, "
                          f"total instruments:{total}")
                self.finished |= FEED_BIT[feed]
            session.init = 0

    def _field(self, field_id, data, at, feed, previous):
        if field_id == 0x0101:
            self._inst_info(data, at, feed)
        elif field_id == 0x0102:
            self._deal_info(data, at, feed)
        elif field_id == _PRICE_DETAIL:
            self._price_detail(data, at, feed, previous != _PRICE_DETAIL)
        elif field_id == 0x0104:
            self._order_statis(data, at, feed)
        elif field_id == 0x1004:
            self._packet_no(data, at, feed)
        elif field_id not in _SILENT:
            self.log.write(ERROR, _ORIGIN, f"unknown fieldID: {field_id:02x}")

    # --- Which slot.

    def guard(self, feed, number):
        """Whether the number may be used for the feed; a negative one may."""
        if feed in SHFE_FEEDS:
            if number <= SHFE_LAST_NUMBER:
                return True
            if self.shfe_limit:
                self._limit_warning(number, SHFE_LAST_NUMBER)
                self.shfe_limit = False
        elif feed in INE_FEEDS:
            if number <= INE_LAST_NUMBER:
                return True
            if self.ine_limit:
                self._limit_warning(number, INE_LAST_NUMBER)
                self.ine_limit = False
        return False

    def _limit_warning(self, number, limit):
        self.log.write(WARNING, "ExanicTcpFunc _ProtectInstNo",
                       f"instrument No [{number}] exceed limit {limit}")

    def _slot(self, feed, number):
        return slot_of(feed, number) if self.guard(feed, number) else None

    def _subscribed(self, slot):
        record = self.table.records.get(slot)
        return record is not None and record.inst_id[0] & 0xDF != 0

    # --- The fields.

    def _inst_info(self, data, at, feed):
        inst_id = bytes(data[at:at + 31])
        text = c_text(inst_id)
        multiple = _get("i", data, at + 72)
        tick, codec = struct.unpack_from("<dd", data, at + 92)
        number = _get("i", data, at + 108)
        if self.log.mask & DEBUG_EX:
            self.log.write(DEBUG_EX, _ORIGIN, f"inst_id: {text}, inst_no: {number}, vol_multi: "
                           f"{multiple}, price_tick: {lf(tick)}, codec_price: {lf(codec)}")
        if self.config.options == 0 and inst_id[6] != 0:
            self.log.write(DEBUG_EX, _ORIGIN, f"do not subscribe options, instrumentID: {text}")
            return
        slot = self._slot(feed, number)
        if slot is None:
            return
        self._count(feed, number)
        if self._wanted(text):
            address, value = (SHFE_ADDR, SHFE_DATA) if feed in SHFE_FEEDS else (INE_ADDR, INE_DATA)
            self.registers[address] = number
            self.registers[value] = 1
            record = self.table.record(slot)
            kept = inst_id[:15].split(b"\0", 1)[0]
            record.inst_id = kept.ljust(15, b"\0") + record.inst_id[15:]
            self.log.write(DEBUG, _ORIGIN, f"instrument [{text}] subscribed, inst_no [{number}]")
        self.table.calc[slot] = (tick, _value(codec), multiple)

    def _count(self, feed, number):
        table = self.table
        if feed in SHFE_FEEDS:
            if number >= table.shfe_inst_cnt:
                table.shfe_inst_cnt = number + 1
                if table.shfe_inst_cnt > 12800 and self.shfe_80:
                    self.log.write(WARNING, _ORIGIN, f"shfe_inst_cnt is [{table.shfe_inst_cnt}] "
                                   "more than 80% max cnt[12800]")
                    self.shfe_80 = False
        elif number >= table.ine_inst_cnt:
            table.ine_inst_cnt = number + 1
            if table.ine_inst_cnt > 3200 and self.ine_80:
                self.log.write(WARNING, _ORIGIN, f"ine_inst_cnt is [{table.ine_inst_cnt}] "
                               "more than 80% max cnt[3200]")
                self.ine_80 = False

    def _wanted(self, text):
        if self.config.recvall:
            return True
        return any((len(entry) == 2 and entry == text[:2]) or entry == text[:6]
                   for entry in self.config.listen_insts)

    def _deal_info(self, data, at, feed):
        slot = self._slot(feed, _get("i", data, at))
        if slot is None or not self._subscribed(slot):
            return
        last, = struct.unpack_from("<d", data, at + 4)
        volume = _get("i", data, at + 12)
        turnover, interest, highest, lowest = struct.unpack_from("<dddd", data, at + 16)
        upper, lower = struct.unpack_from("<dd", data, at + 72)
        time_text = c_text(data[at + 137:at + 146])
        millisec, change_no = struct.unpack_from("<ii", data, at + 146)
        if self.log.mask & DEBUG_EX:
            self.log.write(DEBUG_EX, _ORIGIN, f"last_price: {lf(last)}, volume: {volume}, "
                           f"turnover: {lf(turnover)}, open_interest: {lf(interest)}, change_no: "
                           f"{change_no}, update_time: {time_text}, update_mill_sec: {millisec}")
        record = self.table.record(slot)
        record.last_px = _value(last)
        record.turnover = _value(turnover)
        record.change_no = change_no & U32
        record.update_milli_sec = millisec & 0xFFFF
        record.open_interest = interest
        record.volume = volume & U32
        record.highest_price = _value(highest)
        record.lowest_price = _value(lowest)
        self.limits[slot] = (_value(upper), _value(lower))

    def _price_detail(self, data, at, feed, first):
        slot = self._slot(feed, _get("i", data, at))
        if slot is None:
            return
        if not self._subscribed(slot):
            self.log.write(DEBUG_EX, _ORIGIN, f"skip unsubscribed inst, instNo : {slot}")
            return
        price = _get("d", data, at + 5)
        if price == NO_VALUE:
            price = 0.0
            data[at + 5:at + 13] = bytes(8)
        direction = data[at + 4]
        volume = _get("i", data, at + 13)
        record = self.table.record(slot)
        if first:
            record.bid_px[:5] = record.ask_px[:5] = [0.0] * 5
            record.bid_vol[:5] = record.ask_vol[:5] = [0] * 5
        if direction == ord("0"):
            prices, volumes = record.bid_px, record.bid_vol
            reached = lambda held: price + EPSILON >= held
        elif direction == ord("1"):
            prices, volumes = record.ask_px, record.ask_vol
            reached = lambda held: held >= price - EPSILON
        else:
            return
        for level in range(5):
            empty = abs(prices[level]) < EPSILON and volumes[level] < 1
            if empty or reached(prices[level]):
                break
        else:
            level = 5  # a sixth level lies behind the five that are reset
        prices[level] = price
        volumes[level] = volume

    def _order_statis(self, data, at, feed):
        slot = self._slot(feed, _get("i", data, at))
        if slot is None or not self._subscribed(slot):
            return
        record = self.table.record(slot)
        (record.bid_totvol, record.bid_totamount, record.ask_totvol,
         record.ask_totamount) = struct.unpack_from("<idid", data, at + 4)

    def _packet_no(self, data, at, feed):
        number = _get("i", data, at)
        if feed in SHFE_FEEDS:
            self.table.shfe_pktno = number
        else:
            self.table.ine_pktno = number
        self.log.write(DEBUG_EX, _ORIGIN, f"packet_no: {number}")
