"""Scenarios of the snapshot channel: streams of messages, cut into segments, ordered badly."""

import struct

from . import wire
from .generate_incremental import INT32, log_mask
from .scenarios import Snapshot

SHFE, INE = 0x01, 0x04
_IDS = (b"cu2609", b"cu2610", b"au2612", b"rb2610", b"sc2601", b"cu2609C75000", b"ni2611TAS",
        b"sp a-b", b"ag2609-10", b"cu", b"c", b"", b" x", b"exactly15chars!", b"this one has 22 chars!",
        b"0123456789012345678901234567890")
_MARK = wire.NO_VALUE


def _number(rng, ine, hostile):
    if hostile and rng.random() < 0.15:
        return rng.choice((-2**31, -1, -20479, 16383, 16384, 12799, 12800, 4095, 4096, 3199, 3200,
                           20479, 20480, 2**31 - 1))
    return rng.randrange(8) if rng.random() < 0.7 else rng.randrange(4096 if ine else 16384)


def _price(rng, hostile):
    if hostile and rng.random() < 0.2:
        return rng.choice((_MARK, -_MARK, 0.0, -0.0, 1e-5, 9.9e-6, float("inf"), -1.0, 5e-324,
                           float("nan")))
    return float(rng.randrange(900, 1100))


class Instruments:
    """What one feed's snapshot says about its instruments, field by field."""

    def __init__(self, rng, ine, hostile):
        self.rng, self.ine, self.hostile = rng, ine, hostile

    def fields(self):
        """Fields of one instrument, each of which may begin a message."""
        rng, hostile = self.rng, self.hostile
        number = _number(rng, self.ine, hostile)
        tick = rng.choice((1.0, 0.02, 5.0))
        codec = _MARK if rng.random() < 0.1 else 1000.0
        inst_id = rng.choice(_IDS[:5] if rng.random() < 0.6 else _IDS)
        groups = [wire.inst_info(inst_id, number, tick, codec, rng.choice((1, 5, 1000)))]
        if rng.random() < 0.9:
            groups.append(self._deal(number))
        if rng.random() < 0.9:
            groups.append(self._book(number))
        if rng.random() < 0.5:
            groups.append(wire.order_statis(number, rng.choice(INT32), rng.random() * 1e6,
                                            rng.choice(INT32), _price(rng, hostile)))
        if hostile and rng.random() < 0.2:
            groups.insert(rng.randrange(len(groups) + 1), self._odd_field())
        return groups

    def _deal(self, number):
        rng, hostile = self.rng, self.hostile
        price = lambda: _price(rng, hostile)
        limits = (2000.0, 1.0)
        if rng.random() < (0.3 if hostile else 0.05):
            limits = rng.choice(((_MARK, 0.0), (2000.0, _MARK), (_MARK, _MARK), (-0.0, 5e-6)))
        return wire.deal_info(number, price(), rng.choice(INT32 + (7,)), price(), price(), price(),
                              price(), *limits, rng.choice((b"09:00:00\0", b"123456789", b"")),
                              rng.choice((0, 500, 65536, -1)), rng.choice((0, 5, 2**31 - 1, -1)))

    def _book(self, number):
        """Best first and falling, unless hostile; now and then one price at an edge of the check."""
        rng, hostile = self.rng, self.hostile
        parts = []
        edge = rng.randrange(1, 6) if rng.random() < 0.05 else 0  # the level at an edge
        for direction, step in ((b"0", -1.0), (b"1", 1.0)):
            for level in range(rng.choice((0, 1, 4, 5, 5, 5, 6, 7))):
                price = 1000.0 + step * (level + 1)
                volume = rng.randrange(1, 50)
                if level + 1 == edge and rng.random() < 0.5:
                    price = rng.choice((price - step, price - 2 * step, 2000.0, 2000.00001,
                                        2000.00002, 1.0, 0.99999, 0.99998))
                if hostile and rng.random() < 0.06:
                    price = rng.choice((_MARK, 1000.0, 0.0, 2000.5, 0.5, price + 1e-6, price))
                    volume = rng.choice((0, -1, 1, 2**31 - 1))
                if hostile and rng.random() < 0.02:
                    direction = rng.choice((b"2", b"\0", b"0", b"1"))
                parts.append(wire.price_detail(number, direction, price, volume))
        if hostile and rng.random() < 0.3:
            rng.shuffle(parts)
        if rng.random() < 0.3 and len(parts) > 2:
            return b"".join(parts[:2]) + wire.packet_no(3) + b"".join(parts[2:])
        return b"".join(parts)

    def _odd_field(self):
        rng = self.rng
        field_id = rng.choice((0x0031, 0x0032, 0x1002, 0x1003, 0x0000, 0xFFFF, 0x0105, 0x1005,
                               0x0101, 0x0102, 0x0103, 0x0104, 0x1001, 0x1004))
        data = rng.randbytes(rng.choice((0, 1, 4, 6, 17, 20)))
        size = len(data) if rng.random() < 0.8 else rng.choice((0, 1, 3, 200, 65535))
        return wire.mdqp_field(field_id, data, size)


