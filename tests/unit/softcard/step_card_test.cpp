#include "softcard/firmware/step_card.h"

#include "step_rig.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using test::Bytes;
using namespace test;

void expect_silence(Rig& rig) {
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(rig.poll_decode().empty());
        ASSERT_TRUE(rig.poll_raw().empty());
    }
}

TEST(StepCard, ReleasesFramesOfBothPathsInTheOrderOfTheSource) {
    Stream stream;
    const Bytes raw_one = stream.next(more()), raw_two = stream.next(more());
    Rig rig({change(1), raw_one, raw_two, change(2), change(3)});
    EXPECT_TRUE(rig.poll_raw().empty()); // not its turn, however often it asks
    EXPECT_TRUE(rig.poll_raw().empty());
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(rig.poll_raw(), raw_one);
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(rig.poll_raw(), raw_two);
    EXPECT_TRUE(rig.poll_raw().empty());
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
    EXPECT_EQ(rig.poll_decode(), payload_of(3));
    expect_silence(rig);
}

TEST(StepCard, GivesTheSourceTimestamp) {
    Rig rig({change(1), change(2)});
    char buffer[2048];
    uint32_t first = 0, second = 0;
    EXPECT_GT(rig.card.receive(rig.decode, buffer, sizeof(buffer), &first), 0);
    EXPECT_GT(rig.card.receive(rig.decode, buffer, sizeof(buffer), &second), 0);
    EXPECT_EQ(first, static_cast<uint32_t>(1'700'000'000'000'000'000));
    EXPECT_EQ(second - first, 1'000'000u);
}

TEST(StepCard, ConsumesNothingWhileBothPathsAreOff) {
    Rig rig({change(1), change(2)});
    rig.registers[kRawSwitchWord] = 0;
    rig.registers[kDecodeSwitchWord] = 0;
    expect_silence(rig);
    rig.registers[kDecodeSwitchWord] = 1;
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    rig.registers[kDecodeSwitchWord] = 0;
    expect_silence(rig);
    rig.registers[kDecodeSwitchWord] = 1;
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
}

TEST(StepCard, ConsumesNothingInReset) {
    Rig rig({change(1)});
    rig.registers[kResetWord] = 1;
    expect_silence(rig);
    rig.registers[kResetWord] = 0;
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
}

TEST(StepCard, DropsRawFramesWhileTheRawPathIsOff) {
    Stream stream;
    Rig rig({stream.next(more()), change(1), stream.next(last()), change(2)});
    rig.registers[kRawSwitchWord] = 0;
    EXPECT_TRUE(rig.poll_raw().empty());
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
}

TEST(StepCard, DropsDecodeFramesWhileOnlyTheRawPathIsOn) {
    Stream stream;
    const Bytes raw = stream.next(more());
    Rig rig({change(1), change(2), raw});
    rig.registers[kDecodeSwitchWord] = 0;
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(rig.poll_raw(), raw);
}

TEST(StepCard, JudgesAWaitingFrameByTheRegistersAtItsRelease) {
    Rig rig({shfe_change(1, 1), shfe_change(2, 2), shfe_change(2, 3), shfe_change(1, 4)});
    EXPECT_TRUE(rig.poll_raw().empty()); // the first frame waits from here on
    rig.registers[kAllShfeSwitchWord] = 0;
    rig.registers[kShfeAddressWord] = 2;
    rig.registers[kShfeDataWord] = 1;
    EXPECT_EQ(rig.poll_decode(), decode_payload(2, 2));
    EXPECT_TRUE(rig.poll_raw().empty()); // the third one passes and waits
    rig.registers[kShfeDataWord] = 0;
    rig.registers[kShfeAddressWord] = 1;
    rig.registers[kShfeDataWord] = 1;
    EXPECT_EQ(rig.poll_decode(), decode_payload(1, 4));
    EXPECT_TRUE(rig.poll_decode().empty());
}

TEST(StepCard, LetsTheOtherPathGoOnWhenAWaitingFrameNoLongerPasses) {
    Stream stream;
    const Bytes raw = stream.next(more());
    Rig rig({shfe_change(1, 1), raw});
    EXPECT_TRUE(rig.poll_raw().empty());
    rig.registers[kAllShfeSwitchWord] = 0;
    EXPECT_EQ(rig.poll_raw(), raw); // nobody has polled the decode path
}

