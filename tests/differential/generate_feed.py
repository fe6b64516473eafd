"""Whole runs: snapshots that complete or do not, what is cached meanwhile, gaps and new cycles."""

from tests.model.common import Log
from tests.model.config import ConfigData, ConfigParse
from tests.model.device import Registers
from tests.model.records import Table
from tests.model.sessions import SnapshotChannel

from . import wire
from .generate_config import orderly_file
from .generate_snapshot import (Connection, _interleave, _spoil, _stream, bad_frame, disorder)
from .scenarios import COMPLETES, OUT_OF_TIME, STOPPED, Cycle, Feed

_SHFE = ((b"cu2609", 3), (b"au2612", 4), (b"rb2610", 16383))
_INE = ((b"sc2601", 0), (b"nr2603", 4095))
_TOPIC = {"shfe": 1000, "ine": 5000}


def _plain_snapshot(rng, exchange, change_no, bad_book):
    """A snapshot in which every instrument stands at one change number."""
    instruments = _SHFE if exchange == "shfe" else _INE
    messages = [wire.mdqp_message([wire.snap_field(_TOPIC[exchange]), wire.mdqp_field(
        0x1002, bytes(40)), wire.packet_no(1)])]
    for inst_id, number in instruments:
        book = [wire.price_detail(number, b"0", 999.0 - i, 5 + i) for i in range(5)]
        book += [wire.price_detail(number, b"1", (998.0 if bad_book else 1001.0) + i, 7 + i)
                 for i in range(5)]
        messages.append(wire.mdqp_message(
            [wire.inst_info(inst_id, number, 1.0, 1000.0, 10),
             wire.deal_info(number, 1000.0, 50, 5e5, 700.0, 1010.0, 990.0, 2000.0, 1.0,
                            change_no=change_no), *book, wire.packet_no(2)]))
    messages.append(wire.mdqp_message([wire.packet_no(9)], flag=1))
    connection = Connection(rng, 40000 if exchange == "shfe" else 40001, wrap=rng.random() < 0.1)
    cut = rng.choice(("each", "full", "fine"))
    segments = connection.segments(messages, cut)
    if rng.random() < 0.25:
        segments = disorder(rng, segments[:-1], 0.1) + segments[-1:]
    frames = [connection.frame(seq, payload) for seq, payload in segments]
    if rng.random() < 0.5:
        frames.insert(rng.randrange(len(frames) + 1), bad_frame(rng, connection))
    return [frame for frame in frames if len(frame) >= 15]


def _changes(rng, state, count, exchanges, gap):
    """Decode buffers that follow each other, from both lines; one number is left out for a gap."""
    result = []
    places = ([(1000, n) for _, n in _SHFE] if "shfe" in exchanges else []) + (
        [(5000, n) for _, n in _INE] if "ine" in exchanges else [])
    gap_at = rng.randrange(count) if gap and count else -1
    for i in range(count):
        place = rng.choice(places)
        state[place] = state.get(place, 0) + (2 if i == gap_at else 1)
        level = rng.randrange(1, 6)
        entry = rng.randrange(2)
        offset = -level if entry == 0 else level
        fields = b"" if rng.random() < 0.3 else wire.price_change(entry, level, offset,
                                                                  rng.randrange(1, 90), 2)
        if rng.random() < 0.3:
            fields += wire.deal_summary(offset, 3, 20, -2)
        buffer = wire.decode_buffer(*place, state[place], fields, time=90000 + i)
        result.append(buffer)
        what = rng.random()
        if what < 0.15:
            result.append(buffer)
        elif what < 0.2:
            result.append(wire.decode_buffer(1000, 77, 5))
        elif what < 0.24:
            result.append(b"short")
        elif what < 0.3:
            result.append(b"")
    return result


def _exchanges(rng):
    return rng.choice((("shfe",), ("ine",), ("shfe", "ine"), ("shfe", "ine")))


def _completes(content, cycles):
    """Whether the last cycle's frames complete its snapshot; those before it do."""
    config = ConfigData()
    ConfigParse(config, Log(0)).init_config("", content)
    enabled = 0x01 * config.shfe2ps | 0x04 * config.ine2ps
    channel = SnapshotChannel(config, Table(), Registers(), Log(0), enabled)
    for cycle in cycles:
        channel.clean()
        for frame in cycle.frames:
            if len(frame) <= 2048:
                channel.task(frame)
    return channel.finished == enabled


def feed(rng):
    if rng.random() < 0.08:
        return _not_started(rng)
    exchanges = _exchanges(rng)
    content = orderly_file(
        rng, shfe2ps="enabled" if "shfe" in exchanges else "off",
        ine2ps="enabled" if "ine" in exchanges else "",
        insts=rng.choice(("all", "all", "cu2609,sc", "au,rb2610,nr2603")),
        log_level=rng.choice(("31", "31", "15", "7")), recovery=rng.choice(("enabled", "off", "off")),
        shield_price_check=rng.choice("0001"), timeout_cnt=rng.choice(("0", "1", "3", "-5")),
        options=rng.choice(("recv", "norecv")))
    cycles = []
    state = {}
    rounds = rng.choice((1, 2, 2, 3, 3))
    for left in reversed(range(rounds)):
        base = max(state.values(), default=0)
        state = {place: base for place in state}
        change_no = base + rng.randrange(4)
        cached = _changes(rng, state, rng.randrange(8), exchanges, rng.random() < 0.1)
        cached = [buffer for buffer in cached if buffer]
        frames = []
        if rng.random() < 0.15:
            frames += _interleave(rng, [_plain_snapshot(rng, e, change_no, True) for e in exchanges])
        if rng.random() < 0.2:
            connection = Connection(rng, 40005)
            frames += _spoil(rng, _stream(rng, 1, 40003, True, False, 1), connection)
            frames = [frame for frame in frames if len(frame) >= 15]
        frames += _interleave(rng, [_plain_snapshot(rng, e, change_no, False) for e in exchanges])
        for place in state:
            state[place] = max(state[place], change_no)
        for place in [(1000, n) for _, n in _SHFE] + [(5000, n) for _, n in _INE]:
            state.setdefault(place, change_no)
        after = _changes(rng, state, rng.randrange(40), exchanges,
                         rng.random() < (0.8 if left else 0.2))
        cycle = Cycle(cached, frames, after)
        if rng.random() < 0.1:
            cycle.frames = frames[:rng.randrange(len(frames))]
        cycles.append(cycle)
        if not _completes(content, cycles):
            cycle.loading = rng.choice((STOPPED, OUT_OF_TIME))
            cycle.after = []
            break
    return Feed(content, cycles)


def _not_started(rng):
    content = rng.choice((
        b"", b"[config]\n", b"[config]\ndevice = exanic0\n",
        orderly_file(rng, shfe2ps="no", ine2ps="no"), orderly_file(rng, device=""),
        orderly_file(rng, insts=","), orderly_file(rng), orderly_file(rng)))
    return Feed(content, [], rng.choice((1, 2, 3, 4)))
