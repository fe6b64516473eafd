// What the feed does when segments of the snapshot stream are lost, damaged or moved.

#include "faulty_session.h"

namespace {

using namespace vorn_faults;

constexpr char kHeldTooMuch[] = "break tcp seq detected. expt: #, got: #";
// In the middle of a round a segment may look like a round's first until its fields are walked.
constexpr char kNoStart[] = "invalid field data, break field iteration, iter=# payloadSize=#";

constexpr char kSeedInsideAMessage[] = "1";
constexpr char kSeedAtAMessagesEnd[] = "2";

class TcpFaults : public FaultySession {
protected:
    // The first round of some 230 segments was taken.
    static void expect_first_round(const Outcome& outcome) {
        expect_equal(outcome, 640);
        EXPECT_EQ(outcome.messages(), Messages{});
        EXPECT_EQ(outcome.count("restarts"), 0u);
        EXPECT_LT(outcome.count("raw_frames"), 300u);
    }
    // Rounds pass until the feed holds 500 segments; it drops them, and the next round is taken.
    // All of it is one cycle: the feed was not live yet.
    static void expect_later_round(const Outcome& outcome) {
        expect_equal(outcome, 640);
        Messages messages = outcome.messages();
        messages.erase(kNoStart);
        EXPECT_EQ(messages, (Messages{{kHeldTooMuch, 1}}));
        EXPECT_EQ(outcome.count("restarts"), 0u);
        EXPECT_GT(outcome.count("raw_frames"), 700u);
    }
};

TEST_F(TcpFaults, ALostSegmentCostsRoundsUntilTheFeedStopsWaitingForIt) {
    make_large();
    expect_later_round(verify({"tcp-loss"}, kShfe));
}

TEST_F(TcpFaults, WithoutRecoveryALostSegmentCostsTheSame) {
    make_large();
    expect_later_round(verify({"tcp-loss"}, kShfeWithoutRecovery));
}

TEST_F(TcpFaults, ADamagedSegmentIsALostOne) {
    make_large();
    expect_later_round(verify({"bad-checksum"}, kShfe));
}

TEST_F(TcpFaults, AnOvertakenSegmentIsWaitedFor) {
    make_large();
    for (const char* seed : {"1", "2"}) {
        expect_first_round(verify({"tcp-reorder"}, kShfe, seed));
    }
}

// What is held is taken only when the segment that was late completes a message.
TEST_F(TcpFaults, WithoutRecoveryAnOvertakenSegmentInsideAMessageIsALostOne) {
    make_large();
    expect_later_round(verify({"tcp-reorder"}, kShfeWithoutRecovery, kSeedInsideAMessage));
    expect_first_round(verify({"tcp-reorder"}, kShfeWithoutRecovery, kSeedAtAMessagesEnd));
}

TEST_F(TcpFaults, ARepeatedSegmentIsIgnored) {
    make();
    const Outcome outcome = verify({"tcp-duplicate:5"});
    expect_no_effect(outcome);
    EXPECT_EQ(outcome.messages(), Messages{});
    EXPECT_EQ(outcome.count("raw_frames"), undisturbed().count("raw_frames") + 5);
}

// Everything that was loaded is thrown away without a word; the next round is taken.
TEST_F(TcpFaults, AResetWithPayloadCostsTheRound) {
    make();
    const Outcome outcome = verify({"rst-ack"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.messages(), Messages{});
    EXPECT_EQ(outcome.count("restarts"), 0u);
    EXPECT_LT(outcome.count("updates"), undisturbed().count("updates"));
    EXPECT_GT(outcome.count("raw_frames"), undisturbed().count("raw_frames"));
}

} // namespace
