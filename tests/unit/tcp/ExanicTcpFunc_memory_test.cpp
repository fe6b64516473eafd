// No memory for a session: without its joining buffer the feed cannot go on, without room for an
// early segment it loses that segment.

#include "tests/unit/tcp/platform_stubs.h"

#if TCP_TEST_ALLOCATION_STUB

#include "CommonLog.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/tcp/segment_script.h"

#include <cstdio>

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

} // namespace
} // namespace tcp_test

#endif
