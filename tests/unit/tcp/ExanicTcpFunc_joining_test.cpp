// Messages that straddle segments: splitting, joining, the limit of the joining buffer, and what
// joining does to the list of early segments.
// Columns of a script: first and last byte of the segment; next byte, held segments, joined bytes
// afterwards; packet numbers decoded; lines said; why.

#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

const std::string kIgnore = line('W', "_PacketHandler", "ignore tcp message!");
const std::string kNotAHeader =
    line('E', "_PacketHandler", "not a mdqp header, check program logic");

class Joining : public Reassembly {
protected:
    // Bytes [from, to) in segments of at most `step` bytes.
    void feed(const Stream& stream, std::size_t from, std::size_t to, std::size_t step = 1400) {
        for (std::size_t at = from; at < to; at += step) {
            deliver(stream.frame(at, std::min(at + step, to)));
        }
    }
};

TEST_F(Joining, EveryCutIntoTwoSegmentsDecodesTheSame) {
    // Messages of several sizes: 60 100 | 40 | 8 | 300 | 21
    const Stream stream = Stream()
                              .start(1, 160)
                              .message(2)
                              .raw(wirekit::mdqp_message().bytes())
                              .message(3, 300)
                              .message(4, 21);
    for (std::size_t cut = 45; cut < stream.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        core->ResetSession(session());
        // A segment of one byte occurs once, at 528; its message has begun before.
        EXPECT_EQ(decoded_by([&] {
                      deliver(stream.frame(0, cut));
                      deliver(stream.frame(cut, stream.size()));
                  }),
                  (std::vector<int>{1, 2, 3, 4}));
        EXPECT_EQ(session().frag_flag, 0);
        EXPECT_EQ(session().frag_buf_offset, 0);
        EXPECT_EQ(session().next_expt_seq, stream.seq(stream.size()));
    }
}

TEST_F(Joining, EveryCutIntoThreeSegmentsDecodesTheSame) {
    const Stream stream = Stream().start(1).message(2).message(3, 30).message(4, 21);
    const auto begins_message = [](std::size_t at) { return at == 60 || at == 100 || at == 130; };
    for (std::size_t first = 45; first < stream.size(); ++first) {
        for (std::size_t second = first + 1; second < stream.size(); ++second) {
            if (begins_message(first) && second == first + 1) {
                continue; // a message whose first byte stands alone is lost
            }
            core->ResetSession(session());
            table->shfe_pktno = 0;
            deliver(stream.frame(0, first));
            deliver(stream.frame(first, second));
            deliver(stream.frame(second, stream.size()));
            ASSERT_EQ(table->shfe_pktno, 4) << first << " " << second;
            ASSERT_EQ(session().frag_flag, 0) << first << " " << second;
            ASSERT_EQ(session().frag_buf_offset, 0) << first << " " << second;
        }
    }
}

TEST_F(Joining, EveryCutDecodesTheSameWhenTheSecondPartComesFirst) {
    const Stream stream = Stream().start(1).message(2).message(3, 30).message(4, 21);
    for (std::size_t cut = 62; cut < stream.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        core->_Cleandata();
        // clang-format off
        play(stream, {
            {  0,            60,            60, 0, 0, {1},       {}, "starts the session"},
            {cut, stream.size(),            60, 1, 0, {},        {}, "early"},
            { 60,           cut, stream.size(), 0, 0, {2, 3, 4}, {}, "closes the gap"},
        });
        // clang-format on
    }
}

TEST_F(Joining, OneByteIsNeverTheBeginningOfAMessage) {
    const Stream stream = Stream().start(1).message(2).message(3);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0, 0, {1}, {}, "starts the session"},
        { 60,  61,  61, 0, 0, {},  {}, "dropped; the sequence moves on"},
        { 61, 100, 100, 0, 0, {},  {}, "and so the rest begins no message"},
        {100, 140, 140, 0, 0, {3}, {}, "the next message is whole"},
    });
    // clang-format on
}

TEST_F(Joining, PaddingDoesNotCompleteTheStartOfAMessage) {
    // One byte of payload; what pads the frame behind it would make it a message's beginning.
    const Stream stream = Stream().start(1).raw({0x11}).message(3);
    Bytes frame = segment(stream.seq(60), {0x11}).padding(5).bytes();
    frame[55] = 0x32;
    establish(stream, 60);
    deliver(frame);
    EXPECT_EQ(session().frag_flag, 0);
    EXPECT_EQ(session().next_expt_seq, stream.seq(61));

    core->_Cleandata();
    const Stream later = Stream().start(1).message(2).raw({0x11});
    frame = segment(later.seq(100), {0x11}).padding(5).bytes();
    frame[55] = 0x32;
    establish(later, 60);
    deliver(frame);
    EXPECT_EQ(deliver_logged(later.frame(60, 100), "E"), Log{kNotAHeader});
    EXPECT_EQ(session().frag_flag, 0);
}

