#include "faults/snapshot_streams.h"

#include "wirekit/mdqp.h"

#include <gtest/gtest.h>

namespace faults {
namespace {

using wirekit::Bytes;
using wirekit::mdqp_message;
using wirekit::tcp_segment;

constexpr uint16_t kTopic = 1000;

Bytes round_start(const std::string& instrument = "cu2603", int32_t number = 1) {
    return mdqp_message(wirekit::kFlagMore)
        .snap(kTopic, 1)
        .inst({.inst_id = instrument, .inst_no = number})
        .packet_no(1)
        .bytes();
}
Bytes book(uint8_t flag) {
    return mdqp_message(flag).price(1, '0', 70'000, 3).packet_no(1).bytes();
}

// Shows the streams one segment after the other.
class Watch {
public:
    const SnapshotSegment& next(std::span<const uint8_t> payload) {
        const auto& segment = at(seq_, payload);
        seq_ += static_cast<uint32_t>(payload.size());
        return segment;
    }
    const SnapshotSegment& at(uint32_t seq, std::span<const uint8_t> payload, uint8_t flags = 0) {
        const Bytes frame = tcp_segment()
                                .seq(seq)
                                .flags(static_cast<uint8_t>(wirekit::kTcpAck | flags))
                                .payload(payload)
                                .bytes();
        return streams.see(wirekit::parse_frame(frame));
    }
    SnapshotStreams streams;

private:
    uint32_t seq_ = 1000;
};

TEST(SnapshotStreams, KnowsWhereARoundBeginsAndEnds) {
    Watch watch;
    EXPECT_FALSE(watch.next(book(wirekit::kFlagMore)).of_round) << "in the middle of one";
    EXPECT_FALSE(watch.streams.in_round());
    const SnapshotSegment start = watch.next(round_start());
    EXPECT_TRUE(start.of_round && start.starts_round && start.ends_message && !start.ends_round);
    EXPECT_EQ(start.topic, kTopic);
    EXPECT_TRUE(watch.streams.in_round());
    EXPECT_FALSE(watch.streams.every_stream_completed_a_round());
    const SnapshotSegment end = watch.next(book(wirekit::kFlagLast));
    EXPECT_TRUE(end.of_round && !end.starts_round && end.ends_message && end.ends_round);
    EXPECT_FALSE(watch.streams.in_round());
    EXPECT_TRUE(watch.streams.every_stream_completed_a_round());
    EXPECT_TRUE(watch.next(round_start()).starts_round);
    EXPECT_TRUE(watch.streams.every_stream_completed_a_round());
}

TEST(SnapshotStreams, FollowsMessagesAcrossSegments) {
    const Bytes message = book(wirekit::kFlagLast);
    for (std::size_t cut = 1; cut < message.size(); ++cut) {
        Watch watch;
        watch.next(round_start());
        const SnapshotSegment first = watch.next(std::span(message).first(cut));
        EXPECT_TRUE(first.of_round && !first.ends_message && !first.ends_round) << cut;
        const SnapshotSegment second = watch.next(std::span(message).subspan(cut));
        EXPECT_TRUE(second.of_round && second.ends_message && second.ends_round) << cut;
        // A field is named by the segment that holds all of its data.
        std::size_t prices = 0;
        for (const auto* segment : {&first, &second}) {
            for (const SnapshotField& field : segment->fields) {
                prices += field.id == 0x0103 && field.size == 17 ? 1 : 0;
            }
        }
        const bool in_two = cut > 12 && cut < 12 + 17;
        EXPECT_EQ(prices, in_two ? 0u : 1u) << cut;
    }
}

TEST(SnapshotStreams, CountsOnlyWhatFollows) {
    Watch watch;
    watch.next(round_start());
    const auto seq = static_cast<uint32_t>(1000 + round_start().size());
    const Bytes message = book(wirekit::kFlagMore);
    EXPECT_FALSE(watch.at(seq + 1, message).of_round);
    EXPECT_FALSE(watch.at(seq - 1, message).of_round);
    EXPECT_FALSE(watch.at(seq, message, wirekit::kTcpRst).of_round);
    EXPECT_TRUE(watch.at(seq, message).of_round);
}

// Spreads and trade-at-settlement instruments may look crossed, and no receiver minds.
TEST(SnapshotStreams, KnowsWhichBooksMustBeInOrder) {
    Watch watch;
    EXPECT_TRUE(watch.streams.has_ordered_book(kTopic, 9)) << "nothing is known";
    watch.next(round_start("cu2603", 1));
    watch.next(mdqp_message(wirekit::kFlagLast)
                   .inst({.inst_id = "cu2603-cu2604", .inst_no = 2})
                   .inst({.inst_id = "sc2603TAS", .inst_no = 3})
                   .inst({.inst_id = "cu2604C7000", .inst_no = 4})
                   .packet_no(1)
                   .bytes());
    EXPECT_TRUE(watch.streams.has_ordered_book(kTopic, 1));
    EXPECT_FALSE(watch.streams.has_ordered_book(kTopic, 2));
    EXPECT_FALSE(watch.streams.has_ordered_book(kTopic, 3));
    EXPECT_TRUE(watch.streams.has_ordered_book(kTopic, 4));
    EXPECT_FALSE(watch.streams.has_ordered_book(kTopic, 5));
    EXPECT_FALSE(watch.streams.has_ordered_book(5000, 1));
}

} // namespace
} // namespace faults
