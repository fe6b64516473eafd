"""One passive session for each local port: order of segments, messages joined across segments."""

import struct

from .common import (DEBUG_EX, ERROR, FEED_BIT, INE_2PS, INE_4PS, SHFE_2PS, SHFE_4PS, SLACK, U32,
                     UNKNOWN_FEED, WARNING, i32)
from .frames import ACK, RST, examine
from .mdqp import HEADER_BYTES, MdqpDecoder
from .price_check import check_snapshot

MOST_HELD = 500
MOST_JOINED = 65535
JOIN_BUFFER = 100000
_ORIGIN = "ExanicTcpFunc _PacketHandler"


class Session:
    def __init__(self):
        self.source = self.destination = bytes(4)
        self.source_port = self.port = 0
        self.next_seq = self.start_seq = 0
        self.has_buffer = False
        self.reset()

    def reset(self):
        """Back to empty; addresses, ports and sequence numbers stay."""
        self.frag_flag = self.lost_flag = self.init = 0
        self.joined = bytearray()  # what the joining buffer holds up to its offset
        self.has_buffer = False
        self.held = []             # segments, lowest number first
        self.held_count = 0        # a counter of 32 bits of its own
        self.feed = UNKNOWN_FEED


class EndOfFrame(Exception):
    """The frame ends here, without what would have come next."""


