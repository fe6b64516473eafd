// Faults of single segments of the snapshot streams.

#include "streams.h"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>

namespace faults {
namespace {

using namespace testing;

TEST(TcpLoss, LosesSegmentsOfARound) {
    const Difference found = difference(session(), filtered(session(), "tcp-loss:2"));
    EXPECT_TRUE(found.added.empty());
    ASSERT_EQ(found.lost.size(), 2u);
    for (const Sent& frame : found.lost) {
        EXPECT_TRUE(is_snapshot_segment(frame));
        EXPECT_LE(frame.timestamp_ns, first_rounds_end());
    }
}

// Without it the round would not be one, which is a matter of another kind.
TEST(TcpLoss, SparesTheFirstSegmentOfEachRound) {
    const Difference found = difference(session(), filtered(session(), "tcp-loss:1000000"));
    SnapshotStreams streams;
    std::size_t starts = 0;
    for (const Sent& frame : session()) {
        const SnapshotSegment& segment = streams.see(frame.parsed());
        if (segment.of_round && segment.starts_round) {
            ++starts;
            EXPECT_EQ(std::count(found.lost.begin(), found.lost.end(), frame), 0);
        }
    }
    EXPECT_EQ(starts, 10u); // five rounds of two feeds
    EXPECT_GT(found.lost.size(), 50u);
}

TEST(TcpDuplicate, SendsSegmentsTwice) {
    const Stream after = filtered(session(), "tcp-duplicate:2");
    const Difference found = difference(session(), after);
    EXPECT_TRUE(found.lost.empty());
    ASSERT_EQ(found.added.size(), 2u);
    for (const std::size_t at : found.at) {
        EXPECT_TRUE(is_snapshot_segment(after[at]));
        EXPECT_TRUE(after[at] == after[at - 1]);
    }
}

// Of one feed's connection, from the exchange.
Stream segments_to(uint16_t client_port, const Stream& stream) {
    Stream segments;
    for (const Sent& frame : stream) {
        if (is_snapshot_segment(frame) && frame.parsed().to.port == client_port) {
            segments.push_back(frame);
        }
    }
    return segments;
}

TEST(TcpReorder, LetsOneToThreeSegmentsOvertake) {
    for (uint64_t seed = 1; seed < 9; ++seed) {
        const Stream after = filtered(session(), "tcp-reorder", seed);
        const Difference found = difference(session(), after);
        EXPECT_TRUE(found.lost.empty());
        EXPECT_TRUE(found.added.empty());
        int moved = 0;
        for (const uint16_t client : {uint16_t{50001}, uint16_t{50002}}) {
            const Stream right = segments_to(client, session());
            Stream wrong = segments_to(client, after);
            std::size_t victim = 0;
            while (victim < right.size() && right[victim].bytes == wrong[victim].bytes) {
                ++victim;
            }
            if (victim == right.size()) {
                continue;
            }
            ++moved;
            std::size_t now = victim;
            while (now < wrong.size() && wrong[now].bytes != right[victim].bytes) {
                ++now;
            }
            EXPECT_GE(now - victim, 1u) << seed;
            EXPECT_LE(now - victim, 3u) << seed;
            // In its old place all is as it was, but for its time.
            const Sent back = wrong[now];
            wrong.erase(wrong.begin() + static_cast<std::ptrdiff_t>(now));
            wrong.insert(wrong.begin() + static_cast<std::ptrdiff_t>(victim), right[victim]);
            EXPECT_TRUE(wrong == right) << seed;
            EXPECT_GT(back.timestamp_ns, right[victim].timestamp_ns) << seed;
        }
        EXPECT_EQ(moved, 1) << seed;
    }
}

TEST(BadChecksum, FlipsOneBitOfThePayload) {
    const Stream after = filtered(session(), "bad-checksum");
    const Difference found = difference(session(), after);
    ASSERT_EQ(found.lost.size(), 1u);
    ASSERT_EQ(found.added.size(), 1u);
    const Sent& before = found.lost[0];
    const Sent& damaged = found.added[0];
    EXPECT_TRUE(is_snapshot_segment(before));
    EXPECT_FALSE(damaged.parsed().checksum_ok);
    ASSERT_EQ(before.bytes.size(), damaged.bytes.size());
    int bits = 0;
    for (std::size_t i = 0; i < before.bytes.size(); ++i) {
        const int differing =
            std::popcount(static_cast<unsigned>(before.bytes[i] ^ damaged.bytes[i]));
        bits += differing;
        EXPECT_TRUE(differing == 0 || i >= 54) << i; // behind the headers
    }
    EXPECT_EQ(bits, 1);
}

TEST(RstAck, PutsAResetWithPayloadInFrontOfASegment) {
    const Stream after = filtered(session(), "rst-ack");
    const Difference found = difference(session(), after);
    EXPECT_TRUE(found.lost.empty());
    ASSERT_EQ(found.added.size(), 1u);
    const auto reset = found.added[0].parsed();
    const auto victim = after[found.at[0] + 1].parsed();
    EXPECT_EQ(reset.tcp_flags, wirekit::kTcpRst | wirekit::kTcpAck);
    EXPECT_TRUE(reset.checksum_ok);
    EXPECT_EQ(reset.from, victim.from);
    EXPECT_EQ(reset.to, victim.to);
    EXPECT_EQ(reset.tcp_seq, victim.tcp_seq);
    EXPECT_FALSE(reset.payload.empty());
    EXPECT_TRUE(std::equal(reset.payload.begin(), reset.payload.end(), victim.payload.begin(),
                           victim.payload.end()));
}

} // namespace
} // namespace faults
