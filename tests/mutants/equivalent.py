"""Mutants that change nothing which can be seen, each with the reason.

`code` is a piece of the source line; with `lines` the entry covers that many lines from there on, with
`before` and `after` only the mutants that change this into that, and with `nth` of several that do so
in one line the n-th.
"""

from typing import NamedTuple, Optional


class Same(NamedTuple):
    file: str
    code: str
    why: str
    before: Optional[str] = None
    after: Optional[str] = None
    lines: int = 1
    nth: Optional[int] = None


_SRC = "exchange/exanic_shfe_md/src/"
_IMPL = _SRC + "ExanicMdImpl.cpp"
_MONITOR = _SRC + "ExanicMdMonitor.cpp"
_CONFIG = _SRC + "config/ConfigParse.h"
_TCP = _SRC + "tcp/ExanicTcpFunc.cpp"
_UDP = _SRC + "udp/ExanicUdpFunc.cpp"
_MIRP = _SRC + "udp/ExanicUdpFunc_mirp.cpp"
_CHANGES = _SRC + "udp/BookChanges.h"
_WORKER = _SRC + "tcp/TaskWorker.cpp"
_LOG = "public/log/CommonLog.cpp"
_SET_LATER = "set on every way to where it is read"

EQUIVALENT = [
    Same(_LOG, "DropPending(m_logHandler);",
         "glibc drops by itself what it could not write; a library that keeps it is not at hand"),
    Same(_LOG, "__fpurge(file);", "glibc drops by itself what it could not write"),
    Same(_LOG, "clearerr(file);", "nobody asks a stream whether it has failed before"),
    Same(_LOG, "size_t length = needed < 0 ?", "a length of 0 is 0 either way", "needed < 0",
         "needed <= 0"),
    Same(_LOG, "size_t length = needed < 0 ?", "a length of 0 is 0 either way", "0", "(0 + 1)",
         nth=1),
    Same(_LOG, "const int needed = vsnprintf(text + source.Size(), MESSAGE_SIZE",
         "what is used of it is cut to the bound again", "MESSAGE_SIZE",
         "static_cast<decltype(MESSAGE_SIZE)>(MESSAGE_SIZE + 1)"),
    Same(_LOG, "char text[SOURCE_SIZE + MESSAGE_SIZE];",
         "a byte that only a source text and a message of the longest would need together", "SOURCE_SIZE",
         "static_cast<decltype(SOURCE_SIZE)>(SOURCE_SIZE - 1)"),
    Same(_MONITOR, "for (uint32_t i = 0; i < VORN_MD_FEED_CNT; ++i) {",
         "one word too many goes into the next member, which is written right after",
         "i < VORN_MD_FEED_CNT", "i <= VORN_MD_FEED_CNT"),
    Same(_MONITOR, "narrowest = width;", "the last pair instead of the narrowest: its precision"),
    Same(_MONITOR, "for (int i = 0; i < PAIRS; ++i) {", "one measurement less of the same",
         "0", "(0 + 1)"),
    Same(_IMPL, "if (feed.exanicTcp.InitTcp(", "never fails", "false", "true", lines=3),
    Same(_IMPL, "if (feed.exanicUdp.InitUdp(", "never fails", "false", "true", lines=3),
    Same(_IMPL, "failed to initialize TCP function", "never fails"),
    Same(_IMPL, "failed to initialize UDP function", "never fails"),
    Same(_IMPL, "if (decodeFlag != RET_FAILED) {",
         "a failure empties the cache, whose count is tested first", "RET_FAILED"),
    Same(_CONFIG, "int8_t split_all_field = 0;", _SET_LATER, "0"),
    Same(_CONFIG, "uint16_t md2ps_snap_port = 0;", _SET_LATER, "0"),
    Same(_TCP, "bool completed = false;", _SET_LATER, "false"),
    Same(_WORKER, "sched_yield();", "waits as long without letting others run meanwhile"),
    Same(_TCP, "worker.Join();",
         "its destructor joins too; a frame that comes back in between is kept for the next phase"),
    Same(_WORKER, "sleeping = false;", "one wake-up that nobody waits for", "false"),
    Same(_MIRP, "uint16_t exchangeType = EXCHANGE_TYPE_SHFE;", _SET_LATER, "EXCHANGE_TYPE_SHFE"),
    Same(_SRC + "config/ConfigParse.cpp", "if (logLevel > 7) {",
         "the lines behind it are of a level that is disabled at 8", "7", "(7 + 1)"),
    Same(_SRC + "tcp/ExanicTcpFunc_mdqp.cpp", "uint16_t previousField = 0;",
         "no field that is asked for has the number", "0", "(0 + 1)"),
    Same(_SRC + "tcp/ExanicTcpFunc_mdqp.cpp", "_OnPacketNo(type, data);",
         "the cases behind it do nothing but break", "break", lines=2),
    Same(_SRC + "tcp/ExanicTcpFunc_session.cpp", "const uint32_t maxFields = size / 4 + 1;",
         "a field takes five bytes or more, so that no walk of 45 bytes or more comes near the bound"),
    Same(_SRC + "tcp/ExanicTcpFunc_session.cpp", "while (true) {",
         "nothing stands behind it: the compiler takes it for endless", "true", "false"),
    Same("public/log/CommonLog.h", "int64_t m_wholeBytes = 0;", _SET_LATER, "0"),
    Same(_MIRP, "int32_t result = RET_OK;", _SET_LATER, "RET_OK"),
    Same(_MIRP, "return -1;", "every number below 0 says that there is no slot", "1", "(1 + 1)"),
    Same(_MIRP, "const bool inOrder = bid[0] > bid[1]",
         "a shortcut: who does not take it is compared level by level", "0", "(0 + 1)"),
    Same(_MIRP, "ask[0] < ask[1] && ask[1] < ask[2]",
         "a shortcut: a level compared with itself does not take it", "1", "(1 + 1)", nth=2),
    Same(_CHANGES, "for (int32_t i = k; i < last; ++i) {",
         "the level that is copied once more is cleared right after", "i < last", "i <= last"),
    Same(_UDP, "inline void CExanicUdpFunc::_PrefetchNext(", "a hint to the processor", lines=18),
    Same(_UDP, "void CExanicUdpFunc::PrefetchCalcInfo() {", "a hint to the processor", lines=21),
]


def _covers(entry, text, mutant, alike):
    if mutant["file"] != entry.file:
        return False
    if entry.before not in (None, mutant["before"]) or entry.after not in (None, mutant["after"]):
        return False
    if entry.nth is not None and alike.index(mutant) != entry.nth - 1:
        return False
    places = [i + 1 for i, line in enumerate(text.splitlines()) if entry.code in line]
    if not places:
        raise SystemExit(f"mutants: '{entry.code}' of equivalent.py is not in {entry.file} any more")
    return any(0 <= mutant["line"] - place < entry.lines for place in places)


def reason_of(tree, mutant):
    """Why `mutant` of `tree` cannot be seen, or None."""
    text = next(text for name, text in tree.files.items() if str(name) == mutant["file"]).decode()
    place = [mutant[key] for key in ("file", "line", "before", "after")]
    alike = [other for other in tree.mutants
             if [other[key] for key in ("file", "line", "before", "after")] == place]
    return next((entry.why for entry in EQUIVALENT if _covers(entry, text, mutant, alike)), None)