TEST_F(Joining, TwoToSevenBytesBeginAMessage) {
    for (std::size_t size = 2; size <= 8; ++size) {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        core->_Cleandata();
        const int kept = static_cast<int>(size);
        // clang-format off
        play(Stream().start(1).message(2).message(3), {
            {        0,        60,        60, 0,    0, {1},    {}, "starts the session"},
            {       60, 60 + size, 60 + size, 0, kept, {},     {}, "its first bytes"},
            {60 + size,       140,       140, 0,    0, {2, 3}, {}, "the rest and one more"},
        });
        // clang-format on
    }
}

TEST_F(Joining, ARestOfAnySizeIsKept) {
    for (std::size_t size = 1; size < 40; ++size) {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        core->_Cleandata();
        const int kept = static_cast<int>(size);
        // clang-format off
        play(Stream().start(1).message(2).message(3), {
            {         0,         60,         60, 0,    0, {1}, {}, "starts the session"},
            {        60, 100 + size, 100 + size, 0, kept, {2}, {}, "a message and a rest"},
            {100 + size,        140,        140, 0,    0, {3}, {}, "the rest of the rest"},
        });
        // clang-format on
    }
}

TEST_F(Joining, ManySmallSegmentsMakeUpAMessage) {
    const Stream stream = Stream().start(1).message(2, 300).message(3);
    establish(stream, 60);
    deliver(stream.frame(60, 62));
    for (std::size_t at = 62; at < 359; ++at) {
        deliver(stream.frame(at, at + 1));
        ASSERT_EQ(session().frag_buf_offset, static_cast<int>(at + 1 - 60));
        ASSERT_EQ(joined(), stream.slice(60, at + 1));
    }
    EXPECT_EQ(table->shfe_pktno, 1);
    deliver(stream.frame(359, 360));
    EXPECT_EQ(table->shfe_pktno, 2);
    EXPECT_EQ(session().frag_flag, 0);
}

TEST_F(Joining, MoreThanTheMessageIsDecodedMessageByMessage) {
    const Stream stream = Stream().start(1).message(2, 300).message(3).message(4).message(5, 200);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0,   0, {1},       {}, "starts the session"},
        { 60, 160, 160, 0, 100, {},        {}, "a part"},
        {160, 440, 440, 0,   0, {2, 3, 4}, {}, "two more behind it, nothing left"},
        {440, 500, 500, 0,  60, {},        {}, "a part"},
        {500, 600, 600, 0, 160, {},        {}, "more of it"},
        {600, 640, 640, 0,   0, {5},       {}, "exactly its end"},
    });
    // clang-format on
}

TEST_F(Joining, TheRestBehindAJoinedMessageIsMovedToTheFront) {
    const Stream stream = Stream().start(1).message(2, 300).message(3, 300).message(4, 300);
    establish(stream, 60);
    for (std::size_t rest = 1; rest < 300; ++rest) {
        core->_Cleandata();
        establish(stream, 60);
        deliver(stream.frame(60, 100));
        deliver(stream.frame(100, 360 + rest));
        ASSERT_EQ(table->shfe_pktno, 2);
        ASSERT_EQ(joined(), stream.slice(360, 360 + rest));
        ASSERT_EQ(session().frag_flag, 1);
        deliver(stream.frame(360 + rest, 960));
        ASSERT_EQ(table->shfe_pktno, 4);
        ASSERT_EQ(session().frag_flag, 0);
        ASSERT_EQ(session().frag_buf_offset, 0);
    }
}

TEST_F(Joining, JoinedBytesThatBeginNoMessageStopTheStreamSilently) {
    // The rest behind message 2 is kept without a look at its first bytes.
    const Stream stream = Stream().start(1).message(2).raw(Bytes(100, 0xEE)).message(3);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0,   0, {1}, {}, "starts the session"},
        { 60, 150, 150, 0,  50, {2}, {}, "a message and a rest of junk"},
        {150, 200, 200, 0, 100, {},  {}, "joined: no message; kept and silent"},
        {200, 240, 240, 0, 140, {},  {}, "and so is everything behind it"},
    });
    // clang-format on
}

