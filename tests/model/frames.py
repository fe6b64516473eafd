"""Ethernet, IPv4 and TCP as the snapshot channel reads them, and the checks that a frame must pass."""

from .common import DEBUG, DEBUG_EX

_ORIGIN = "ExanicTcpFunc _PacketHandler"
_ETHERNET = 14
_LARGEST_SEGMENT = 2036
RST, ACK = 0x04, 0x10


def be16(data, at):
    return data[at] << 8 | data[at + 1]


class Segment:
    """Where things lie in a frame that passed. `frame` has zeros behind it."""

    __slots__ = ("frame", "source", "destination", "source_port", "port", "seq", "flags",
                 "payload_at", "size")

    def payload(self):
        return bytes(self.frame[self.payload_at:self.payload_at + self.size])


def ones_complement_sum(data):
    if len(data) % 2:
        data = data + b"\0"
    # Folding carries is addition modulo 0xFFFF, with 0xFFFF for a sum that is not zero.
    total = int.from_bytes(data, "big")
    return 0 if total == 0 else (total % 0xFFFF or 0xFFFF)


def examine(frame, config, log):
    """The segment in a frame, or None for one that fails a check. `frame`: the bytes as received."""
    length = len(frame)
    debug = log.mask & DEBUG_EX

    def reject(message):
        if debug:
            log.write(DEBUG_EX, _ORIGIN, message)

    if length < 34:
        return reject(f"packet too short for IP, packetLen={length}")
    ip_header = (frame[14] & 0x0F) * 4
    if ip_header < 20 or ip_header > 60 or length < ip_header + _ETHERNET:
        return reject(f"invalid IP header, ip_hdr_len={ip_header} packetLen={length}")
    protocol = frame[23]
    if protocol != 6:
        return None if protocol in (1, 2, 17) else reject(f"ip_p [{protocol}]")
    if length < ip_header + 34:
        return reject("packet too short for TCP header")
    tcp = _ETHERNET + ip_header
    source_port = be16(frame, tcp)
    if source_port not in (config.md2ps_snap_port, config.md4ps_snap_port):
        return None
    tcp_header = (frame[tcp + 12] >> 4) * 4
    if tcp_header < 20 or tcp_header > 60 or length < tcp + tcp_header:
        return reject("invalid TCP header or truncated packet")
    present = length - tcp - tcp_header
    total = be16(frame, 16)
    size = min(present, total - ip_header - tcp_header)
    if size <= 0:
        return reject(f"payloadSize<=0, max_payload={present}")
    segment_bytes = total - ip_header
    if (segment_bytes < 20 or length - tcp < segment_bytes or segment_bytes > _LARGEST_SEGMENT
            or not _checksum_right(frame, tcp, segment_bytes)):
        log.write(DEBUG, _ORIGIN, "tcp checksum is not correct")
        return None

    found = Segment()
    found.frame = frame
    found.source, found.destination = bytes(frame[26:30]), bytes(frame[30:34])
    found.source_port, found.port = source_port, be16(frame, tcp + 2)
    found.seq = int.from_bytes(frame[tcp + 4:tcp + 8], "big")
    found.flags = frame[tcp + 13]
    found.payload_at, found.size = tcp + tcp_header, size
    return found


def _checksum_right(frame, tcp, segment_bytes):
    pseudo = bytes(frame[26:34]) + bytes((0, 6)) + segment_bytes.to_bytes(2, "big")
    return ones_complement_sum(pseudo + bytes(frame[tcp:tcp + segment_bytes])) == 0xFFFF