TEST(StepCard, SkipsTrafficOfNoConcern) {
    std::vector<Bytes> frames(10'000, wirekit::udp_datagram().to(1, 2).payload(more()).bytes());
    frames.push_back(change(1));
    Rig rig(std::move(frames));
    Bytes got;
    for (int polls = 0; got.empty(); ++polls) {
        ASSERT_LT(polls, 10); // one poll does not walk it all, but a few do
        got = rig.poll_decode();
    }
    EXPECT_EQ(got, payload_of(1));
}

TEST(StepCard, HoldsBothPathsAtTheEndOfARound) {
    Stream stream;
    const Bytes start = stream.next(more()), end = stream.next(last());
    Rig rig({change(1), start, change(2), end, change(3), stream.next(more()), change(4)});
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(rig.poll_raw(), start);
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
    EXPECT_EQ(rig.poll_raw(), end);
    // Without a worker it never becomes certain that another round is wanted.
    for (int i = 0; i < 20'000; ++i) {
        ASSERT_TRUE(rig.poll_raw().empty());
        ASSERT_TRUE(rig.poll_decode().empty());
    }
    end_snapshot(rig.registers);
    rig.registers[kAllShfeSwitchWord] = 1;
    // Two buffers went out, so two polls find nothing; then the order goes on, without raw frames.
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_TRUE(rig.poll_raw().empty());
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(rig.poll_decode(), payload_of(3));
    EXPECT_EQ(rig.poll_decode(), payload_of(4));
}

TEST(StepCard, GivesNoDrainAnswersWhenNothingWasHandedOut) {
    Stream stream;
    const Bytes start = stream.next(more()), end = stream.next(last());
    Rig rig({start, end, change(1)});
    EXPECT_EQ(rig.poll_raw(), start);
    EXPECT_EQ(rig.poll_raw(), end);
    end_snapshot(rig.registers);
    rig.registers[kAllShfeSwitchWord] = 1;
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
}

TEST(StepCard, GivesNoDrainAnswersWhenRawWasNeverOn) {
    Rig rig({change(1), change(2)});
    rig.registers[kRawSwitchWord] = 0;
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
}

TEST(StepCard, ConsumesAFrameThatDoesNotFitTheBuffer) {
    Rig rig({change(1), change(2)});
    char buffer[8];
    EXPECT_EQ(rig.card.receive(rig.decode, buffer, sizeof(buffer), nullptr), kStatusTooLarge);
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
}

TEST(StepCard, ContinuesWhereItStoodAfterARestart) {
    Stream stream;
    const Bytes one = stream.next(more()), two = stream.next(last());
    const Bytes three = stream.next(more()), four = stream.next(last());
    Rig rig({one, change(1), two, change(2), change(3), three, change(4), four, change(5)});
    EXPECT_EQ(rig.poll_raw(), one);
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(rig.poll_raw(), two);
    end_snapshot(rig.registers);
    rig.registers[kAllShfeSwitchWord] = 1;
    EXPECT_TRUE(rig.poll_decode().empty()); // drain
    EXPECT_EQ(rig.poll_decode(), payload_of(2));

    // A gap: the feed starts over with new buffers. The old ones are never polled again.
    rig.registers[kDecodeSwitchWord] = 0;
    rig.decode = rig.card.new_reader(0);
    rig.raw = rig.card.new_reader(1);
    rig.registers[kResetWord] = 1;
    rig.registers[kResetWord] = 0;
    switch_on(rig.registers);
    EXPECT_TRUE(rig.poll_raw().empty());
    EXPECT_EQ(rig.poll_decode(), payload_of(3));
    EXPECT_EQ(rig.poll_raw(), three);
    EXPECT_EQ(rig.poll_decode(), payload_of(4));
    EXPECT_EQ(rig.poll_raw(), four);
    expect_silence(rig);
    end_snapshot(rig.registers);
    rig.registers[kAllShfeSwitchWord] = 1;
    EXPECT_TRUE(rig.poll_decode().empty()); // two buffers in this cycle
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(rig.poll_decode(), payload_of(5));
}

// A feed that was stopped in the middle of its snapshot polls no more once it switched off.
TEST(StepCard, StartsASnapshotAfreshForNewBuffers) {
    Stream stream;
    const Bytes start = stream.next(more()), end = stream.next(last());
    Rig rig({start, change(1), end, change(2)});
    EXPECT_EQ(rig.poll_raw(), start);
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(rig.poll_raw(), end);
    end_snapshot(rig.registers);
    rig.registers[kDecodeSwitchWord] = 0;
    rig.decode = rig.card.new_reader(0);
    rig.raw = rig.card.new_reader(1);
    switch_on(rig.registers);
    EXPECT_EQ(rig.poll_decode(), payload_of(2)); // not held, and nothing to drain
}

TEST(StepCard, ServesASecondReaderFromTheRing) {
    Rig rig({change(1), change(2), change(3)});
    Reader second = rig.card.new_reader(0);
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
    EXPECT_EQ(poll(rig.card, second), payload_of(1));
    EXPECT_EQ(poll(rig.card, second), payload_of(2));
    EXPECT_EQ(poll(rig.card, second), payload_of(3));
    EXPECT_EQ(rig.poll_decode(), payload_of(3));
    Reader late = rig.card.new_reader(0);
    EXPECT_TRUE(poll(rig.card, late).empty());
}

TEST(StepCard, LapsOnlyAReaderThatDoesNotPoll) {
    constexpr uint32_t kFrames = 20'000; // more than the ring holds
    std::vector<Bytes> frames;
    for (uint32_t i = 0; i < kFrames; ++i) {
        frames.push_back(change(i));
    }
    Rig rig(std::move(frames));
    Reader sleepy = rig.card.new_reader(0);
    for (uint32_t i = 0; i < kFrames; ++i) {
        ASSERT_EQ(rig.poll_decode(), payload_of(i));
    }
    char buffer[2048];
    EXPECT_EQ(rig.card.receive(sleepy, buffer, sizeof(buffer), nullptr), kStatusLapped);
    EXPECT_EQ(rig.card.receive(sleepy, buffer, sizeof(buffer), nullptr), 0);
}

TEST(StepCard, InterruptsOnceAtTheEndWhenToldTo) {
    const InterruptCounter interrupts;
    Rig rig({change(1)}, AtEnd::kStop);
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(interrupts.count(), 0); // delivered, but nobody has come back for more
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(interrupts.count(), 1);
    expect_silence(rig);
    rig.registers[kDecodeSwitchWord] = 0;
    rig.decode = rig.card.new_reader(0);
    rig.registers[kDecodeSwitchWord] = 1;
    expect_silence(rig);
    EXPECT_EQ(interrupts.count(), 1);
}

TEST(StepCard, StaysSilentAtTheEndOtherwise) {
    const InterruptCounter interrupts;
    Rig rig({change(1)});
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    expect_silence(rig);
    EXPECT_EQ(interrupts.count(), 0);
}

TEST(StepCard, InterruptsOnlyAfterTheHoldAndTheDrain) {
    const InterruptCounter interrupts;
    Stream stream;
    const Bytes start = stream.next(more()), end = stream.next(last());
    Rig rig({start, change(1), change(2), end}, AtEnd::kStop);
    EXPECT_EQ(rig.poll_raw(), start);
    EXPECT_EQ(rig.poll_decode(), payload_of(1));
    EXPECT_EQ(rig.poll_decode(), payload_of(2));
    EXPECT_EQ(rig.poll_raw(), end);
    expect_silence(rig);
    EXPECT_EQ(interrupts.count(), 0);
    end_snapshot(rig.registers);
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(interrupts.count(), 0);
    EXPECT_TRUE(rig.poll_decode().empty());
    EXPECT_EQ(interrupts.count(), 1);
}

TEST(StepCard, DoesNotInterruptWhileNobodyCanReceive) {
    const InterruptCounter interrupts;
    Rig rig({}, AtEnd::kStop);
    rig.registers[kRawSwitchWord] = 0;
    rig.registers[kDecodeSwitchWord] = 0;
    expect_silence(rig);
    EXPECT_EQ(interrupts.count(), 0);
    rig.registers[kDecodeSwitchWord] = 1;
    expect_silence(rig);
    EXPECT_EQ(interrupts.count(), 1);
}

} // namespace
} // namespace softcard
