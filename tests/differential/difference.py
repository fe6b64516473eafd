"""A difference of two traces, for a reader."""

import struct

from tests.model.records import Instrument

NAMES = {"o": "operation", "f": "frame", "m": "finished mask and warning switches", "l": "limits",
         "s": "session", "n": "counters", "r": "record", "k": "scaling", "g": "log line",
         "w": "register stores", "c": "configuration", "d": "bring-up", "q": "call of the card",
         "b": "callback", "e": "return code", "!": "the run did not come to its end"}


def items(trace):
    at = 0
    while at < len(trace):
        size, = struct.unpack_from("<I", trace, at + 1)
        yield chr(trace[at]), trace[at + 5:at + 5 + size]
        at += 5 + size


def _record_lines(data):
    record = Instrument(data)
    lines = [f"{name} {getattr(record, name)!r}" for name in Instrument.__slots__[:15]]
    for i in range(10):
        lines.append(f"level {i + 1}: bid {record.bid_px[i]!r} x {record.bid_vol[i]}, "
                     f"ask {record.ask_px[i]!r} x {record.ask_vol[i]}")
    lines.append("bytes " + data.hex())
    return lines


def _stores(data):
    count, = struct.unpack_from("<I", data)
    return [f"word {word} := {value}" for word, value in struct.iter_unpack("<II", data[4:])][:count]


def lines_of(tag, data):
    """One item as lines, so that two of them can be laid side by side."""
    if tag == "g":
        return [data.decode("latin-1")]
    if tag == "q":
        return [data.decode("latin-1")]
    if tag in "rb":
        return [f"slot {struct.unpack_from('<I', data)[0]}"] + _record_lines(data[4:])
    if tag == "o":
        result, slot, put, consume, count, stores = struct.unpack_from("<iIiiiI", data)
        return ([f"result {result}", f"slot {slot}", f"put {put}, consume {consume}, count {count}"]
                + _stores(data[20:24 + 8 * stores]) + _record_lines(data[24 + 8 * stores:]))
    if tag == "f":
        return [f"finished {data[0]}, counters {struct.unpack_from('<iiii', data, 1)}"]
    if tag == "n":
        return [f"shfe, ine counts, packet numbers: {struct.unpack('<iiii', data)}"]
    if tag == "w":
        return _stores(data)
    if tag == "k":
        return [str(struct.unpack("<Iddi", data))]
    if tag == "l":
        return [str(struct.unpack("<Idd", data))]
    if tag == "s":
        port, _, _, source_port, own_port, held, next_seq, start_seq = struct.unpack_from(
            "<IIIHHIII", data)
        frag, lost, init, buffer, feed, joined = struct.unpack_from("<BBBBii", data, 28)
        return [f"port {port} ({source_port} to {own_port})", f"held {held}", f"next {next_seq}",
                f"start {start_seq}", f"frag_flag {frag}, lost_flag {lost}, init {init}, "
                f"buffer {buffer}", f"feed {feed}", f"joined {joined}", "bytes " + data.hex()]
    return [data.hex()]


def describe(scenario, expected, actual):
    mine, theirs = list(items(expected)), list(items(actual))
    position = {}
    for (tag, data), (their_tag, their_data) in zip(mine, theirs):
        position[tag] = position.get(tag, 0) + 1
        if (tag, data) != (their_tag, their_data):
            return _show(scenario, mine, tag, position[tag], data, their_tag, their_data)
    which = "model" if len(mine) > len(theirs) else "feed"
    tag, data = (mine if which == "model" else theirs)[min(len(mine), len(theirs))]
    return f"only the {which} goes on, with: {NAMES.get(tag, tag)}\n  " + "\n  ".join(
        lines_of(tag, data))


def _show(scenario, mine, tag, number, data, their_tag, their_data):
    text = [f"{NAMES.get(tag, tag)} {number}:"]
    ours, others = lines_of(tag, data), lines_of(their_tag, their_data)
    if tag != their_tag:
        text += [f"  model: {line}" for line in ours]
        text += [f"  feed:  ({NAMES.get(their_tag, their_tag)}) {line}" for line in others]
    else:
        for i in range(max(len(ours), len(others))):
            one = ours[i] if i < len(ours) else "(nothing)"
            other = others[i] if i < len(others) else "(nothing)"
            if one != other:
                text += [f"  model: {one}", f"  feed:  {other}"]
    if scenario.kind == "incremental" and tag == "o":
        letter, buffer = scenario.operations[number - 1]
        text.append(f"  after {letter} {buffer.hex()}")
    if scenario.kind == "snapshot" and tag == "f":
        text.append(f"  after {scenario.frames[number - 1].hex()}")
    if scenario.kind == "config":
        text.append(f"  file {scenario.content!r}")
    log = [line_data.decode("latin-1") for line_tag, line_data in mine if line_tag == "g"]
    if tag == "g":
        text.append("the model's lines before:")
        text += ["  " + line for line in log[max(0, number - 6):number - 1]]
    return "\n".join(text)