TEST_F(Joining, AnIncompleteJoinedMessageStopsTheDrain) {
    const Stream stream = Stream().start(1).message(2, 300).message(3);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0,   0, {1},    {}, "starts the session"},
        { 60, 160, 160, 0, 100, {},     {}, "the first part, split off a segment"},
        {260, 400, 160, 1, 100, {},     {}, "the last part, early"},
        {160, 260, 260, 1, 200, {},     {}, "the middle: still incomplete, so nothing is drained"},
        {260, 400, 400, 0,   0, {2, 3}, {}, "only the repeat completes it; the held one is stale"},
    });
    // clang-format on
}

TEST_F(Joining, TheBeginningOfAMessageDoesNotStopTheDrain) {
    const Stream stream = Stream().start(1).message(2, 300).message(3);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0, 0, {1},    {}, "starts the session"},
        {160, 260,  60, 1, 0, {},     {}, "the middle, early"},
        {260, 400,  60, 2, 0, {},     {}, "the last part, early"},
        { 60, 160, 400, 0, 0, {2, 3}, {},
         "the first part; the drain goes on behind the middle, which leaves it incomplete"},
    });
    // clang-format on
}

TEST_F(Joining, TheDrainMayEndInTheMiddleOfAMessage) {
    const Stream stream = Stream().start(1).message(2, 300).message(3);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0,   0, {1},    {}, "starts the session"},
        {160, 260,  60, 1,   0, {},     {}, "the middle, early"},
        { 60, 160, 260, 0, 200, {},     {}, "the first part takes the middle along"},
        {260, 400, 400, 0,   0, {2, 3}, {}, "the last part"},
    });
    // clang-format on
}

TEST_F(Joining, TheDrainSplitsItsSegments) {
    const Stream stream = Stream().start(1).message(2).message(3).message(4).message(5, 21);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0,  0, {1},       {}, "starts the session"},
        {100, 190,  60, 1,  0, {},        {}, "two messages and a rest of 10, early"},
        { 60, 100, 190, 0, 10, {2, 3, 4}, {}, "closes the gap"},
        {190, 201, 201, 0,  0, {5},       {}, "the rest of the last one"},
    });
    // clang-format on
}

TEST_F(Joining, ABadStartOfJoinedBytesInTheDrainEndsTheFrame) {
    const Bytes junk(40, 0xEE); // as a header: a length of 0xEEEE
    const Stream stream = Stream().start(1).message(2).raw(junk).message(4).message(5);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0,  0, {1}, {},            "starts the session"},
        {120, 140,  60, 1,  0, {},  {},            "held: more junk"},
        {140, 180,  60, 2,  0, {},  {},            "held: a message"},
        { 60, 120, 140, 1, 40, {2}, {kNotAHeader}, "a rest of junk; the next held one joins it"},
        {140, 180, 180, 1, 80, {},  {},
         "in order the same is silent, and drains nothing"},
    });
    // clang-format on
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{stream.seq(140)}));
}

TEST_F(Joining, JoinsUpTo65535Bytes) {
    const Stream stream = Stream().start(1).message(2, 65535).message(3);
    establish(stream, 60);
    feed(stream, 60, 60 + 65534);
    EXPECT_EQ(session().frag_buf_offset, 65534);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60 + 65534, 60 + 65535)); }),
              (std::vector<int>{2}));
    EXPECT_EQ(session().frag_flag, 0);
    EXPECT_EQ(session().frag_buf_offset, 0);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60 + 65535, stream.size())); }),
              (std::vector<int>{3}));
}

TEST_F(Joining, AMessageOf65536BytesOrMoreCanNeverBeJoined) {
    for (const std::size_t size : {65536u, 65540u, 65543u}) { // 65543: the longest that there is
        SCOPED_TRACE(std::to_string(size) + " bytes");
        const Stream stream = Stream().start(1).message(2, size).message(3);
        establish(stream, 60);
        subscribe(3, "cu2601");
        finished.mask = 0x02;
        feed(stream, 60, 60 + 65535);
        ASSERT_EQ(session().frag_buf_offset, 65535);
        EXPECT_EQ(deliver_logged(stream.frame(60 + 65535, 60 + size)), Log{kIgnore});
        EXPECT_EQ(session().init, 0);
        EXPECT_EQ(session().frag_buf, nullptr);
        EXPECT_EQ(slot(3).inst_id[0], 0);
        EXPECT_EQ(finished.mask, 0);
        EXPECT_EQ(session().next_expt_seq, stream.seq(60 + size)); // moved on before
    }
}

