// Established session: segments in order, old ones, gaps, the list of early segments and resets.
// Columns of a script: first and last byte of the segment; next byte, held segments, joined bytes
// afterwards; packet numbers decoded; lines said; why.

#include "tests/unit/tcp/segment_script.h"

#include <algorithm>

namespace tcp_test {
namespace {

const std::string kNotAHeader =
    line('E', "_PacketHandler", "not a mdqp header, check program logic");

class SegmentOrder : public Reassembly {
protected:
    // start: bytes 0 to 60; messages 2 to 6 of 40 bytes each from there: 60, 100, 140, 180, 220.
    static Stream six() {
        return Stream().start(1).message(2).message(3).message(4).message(5).message(6);
    }

    // Forward and backward links of the list agree.
    void expect_sound_list() {
        const TcpLostBuf* before = nullptr;
        for (const TcpLostBuf* node = session().lost_buf_head; node != nullptr; node = node->next) {
            EXPECT_EQ(node->before, before);
            before = node;
        }
    }
};

TEST_F(SegmentOrder, SegmentsInOrderAreDecodedAsTheyCome) {
    // clang-format off
    play(six(), {
        {  0,  60,  60, 0, 0, {1},    {}, "starts the session"},
        { 60, 100, 100, 0, 0, {2},    {}, "in order"},
        {100, 180, 180, 0, 0, {3, 4}, {}, "two messages"},
        {180, 260, 260, 0, 0, {5, 6}, {}, "two messages"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, HoldsEarlySegmentsUntilTheGapCloses) {
    // clang-format off
    play(six(), {
        {  0,  60,  60, 0, 0, {1},       {}, "starts the session"},
        {140, 180,  60, 1, 0, {},        {}, "third before first: held"},
        {100, 140,  60, 2, 0, {},        {}, "second before first: held in front"},
        {100, 140,  60, 2, 0, {},        {}, "the second again: discarded"},
        { 60, 100, 180, 0, 0, {2, 3, 4}, {}, "the first closes the gap"},
        {180, 260, 260, 0, 0, {5, 6},    {}, "and the stream goes on"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, EveryOrderOfEarlySegmentsEndsTheSame) {
    const Stream stream = six();
    std::vector<std::size_t> starts = {100, 140, 180, 220};
    do {
        core->_Cleandata();
        establish(stream, 60);
        for (const std::size_t from : starts) {
            deliver(stream.frame(from, from + 40));
            expect_sound_list();
        }
        ASSERT_EQ(held_seqs(), (std::vector<uint32_t>{stream.seq(100), stream.seq(140),
                                                      stream.seq(180), stream.seq(220)}));
        EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 100)); }),
                  (std::vector<int>{2, 3, 4, 5, 6}));
        EXPECT_EQ(session().lost_buf_head, nullptr);
        EXPECT_EQ(session().lost_flag, 0);
    } while (std::next_permutation(starts.begin(), starts.end()));
}

TEST_F(SegmentOrder, AHeldSegmentIsACopyOfTheWholeFrame) {
    const Stream stream = six();
    establish(stream, 60);
    const Bytes frame = segment(stream.seq(100), stream.slice(100, 140))
                            .ip_options(8)
                            .tcp_options(12)
                            .padding(3)
                            .bytes();
    deliver(frame);
    const TcpLostBuf* const node = session().lost_buf_head;
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->len, frame.size());
    EXPECT_EQ(Bytes(node->buf, node->buf + node->len), frame);
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(node->before, nullptr);
    for (std::size_t i = node->len; i < sizeof(node->buf); ++i) {
        ASSERT_EQ(node->buf[i], 0) << i;
    }
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 100)); }), (std::vector<int>{2, 3}));
    EXPECT_EQ(session().next_expt_seq, stream.seq(140)); // without options and padding
}

