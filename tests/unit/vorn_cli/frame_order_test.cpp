#include "tools/vorn/record/frame_order.h"

#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using vorn_cli::FrameOrder;

namespace {

// Frames by name: decode buffers "d1", "d2", ...; raw frames "r..." that end no round and "E" that
// may end one.
class Order : public testing::Test {
protected:
    Order() : order_([this](uint64_t, std::span<const char> frame) { left(frame); }) {}

    void decode(const std::string& name, uint64_t time_ns) {
        order_.decode(time_ns, std::span<const char>(name), true);
    }
    void raw(const std::string& name, uint64_t time_ns) {
        order_.raw(time_ns, std::span<const char>(name));
    }
    // One segment with a whole round: a first message and a last one.
    void round_end(uint64_t time_ns) {
        auto payload = message(wirekit::kFlagMore);
        const auto last = message(wirekit::kFlagLast);
        payload.insert(payload.end(), last.begin(), last.end());
        end_ = wirekit::tcp_segment().seq(seq_).payload(payload).bytes();
        seq_ += static_cast<uint32_t>(payload.size());
        order_.raw(time_ns, {reinterpret_cast<const char*>(end_.data()), end_.size()});
    }
    static wirekit::Bytes message(uint8_t flag) {
        wirekit::Bytes bytes(8 + 48, 0);
        bytes[0] = flag;
        bytes[1] = static_cast<uint8_t>(wirekit::kTypeSnapshot);
        bytes[2] = 48;
        return bytes;
    }
    void left(std::span<const char> frame) {
        const bool is_end = frame.size() > 10;
        so_far_ += (so_far_.empty() ? "" : " ") +
                   (is_end ? std::string("E") : std::string(frame.begin(), frame.end()));
    }
    std::string finished() {
        order_.finish();
        return so_far_;
    }
    void ticks(int count) {
        for (int i = 0; i < count; ++i) {
            order_.tick();
        }
    }

    FrameOrder order_;
    wirekit::Bytes end_;
    uint32_t seq_ = 1000;
    std::string so_far_;
};

TEST_F(Order, IsThatOfTheTimeStamps) {
    decode("d1", 10);
    decode("d2", 30);
    raw("r1", 5);
    raw("r2", 20);
    EXPECT_EQ(finished(), "r1 d1 r2 d2");
}

TEST_F(Order, WaitsATickForTheOtherPath) {
    decode("d1", 10);
    order_.tick();
    EXPECT_EQ(so_far_, "");
    raw("r1", 5);
    decode("d2", 30);
    order_.tick();
    EXPECT_EQ(so_far_, "r1 d1");
    order_.tick();
    EXPECT_EQ(so_far_, "r1 d1 d2");
}

TEST_F(Order, AStragglerIsNotLost) {
    decode("d1", 100);
    ticks(2);
    raw("r1", 5);
    EXPECT_EQ(finished(), "d1 r1");
}

// The feed cached d1 to d3; its snapshot was complete with E, but it noticed after d3.
TEST_F(Order, ARoundEndsBehindWhatWasCached) {
    decode("d1", 10);
    round_end(20);
    decode("d2", 30);
    decode("d3", 40);
    ticks(3);
    EXPECT_EQ(so_far_, "d1 d2 d3");
    order_.snapshot_over();
    order_.live();
    EXPECT_EQ(so_far_, "d1 d2 d3 E");
    decode("d4", 50);
    EXPECT_EQ(finished(), "d1 d2 d3 E d4");
}

// While it replayed two, three more came; the update of d4 was the first to be told.
TEST_F(Order, ARoundEndsBeforeTheFirstUpdateThatWasTold) {
    decode("d1", 10);
    round_end(20);
    decode("d2", 30);
    order_.snapshot_over();
    for (const char* name : {"d3", "d4", "d5"}) {
        decode(name, 40);
    }
    ticks(3);
    EXPECT_EQ(so_far_, "d1 d2");
    order_.first_update(1);
    EXPECT_EQ(so_far_, "d1 d2 d3 E");
    EXPECT_EQ(finished(), "d1 d2 d3 E d4 d5");
}

TEST_F(Order, BuffersThatTheFeedRefusesDoNotCount) {
    round_end(20);
    order_.decode(30, std::span<const char>("x1", 2), false);
    decode("d1", 30);
    order_.snapshot_over();
    decode("d2", 40);
    order_.decode(40, std::span<const char>("x2", 2), false);
    order_.first_update(0);
    EXPECT_EQ(finished(), "x1 d1 E d2 x2");
}

TEST_F(Order, RawFramesBehindTheEndOfARoundStayBehindIt) {
    round_end(20);
    raw("r1", 21);
    decode("d1", 30);
    order_.snapshot_over();
    order_.live();
    EXPECT_EQ(finished(), "d1 E r1");
}

TEST_F(Order, ARestartInTheReplayLeavesEveryBufferToItsCycle) {
    decode("d1", 10);
    round_end(20);
    decode("d2", 30);
    order_.snapshot_over();
    decode("d3", 40);
    order_.cycle_begins();
    decode("d4", 50);
    round_end(60);
    decode("d5", 70);
    order_.snapshot_over();
    order_.live();
    decode("d6", 80);
    EXPECT_EQ(finished(), "d1 d2 d3 E d4 d5 E d6");
}

TEST_F(Order, AnEndThatTheFeedDoesNotMindLeavesAfterAWhile) {
    round_end(20);
    decode("d1", 30);
    ticks(FrameOrder::kHoldTicks);
    EXPECT_EQ(so_far_, "d1");
    ticks(2);
    EXPECT_EQ(so_far_, "d1 E");
    raw("r1", 40);
    EXPECT_EQ(finished(), "d1 E r1");
}

TEST_F(Order, InTheLivePhaseNothingIsHeld) {
    order_.snapshot_over();
    order_.live();
    decode("d1", 10);
    ticks(2);
    EXPECT_EQ(so_far_, "d1");
    order_.first_update(0); // of no interest any more
    decode("d2", 20);
    EXPECT_EQ(finished(), "d1 d2");
}

} // namespace
