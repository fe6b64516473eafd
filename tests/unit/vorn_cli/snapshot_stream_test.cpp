#include "tools/vorn/capture/snapshot_stream.h"

#include "wirekit/mdqp.h"

#include <gtest/gtest.h>
#include <vector>

using vorn_cli::SnapshotStream;
using wirekit::Bytes;
using Arrival = SnapshotStream::Arrival;

namespace {

class SnapshotStreams : public testing::Test {
protected:
    Arrival add(uint32_t seq, const Bytes& payload) {
        return stream_.add(seq, payload, [this](std::span<const uint8_t> message) {
            messages_.emplace_back(message.begin(), message.end());
        });
    }
    static Bytes message(int32_t number) {
        return wirekit::mdqp_message().packet_no(number).bytes();
    }
    static Bytes part(const Bytes& bytes, std::size_t at, std::size_t size) {
        return {bytes.begin() + static_cast<std::ptrdiff_t>(at),
                bytes.begin() + static_cast<std::ptrdiff_t>(at + size)};
    }

    SnapshotStream stream_;
    std::vector<Bytes> messages_;
};

TEST_F(SnapshotStreams, SayWhatASegmentWasToThoseBeforeIt) {
    const Bytes one = message(1);
    const auto size = static_cast<uint32_t>(one.size());
    EXPECT_EQ(add(100, one), Arrival::kNext);
    EXPECT_EQ(add(100, one), Arrival::kOld);
    EXPECT_EQ(add(100 + 2 * size, message(3)), Arrival::kAhead);
    EXPECT_EQ(add(100 + 2 * size, message(3)), Arrival::kOld); // waits already
    EXPECT_EQ(stream_.waiting(), 1u);
    EXPECT_EQ(add(100 + size, message(2)), Arrival::kNext);
    EXPECT_EQ(stream_.waiting(), 0u);
    EXPECT_EQ(messages_, (std::vector<Bytes>{message(1), message(2), message(3)}));
    EXPECT_EQ(stream_.holes(), 0u);
}

TEST_F(SnapshotStreams, JoinMessagesThatSegmentsCutAnywhere) {
    const Bytes one = message(1);
    for (std::size_t at = 1; at < one.size(); ++at) {
        stream_.restart();
        messages_.clear();
        add(5, part(one, 0, at));
        EXPECT_TRUE(messages_.empty());
        add(static_cast<uint32_t>(5 + at), part(one, at, one.size() - at));
        EXPECT_EQ(messages_, std::vector<Bytes>{one}) << at;
    }
}

TEST_F(SnapshotStreams, TakeOnlyTheNewEndOfAnOverlappingSegment) {
    const Bytes one = message(1);
    add(0xFFFFFFFA, part(one, 0, 10)); // the sequence number wraps on the way
    EXPECT_EQ(add(0xFFFFFFFC, part(one, 2, one.size() - 2)), Arrival::kNext);
    EXPECT_EQ(messages_, std::vector<Bytes>{one});
}

TEST_F(SnapshotStreams, GiveUpWhatTooManyWaitFor) {
    const Bytes one = message(1);
    const auto size = static_cast<uint32_t>(one.size());
    add(0, one);
    uint32_t seq = 2 * size; // one message is lost
    for (; stream_.holes() == 0 && seq < 1000 * size; seq += size) {
        add(seq, one);
        ASSERT_LE(stream_.waiting(), 500u);
    }
    EXPECT_EQ(stream_.holes(), 1u);
    EXPECT_EQ(stream_.waiting(), 0u);
    EXPECT_EQ(messages_.size(), seq / size - 1);
}

TEST_F(SnapshotStreams, HoldNoMoreThanAMegabyteOfWhatCameEarly) {
    add(0, message(1));
    const Bytes large(60'000, 0x55);
    std::size_t most = 0;
    for (uint32_t i = 1; i < 400; ++i) {
        add(i * 70'000, large);
        most = std::max(most, stream_.waiting());
    }
    EXPECT_LE(most, (std::size_t{1} << 20) / large.size());
    EXPECT_GT(stream_.holes(), 300u);
}

TEST_F(SnapshotStreams, GoOnAtTheBeginOfAMessageWhenTheyStartInTheMiddle) {
    add(7, Bytes(100, 0x99));
    add(107, message(1));
    EXPECT_EQ(messages_, std::vector<Bytes>{message(1)});
}

} // namespace
