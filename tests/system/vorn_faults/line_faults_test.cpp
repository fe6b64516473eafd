// What the feed does when the multicast lines misbehave.

#include "faulty_session.h"

using vorn_session::contains;

namespace {

using namespace vorn_faults;

class LineFaults : public FaultySession {
protected:
    void SetUp() override { make(); }

    // One gap, one restart, and the session goes on with the next round.
    static void expect_one_restart(const Outcome& outcome) {
        expect_equal(outcome);
        EXPECT_EQ(outcome.count("gaps"), 1u);
        EXPECT_EQ(outcome.count("restarts"), 1u);
        EXPECT_EQ(outcome.messages().size(), 1u);
        EXPECT_EQ(without_gaps(outcome.messages()), Messages{});
        EXPECT_EQ(outcome.count("log_errors"), 1u);
    }
};

TEST_F(LineFaults, ALostChangeIsAGapAndTheNextRoundMakesItGood) {
    expect_one_restart(verify({"gap"}));
}

TEST_F(LineFaults, SeveralLostChangesAreOneRestart) {
    expect_one_restart(verify({"gap@0.3:5"}));
}

TEST_F(LineFaults, AGapWithoutAllowanceIsADifference) {
    const auto run = vorn({"verify", "s.pcap", "--fault", "gap"});
    EXPECT_EQ(run.exit_status, 3);
    EXPECT_TRUE(contains(run.err, "the capture has a gap: discontinuous changeNo: ")) << run.err;
}

// Without recovery the next replay reads the entries of the cycle before again and leaves as many
// new ones unread, so that a gap brings on others: each later round ends in one. What is reported
// is right at all times, but the table is left behind.
TEST_F(LineFaults, WithoutRecoveryAGapBringsOnOthers) {
    const Outcome outcome = verify({"gap"}, kWithoutRecovery);
    EXPECT_EQ(outcome.exit_status, 3) << outcome.err;
    EXPECT_GT(outcome.count("gaps"), 1u);
    EXPECT_GT(outcome.count("restarts"), 1u);
    EXPECT_FALSE(outcome.differences.empty());
    for (const auto& difference : outcome.differences) {
        EXPECT_EQ(difference["field"], "last change") << difference;
    }
}

// The snapshot contains the change, or the replay starts behind it.
TEST_F(LineFaults, AChangeLostBeforeTheSnapshotIsNotMissed) {
    const Outcome outcome = verify({"gap@0.02:5"});
    expect_no_effect(outcome);
    EXPECT_EQ(outcome.messages(), Messages{});
}

TEST_F(LineFaults, ARepeatedDatagramIsStale) {
    const Outcome outcome = verify({"duplicate:100"});
    expect_no_effect(outcome);
    EXPECT_EQ(outcome.messages(), Messages{});
    EXPECT_EQ(outcome.count("stale"), undisturbed().count("stale") + 100);
}

TEST_F(LineFaults, AnOvertakenChangeIsAGap) {
    expect_one_restart(verify({"reorder"}));
}

TEST_F(LineFaults, WhatOneLineLosesTheOtherBrings) {
    const uint64_t stale = undisturbed().count("stale");
    for (const char* fault : {"line-a-loss:1000", "line-b-loss:1000"}) {
        const Outcome outcome = verify({fault});
        expect_no_effect(outcome);
        EXPECT_EQ(outcome.messages(), Messages{}) << fault;
        EXPECT_EQ(outcome.count("stale"), stale - 1000) << fault;
    }
}

TEST_F(LineFaults, WithoutASecondLineALossIsAGap) {
    make({"--set", "lines=a"});
    expect_one_restart(verify({"line-a-loss:20"}));
    expect_no_effect(verify({"line-b-loss:20"}));
}

TEST_F(LineFaults, BothLinesLosingTheSameIsAGap) {
    const Outcome outcome = verify({"line-a-loss@0.3:400", "line-b-loss@0.3:400"});
    expect_one_restart(outcome);
}

} // namespace
