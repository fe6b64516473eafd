#include "softcard/firmware/round_tracker.h"

#include "support.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using test::Bytes;
using namespace test;

Bytes part(const Bytes& bytes, std::size_t from, std::size_t to) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

TEST(RoundTracker, FindsTheFrameInWhichTheLastMessageEnds) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(more(400))));
    EXPECT_FALSE(tracker.see(stream.next(joined({more(), more()}))));
    EXPECT_TRUE(tracker.see(stream.next(last())));
    EXPECT_FALSE(tracker.see(stream.next(more()))); // the next round
    EXPECT_TRUE(tracker.see(stream.next(joined({more(), last(), more()}))));
    EXPECT_FALSE(tracker.see(stream.next(more())));
}

TEST(RoundTracker, FollowsMessagesThroughBordersAtEveryByte) {
    const Bytes round = joined({more(60), more(0), last(45)});
    for (std::size_t cut = 45; cut < round.size(); ++cut) {
        for (std::size_t second = cut; second <= round.size(); ++second) {
            RoundTracker tracker;
            Stream stream;
            ASSERT_FALSE(tracker.see(stream.next(part(round, 0, cut)))) << cut;
            if (second > cut) {
                ASSERT_EQ(tracker.see(stream.next(part(round, cut, second))),
                          second == round.size())
                    << cut << ' ' << second;
            }
            if (second < round.size()) {
                ASSERT_TRUE(tracker.see(stream.next(part(round, second, round.size()))));
            }
        }
    }
}

TEST(RoundTracker, FollowsMessagesOverManySegments) {
    RoundTracker tracker;
    Stream stream;
    const Bytes round = joined({more(65000), last(30000)});
    for (std::size_t at = 0; at < round.size(); at += 1448) {
        const std::size_t end = std::min(at + 1448, round.size());
        ASSERT_EQ(tracker.see(stream.next(part(round, at, end))), end == round.size()) << at;
    }
}

TEST(RoundTracker, WaitsForTheStartOfARound) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(Bytes(100, 0x55)))); // the rest of some message
    EXPECT_FALSE(tracker.see(stream.next(last())));           // of a round that nobody follows
    EXPECT_FALSE(tracker.see(stream.next(more(36))));         // 44 bytes: too short for a start
    EXPECT_FALSE(tracker.see(stream.next(last())));
    EXPECT_FALSE(tracker.see(stream.next(more(37))));
    EXPECT_TRUE(tracker.see(stream.next(last())));
}

TEST(RoundTracker, KeepsStreamsApart) {
    RoundTracker tracker;
    Stream shfe(50001), ine(50002);
    EXPECT_FALSE(tracker.see(shfe.next(more())));
    EXPECT_FALSE(tracker.see(ine.next(last()))); // not started
    EXPECT_FALSE(tracker.see(ine.next(more())));
    EXPECT_TRUE(tracker.see(shfe.next(last())));
    EXPECT_TRUE(tracker.see(ine.next(last())));
}

TEST(RoundTracker, IgnoresRepetitions) {
    RoundTracker tracker;
    Stream stream;
    const Bytes first = stream.next(more());
    const Bytes second = stream.next(more());
    const Bytes third = stream.next(last());
    EXPECT_FALSE(tracker.see(first));
    EXPECT_FALSE(tracker.see(second));
    EXPECT_FALSE(tracker.see(first));
    EXPECT_FALSE(tracker.see(second));
    EXPECT_TRUE(tracker.see(third));
    EXPECT_FALSE(tracker.see(third));
}

TEST(RoundTracker, TakesADamagedFrameAsNotArrived) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_FALSE(tracker.see(stream.damaged(stream.seq(), last())));
    EXPECT_TRUE(tracker.see(stream.next(last())));
    EXPECT_FALSE(tracker.see(stream.next(more())));
}

TEST(RoundTracker, TakesWhatAReceiverCannotTakeAsNotArrived) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(more())));
    // Frames of more than 2048 bytes, and segments of more than 2036 bytes in one with options.
    EXPECT_FALSE(tracker.see(stream.at(stream.seq(), last(1995 - 8))));
    EXPECT_TRUE(tracker.see(stream.next(last(1994 - 8))));
    EXPECT_FALSE(tracker.see(stream.builder(stream.seq(), last()).padding(2048).bytes()));
    Bytes cut = stream.at(stream.seq(), last());
    cut.pop_back();
    EXPECT_FALSE(tracker.see(cut));
    for (std::size_t size = 0; size < 54; ++size) {
        EXPECT_FALSE(tracker.see(Bytes(size, 0x45))) << size;
    }
}

TEST(RoundTracker, ReadsAroundOptionsAndPadding) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.builder(stream.seq(), more()).ip_options(8).bytes()));
    stream.skip(more().size());
    EXPECT_TRUE(
        tracker.see(stream.builder(stream.seq(), last()).tcp_options(12).padding(3).bytes()));
    stream.skip(last().size());
    EXPECT_FALSE(tracker.see(stream.next(more())));
}