def messages_of(rng, topic, ine, hostile, count, long_message=False):
    """The messages of one feed's snapshot; the last one ends it."""
    instruments = Instruments(rng, ine, hostile)
    first = [wire.snap_field(topic, rng.choice((1, -1))), wire.mdqp_field(0x1002, bytes(40)),
             wire.packet_no(1)]
    if hostile and rng.random() < 0.1:
        first = rng.choice(([wire.mdqp_field(0x1002, bytes(40))], first + first, first[:1],
                            [wire.mdqp_field(0x0031, bytes(50)), wire.snap_field(999)],
                            first[:2] + [wire.mdqp_field(0x0031, b"")] + first[2:]))
    messages = [wire.mdqp_message(first)]
    for _ in range(count):
        fields = []
        for _ in range(rng.choice((1, 1, 2, 4))):
            fields += instruments.fields()
        if long_message:
            fields.append(wire.mdqp_field(0x1003, bytes(rng.randrange(20000, 56000))))
        if rng.random() < 0.9:
            fields.append(wire.packet_no(rng.choice(INT32)))
        messages.append(wire.mdqp_message(fields, *_head(rng, hostile)))
    if rng.random() < 0.9:
        messages.append(wire.mdqp_message([wire.packet_no(9)], flag=1))
    if hostile and rng.random() < 0.1:
        at = rng.randrange(len(messages))
        message = bytearray(messages[at])
        message[rng.randrange(len(message))] = rng.randrange(256)
        messages[at] = bytes(message)
    return messages


def _head(rng, hostile):
    flag, type_id, request = 0x11, 0x32, 1
    if hostile and rng.random() < 0.1:
        flag = rng.choice((1, 0x10, 0x11, 0, 0xFF))
        type_id = rng.choice((0x32, 0x33, -1))
        request = rng.choice(INT32)
    return flag, type_id, request


class Connection:
    """One TCP stream: messages in, frames out, in order or not."""

    def __init__(self, rng, port, source_port=33022, wrap=False):
        self.rng = rng
        self.seq = rng.choice((2**32 - 600, 2**32 - 1, 2**32 - 60)) if wrap else rng.randrange(2**31)
        self.address = {"port": port, "source_port": source_port,
                        "source": rng.choice((b"\x0a\0\0\x01", b"\xff\xff\xff\xff"))}

    def segments(self, messages, cut):
        """(seq, payload). cut: 'each' a message a segment, 'fine' small ones, 'full' 1448 bytes."""
        pieces = [messages[0]]  # the start must stand in one segment
        rest = messages[1:]
        if cut == "each":
            for message in rest:
                pieces += [message[i:i + 1448] for i in range(0, len(message), 1448)]
        else:
            data = b"".join(rest)
            while data:
                size = 1448 if cut == "full" else self.rng.choice((1, 2, 7, 8, 9, 40, 100, 400, 900))
                pieces.append(data[:size])
                data = data[size:]
        result = []
        for piece in pieces:
            result.append((self.seq, piece))
            self.seq = (self.seq + len(piece)) & 0xFFFFFFFF
        return result

    def frame(self, seq, payload, **options):
        return wire.tcp_frame(payload, seq, **{**self.address, **options})


