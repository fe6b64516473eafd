"""The incremental decoder: one decode buffer onto one record."""

import struct

from .common import (DEBUG, DEBUG_EX, ERROR, FAILED, INE_LAST_NUMBER, LAST_SLOT, OK, RECEIVE_BYTES,
                     SHFE_LAST_NUMBER, TO_CALLBACK, U32, WARNING, i32, is_zero)
from .device import SNAP_TIME

HEADER_BYTES = 24
_HEADER = struct.Struct("<HHIiHII2x")
_DEPTH = 5
_LEVELS = 10
_ORIGIN = "ExanicUdpFunc _ParseMirp"
_SIZES = {0x1001: 16, 0x1002: 32, 0x1011: 8, 0x1012: 8, 0x1019: 16, 0x101A: 16}


class Side:
    """One side of a book while a message is applied. The depth starts at five with every message."""

    def __init__(self, prices, volumes):
        self.prices, self.volumes = prices, volumes
        self.depth = _DEPTH

    def empty(self, at):
        return is_zero(self.prices[at]) and self.volumes[at] < 1

    def _set(self, at, price, volume):
        if at < _LEVELS:
            self.prices[at], self.volumes[at] = price, volume

    def insert(self, at, price, volume):
        if not self.empty(at) and at + 1 <= self.depth:
            for to in range(self.depth, at, -1):
                self._set(to, self.prices[to - 1], self.volumes[to - 1])
        self._set(at, price, volume)
        if not (at + 1 == _DEPTH and self.empty(_DEPTH - 1)):
            self.depth = min(self.depth + 1, _LEVELS)

    def update(self, at, price, volume):
        self._set(at, price, volume)

    def delete(self, at):
        if at + 1 < self.depth:
            for to in range(at, self.depth - 1):
                self._set(to, self.prices[to + 1], self.volumes[to + 1])
        if self.depth != 0:
            self.depth -= 1
            self._set(self.depth, 0.0, 0)


