// Faults of whole snapshot rounds.

#include "streams.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace faults {
namespace {

using namespace testing;

TEST(PriceCheck, RaisesOnePriceOfARoundBeyondItsLimit) {
    const Stream after = filtered(session(), "price-check");
    const Difference found = difference(session(), after);
    ASSERT_EQ(found.lost.size(), 1u);
    ASSERT_EQ(found.added.size(), 1u);
    const auto before = found.lost[0].parsed();
    const auto damaged = found.added[0].parsed();
    EXPECT_TRUE(damaged.checksum_ok);
    ASSERT_EQ(before.payload.size(), damaged.payload.size());
    std::size_t first = 0;
    while (before.payload[first] == damaged.payload[first]) {
        ++first;
    }
    std::size_t last = before.payload.size();
    while (before.payload[last - 1] == damaged.payload[last - 1]) {
        --last;
    }
    EXPECT_LE(last - first, 8u);
    // The last bytes of a little-endian double are those that say how large it is.
    EXPECT_EQ(wirekit::get_le_f64(&damaged.payload[last - 8]), 1e12);
    // In front of it in its field: instrument and direction, '0' for a bid.
    EXPECT_EQ(damaged.payload[last - 9], '0');
}

TEST(PriceCheck, CountsRoundsOfOneFeed) {
    const Difference found = difference(session(), filtered(session(), "price-check:3"));
    ASSERT_EQ(found.added.size(), 3u);
    for (std::size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(found.added[i].parsed().to, found.added[0].parsed().to);
        EXPECT_GT(found.added[i].timestamp_ns, found.added[i - 1].timestamp_ns + 30'000'000);
    }
}

TEST(UnknownField, PutsAMessageIntoARoundAndMovesTheRestOfTheConnection) {
    const Stream after = filtered(session(), "unknown-field");
    // The connection as its receiver joins it.
    std::map<uint16_t, std::pair<uint32_t, wirekit::Bytes>> joined[2];
    const Stream* const streams[] = {&session(), &after};
    for (int i = 0; i < 2; ++i) {
        for (const Sent& frame : *streams[i]) {
            if (is_snapshot_segment(frame)) {
                const auto parsed = frame.parsed();
                auto& [next, bytes] = joined[i][parsed.to.port];
                ASSERT_TRUE(bytes.empty() || parsed.tcp_seq == next);
                next = parsed.tcp_seq + static_cast<uint32_t>(parsed.payload.size());
                wirekit::append(bytes, parsed.payload);
            }
        }
    }
    std::size_t longer = 0;
    for (const auto& [port, stream] : joined[0]) {
        const wirekit::Bytes& before = stream.second;
        const wirekit::Bytes& with = joined[1].at(port).second;
        if (before == with) {
            continue;
        }
        ++longer;
        const std::size_t size = with.size() - before.size();
        const auto at = static_cast<std::size_t>(
            std::mismatch(before.begin(), before.end(), with.begin()).first - before.begin());
        EXPECT_TRUE(std::equal(before.begin() + static_cast<std::ptrdiff_t>(at), before.end(),
                               with.begin() + static_cast<std::ptrdiff_t>(at + size)));
        // One field of 16 bytes of an id that nobody knows; what differs may begin inside it.
        constexpr uint8_t kUnknown[] = {0x01, 0x7F, 16, 0};
        EXPECT_NE(std::search(with.begin(), with.end(), kUnknown, kUnknown + 4), with.end());
        EXPECT_EQ(size, 8u + 4 + 16 + 4 + 4);
    }
    EXPECT_EQ(longer, 1u);
}

TEST(UnknownField, AcknowledgementsMoveToo) {
    const Stream after = filtered(session(), "unknown-field:5");
    uint32_t sent[2] = {};
    for (const Sent& frame : after) {
        const auto parsed = frame.parsed();
        if (parsed.kind != wirekit::ParsedFrame::Kind::kTcp) {
            continue;
        }
        const bool from_exchange = parsed.from.port == 33022;
        const uint16_t client = from_exchange ? parsed.to.port : parsed.from.port;
        uint32_t& end = sent[client == 50001 ? 0 : 1];
        if (from_exchange) {
            const bool counts_one = (parsed.tcp_flags & (wirekit::kTcpSyn | wirekit::kTcpFin)) != 0;
            end = parsed.tcp_seq + static_cast<uint32_t>(parsed.payload.size()) + counts_one;
        } else if ((parsed.tcp_flags & wirekit::kTcpAck) != 0) {
            EXPECT_EQ(wirekit::get_be32(&frame.bytes[42]), end);
        }
    }
}

TEST(LateSnapshot, DelaysOneRoundOfEachFeedAndKeepsTheOrder) {
    const Stream after = filtered(session(), "late-snapshot");
    const Difference found = difference(session(), after);
    EXPECT_TRUE(found.lost.empty());
    EXPECT_TRUE(found.added.empty());
    std::map<wirekit::Bytes, uint64_t> time_of;
    for (const Sent& frame : session()) {
        time_of[frame.bytes] = frame.timestamp_ns;
    }
    SnapshotStreams streams;
    std::map<uint16_t, int> rounds;
    for (const Sent& frame : after) {
        const auto parsed = frame.parsed();
        const uint64_t delay = frame.timestamp_ns - time_of.at(frame.bytes);
        if (parsed.kind == wirekit::ParsedFrame::Kind::kUdp) {
            EXPECT_EQ(delay, 0u);
            continue;
        }
        const SnapshotSegment& segment = streams.see(parsed);
        if (segment.of_round) {
            int& round = rounds[parsed.to.port];
            round += segment.starts_round ? 1 : 0;
            if (round == 1) {
                EXPECT_EQ(delay, 100'000'000u);
            }
        }
    }
    EXPECT_EQ(rounds[50001], 5);
    EXPECT_EQ(rounds[50002], 5);
}

TEST(LateSnapshot, LeavesLaterRoundsWhereTheyAre) {
    const Stream after = filtered(session(), "late-snapshot@0.1");
    for (std::size_t i = 0; session()[i].timestamp_ns < at_seconds(0.1); ++i) {
        ASSERT_TRUE(after[i] == session()[i]) << i;
    }
    EXPECT_FALSE(after == session());
}

} // namespace
} // namespace faults
