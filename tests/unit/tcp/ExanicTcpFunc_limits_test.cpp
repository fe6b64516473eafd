// Limits that no received frame can reach, tested by calling the member; and limits that are
// reached while the log is off, which change what they change all the same.

#include "tests/support/scripted_card.h"
#include "tests/unit/tcp/platform_stubs.h"
#include "tests/unit/tcp/segment_script.h"

#include <cstring>

namespace tcp_test {
namespace {

class Limits : public Reassembly {
protected:
    // A frame longer than any that is received, as an early segment.
    CExanicTcpFunc::FrameEnd hold_oversized() {
        Bytes frame = segment(5000, Bytes(100, 1)).bytes();
        frame.resize(RECV_BUF_SIZE + 1);
        CExanicTcpFunc::Segment early{};
        early.frame = reinterpret_cast<char*>(frame.data());
        early.frameLen = static_cast<uint32_t>(frame.size());
        early.seq = 5000;
        return core->_HoldEarlySegment(session(), early);
    }
};

TEST_F(Limits, AFrameLargerThanTheReceiveBufferIsNotHeld) {
    const Stream stream = Stream().start(1).message(2).message(3);
    establish(stream, 60);
    EXPECT_EQ(hold_oversized(), CExanicTcpFunc::FrameEnd::Stop); // the first of a list
    EXPECT_EQ(session().lost_buf_head, nullptr);
    EXPECT_EQ(session().lost_flag, 0);
    deliver(stream.frame(100, 140));
    const ChannelState before = state();
    EXPECT_EQ(hold_oversized(), CExanicTcpFunc::FrameEnd::Stop); // a further one
    EXPECT_EQ(difference(before), "");
}

TEST_F(Limits, AHeldSegmentThatWouldPassTheJoiningBufferCleansEverything) {
    const Stream stream = Stream().start(1).message(2).message(3);
    establish(stream, 60);
    deliver(stream.frame(100, 140)); // held
    session().frag_flag = 1;
    session().frag_buf_offset = static_cast<int32_t>(FRAG_BUF_SIZE - DECODE_SLACK) - 39;
    session().next_expt_seq = stream.seq(100);
    const Log said = logged([&] {
        EXPECT_EQ(core->_DrainHeldSegments(session(), kPort), CExanicTcpFunc::FrameEnd::Stop);
    });
    EXPECT_EQ(only(said, "_PacketHandler"),
              Log{line('W', "_PacketHandler", "ignore tcp message!")});
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().frag_buf, nullptr);
    EXPECT_EQ(session().lost_buf_head, nullptr);
}

TEST_F(Limits, AMessageThatCannotBeJoinedCleansInSilenceToo) {
    const Stream stream = Stream().start(1).message(2, 300);
    establish(stream, 60);
    deliver(stream.frame(60, 160));
    session().frag_buf_offset = static_cast<int32_t>(MAX_JOINED_SIZE) - 39;
    deliver(stream.frame(160, 200));
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().frag_buf, nullptr);
}

TEST_F(Limits, ABudgetRunsOutInSilenceToo) {
    support::ScriptedCard& card = support::ScriptedCard::instance();
    card.reset();
    card.record_stores(false);
    core->InitTcp(registers.data(), card.rx(1));
    StoppedWallClock clock(1000);
    card.on_poll([&](int, uint64_t poll) { clock.set(1000 + static_cast<time_t>(poll) * 121); });
    card.push_result(1, 5); // too short for a frame
    config.timeout_cnt = 2;
    core->StartRunning();
    core->RunTcpDecoder();
    EXPECT_EQ(core->GetInitialized(), MD_INIT_FAILED);
    card.reset();
}

#if TCP_TEST_ALLOCATION_STUB

TEST_F(Limits, AnEarlySegmentWithoutRoomIsDroppedInSilenceToo) {
    const Stream stream = Stream().start(1).message(2).message(3);
    establish(stream, 60);
    const NoMemoryFor nodes(RECV_BUF_SIZE);
    deliver(stream.frame(100, 140));
    EXPECT_EQ(session().lost_buf_head, nullptr);
}

#endif

} // namespace
} // namespace tcp_test
