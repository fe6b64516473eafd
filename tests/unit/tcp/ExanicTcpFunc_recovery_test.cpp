// The key recovery: what it mends in reassembly, and that nothing changes without it.
// Columns of a script: first and last byte of the segment; next byte, held segments, joined bytes
// afterwards; packet numbers decoded; lines said; why.

#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

class Recovery : public Reassembly {
protected:
    Recovery() { config.recovery = true; }
};

TEST_F(Recovery, HeldSegmentsAreDrainedBehindASegmentThatLeavesAMessageIncomplete) {
    const Stream stream = Stream().start(1).message(2, 100).message(3, 40);
    // clang-format off
    play(stream, {
        {  0,  60,     60, 0,  0, {1},    {}, "starts the session"},
        { 60,  80,     80, 0, 20, {},     {}, "begins the second message"},
        {110, 200,     80, 1, 20, {},     {}, "early: held"},
        { 80, 110,    200, 0,  0, {2, 3}, {}, "still incomplete, but the held one follows"},
    });
    // clang-format on
}

TEST_F(Recovery, WithoutItAnIncompleteMessageLeavesThemHeldUntilTheyAreStale) {
    config.recovery = false;
    const Stream stream = Stream().start(1).message(2, 100).message(3, 40);
    // clang-format off
    play(stream, {
        {  0,  60,     60, 0,  0, {1},    {}, "starts the session"},
        { 60,  80,     80, 0, 20, {},     {}, "begins the second message"},
        {110, 200,     80, 1, 20, {},     {}, "early: held"},
        { 80, 110,    110, 1, 50, {},     {}, "incomplete: nothing is drained"},
        {110, 200,    200, 0,  0, {2, 3}, {}, "only the segment itself, sent again, goes on"},
    });
    // clang-format on
}

TEST_F(Recovery, ALongMessageWhoseFirstPartIsLateIsTakenWhole) {
    const Stream stream = Stream().start(1).message(2, 3000).message(3, 40);
    // clang-format off
    play(stream, {
        {   0,   60,     60, 0,    0, {1},    {}, "starts the session"},
        {1060, 2060,     60, 1,    0, {},     {}, "early"},
        {2060, 3060,     60, 2,    0, {},     {}, "early"},
        {3060, 3100,     60, 3,    0, {},     {}, "early"},
        {  60, 1060,   3100, 0,    0, {2, 3}, {}, "closes the gap"},
    });
    // clang-format on
}

TEST_F(Recovery, AMessageThatIsNoneStillEndsTheFrame) {
    const Stream stream = Stream().start(1).message(2, 41).raw(Bytes(40, 0xEE));
    establish(stream, 60);
    deliver(stream.frame(60, 61)); // one byte decides nothing and is dropped
    deliver(stream.frame(80, 101));
    deliver(stream.frame(61, 80));
    EXPECT_EQ(session().next_expt_seq, stream.seq(80));
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{stream.seq(80)}));
}

TEST_F(Recovery, AnAppendThatOverflowsStillClearsEverything) {
    const Stream stream = Stream().start(1).message(2, 8 + 65535).message(3, 40);
    establish(stream, 60);
    for (std::size_t at = 60; at + 1000 < stream.size() - 48; at += 1000) {
        deliver(stream.frame(at, at + 1000));
    }
    EXPECT_EQ(deliver_logged(stream.frame(65060, 66060 > stream.size() ? stream.size() : 66060)),
              Log{line('W', "_PacketHandler", "ignore tcp message!")});
    EXPECT_EQ(session().init, 0);
}

// --- A session that starts again.

class RecoveryStart : public Recovery {
protected:
    // A finished session with a part of a message behind its end, and one early segment.
    void leave_behind(uint32_t early_seq) {
        const Stream first =
            Stream(1000).start(1).message(2, 40, wirekit::kFlagLast).message(3, 90);
        establish(first, 60);
        deliver(segment(early_seq, plain_message(77)).bytes());
        deliver(first.frame(60, 130));
        ASSERT_EQ(session().init, 0);
        ASSERT_EQ(session().frag_flag, 1);
        ASSERT_EQ(held_seqs(), (std::vector<uint32_t>{early_seq}));
    }
    static Stream second() {
        return Stream(50000).start(10, 60, kIne2psTopic).message(11, 50).message(12, 50);
    }
};

