"""What the coverage goals do not ask for, each with the reason why it cannot be reached.

`by` names who cannot: "corpora", "tests". `code` is a piece of the source line; with `lines` the
exception covers that many lines from there on, with `way` only one way of its branches. coverage.py
fails when an entry is not needed any more, unless `chance` says that it may be reached by chance.
"""

from typing import NamedTuple, Optional, Tuple


class Except(NamedTuple):
    file: str
    code: str
    why: str
    by: Tuple[str, ...] = ("corpora", "tests")
    lines: int = 1
    way: Optional[str] = None
    chance: bool = False


_SRC = "exchange/exanic_shfe_md/src/"
_IMPL = _SRC + "ExanicMdImpl.cpp"
_FRAME = _SRC + "tcp/ExanicTcpFunc_frame.cpp"
_SESSION = _SRC + "tcp/ExanicTcpFunc_session.cpp"
_LOUD = "the entry enables every level before, and only a configuration that was read lowers them"
_NO_MEMORY = "memory runs out; the tests refuse it"
_MANY = "no buffer of the card has as many changes; a test hands them to the member"
_ONLY_CORPORA = ("corpora",)
_ONLY_TESTS = ("tests",)

EXCEPTIONS = [
    Except(_IMPL, "feed.exanicTcp.InitTcp(", "always 0: nothing in it can fail", _ONLY_TESTS, 4),
    Except(_IMPL, "feed.exanicUdp.InitUdp(", "always 0: nothing in it can fail", _ONLY_TESTS, 4),
    Except(_IMPL, '"failed to initialize config data"', _LOUD, _ONLY_TESTS, way="false"),
    Except(_IMPL, '"failed to allocate share memor"', _LOUD, _ONLY_TESTS, way="false"),
    Except(_IMPL, '"failed to allocate cache buffer"', _LOUD, _ONLY_TESTS, way="false"),
    Except(_IMPL, "decodeFlag != RET_FAILED) {",
           "a failure empties the cache, whose count is tested first", _ONLY_TESTS, way="false"),
    Except(_FRAME, "ipHdrLen > MAX_HEADER", "four bits times four are 60 at most", way="true"),
    Except(_FRAME, "tcpHdrLen > MAX_HEADER", "four bits times four are 60 at most", way="true"),
    Except(_FRAME, "segmentLen > MAX_TCP_SEGMENT",
           "a received frame is too short for it; a test calls the member", _ONLY_CORPORA, way="true"),
    Except(_SESSION, "iter >= maxFields",
           "a field takes five bytes or more, so the walk ends before", way="true"),
    Except(_SESSION, "if (frameLen > sizeof(TcpLostBuf::buf)) {",
           "no received frame is that long; a test calls the member", _ONLY_CORPORA, 3),
    Except(_SESSION, "auto* node = static_cast<TcpLostBuf*>(malloc", _NO_MEMORY, _ONLY_CORPORA, 5),
    Except(_SESSION, "if (session.frag_buf == nullptr) {", _NO_MEMORY, _ONLY_CORPORA, 8),
    Except(_SESSION, "TcpLostBuf* node = HoldFrame(", _NO_MEMORY, _ONLY_CORPORA, 5),
    *(Except(_SRC + file, code, _MANY, _ONLY_CORPORA, lines) for file, code, lines in (
        ("udp/BookChanges.h", "m_count == BookUndo::CAPACITY", 4),
        ("udp/BookUndo.h", "void MakeRoom(", 11),
        ("udp/BookUndo.h", "if (m_isWhole) {", 4),
        ("udp/BookUndo.h", "static char* BookOf(", 3))),
    Except(_SESSION, "if (result == AppendResult::Cleared) {",
           "a message is decoded once it is whole, long before; a test calls the member",
           _ONLY_CORPORA, 3),
    Except(_SRC + "tcp/ExanicTcpFunc.cpp", "m_handlerCount.load() == before",
           "a handler begins between two loads: chance", _ONLY_TESTS, chance=True),
    Except(_SRC + "tcp/FramePool.h", "while (!m_given.compare_exchange_weak",
           "two threads meet in one exchange: chance", _ONLY_TESTS, 3, chance=True),
    Except(_SRC + "tcp/Task.h", "static constexpr bool FitsInPlace() {",
           "runs while compiling only", _ONLY_TESTS, 4),
    Except(_SRC + "tcp/TaskWorker.cpp", '"Failed to join thread: "',
           "tested in a process that then ends by SIGABRT and leaves no counts", _ONLY_TESTS, 2),
]