class MirpDecoder:
    def __init__(self, config, table, registers, log):
        self.config = config
        self.table = table
        self.registers = registers
        self.log = log
        self.slot = 0  # of the record last addressed; the run loop reports it
        self.shfe_warning = self.ine_warning = True

    def receive(self, result, frame):
        """One poll of the decode port. result: what the card's library answered."""
        size = result & U32
        if size == 0:
            return OK
        if not HEADER_BYTES <= size <= RECEIVE_BYTES:
            self.log.write(DEBUG, "ExanicUdpFunc UdpRecv",
                           f"receive abnormal decode length: {size}")
            return OK
        self.log.write(DEBUG_EX, "ExanicUdpFunc UdpRecv", f"receive decode length: {size}")
        return self.parse(frame)

    def parse(self, data):
        log = self.log
        if len(data) < HEADER_BYTES:
            log.write(ERROR, _ORIGIN, f"packet length too small: {len(data)}")
            return FAILED
        topic, millisec, time, packet_no, field_id, number, change_no = _HEADER.unpack_from(data)
        if log.mask & DEBUG_EX:
            log.write(DEBUG_EX, _ORIGIN, f"topicID: 0x{topic:x}, snapMillisec: {millisec}, "
                      f"snapTime: {time}, packetNo: {packet_no & U32}")
            log.write(DEBUG_EX, _ORIGIN, f"fieldID: 0x{field_id:x}, instrumentNo: {number}, "
                      f"changeNo: {change_no}")
        exchange = self._exchange(topic)
        if exchange is None:
            log.write(ERROR, _ORIGIN, f"unsupported topicID: 0x{topic:x}")
            return FAILED
        if not self._route(exchange, number, packet_no):
            return OK

        slot = self.slot
        record = self.table.record(slot)
        if log.mask & DEBUG_EX:
            log.write(DEBUG_EX, _ORIGIN, f"snap instrumentID: {record.id_text}, "
                      f"changeNo: {i32(record.change_no)}")
        if not self._handled(record):
            return OK
        record.type = exchange
        self.registers[SNAP_TIME] = time
        if field_id != 3:
            return TO_CALLBACK

        expected = (record.change_no + 1) & U32
        if change_no != expected:
            if change_no <= record.change_no:
                return OK
            log.write(ERROR, _ORIGIN, f"discontinuous changeNo: {change_no}, expected changeNo: "
                      f"{i32(expected)}, instrumentID: {record.id_text}, instrumentNo: "
                      f"{i32(number)}, instrumentNo: {slot}")
            return FAILED
        saved = record.pack()
        record.update_time = time
        record.update_milli_sec = millisec
        record.change_no = change_no
        self._fields(data, record, self.table.scale(slot))
        if self._sane(record):
            return TO_CALLBACK
        record.load(saved)
        return OK

    def _exchange(self, topic):
        config = self.config
        if topic in (config.shfe2ps_topic_id, config.shfe4ps_topic_id):
            return 0
        if topic in (config.ine2ps_topic_id, config.ine4ps_topic_id):
            return 1
        return None

    def _route(self, exchange, number, packet_no):
        if exchange == 0:
            if number > SHFE_LAST_NUMBER:
                if self.shfe_warning:
                    self.log.write(WARNING, _ORIGIN, f"shfe InstNo [{i32(number)}] is out of range "
                                   f"[{SHFE_LAST_NUMBER}]")
                    self.shfe_warning = False
                return False
            self.slot = number
            self.table.shfe_pktno = packet_no
        else:
            if number > INE_LAST_NUMBER:
                if self.ine_warning:
                    self.log.write(WARNING, _ORIGIN, f"ine InstNo [{i32(number)}] is out of range "
                                   f"[{INE_LAST_NUMBER}]")
                    self.ine_warning = False
                return False
            self.slot = LAST_SLOT - number
            self.table.ine_pktno = packet_no
        return True

    def _handled(self, record):
        long_id = record.inst_id[6] != 0
        if record.inst_id[0] == 0:
            self.log.write(DEBUG_EX, _ORIGIN, "unsubscribed instrument")
            if long_id:
                self._no_options(record)
            return False
        if self.config.options == 0 and long_id:
            self._no_options(record)
            return False
        return True

    def _no_options(self, record):
        self.log.write(DEBUG_EX, _ORIGIN, f"do not handle options, instrumentID: {record.id_text}")

    def _fields(self, data, record, scale):
        log = self.log
        bid = Side(record.bid_px, record.bid_vol)
        ask = Side(record.ask_px, record.ask_vol)
        tick, codec, multiple = scale

        def price(offset):
            return float(offset) * tick + codec

        def amount(volume, offset):
            return (float(volume) * codec + float(offset) * tick) * float(multiple)

        at = HEADER_BYTES
        while len(data) - at >= 3:
            field_id, = struct.unpack_from("<H", data, at)
            log.write(DEBUG_EX, _ORIGIN, f"fieldID: 0x{field_id:x}")
            size = _SIZES.get(field_id)
            if size is None or len(data) - at < size:
                log.write(ERROR, _ORIGIN, f"abnormal process fieldID: 0x{field_id:x} "
                          f"length: {len(data) - at}")
                return
            if field_id == 0x1002:
                last, volume, turnover, interest = struct.unpack_from("<iiqq", data, at + 2)
                record.last_px = price(last)
                record.volume = (record.volume + volume) & U32
                record.open_interest += float(interest)
                record.turnover += amount(volume, turnover)
            elif field_id == 0x1019:
                volume, offset = struct.unpack_from("<iq", data, at + 2)
                record.bid_totvol = i32(record.bid_totvol + volume)
                record.bid_totamount += amount(volume, offset)
            elif field_id == 0x101A:
                volume, offset = struct.unpack_from("<iq", data, at + 2)
                record.ask_totvol = i32(record.ask_totvol + volume)
                record.ask_totamount += amount(volume, offset)
            elif field_id == 0x1011:
                record.highest_price = price(struct.unpack_from("<i", data, at + 2)[0])
            elif field_id == 0x1012:
                record.lowest_price = price(struct.unpack_from("<i", data, at + 2)[0])
            else:
                self._book(data, at, record, bid, ask, price)
            at += size

    def _book(self, data, at, record, bid, ask, price):
        entry, level, offset, volume, event = struct.unpack_from("<BBiIB", data, at + 2)
        if not 1 <= level <= _LEVELS:
            self.log.write(ERROR, _ORIGIN, f"invalid priceLevel: {level}, "
                           f"instrumentID: {record.id_text}")
            return
        if event not in (1, 2, 3):
            self.log.write(ERROR, _ORIGIN, f"unkonwn event type: {event}")
            return
        if entry not in (0, 1):
            self.log.write(ERROR, _ORIGIN, f"unkonwn md entry type: {entry}")
            return
        side = bid if entry == 0 else ask
        if event == 1:
            side.insert(level - 1, price(offset), i32(volume))
        elif event == 2:
            side.update(level - 1, price(offset), i32(volume))
        else:
            side.delete(level - 1)

    def _sane(self, record):
        text = record.id_text
        if "TAS" in text:
            return True
        bid = Side(record.bid_px, record.bid_vol)
        ask = Side(record.ask_px, record.ask_vol)
        for i in range(4):
            if not bid.empty(i) and not bid.empty(i + 1) and bid.prices[i + 1] >= bid.prices[i]:
                return self._bad(f"bid: bid[{i}]={bid.prices[i]:.2f} <= bid[{i + 1}]="
                                 f"{bid.prices[i + 1]:.2f}", text)
        for i in range(4):
            if not ask.empty(i) and not ask.empty(i + 1) and ask.prices[i] >= ask.prices[i + 1]:
                return self._bad(f"ask: ask[{i}]={ask.prices[i]:.2f} >= ask[{i + 1}]="
                                 f"{ask.prices[i + 1]:.2f}", text)
        if not ask.empty(0) and not bid.empty(0) and bid.prices[0] >= ask.prices[0]:
            return self._bad(f"crossed: bid1={bid.prices[0]:.2f} >= ask1={ask.prices[0]:.2f}", text)
        return True

    def _bad(self, what, text):
        self.log.write(DEBUG_EX, _ORIGIN, f"bad mirp {what}, inst={text}, restore")
        return False