class SnapshotChannel:
    """Frames in, table filled. Runs one frame at a time."""

    def __init__(self, config, table, registers, log, enabled):
        self.config = config
        self.table = table
        self.log = log
        self.registers = registers
        self.enabled = enabled
        self.decoder = MdqpDecoder(config, table, registers, log)
        self.sessions = {}
        self.cleanups = 0

    @property
    def finished(self):
        return self.decoder.finished

    def session(self, port):
        found = self.sessions.get(port)
        if found is None:
            found = self.sessions[port] = Session()
        return found

    def clean(self):
        self.cleanups += 1
        for session in self.sessions.values():
            session.reset()
        self.decoder.clean()

    def task(self, frame):
        """What the worker does with a received frame."""
        if self.finished != self.enabled:
            self.handle(frame)

    def handle(self, frame):
        segment = examine(frame, self.config, self.log)
        if segment is None:
            return
        if segment.flags & RST and segment.flags & ACK:
            self.clean()
            return
        session = self.session(segment.port)
        try:
            if session.init:
                self._established(session, segment)
            else:
                self._start(session, segment)
        except EndOfFrame:
            # No snapshot counts as complete without its check: one that was completed before the
            # error that ended the frame is checked all the same.
            pass
        if self.enabled == self.finished:
            if check_snapshot(self.table, self.decoder.limits, self.config.shield_price_check,
                              self.log) != 0:
                self.log.write(WARNING, _ORIGIN, "price check is error")
                self.clean()

    # --- A session's first segment.

    def _start(self, session, segment):
        session.has_buffer = True
        session.source, session.destination = segment.source, segment.destination
        session.source_port, session.port = segment.source_port, segment.port
        session.held_count = 0
        session.joined = bytearray()
        if self.config.recovery:
            session.frag_flag = session.lost_flag = 0
            session.held = []
        at = segment.payload_at
        if segment.size < 45 or segment.frame[at] != 0x11 or segment.frame[at + 1] != 0x32:
            return
        session.start_seq = segment.seq
        session.next_seq = (segment.seq + segment.size) & U32
        self._find_feed(session, segment)
        self._split(session, self._frame_bytes(segment), at, segment.size, starting=True)

    def _find_feed(self, session, segment):
        data = self._frame_bytes(segment)
        offset = 8
        index = 0
        while segment.size - offset >= 4:
            field_id, size = struct.unpack_from("<HH", data, segment.payload_at + offset)
            if size == 0:
                self.log.write(WARNING, _ORIGIN, "invalid field data, break field iteration, "
                               f"iter={index} payloadSize={segment.size}")
                session.init, session.feed = 0, UNKNOWN_FEED
                raise EndOfFrame
            if field_id == 0x1001 and size == 6:
                topic, snap_no = struct.unpack_from("<hi", data, segment.payload_at + offset + 4)
                self.log.write(DEBUG_EX, _ORIGIN, f"topic ID: {topic}, snap No: {snap_no}, "
                               f"TCP dst port: {segment.port}")
                session.feed = self._feed_of(topic)
                session.init = int(session.feed != UNKNOWN_FEED)
                if not session.init:
                    raise EndOfFrame
            offset += 4 + size
            index += 1

    def _feed_of(self, topic):
        config = self.config
        for wanted, feed in ((config.ine2ps_topic_id, INE_2PS), (config.shfe2ps_topic_id, SHFE_2PS),
                             (config.shfe4ps_topic_id, SHFE_4PS),
                             (config.ine4ps_topic_id, INE_4PS)):
            if topic == wanted and FEED_BIT[feed] & self.enabled & ~self.finished:
                return feed
        return UNKNOWN_FEED

    # --- An established session.

    def _before(self, one, other):
        """Whether one sequence number comes before the other."""
        if self.config.recovery:
            return i32((one - other) & U32) < 0
        return one < other

    def _established(self, session, segment):
        if (segment.source, segment.destination) != (session.source, session.destination):
            return
        if segment.seq == session.next_seq:
            self._in_order(session, segment)
        elif not self._before(segment.seq, session.next_seq):
            self._hold(session, segment)

    def _in_order(self, session, segment):
        session.next_seq = (session.next_seq + segment.size) & U32
        if session.frag_flag:
            whole = self._append(session, segment, draining=False)
            if not whole and not self.config.recovery:
                raise EndOfFrame
        else:
            if not self._is_start(segment.payload()):
                raise EndOfFrame
            self._split(session, self._frame_bytes(segment), segment.payload_at, segment.size)
        self._drain(session)

    def _hold(self, session, segment):
        if not session.lost_flag:
            session.held = [segment]
            session.lost_flag = 1
            session.held_count = (session.held_count + 1) & U32
            return
        if session.held_count >= MOST_HELD:
            self.log.write(ERROR, _ORIGIN, f"break tcp seq detected. expt: {session.next_seq}, "
                           f"got: {segment.seq}")
            self.clean()
            raise EndOfFrame
        held = session.held
        at = 0
        while True:
            if self._before(segment.seq, held[at].seq):
                break
            if segment.seq == held[at].seq:
                return  # a duplicate
            at += 1
            if at == len(held) or not self._before(held[at].seq, segment.seq):
                break
        held.insert(at, segment)
        session.held_count = (session.held_count + 1) & U32

    def _drain(self, session):
        while session.lost_flag:
            head = session.held[0]
            if self._before(session.next_seq, head.seq):
                return
            session.held.pop(0)
            session.held_count = (session.held_count - 1) & U32
            if not session.held:
                session.lost_flag = 0
                session.held_count = 0
            if self._before(head.seq, session.next_seq):
                continue
            session.next_seq = (session.next_seq + head.size) & U32
            if session.frag_flag:
                self._append(session, head, draining=True)
            else:
                if not self._is_start(head.payload()):
                    self._not_a_message()
                self._split(session, self._frame_bytes(head), head.payload_at, head.size)

    # --- Messages.

    @staticmethod
    def _frame_bytes(segment):
        return bytearray(segment.frame) + SLACK

    @staticmethod
    def _is_start(data):
        return len(data) >= 2 and data[0] & ~0x10 == 1 and data[1] == 0x32

    def _not_a_message(self):
        self.log.write(ERROR, _ORIGIN, "not a mdqp header, check program logic")
        raise EndOfFrame

    def _append(self, session, segment, draining):
        """Whether the joined message is whole now."""
        limit = JOIN_BUFFER if draining else MOST_JOINED
        if len(session.joined) + segment.size > limit:
            self.log.write(WARNING, _ORIGIN, "ignore tcp message!")
            self.clean()
            raise EndOfFrame
        session.joined += segment.payload()
        if not self._is_start(session.joined):
            if draining:
                self._not_a_message()
            raise EndOfFrame
        joined = session.joined
        if len(joined) < HEADER_BYTES or len(joined) < self._message_size(joined, 0):
            return False
        self._decode_run(session, bytearray(joined) + SLACK, 0, len(joined))
        return True

    @staticmethod
    def _message_size(data, at):
        return struct.unpack_from("<H", data, at + 2)[0] + HEADER_BYTES

    def _split(self, session, data, at, size, starting=False):
        """The messages of a payload that does not continue one."""
        if size < HEADER_BYTES or size < self._message_size(data, at):
            session.joined = data[at:at + size]
            session.frag_flag = 1
            if starting:
                raise EndOfFrame
        elif size == self._message_size(data, at):
            self.decoder.parse(data, at, session)
        else:
            self._decode_run(session, data, at, size)

    def _decode_run(self, session, data, at, size):
        """Whole messages one after another; a rest is kept as the beginning of the next."""
        end = at + size
        while end - at >= HEADER_BYTES and end - at >= self._message_size(data, at):
            message = self._message_size(data, at)
            self.decoder.parse(data, at, session)
            at += message
        session.joined = data[at:end]
        session.frag_flag = int(at < end)
