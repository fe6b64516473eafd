"""The cache of decode buffers that arrive while the snapshot is loaded."""

import mmap
import struct

from .common import (DEBUG, DEBUG_EX, ERROR, FAILED, INFO, OK, RECEIVE_BYTES, U32, WARNING)

CAPACITY = 209715200
_HEADER_BYTES = 8
_LARGEST_ENTRY = _HEADER_BYTES + RECEIVE_BYTES
_SMALLEST_FRAME = 24


class Cache:
    """Entries back to back: a size, four bytes never written, the decode buffer."""

    def __init__(self, decoder, log):
        self.decoder = decoder
        self.log = log
        self.memory = mmap.mmap(-1, CAPACITY)
        self._written = []  # (begin, end) of what is not zero any more
        self.put = self.consume = self.count = 0

    def write(self, at, data):
        self.memory[at:at + len(data)] = data
        self._written.append((at, at + len(data)))

    def wipe(self):
        for begin, end in self._written:
            self.memory[begin:end] = bytes(end - begin)
        self._written = []

    def _line(self, level, function, message):
        self.log.write(level, f"ExanicUdpFunc {function}", message)

    def receive(self, result, frame):
        size = result & U32
        if size == 0:
            return
        if not _SMALLEST_FRAME <= size <= RECEIVE_BYTES:
            self._line(DEBUG, "CachePacket", f"receive abnormal decode length: {size}")
            return
        self._line(DEBUG_EX, "CachePacket", f"receive decode length: {size}")
        if self.put + _LARGEST_ENTRY > CAPACITY:
            self._line(WARNING, "CachePacket", f"too many packet to cache, clear {self.count}")
            self.put = self.consume = self.count = 0
        self._line(DEBUG_EX, "CachePacket",
                   f"cache decode buffer offset: {self.put}, count: {self.count}")
        self.write(self.put, struct.pack("<I", size))
        self.write(self.put + _HEADER_BYTES, frame)
        self.put += _HEADER_BYTES + size
        self.count += 1

    def process(self):
        if self.count < 1:
            self._line(WARNING, "ProcessCached", "no cached packet to process")
            return OK
        if self.consume + _HEADER_BYTES > CAPACITY:
            self._line(ERROR, "ProcessCached", f"ciOffset out of range: {self.consume}")
            self.clear()
            return FAILED
        size, = struct.unpack_from("<I", self.memory, self.consume)
        self._line(DEBUG_EX, "ProcessCached",
                   f"process decode buffer offset: {self.consume}, size: {size}")
        if self.consume + _HEADER_BYTES + size > CAPACITY:
            self._line(ERROR, "ProcessCached",
                       f"cached packet size out of range, offset: {self.consume}, size: {size}")
            self.clear()
            return FAILED
        self.consume += _HEADER_BYTES
        result = self.decoder.parse(self.memory[self.consume:self.consume + size])
        self.count -= 1
        self.consume += size
        return result

    def clear(self):
        self.put = self.consume = self.count = 0
        self.wipe()
        self._line(INFO, "ClearCache", "decode buffer cleared")
