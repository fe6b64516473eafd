"""Bytes of the wire, written by hand: neither the feed nor the model reads with these."""

import struct

NO_VALUE = 1.7976931348623157e308


def ones_complement(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def tcp_frame(payload, seq, source_port=33022, port=40000, source=b"\x0a\0\0\x01",
              destination=b"\x0a\0\0\x02", flags=0x18, ip_options=b"", tcp_options=b"",
              trailer=b"", protocol=6, total=None, spoil=0):
    """One Ethernet frame. total: of the IPv4 header, when it shall not be right. spoil: XORed into
    the checksum."""
    tcp_bytes = 20 + len(tcp_options)
    ip_bytes = 20 + len(ip_options)
    if total is None:
        total = ip_bytes + tcp_bytes + len(payload)
    tcp = struct.pack(">HHIIBBHHH", source_port, port, seq & 0xFFFFFFFF, 1, tcp_bytes // 4 << 4,
                      flags, 8192, 0, 0) + tcp_options + payload
    pseudo = source + destination + struct.pack(">BBH", 0, 6, len(tcp))
    checksum = ones_complement(pseudo + tcp) ^ spoil
    tcp = tcp[:16] + struct.pack(">H", checksum) + tcp[18:]
    ip = struct.pack(">BBHHHBBH4s4s", 0x40 | ip_bytes // 4, 0, total & 0xFFFF, 0, 0, 64, protocol, 0,
                     source, destination) + ip_options
    return bytes(12) + b"\x08\0" + ip + tcp + trailer


# --- MDQP.

def mdqp_message(fields, flag=0x11, type_id=0x32, request_id=1, length=None):
    body = b"".join(fields)
    length = len(body) if length is None else length
    return struct.pack("<BbHi", flag, type_id, length & 0xFFFF, request_id) + body


def mdqp_field(field_id, data, size=None):
    return struct.pack("<HH", field_id, len(data) if size is None else size) + data


def snap_field(topic, number=1):
    return mdqp_field(0x1001, struct.pack("<hi", topic, number))


def packet_no(number):
    return mdqp_field(0x1004, struct.pack("<i", number))


def inst_info(inst_id, number, tick, codec, multiple):
    data = bytearray(112)
    data[:31] = inst_id[:31].ljust(31, b"\0")
    struct.pack_into("<i", data, 72, multiple)
    struct.pack_into("<ddi", data, 92, tick, codec, number)
    return mdqp_field(0x0101, bytes(data))


def deal_info(number, last=0.0, volume=0, turnover=0.0, interest=0.0, highest=0.0, lowest=0.0,
              upper=NO_VALUE, lower=0.0, time=b"09:00:00\0", millisec=0, change_no=0):
    data = bytearray(154)
    struct.pack_into("<idi", data, 0, number, last, volume)
    struct.pack_into("<dddd", data, 16, turnover, interest, highest, lowest)
    struct.pack_into("<dd", data, 72, upper, lower)
    data[137:146] = time[:9].ljust(9, b"\0")
    struct.pack_into("<ii", data, 146, millisec, change_no)
    return mdqp_field(0x0102, bytes(data))


def price_detail(number, direction, price, volume):
    return mdqp_field(0x0103, struct.pack("<icdi", number, direction, price, volume))


def order_statis(number, bid_volume, bid_amount, ask_volume, ask_amount):
    return mdqp_field(0x0104, struct.pack("<iidid", number, bid_volume, bid_amount, ask_volume,
                                          ask_amount))


# --- Decode buffers.

def decode_buffer(topic, number, change_no, fields=b"", time=93000, millisec=500, packet=1,
                  field_id=3):
    return struct.pack("<HHIiHIIH", topic & 0xFFFF, millisec & 0xFFFF, time & 0xFFFFFFFF, packet,
                       field_id, number & 0xFFFFFFFF, change_no & 0xFFFFFFFF, 0) + fields


def price_change(entry, level, offset, volume, event):
    return struct.pack("<HBBiIBBH", 0x1001, entry, level, offset, volume & 0xFFFFFFFF, event, 0, 0)


def deal_summary(last, volume, turnover, interest):
    return struct.pack("<HiiqqHI", 0x1002, last, volume, turnover, interest, 0, 0)


def high_low(field_id, offset):
    return struct.pack("<HiH", field_id, offset, 0)


def statics(field_id, volume, offset):
    return struct.pack("<HiqH", field_id, volume, offset, 0)
