"""The run loop: bring-up, snapshot, replay, live, restart, shutdown."""

from .cache import Cache
from .common import (ERROR, FAILED, INFO, OK, RECEIVE_BYTES, TO_CALLBACK, U32, WARNING)
from .config import ConfigData, ConfigParse
from .device import ALL_INE_SW, ALL_SHFE_SW, DECODE_SW, ORIG_DATA_SW, Device, Registers
from .mirp import MirpDecoder
from .records import Table
from .sessions import SnapshotChannel

VERSION = "Aug 18 2026 15:02:36 Shfe V2.1.1.12"
DOING, DONE, BROKEN = 0, 1, -1
PERIOD_SECONDS = 120
_ORIGIN = "ExanicMdImpl vorn_recv"


class SnapshotDecoder:
    """The thread that drives a snapshot, as far as its decisions go."""

    def __init__(self, channel, log):
        self.channel = channel
        self.log = log

    def start(self, timeout_count, now):
        self.left = timeout_count
        self.since = now
        self.channel.decoder.finished = 0
        self.channel.clean()
        self._line(INFO, f"start initialization, enabled mask 0x{self.channel.enabled:x}")

    def complete(self):
        return self.channel.finished == self.channel.enabled

    def completed(self):
        self._line(INFO, "initialization completed")
        return DONE

    def receive(self, result, frame):
        """One poll of the raw port; an accepted frame is handled by the worker."""
        size = result & U32
        if size == 0:
            return
        if not 15 <= size <= RECEIVE_BYTES:
            self.log.thread = "D"
            self.log.write(WARNING, "ExanicTcpFunc TcpRecv",
                           f"receive abnormal decode length: {size}")
        else:
            self.log.thread = "W"
            self.channel.task(frame)
        self.log.thread = "C"

    def time_is_up(self, now):
        """Whether the last period has run out."""
        if now - self.since <= PERIOD_SECONDS:
            return False
        self.left -= 1
        if self.left <= 0:
            self._line(ERROR, "too many initialization failures")
            return True
        self._line(WARNING, "initialization still not completed")
        self.since += PERIOD_SECONDS
        return False

    def _line(self, level, message):
        self.log.thread = "D"
        self.log.write(level, "ExanicTcpFunc RunTcpDecoder", message)
        self.log.thread = "C"


class Feed:
    """One call of the entry.

    card: .poll_decode() and .poll_raw() answer (result, frame); .configuration() the file's bytes
    or None; .running the run flag; .loading set by the feed while the raw path is open; .clock()
    the wall clock's seconds. on_update(slot, record) is the consumer.
    """

    def __init__(self, card, file_name, log, on_update):
        self.card = card
        self.file_name = file_name
        self.log = log
        self.table = Table()
        self.registers = Registers()
        self.config = ConfigData()
        self.parser = ConfigParse(self.config, log)
        self.device = Device(self.config, log, self.registers)
        self.channel = SnapshotChannel(self.config, self.table, self.registers, log, 0)
        self.mirp = MirpDecoder(self.config, self.table, self.registers, log)
        self.cache = Cache(self.mirp, log)
        self.on_update = on_update
        self.callbacks = 0

    def run(self):
        self.log.mask = 31
        self.log.write(INFO, _ORIGIN, f"software version: {VERSION}")
        while self.card.running:
            if not self._bring_up():
                return FAILED
            if self._load_snapshot() == BROKEN:
                return FAILED
            self._after_snapshot()
            result = self._replay()
            while self.card.running and result != FAILED:
                result = self.mirp.receive(*self.card.poll_decode())
                if result == TO_CALLBACK:
                    self._report()
            self.device.switch(DECODE_SW, False)
        self.device.release()
        return OK

    def _bring_up(self):
        self.table.clear()
        if self.parser.init_config(self.file_name, self.card.configuration()) != OK:
            return self._cannot("failed to initialize config data")
        if self.device.init_dev() != OK:
            return self._cannot("failed to initialize network device")
        self.channel.enabled = self.device.enabled
        if self.channel.enabled == 0:
            return self._cannot("all SHFE and INE are disabled")
        if self.config.recovery:
            self.cache.put = self.cache.consume = self.cache.count = 0
        for word in (DECODE_SW, ORIG_DATA_SW, ALL_INE_SW, ALL_SHFE_SW):
            self.device.switch(word, True)
        return True

    def _cannot(self, message):
        self.log.write(ERROR, _ORIGIN, message)
        return False

    def _load_snapshot(self):
        """The caller caches; the decoder takes what raw frames there are between two polls."""
        card = self.card
        decoder = SnapshotDecoder(self.channel, self.log)
        decoder.start(self.config.timeout_cnt, card.clock())
        card.loading = True
        outcome = DOING
        while card.running and outcome == DOING:
            self.cache.receive(*card.poll_decode())
            while outcome == DOING:
                result, frame = card.poll_raw()
                if result == 0 and not card.clock_runs:
                    break
                decoder.receive(result, frame)
                if decoder.time_is_up(card.clock()):
                    outcome = BROKEN
                if decoder.complete():
                    outcome = decoder.completed()
        return outcome

    def _after_snapshot(self):
        for word in (ALL_INE_SW, ALL_SHFE_SW, ORIG_DATA_SW):
            self.device.switch(word, False)
        self.card.loading = False
        for name, count, limit in (("ine", self.table.ine_inst_cnt, 4096),
                                   ("shfe", self.table.shfe_inst_cnt, 16384)):
            if count > limit:
                self.log.write(ERROR, _ORIGIN,
                               f"too many instruments, {name}: {count}, limit: {limit}")

    def _replay(self):
        cache = self.cache
        overdue = cache.count
        cache.consume = 0
        self.log.write(INFO, _ORIGIN, f"process decode buffer {overdue} frames")
        skipped, result = 0, OK
        while self.card.running and cache.count > 0 and result != FAILED:
            cache.receive(*self.card.poll_decode())
            result = cache.process()
            if result == TO_CALLBACK:
                skipped += 1
                if skipped > overdue:
                    self._report()
            elif result == FAILED:
                cache.clear()
        return result

    def _report(self):
        slot = self.mirp.slot
        self.callbacks += 1
        self.on_update(slot, self.table.record(slot).pack())