TEST_F(RecoveryStart, DropsTheFragmentAndTheHeldSegments) {
    leave_behind(90000);
    establish(second(), 60);
    EXPECT_EQ(session().frag_flag, 0);
    EXPECT_EQ(session().frag_buf_offset, 0);
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{}));
}

TEST_F(RecoveryStart, TakesNoOldSegmentForOneOfItsOwn) {
    leave_behind(50110);
    const Stream stream = second();
    establish(stream, 60);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 110)); }), (std::vector<int>{11}));
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(110, 160)); }), (std::vector<int>{12}));
}

TEST_F(RecoveryStart, CountsWhatItHoldsFromZero) {
    leave_behind(5000);
    const Stream stream = second();
    establish(stream, 60);
    deliver(stream.frame(110, 160));
    EXPECT_EQ(session().lost_buf_size, 1u);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 110)); }), (std::vector<int>{11, 12}));
    EXPECT_EQ(session().lost_buf_size, 0u);
}

TEST_F(RecoveryStart, WithoutItTheOldSegmentIsTaken) {
    config.recovery = false;
    leave_behind(50110);
    const Stream stream = second();
    establish(stream, 60);
    EXPECT_EQ(session().lost_flag, 1);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 110)); }), (std::vector<int>{11, 77}));
}

// --- Sequence numbers that wrap.

class RecoveryWrap : public Recovery {
protected:
    // The second message begins below 2^32 and ends above it.
    const Stream stream = Stream(0xFFFFFFFFu - 99).start(1).message(2, 60).message(3).message(4);
};

TEST_F(RecoveryWrap, AStreamInOrderIsTakenAcrossTheWrap) {
    EXPECT_EQ(decoded_by([&] {
                  deliver(stream.frame(0, 60));
                  deliver(stream.frame(60, 120));
                  deliver(stream.frame(120, 160));
                  deliver(stream.frame(160, 200));
              }),
              (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(session().next_expt_seq, 100u);
}

TEST_F(RecoveryWrap, EarlySegmentsBehindTheWrapAreHeldInOrder) {
    establish(stream, 60);
    deliver(stream.frame(160, 200));
    deliver(stream.frame(120, 160));
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{stream.seq(120), stream.seq(160)}));
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 120)); }), (std::vector<int>{2, 3, 4}));
}

TEST_F(RecoveryWrap, EarlySegmentsOnBothSidesOfItAreHeldInOrder) {
    establish(stream, 60);
    deliver(stream.frame(160, 200));
    deliver(stream.frame(90, 120)); // ends above 2^32, begins below
    deliver(stream.frame(120, 160));
    EXPECT_EQ(held_seqs(),
              (std::vector<uint32_t>{stream.seq(90), stream.seq(120), stream.seq(160)}));
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 90)); }), (std::vector<int>{2, 3, 4}));
}

TEST_F(RecoveryWrap, WhatLiesBeforeTheWrapIsOldBehindIt) {
    establish(stream, 60);
    deliver(stream.frame(60, 120));
    EXPECT_EQ(session().next_expt_seq, 20u);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 120)); }), (std::vector<int>{}));
    EXPECT_EQ(session().lost_flag, 0);
}

TEST_F(RecoveryWrap, AStaleHeldSegmentIsDroppedAcrossTheWrap) {
    establish(stream, 60);
    deliver(stream.frame(90, 120));
    deliver(stream.frame(60, 160)); // as sent again, with other borders
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(session().next_expt_seq, stream.seq(160));
}

TEST_F(RecoveryWrap, WithoutItSegmentsBehindTheWrapAreOld) {
    config.recovery = false;
    establish(stream, 60);
    deliver(stream.frame(120, 160));
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 120)); }), (std::vector<int>{2}));
}

} // namespace
} // namespace tcp_test
