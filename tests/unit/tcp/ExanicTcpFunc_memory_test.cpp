// No memory for a session: without its joining buffer the feed cannot go on, without room for an
// early segment it loses that segment, and without room for the check of a finished snapshot it
// takes the snapshot again.

#include "tests/unit/tcp/platform_stubs.h"

#if TCP_TEST_ALLOCATION_STUB

#include "CommonLog.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/tcp/segment_script.h"

#include <cstdio>
#include <new>
#include <vector>

namespace tcp_test {
namespace {

class OutOfMemory : public Reassembly {};

TEST_F(OutOfMemory, WithoutAJoiningBufferTheProcessEnds) {
    const support::TempDir directory;
    const support::ChildRun child = support::run_child(directory.path(), [&] {
        CCommonLog::GetInstance()->SetLogLevel(LOG_ERROR);
        const NoMemoryFor joining_buffers(FRAG_BUF_SIZE);
        deliver(segment(1, start_message()).bytes());
    });
    EXPECT_EQ(child.exit_status, 255); // -1
    EXPECT_NE(child.out.find("[_PacketHandler]failed to allocate memcory for fragment memory."),
              std::string::npos)
        << child.out;
    EXPECT_NE(child.out.find("[ExanicTcpFunc:"), std::string::npos);
    EXPECT_NE(child.out.find("[E]"), std::string::npos);
}

TEST_F(OutOfMemory, AStartedSessionNeedsNoFurtherBuffer) {
    const Stream stream = Stream().start(1).message(2, 300);
    establish(stream, 60);
    const NoMemoryFor joining_buffers(FRAG_BUF_SIZE);
    deliver(stream.frame(60, 160));
    deliver(stream.frame(160, 360));
    EXPECT_EQ(table->shfe_pktno, 2);
}

TEST_F(OutOfMemory, WithoutRoomAnEarlySegmentIsDropped) {
    const Stream stream = Stream().start(1).message(2).message(3).message(4);
    establish(stream, 60);
    const auto dropped = [&](std::size_t from) {
        // The test's own copy of the frame is smaller than a held one.
        return logged([&] {
            const NoMemoryFor nodes(RECV_BUF_SIZE);
            deliver(stream.frame(from, from + 40));
        });
    };
    const Log said = {
        line('E', "_PacketHandler", "failed to malloc buffer to store tcp lost frame")};
    EXPECT_EQ(dropped(100), said); // the first of a list
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(session().lost_buf_head, nullptr);
    deliver(stream.frame(140, 180));
    const ChannelState before = state();
    EXPECT_EQ(dropped(100), said); // a further one
    EXPECT_EQ(difference(before), "");
    // No check of a finished snapshot behind it.
    plant_bad_book();
    set_masks(0x01, 0x01);
    EXPECT_EQ(dropped(100), said);
    EXPECT_EQ(finished.mask, 0x01);
}

// A snapshot of one instrument in two frames, as the worker gets them; the book is good, or
// crossed.
std::vector<std::vector<char>> round_of(uint32_t seq, bool good) {
    const Bytes first = wirekit::mdqp_message()
                            .snap(kShfe2psTopic, 1)
                            .inst({.inst_id = "cu2601", .inst_no = 3})
                            .deal({.inst_no = 3, .last_price = 100, .upper_limit_price = 150})
                            .packet_no(1)
                            .bytes();
    const Bytes last = wirekit::mdqp_message(wirekit::kFlagLast)
                           .price(3, '1', good ? 101 : 99, 1)
                           .price(3, '0', 100, 1)
                           .packet_no(2)
                           .bytes();
    std::vector<std::vector<char>> copies;
    for (const Bytes& frame : {segment(seq, first).bytes(),
                               segment(seq + static_cast<uint32_t>(first.size()), last).bytes()}) {
        copies.emplace_back(frame.begin(), frame.end()).resize(frame.size() + DECODE_SLACK);
    }
    return copies;
}

TEST_F(OutOfMemory, ASnapshotThatCouldNotBeCheckedIsTakenAgain) {
    set_masks(0x01, 0x00);
    const auto as_task = [&](std::vector<char>& copy) {
        core->_HandleTask(copy.data(), static_cast<uint32_t>(copy.size() - DECODE_SLACK));
    };
    std::vector<std::vector<char>> crossed = round_of(1, false);
    as_task(crossed[0]);
    {
        const NoMemoryFor checked_prices((BID_PX_LEVEL + ASK_PX_LEVEL) * sizeof(double));
        EXPECT_THROW(as_task(crossed[1]), std::bad_alloc);
    }
    EXPECT_FALSE(core->_SnapshotIsComplete());
    EXPECT_EQ(finished.mask, 0);
    EXPECT_EQ(table->shfe_inst_cnt, 0);
    EXPECT_EQ(session().init, 0);
    for (std::vector<char>& copy : round_of(5000, true)) {
        as_task(copy);
    }
    EXPECT_TRUE(core->_SnapshotIsComplete());
    EXPECT_EQ(slot(3).ask_px[0], 101);
}

} // namespace
} // namespace tcp_test

#endif