TEST(RoundTracker, TakesEveryFrameBehindAGapForAPossibleEnd) {
    RoundTracker tracker;
    Stream stream;
    const Bytes message_bytes = more(200);
    EXPECT_FALSE(tracker.see(stream.next(more())));
    const Bytes missing = stream.next(part(message_bytes, 0, 100));
    // Held back by a receiver, so not an end itself; what comes after may be.
    EXPECT_FALSE(tracker.see(stream.next(part(message_bytes, 100, 208))));
    EXPECT_TRUE(tracker.see(stream.next(last())));
    EXPECT_TRUE(tracker.see(missing));
    EXPECT_FALSE(tracker.see(wirekit::tcp_segment().to(0x0A010102, 50001).bytes())) << "no payload";
    EXPECT_TRUE(tracker.see(stream.next(more()))); // in step again with this start
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_TRUE(tracker.see(stream.next(last())));
}

TEST(RoundTracker, StaysExactWhenTheSegmentBehindAGapBeginsAMessage) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(more())));
    const Bytes missing = stream.next(more());
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_TRUE(tracker.see(stream.next(last())));
    // Fills a receiver's gap: with it the receiver has the whole round.
    EXPECT_TRUE(tracker.see(missing));
}

TEST(RoundTracker, DoesNotGetInStepWithARepetition) {
    RoundTracker tracker;
    Stream stream;
    const Bytes message_bytes = more(200);
    EXPECT_FALSE(tracker.see(stream.next(more())));
    const Bytes missing = stream.next(more());
    const Bytes after = stream.next(more());
    const Bytes begun = stream.next(part(message_bytes, 0, 20));
    EXPECT_FALSE(tracker.see(stream.next(joined({part(message_bytes, 20, 208), last()}))));
    // Each of the three may be the one that completes what a receiver holds.
    EXPECT_TRUE(tracker.see(missing));
    EXPECT_TRUE(tracker.see(after));
    EXPECT_TRUE(tracker.see(begun));
}

TEST(RoundTracker, GoesOnDistrustingRepetitionsAfterTheEndOfARoundWithGaps) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(more())));
    const Bytes missing = stream.next(more());
    const Bytes missing_too = stream.next(more());
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_TRUE(tracker.see(stream.next(last())));
    EXPECT_TRUE(tracker.see(missing)); // begins a message, but no round
    EXPECT_TRUE(tracker.see(missing_too));
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_TRUE(tracker.see(stream.next(last())));
}

TEST(RoundTracker, DistrustsBordersThatAreNoMessages) {
    RoundTracker tracker;
    Stream stream;
    Bytes odd = more(40);
    odd[1] = 0x33;
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_TRUE(tracker.see(stream.next(odd)));
    EXPECT_TRUE(tracker.see(stream.next(Bytes(10, 1))));
    EXPECT_TRUE(tracker.see(stream.next(more())));
    EXPECT_FALSE(tracker.see(stream.next(more())));
}

TEST(RoundTracker, AcceptsTheNextRoundAtAnyNumber) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_TRUE(tracker.see(stream.next(last())));
    EXPECT_FALSE(tracker.see(stream.at(5, more())));
    EXPECT_TRUE(tracker.see(stream.at(5 + 48, last())));
    EXPECT_FALSE(tracker.see(stream.at(900'000, more())));
    EXPECT_TRUE(tracker.see(stream.at(900'048, last())));
}

TEST(RoundTracker, ForgetsEveryStreamOnAReset) {
    RoundTracker tracker;
    Stream shfe(50001), ine(50002);
    EXPECT_FALSE(tracker.see(shfe.next(more())));
    EXPECT_FALSE(tracker.see(ine.next(more())));
    EXPECT_FALSE(
        tracker.see(ine.builder(ine.seq(), {}).flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes()));
    EXPECT_FALSE(tracker.see(
        ine.builder(ine.seq(), more()).flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes()));
    EXPECT_FALSE(tracker.see(shfe.next(last()))); // a receiver has forgotten the stream too
    EXPECT_FALSE(tracker.see(shfe.at(1, more())));
    EXPECT_TRUE(tracker.see(shfe.at(49, last())));
    tracker.reset();
    EXPECT_FALSE(tracker.see(shfe.at(97, last())));
}

TEST(RoundTracker, AwaitsAStartAfterANewConnection) {
    RoundTracker tracker;
    Stream stream;
    EXPECT_FALSE(tracker.see(stream.next(more())));
    EXPECT_FALSE(tracker.see(stream.builder(5000, {}).flags(wirekit::kTcpSyn).bytes()));
    EXPECT_TRUE(tracker.see(stream.next(more()))); // still of the old one
    EXPECT_TRUE(tracker.see(stream.at(5001, more())));
    EXPECT_FALSE(tracker.see(stream.at(5049, more())));
    EXPECT_TRUE(tracker.see(stream.at(5097, last())));
}

TEST(RoundTracker, FollowsSequenceNumbersAcrossTheirEnd) {
    RoundTracker tracker;
    Stream stream;
    const uint32_t start = 0xFFFFFFFF - 20;
    EXPECT_FALSE(tracker.see(stream.at(start, more())));
    EXPECT_FALSE(tracker.see(stream.at(start, more()))); // a repetition
    EXPECT_TRUE(tracker.see(stream.at(start + 48, last())));
}

} // namespace
} // namespace softcard