TEST_F(SegmentOrder, TheLongestFrameCanBeHeld) {
    const Stream stream = Stream().start(1).message(2).message(3, 1994).message(4);
    const Bytes longest = stream.frame(100, 2094);
    ASSERT_EQ(longest.size(), 2048u);
    // clang-format off
    play(stream, {
        {   0,   60,   60, 0, 0, {1},       {}, "starts the session"},
        { 100, 2094,   60, 1, 0, {},        {}, "2048 bytes of frame"},
        {2094, 2134,   60, 2, 0, {},        {}, "held behind it"},
        {  60,  100, 2134, 0, 0, {2, 3, 4}, {}, "closes the gap"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, OldSegmentsAreIgnoredWhole) {
    // clang-format off
    play(six(), {
        {  0,  60,  60, 0, 0, {1}, {}, "starts the session"},
        { 60, 100, 100, 0, 0, {2}, {}, "in order"},
        { 60, 100, 100, 0, 0, {},  {}, "the same again"},
        {  0,  60, 100, 0, 0, {},  {}, "the starting segment again"},
        { 60, 140, 100, 0, 0, {},  {}, "old start, new bytes behind: ignored with them"},
        { 99, 140, 100, 0, 0, {},  {}, "one byte too early"},
        {100, 140, 140, 0, 0, {3}, {}, "in order"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, OtherAddressesAreIgnored) {
    const Stream stream = six();
    establish(stream, 60);
    const ChannelState before = state();
    const Bytes payload = stream.slice(60, 100);
    const auto frame = [&](uint32_t from, uint32_t to) {
        return wirekit::tcp_segment()
            .from(from, kMd2psPort)
            .to(to, kPort)
            .seq(stream.seq(60))
            .payload(payload)
            .bytes();
    };
    EXPECT_EQ(deliver_logged(frame(kExchangeIp + 1, kLocalIp)), Log{});
    EXPECT_EQ(deliver_logged(frame(kExchangeIp, kLocalIp + 1)), Log{});
    EXPECT_EQ(deliver_logged(frame(kLocalIp, kExchangeIp)), Log{});
    EXPECT_EQ(deliver_logged(frame(kExchangeIp ^ 0x80000000u, kLocalIp)), Log{});
    EXPECT_EQ(difference(before), "");
    EXPECT_EQ(decoded_by([&] { deliver(frame(kExchangeIp, kLocalIp)); }), (std::vector<int>{2}));
}

TEST_F(SegmentOrder, TheOtherStreamsPortContinuesTheSession) {
    // Addresses and local port identify a session; both server ports are the exchange's.
    const Stream stream = six();
    establish(stream, 60);
    deliver(segment(stream.seq(60), stream.slice(60, 100)).from(kExchangeIp, kMd4psPort).bytes());
    EXPECT_EQ(session().next_expt_seq, stream.seq(100));
    EXPECT_EQ(session().src_port, kMd2psPort);
}

TEST_F(SegmentOrder, ARepeatedHeadIsDiscardedAndRepeatsOfOthersAreHeld) {
    // clang-format off
    play(six(), {
        {  0,  60,  60, 0, 0, {1},          {}, "starts the session"},
        {100, 140,  60, 1, 0, {},           {}, "held"},
        {100, 140,  60, 1, 0, {},           {}, "the head again: discarded"},
        {180, 220,  60, 2, 0, {},           {}, "held behind"},
        {180, 220,  60, 3, 0, {},           {}, "the second again: held too"},
        {180, 220,  60, 4, 0, {},           {}, "and again"},
        {140, 180,  60, 5, 0, {},           {}, "between"},
        { 60, 100, 220, 0, 0, {2, 3, 4, 5}, {}, "the repeats are stale when their turn comes"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, TheDrainStopsAtTheNextGap) {
    // clang-format off
    play(six(), {
        {  0,  60,  60, 0, 0, {1},       {}, "starts the session"},
        {220, 260,  60, 1, 0, {},        {}, "held"},
        {100, 140,  60, 2, 0, {},        {}, "held"},
        { 60, 100, 140, 1, 0, {2, 3},    {}, "180 is still missing"},
        {180, 220, 140, 2, 0, {},        {}, "so is 140"},
        {140, 180, 260, 0, 0, {4, 5, 6}, {}, "closes it"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, HeldSegmentsThatTheStreamHasPassedAreDroppedWhole) {
    // clang-format off
    play(six(), {
        {  0,  60,  60, 0, 0, {1},       {}, "starts the session"},
        {100, 140,  60, 1, 0, {},        {}, "held"},
        {140, 220,  60, 2, 0, {},        {}, "held; begins before what comes next and ends behind"},
        { 60, 180, 180, 0, 0, {2, 3, 4}, {}, "passes both: their new bytes are lost"},
        {180, 260, 260, 0, 0, {5, 6},    {}, "the sender repeats them"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, FiveHundredSegmentsAreHeldAndDrained) {
    Stream stream;
    stream.start(1);
    for (int i = 2; i <= 502; ++i) {
        stream.message(i);
    }
    establish(stream, 60);
    for (std::size_t i = 1; i <= 500; ++i) {
        deliver(stream.frame(60 + i * 40, 100 + i * 40));
    }
    EXPECT_EQ(session().lost_buf_size, 500u);
    expect_sound_list();
    std::vector<int> all;
    for (int i = 2; i <= 502; ++i) {
        all.push_back(i);
    }
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 100)); }), all);
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(session().lost_flag, 0);
}

TEST_F(SegmentOrder, The501stHeldSegmentClearsEverything) {
    const struct {
        const char* name;
        uint32_t seq;
        const char* why;
    } rows[] = {
        {"Behind", 9000000, "would be the last"},
        {"Between", 2000020, "would lie between two"},
        {"Front", 1500000, "would be the head"},
        {"Repeat", 2000000, "would be discarded if there were room to look"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        deliver(segment(1000000, start_message()).bytes());
        for (uint32_t i = 0; i < 500; ++i) {
            deliver(segment(2000000 + i * 40, plain_message(1)).bytes());
        }
        ASSERT_EQ(session().lost_buf_size, 500u);
        subscribe(77, "cu2601");
        finished.mask = 0x02;
        EXPECT_EQ(
            deliver_logged(segment(row.seq, plain_message(1)).bytes()),
            Log{line('E', "_PacketHandler",
                     "break tcp seq detected. expt: 1000060, got: " + std::to_string(row.seq))});
        EXPECT_EQ(session().init, 0);
        EXPECT_EQ(session().lost_buf_head, nullptr);
        EXPECT_EQ(session().lost_buf_size, 0u);
        EXPECT_EQ(session().frag_buf, nullptr);
        EXPECT_EQ(slot(77).inst_id[0], 0);
        EXPECT_EQ(finished.mask, 0);
    }
}

TEST_F(SegmentOrder, RepeatsCountTowardsTheLimit) {
    deliver(segment(1000000, start_message()).bytes());
    deliver(segment(2000000, plain_message(1)).bytes());
    for (int i = 0; i < 499; ++i) {
        deliver(segment(3000000, plain_message(1)).bytes());
    }
    EXPECT_EQ(session().lost_buf_size, 500u);
    EXPECT_EQ(deliver_logged(segment(3000000, plain_message(1)).bytes()).size(), 1u);
    EXPECT_EQ(session().init, 0);
}

TEST_F(SegmentOrder, ASegmentThatBeginsNoMessageIsDroppedButCounts) {
    const Stream stream = Stream().start(1).raw(Bytes(40, 0xEE)).message(3).message(4);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0, 0, {1},    {}, "starts the session"},
        {100, 140,  60, 1, 0, {},     {}, "held"},
        { 60, 100, 100, 1, 0, {},     {}, "no message: the sequence moves on, no drain"},
        {140, 180, 100, 2, 0, {},     {}, "and so the next one is early"},
        {100, 140, 180, 0, 0, {3, 4}, {}, "repeated, in order; one stale, one due"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, AMessageStartIsKnownByItsFirstTwoBytes) {
    const struct {
        const char* name;
        uint8_t flag;
        uint8_t type;
        bool taken;
        const char* why;
    } rows[] = {
        {"More", 0x11, 0x32, true, "a message with others behind it"},
        {"Last", 0x01, 0x32, true, "the last one"},
        {"Zero", 0x00, 0x32, false, "bit 0 is missing"},
        {"OnlyMore", 0x10, 0x32, false, "bit 0 is missing"},
        {"Bit1", 0x13, 0x32, false, "another bit is set"},
        {"Bit5", 0x31, 0x32, false, "another bit is set"},
        {"Bit7", 0x81, 0x32, false, "another bit is set"},
        {"Type", 0x11, 0x33, false, "another type"},
        {"TypeSign", 0x11, 0xB2, false, "another type"},
    };
    uint16_t port = 100;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        ++port;
        deliver(segment(1000, start_message(), port).bytes());
        Bytes payload = plain_message(9);
        payload[0] = row.flag;
        payload[1] = row.type;
        table->shfe_pktno = 0;
        deliver(segment(1060, payload, port).bytes());
        EXPECT_EQ(table->shfe_pktno, row.taken ? 9 : 0);
        EXPECT_EQ(session(port).next_expt_seq, 1100u);
        finished.mask = 0;
    }
}

TEST_F(SegmentOrder, OnlyTheFirstMessageOfASegmentHasItsStartTested) {
    Bytes odd = plain_message(3);
    odd[0] = 0xFE;
    odd[1] = 0xFE;
    const Stream stream = Stream().start(1).message(2).raw(odd).message(4);
    // clang-format off
    play(stream, {
        { 0,  60,  60, 0, 0, {1},       {}, "starts the session"},
        {60, 180, 180, 0, 0, {2, 3, 4}, {}, "the second message would not begin a segment"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, AHeldSegmentThatBeginsNoMessageEndsTheFrame) {
    const Stream stream = Stream().start(1).message(2).raw(Bytes(40, 0xEE)).message(4).message(5);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0, 0, {1},    {},            "starts the session"},
        {100, 140,  60, 1, 0, {},     {},            "held without a look inside"},
        {140, 180,  60, 2, 0, {},     {},            "held"},
        { 60, 100, 140, 1, 0, {2},    {kNotAHeader},
         "its turn: taken off the list, the rest stays"},
        {180, 220, 140, 2, 0, {},     {},            "140 is still to come in order"},
        {140, 180, 220, 0, 0, {4, 5}, {},            "goes on; the held copy is stale"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, SequenceNumbersAreComparedWithoutWrapAround) {
    // The stream reaches 0 after 100 bytes.
    const Stream stream = Stream(0xFFFFFF9C).start(1).message(2).message(3).message(4);
    ASSERT_EQ(stream.seq(100), 0u);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0, 0, {1}, {}, "starts the session"},
        {100, 140,  60, 0, 0, {},  {}, "ahead, but its number is lower: taken as old"},
        { 60, 100, 100, 0, 0, {2}, {}, "in order up to the wrap"},
        { 60, 100, 100, 1, 0, {},  {}, "repeated, but its number is higher: taken as early"},
        {100, 140, 140, 1, 0, {3}, {}, "in order behind the wrap; the held one is never reached"},
        {140, 180, 180, 1, 0, {4}, {}, "in order"},
    });
    // clang-format on
}

TEST_F(SegmentOrder, ASegmentMayReachAcrossTheWrap) {
    const Stream stream = Stream(0xFFFFFFB0).start(1).message(2, 100).message(3);
    // clang-format off
    play(stream, {
        {  0,  60,  60, 0, 0, {1},    {}, "starts the session"},
        {100, 200,  60, 0, 0, {},     {}, "begins behind the wrap: old"},
        { 60, 200, 200, 0, 0, {2, 3}, {}, "begins before it"},
    });
    // clang-format on
    EXPECT_EQ(session().next_expt_seq, 0x78u);
}

TEST_F(SegmentOrder, TheEndOfTheFeedDoesNotStopTheDrain) {
    const Stream stream = Stream().start(1).message(2, 40, wirekit::kFlagLast).message(3);
    establish(stream, 60);
    deliver(stream.frame(100, 140));
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 100)); }), (std::vector<int>{2, 3}));
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(finished.mask, 0x01);
}

} // namespace
} // namespace tcp_test
