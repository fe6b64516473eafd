"""The bus as numpy sees it: the same layout as bus/bus_layout.h, offset by offset."""

import numpy as np

MAGIC = b"VORNBUS\0"
VERSION = 1
HEADER_SIZE = 4096
SLOTS = 20480
NO_SLOT = 0xFFFFFFFF
DIRECTORY = "/dev/shm"

STATE_CLOSED = 2
STATE_REPLACED = 3

FLAG_EVENT = 1
FLAG_REPLAY = 2

PHASES = ("stopped", "bring-up", "snapshot", "replay", "live")
FEEDS = ("shfe2ps", "shfe4ps", "ine2ps", "ine4ps")
FATES = ("started", "in_order", "held", "old", "unstarted", "foreign", "malformed", "empty",
         "checksum", "reset", "late", "dropped")
EVENT_TYPES = {1: "phase", 2: "gap", 3: "restart", 4: "round", 5: "overflow"}


def _record(size, *fields):
    """A dtype from (offset, name, format[, shape])."""
    return np.dtype({
        "names": [field[1] for field in fields],
        "formats": [(field[2], field[3]) if len(field) > 3 else field[2] for field in fields],
        "offsets": [field[0] for field in fields],
        "itemsize": size,
    })


header = _record(
    320,
    (0, "magic", "V8"),
    (8, "version", "<u4"),
    (12, "header_size", "<u4"),
    (16, "file_size", "<u8"),
    (24, "generation", "<u8"),
    (32, "counters_offset", "<u8"),
    (40, "counters_size", "<u4"),
    (44, "record_size", "<u4"),
    (48, "table_offset", "<u8"),
    (56, "table_slots", "<u4"),
    (60, "slot_size", "<u4"),
    (64, "ring_offset", "<u8"),
    (72, "ring_records", "<u8"),
    (80, "ring_record_size", "<u4"),
    (84, "writer_pid", "<u4"),
    (88, "writer_start_ticks", "<u8"),
    (96, "writer_pid_namespace", "<u8"),
    (104, "heartbeat_interval_ns", "<u8"),
    (112, "clock_monotonic_ns", "<u8"),
    (120, "clock_realtime_ns", "<u8"),
    (128, "state", "<u8"),
    (192, "heartbeat_ns", "<u8"),
    (256, "ring_head", "<u8"))

# One instrument; docs of the fields in ExanicMdTypes.h.
instrument = _record(
    336,
    (0, "inst_id", "S16"),
    (16, "last_px", "<f8"),
    (24, "volume", "<u4"),
    (28, "update_time", "<u4"),
    (32, "update_milli_sec", "<u2"),
    (34, "type", "<u2"),
    (36, "change_no", "<u4"),
    (40, "turnover", "<f8"),
    (48, "open_interest", "<f8"),
    (56, "bid_totvol", "<i4"),
    (60, "ask_totvol", "<i4"),
    (64, "bid_totamount", "<f8"),
    (72, "ask_totamount", "<f8"),
    (80, "highest_price", "<f8"),
    (88, "lowest_price", "<f8"),
    (96, "bid_px", "<f8", (10,)),
    (176, "bid_vol", "<i4", (10,)),
    (216, "ask_vol", "<i4", (10,)),
    (256, "ask_px", "<f8", (10,)))

gap = _record(
    40,
    (0, "time_ns", "<u8"),
    (8, "slot", "<u4"),
    (12, "expected", "<u4"),
    (16, "received", "<u4"),
    (24, "inst_id", "S16"))

counters = _record(
    424,
    (0, "size", "<u4"),
    (4, "version", "<u4"),
    (8, "phase", "<u4"),
    (16, "phase_since_ns", "<u8"),
    (24, "time_in_phase_ns", "<u8", (8,)),
    (88, "last_update_ns", "<u8"),
    (96, "cycles", "<u8"),
    (104, "restarts", "<u8"),
    (112, "frames", "<u8"),
    (120, "updates", "<u8"),
    (128, "silent_updates", "<u8"),
    (136, "stale", "<u8"),
    (144, "unsubscribed", "<u8"),
    (152, "options_skipped", "<u8"),
    (160, "restored_books", "<u8"),
    (168, "gaps", "<u8"),
    (176, "refused", "<u8"),
    (184, "overflows", "<u8"),
    (192, "abnormal_lengths", "<u8"),
    (200, "cached", "<u8"),
    (208, "replayed", "<u8"),
    (216, "cache_dropped", "<u8"),
    (224, "snapshot_frames", "<u8"),
    (232, "snapshot_overflows", "<u8"),
    (240, "snapshot_abnormal_lengths", "<u8"),
    (248, "snapshot_fate", "<u8", (12,)),
    (344, "snapshot_rounds", "<u8", (4,)),
    (376, "snapshot_wipes", "<u8"),
    (384, "last_gap", gap))

counters_block = _record(
    448,
    (0, "sequence", "<u8"),
    (8, "time_ns", "<u8"),
    (16, "realtime_ns", "<u8"),
    (24, "counters", counters))

event = _record(
    64,
    (0, "size", "<u4"),
    (4, "type", "<u4"),
    (8, "time_ns", "<u8"),
    (16, "phase", "<u4"),
    (20, "previous_phase", "<u4"),
    (24, "count", "<u8"),
    (32, "slot", "<u4"),
    (36, "expected", "<u4"),
    (40, "received", "<u4"),
    (44, "feed", "<u4"),
    (48, "inst_id", "S16"))

slot = _record(
    384,
    (0, "sequence", "<u8"),
    (8, "receive_time_ns", "<u8"),
    (16, "ring_number", "<u8"),
    (24, "record", instrument))

ring_record = _record(
    384,
    (0, "number", "<u8"),
    (8, "receive_time_ns", "<u8"),
    (16, "slot", "<u4"),
    (20, "flags", "<u4"),
    (24, "record", instrument),
    (24, "event", event))
