"""Numbers, words of C and the log, shared by every module of the model."""

ERROR, WARNING, INFO, DEBUG, DEBUG_EX = 1, 2, 4, 8, 16
LEVEL_TAG = {ERROR: "E", WARNING: "W", INFO: "I", DEBUG: "D", DEBUG_EX: "X"}

OK, FAILED, TO_CALLBACK = 0, -1, 1

SLOTS = 20480
LAST_SLOT = SLOTS - 1
SHFE_LAST_NUMBER = 16383
INE_LAST_NUMBER = 4095

SHFE_2PS, INE_2PS, SHFE_4PS, INE_4PS, UNKNOWN_FEED = 0, 1, 2, 3, -1
SHFE_FEEDS = (SHFE_2PS, SHFE_4PS)
INE_FEEDS = (INE_2PS, INE_4PS)
FEED_BIT = {SHFE_2PS: 0x01, SHFE_4PS: 0x02, INE_2PS: 0x04, INE_4PS: 0x08}

RECEIVE_BYTES = 2048
NO_VALUE = 1.7976931348623157e308  # the largest finite double stands for "no value"
EPSILON = 0.00001
U32 = 0xFFFFFFFF

# Behind a frame, a held segment and the joined bytes of a message lie at least this many zeros.
SLACK = bytes(256)


def i8(value):
    return ((value + 0x80) & 0xFF) - 0x80


def i16(value):
    return ((value + 0x8000) & 0xFFFF) - 0x8000


def i32(value):
    return ((value + 0x80000000) & U32) - 0x80000000


def c_long(text):
    """strtol(text, NULL, 10) on a machine of 64 bits; the text is read as far as it is a number."""
    text = text.lstrip(" \t\n\v\f\r")
    sign, digits = 1, ""
    if text[:1] in ("+", "-"):
        sign = -1 if text[0] == "-" else 1
        text = text[1:]
    for character in text:
        if character not in "0123456789":
            break
        digits += character
    value = sign * int(digits or "0")
    return max(-(1 << 63), min((1 << 63) - 1, value))


def c_text(data):
    """A char array as %s shows it: up to its NUL, or to its end when it has none."""
    return bytes(data).split(b"\0", 1)[0].decode("latin-1")


def lf(value, form="%f"):
    """A double as printf shows it, which gives a NaN its sign."""
    if value != value:
        import struct

        negative = struct.pack("<d", value)[7] & 0x80
        width = 8 if form == "%8f" else 0
        return ("-nan" if negative else "nan").rjust(width)
    return form % value


def is_zero(price):
    return -EPSILON < price < EPSILON


class Log:
    """Lines by level, in the order of each thread: "<thread> <level> <file> <function> <message>".

    thread: C the caller of the feed, D the snapshot decoder's thread, W its worker.
    """

    def __init__(self, mask=31):
        self.mask = mask
        self.lines = []
        self.thread = "C"

    def write(self, level, origin, message):
        """origin: "File function". A message is formatted into 4096 bytes, one of them the NUL."""
        if self.mask & level:
            self.lines.append(f"{self.thread} {LEVEL_TAG[level]} {origin} {message[:4095]}")