def disorder(rng, segments, strength):
    """Segments late, twice, overlapping, lost."""
    result = list(segments)
    for _ in range(int(len(result) * strength) + 1):
        at = rng.randrange(len(result))
        what = rng.random()
        if what < 0.5:
            segment = result.pop(at)
            result.insert(min(len(result), at + rng.choice((1, 1, 2, 3, 10))), segment)
        elif what < 0.7:
            result.insert(rng.randrange(at, len(result) + 1), result[at])
        elif what < 0.8:
            seq, payload = result[at]
            shift = rng.choice((1, 5, len(payload)))
            if len(payload) > shift:
                result.insert(at + 1, ((seq + shift) & 0xFFFFFFFF, payload[shift:] + b"tail"))
        elif what < 0.86 and len(result) > 1:
            del result[at]
    return result


def bad_frame(rng, connection):
    """A frame that fails one of the checks, for whatever reason."""
    payload = rng.randbytes(rng.choice((1, 50)))
    frame = connection.frame(rng.randrange(2**32), payload)
    choice = rng.randrange(12)
    if choice == 0:
        return frame[:rng.choice((15, 20, 33, 34, 53, 54, len(frame) - 1))]
    if choice == 1:
        return frame[:14] + bytes((rng.choice((0x40, 0x44, 0x4F, 0x46)),)) + frame[15:]
    if choice == 2:
        return connection.frame(1, payload, protocol=rng.choice((1, 2, 17, 0, 47, 255)))
    if choice == 3:
        return connection.frame(1, payload, source_port=rng.choice((0, 1, 33021, 65535)))
    if choice == 4:
        return frame[:46] + bytes((rng.choice((0x00, 0x40, 0xF0, 0x60)),)) + frame[47:]
    if choice == 5:
        return connection.frame(1, b"", trailer=rng.choice((b"", bytes(6))))
    if choice == 6:
        return connection.frame(1, payload, total=rng.choice((0, 20, 39, 40, 41, 65535, 2056, 2057)))
    if choice == 7:
        return connection.frame(1, payload, spoil=rng.choice((1, 0xFFFF, 0x8000)))
    if choice == 8:
        return connection.frame(1, b"", flags=rng.choice((0x14, 0x04)))
    if choice == 9:
        return rng.randbytes(rng.randrange(15, 200))
    if choice == 10:
        return connection.frame(1, bytes(2017), spoil=0)[:2048]
    return connection.frame(1, payload, spoil=0x1234, flags=0x14)


def _spoil(rng, frames, connection):
    """Frames that fail, resets, foreign hosts, and what else a wire may carry in between."""
    for _ in range(rng.randrange(1, 4)):
        at = rng.randrange(len(frames) + 1)
        what = rng.random()
        if what < 0.6:
            frame = bad_frame(rng, connection)
        elif what < 0.68:
            frame = connection.frame(rng.randrange(2**32), b"reset", flags=rng.choice((0x14, 0x04)))
        elif what < 0.8:
            frame = connection.frame(connection.seq, rng.choice((b"\x11\x32", b"\x01", b"\x01\x32ab",
                                                                 b"xyz", b"\x11\x32" + bytes(60))))
        elif what < 0.9:
            frame = connection.frame(connection.seq, b"\x11\x32" + bytes(8),
                                     source=b"\x0b\0\0\x01")
        else:
            frame = connection.frame(connection.seq + rng.randrange(1, 5000), rng.randbytes(30))
        frames.insert(at, frame)
    return frames


def _interleave(rng, streams):
    result = []
    streams = [list(stream) for stream in streams if stream]
    while streams:
        stream = rng.choice(streams)
        for _ in range(rng.choice((1, 3, 100))):
            if stream:
                result.append(stream.pop(0))
        streams = [each for each in streams if each]
    return result


