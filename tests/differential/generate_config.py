"""Configuration files: as an operator writes them, and as nobody should."""

import os

from .generate_incremental import log_mask
from .scenarios import Config

_NUMBERS = ("0", "1", "-1", "10", " 7", "+5", "32767", "32768", "-32769", "65535", "65536", "70000",
            "255", "256", "-128", "128", "0x10", "12abc", "abc", "", "1e3", "- 1", "4294967295",
            "\v12", "007")
_ADDRESSES = ("239.1.2.3:5000", "239.3.42.71:21000", "239.3.42.71", "", ":", ":80", "1.2:9", "1:2:3",
              "0x7f.1:010", "256.1.1.1:7", "1.2.3.4 :5", " 1.2.3.4: 5", "1.2.3.4:99999", "a.b.c.d:e",
              "255.255.255.255:65535", "017.0.0.1:-1", "1.2.3.4.5:6", "1.2.3.4\tx:6")
_INSTS = ("all", "ALL", "cu2609", "cu2609,, au2612 , ,", "cu,au", ",", "", "all,cu", " all ")
_SWITCH = ("enabled", "enabled ", "Enabled", "on", "1", "")
_KEYS = {
    "device": ("exanic0", "exanic1:0", "", "#0", "a b"),
    "insts": _INSTS,
    "options": ("norecv", "recv", "", "NORECV"),
    "shfe2ps": _SWITCH, "ine2ps": _SWITCH, "shfe4ps": _SWITCH, "ine4ps": _SWITCH,
    "recovery": _SWITCH,
    "shield_price_check": ("0", "1", "yes", " 1", "2", "1x"),
    "log_level": ("7", "15", "31", "0", "8", "-1", "16", "1000", ""),
    "split_all_field": _NUMBERS, "timeout_cnt": _NUMBERS,
    "md2ps_snap_port": _NUMBERS, "md4ps_snap_port": _NUMBERS,
    **{f"{feed}_topic_id": _NUMBERS for feed in ("shfe2ps", "shfe4ps", "ine2ps", "ine4ps")},
    **{f"{feed}_ip_{line}": _ADDRESSES for feed in ("shfe2ps", "shfe4ps", "ine2ps", "ine4ps")
       for line in "ab"},
}


def cpu_values():
    """CPU numbers of which it is known whether the kernel binds to them."""
    online = os.sysconf("SC_NPROCESSORS_ONLN")
    return [str(min(os.sched_getaffinity(0))), str(online), str(online + 1), "-1", "32767"]


def _value(rng, key):
    if key == "cpucore":
        return rng.choice(cpu_values())
    return rng.choice(_KEYS[key])


def _line(rng, key):
    value = _value(rng, key)
    form = rng.random()
    if form < 0.7:
        return f"{key} = {value}"
    return rng.choice((f"{key}={value}", f"\t{key}\t=\t{value}\r", f"{key} = {value} ; remark",
                       f"{key} = {value} # remark", f"{key}  {value}", f"{key} = {value} = x",
                       f";{key} = {value}", f" {key} ={value}\t", f"{key.upper()} = {value}",
                       f"{key} = #{value}"))


_ODD_LINES = ("[config]", "[other]", "[ config ]", "[]", "[config", "config]", "[config] x = 1", "=",
              "= 5", "=;", "garbage", "\t", ";", "#", "[other", "device", "\xff\xfe=\x80", "[a]b]",
              "x" * 5000 + " = y", "insts = " + ",".join(["cu2609"] * 900))


def orderly_file(rng, **fixed):
    """A file that brings the feed up, with other keys in it too."""
    values = {"device": "exanic0", "insts": "all", "shfe2ps": "enabled", "ine2ps": "enabled",
              "cpucore": cpu_values()[0], **fixed}
    lines = ["[config]"] + [f"{key} = {value}" for key, value in values.items()]
    return ("\n".join(lines) + "\n").encode("latin-1")


def _programmed_file(rng):
    """Both feeds on, with addresses of all kinds."""
    return orderly_file(rng, split_all_field=rng.choice(_NUMBERS),
                        **{f"{feed}_ip_{line}": rng.choice(_ADDRESSES)
                           for feed in ("shfe2ps", "ine2ps") for line in "ab"})


def config(rng):
    if rng.random() < 0.02:
        return Config(log_mask(rng), None, False, 0)
    if rng.random() < 0.03:
        return Config(log_mask(rng), _programmed_file(rng), True, 0)
    lines = [] if rng.random() < 0.1 else ["[config]"]
    keys = list(_KEYS) + ["cpucore"]
    if rng.random() < 0.8:
        lines.append("device = exanic0")
        lines.append("insts = " + rng.choice(("all", "cu2609,au")))
        lines.append("cpucore = " + rng.choice(cpu_values()))
    for _ in range(rng.randrange(12)):
        lines.append(_line(rng, rng.choice(keys)))
    for _ in range(rng.choice((0, 0, 1, 3))):
        lines.insert(rng.randrange(len(lines) + 1), rng.choice(_ODD_LINES))
    content = rng.choice(("\n", "\n", "\n", "\r\n")).join(lines)
    content += rng.choice(("", "\n", "\n\n"))
    if rng.random() < 0.03:
        content = "".join(chr(rng.randrange(1, 256)) for _ in range(300)).replace("\x1b", "")
    # A bring-up that the card does not refuse clears 20480 filter entries: a few will do.
    refused = rng.choice((1, 2, 3, 4)) if rng.random() < 0.8 else 0
    return Config(log_mask(rng), content.encode("latin-1"), rng.random() < 0.2, refused)