TEST_F(Joining, WhatFollowsAJoinedMessageCountsTowardsTheLimit) {
    const Stream stream = Stream().start(1).message(2, 65000).message(3, 1000);
    establish(stream, 60);
    feed(stream, 60, 60 + 64500);
    EXPECT_EQ(deliver_logged(stream.frame(60 + 64500, 60 + 65536), "EWI"), Log{kIgnore});
    EXPECT_EQ(session().init, 0);

    establish(stream, 60);
    feed(stream, 60, 60 + 64500);
    deliver(stream.frame(60 + 64500, 60 + 65535));
    EXPECT_EQ(table->shfe_pktno, 2);
    EXPECT_EQ(joined(), stream.slice(60 + 65000, 60 + 65535));
}

TEST_F(Joining, TheDrainJoinsWithoutThatLimit) {
    // All but the first part of the longest message that there is arrive early.
    const Stream stream = Stream().start(1).message(2, 65543).message(3);
    establish(stream, 60);
    feed(stream, 1460, stream.size());
    ASSERT_EQ(session().frag_buf_offset, 0);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 1460)); }), (std::vector<int>{2, 3}));
    EXPECT_EQ(session().next_expt_seq, stream.seq(stream.size()));
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(session().frag_flag, 0);
}

TEST_F(Joining, TheDrainMayLeaveMoreThanTheLimitBehind) {
    const Stream stream = Stream().start(1).message(2, 65543);
    establish(stream, 60);
    feed(stream, 1460, 60 + 65540);
    deliver(stream.frame(60, 1460));
    EXPECT_EQ(session().frag_buf_offset, 65540);
    // In order, the three bytes that are missing are three too many.
    EXPECT_EQ(deliver_logged(stream.frame(60 + 65540, stream.size())), Log{kIgnore});
    EXPECT_EQ(session().init, 0);
}

// A record that runs past the end of what was received meets zeros, whatever lay there before.
class RunningOn : public Joining {
protected:
    RunningOn() {
        subscribe(5, "cu2601");
        slot(5).ask_totvol = 9;
        slot(5).ask_totamount = 9.0;
        // Totals cut behind the first volume; the rest of the record is missing.
        Bytes cut(9, 0);
        wirekit::put_le32(cut.data(), 5);
        wirekit::put_le32(cut.data() + 4, 55);
        cut_ = wirekit::mdqp_message().field(0x0104, 28, cut).bytes();
    }
    void expect_zeros() {
        EXPECT_EQ(slot(5).bid_totvol, 55);
        EXPECT_EQ(slot(5).bid_totamount, 0.0);
        EXPECT_EQ(slot(5).ask_totvol, 0);
        EXPECT_EQ(slot(5).ask_totamount, 0.0);
    }

    Bytes cut_;
};

TEST_F(RunningOn, MeetsZerosBehindJoinedBytes) {
    Stream stream = Stream().start(1).message(2, 2000).raw(cut_);
    establish(stream, 60);
    deliver(stream.frame(60, 1000));
    deliver(stream.frame(1000, 2060)); // the joining buffer has held 2000 bytes
    deliver(stream.frame(2060, 2070));
    deliver(stream.frame(2070, stream.size()));
    expect_zeros();
}

TEST_F(RunningOn, MeetsZerosBehindAHeldSegment) {
    Stream stream = Stream().start(1).message(2).message(3, 1900).raw(cut_);
    establish(stream, 60);
    deliver(stream.frame(100, 2000));
    deliver(stream.frame(2000, stream.size()));
    deliver(stream.frame(60, 100)); // drains the long one, then the short one
    expect_zeros();
}

TEST_F(RunningOn, MeetsTheNextMessageFirst) {
    // The missing bytes of the record are those of the message behind it.
    const Bytes next = plain_message(7, 40);
    Stream stream = Stream().start(1).raw(cut_).raw(next);
    establish(stream, 60);
    deliver(stream.frame(60, stream.size()));
    EXPECT_EQ(slot(5).bid_totvol, 55);
    // Behind the number, the volume and one byte of the amount: seven bytes of the amount, then
    // the ask volume.
    EXPECT_EQ(slot(5).ask_totvol, static_cast<int32_t>(wirekit::get_le32(next.data() + 7)));
    EXPECT_EQ(slot(5).ask_totamount, wirekit::get_le_f64(next.data() + 11));
    EXPECT_EQ(table->shfe_pktno, 7);
}

} // namespace
} // namespace tcp_test
