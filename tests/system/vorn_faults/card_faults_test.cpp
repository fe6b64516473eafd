// What the feed does when the card's readers are lapped.

#include "faulty_session.h"

namespace {

using namespace vorn_faults;

class CardFaults : public FaultySession {
protected:
    void SetUp() override { make(); }
};

// The poll that says so is a length that the feed refuses, at a level that is not logged by
// default.
TEST_F(CardFaults, AnOverflowThatTheOtherLineMakesGoodHasNoEffect) {
    const Outcome outcome = verify({"overflow"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.count("overflows"), 1u);
    EXPECT_EQ(outcome.count("gaps"), 0u);
    EXPECT_EQ(outcome.count("restarts"), 0u);
    EXPECT_EQ(outcome.count("updates"), undisturbed().count("updates"));
    EXPECT_EQ(outcome.messages(), Messages{});
}

TEST_F(CardFaults, ALongOverflowIsAGapAndTheNextRoundMakesItGood) {
    const Outcome outcome = verify({"overflow:64"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.count("overflows"), 1u);
    EXPECT_EQ(outcome.count("gaps"), 1u);
    EXPECT_EQ(outcome.count("restarts"), 1u);
    EXPECT_EQ(outcome.messages().size(), 1u);
    EXPECT_EQ(without_gaps(outcome.messages()), Messages{});
}

// Both paths lose something, and the raw one says so in the log.
TEST_F(CardFaults, AnOverflowWhileTheSnapshotLoadsIsWarnedOf) {
    const Outcome outcome = verify({"overflow@0.01"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.count("overflows"), 1u);
    EXPECT_EQ(outcome.count("restarts"), 0u);
    EXPECT_EQ(outcome.messages(), (Messages{{"receive abnormal decode length: #", 1}}));
}

} // namespace