def _stream(rng, bit, port, hostile, wrap, size):
    topic = {SHFE: 1000, INE: 5000, 0x02: 1101, 0x08: 5101}[bit]
    connection = Connection(rng, port, rng.choice((33022, 33022, 22000)), wrap)
    cut = rng.choice(("each", "each", "fine", "full"))
    frames = []
    for _ in range(rng.choice((1, 1, 1, 2))):
        messages = messages_of(rng, topic, bit in (INE, 0x08), hostile, size)
        segments = connection.segments(messages, cut)
        if rng.random() < 0.6:
            segments = disorder(rng, segments, rng.choice((0.05, 0.2, 0.6)))
        for seq, payload in segments:
            options = {}
            if rng.random() < 0.05:
                options = {"ip_options": bytes(rng.choice((4, 40))),
                           "tcp_options": bytes(rng.choice((4, 12, 40))),
                           "trailer": rng.randbytes(rng.choice((0, 6)))}
            if len(payload) <= 1448:
                frames.append(connection.frame(seq, payload, **options))
    if hostile:
        frames = _spoil(rng, frames, connection)
    return frames


def _held_to_the_limit(rng, connection):
    """500 segments ahead of a gap, and the one that is too many."""
    messages = messages_of(rng, 1000, False, False, 1)
    segments = connection.segments(messages, "each")
    ahead = [(connection.seq + 100 + 3 * i, b"\x11\x32x") for i in range(rng.choice((499, 500, 501)))]
    if rng.random() < 0.5:
        rng.shuffle(ahead)
    late = [(connection.seq, b"\x11\x32" + struct.pack("<H", 92 % 65536) + bytes(96))]
    return segments[:-1] + ahead + (late if rng.random() < 0.7 else []) + segments[-1:]


def _joined_to_the_limit(rng, connection):
    """Messages whose joined bytes come to lie around 65535."""
    size = rng.choice((65526, 65527, 65528, 65520, 65535, 60000))
    message = wire.mdqp_message([wire.mdqp_field(0x1003, bytes(size - 4))], length=size)
    messages = messages_of(rng, 1000, False, False, 1)
    return connection.segments([messages[0], message] + messages[1:], "full")


def snapshot(rng):
    kind = rng.random()
    hostile = rng.random() < 0.6
    mask = log_mask(rng)
    enabled = rng.choice((SHFE, SHFE, INE, SHFE | INE, SHFE | INE, 0x02, 0x08, 0x0A, 0x03))
    bits = [bit for bit in (1, 2, 4, 8) if enabled & bit]
    if kind < 0.004:
        connection = Connection(rng, 40000, wrap=rng.random() < 0.3)
        segments = (_held_to_the_limit if rng.random() < 0.5 else _joined_to_the_limit)(
            rng, connection)
        frames = [connection.frame(seq, payload) for seq, payload in segments]
    else:
        wrap = rng.random() < 0.08
        ports = [rng.choice((40000, 40001, 0, 65535)) for _ in bits]
        if len(set(ports)) < len(ports) and rng.random() < 0.8:
            ports = [40000 + i for i in range(len(bits))]
        streams = [_stream(rng, bit, port, hostile, wrap, rng.choice((0, 1, 1, 2, 3)))
                   for bit, port in zip(bits, ports)]
        frames = _interleave(rng, streams)
    listen = [] if rng.random() < 0.3 else rng.sample(
        ("cu", "au", "rb2610", "sc2601", "cu2609", "sp a-b", "exactl", "c", "ABCDEFGH", "all"), 3)
    on_worker = int(rng.random() < 0.25)
    if on_worker and rng.random() < 0.3:
        frames.insert(rng.randrange(len(frames) + 1),
                      rng.choice((0, 1, 14, 15 - 1, 2049, -1, -256, -257)))
    topics = (1000, 1101, 5000, 5101) if rng.random() < 0.95 else (1000, 1000, 1000, 1000)
    return Snapshot(mask, topics, (33022, 22000), int(not listen or rng.random() < 0.4),
                    int(rng.random() < 0.8), int(rng.random() < 0.2), int(rng.random() < 0.35),
                    enabled, on_worker, listen, frames)
