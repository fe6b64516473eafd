// What the feed does about snapshot rounds that are wrong, strange or late.

#include "faulty_session.h"

namespace {

using namespace vorn_faults;

class RoundFaults : public FaultySession {
protected:
    void SetUp() override { make(); }
};

TEST_F(RoundFaults, ARoundThatFailsItsPriceCheckIsTakenAgain) {
    uint64_t updates = UINT64_MAX;
    for (const uint64_t rounds : {1, 2}) {
        const Outcome outcome = verify({"price-check:" + std::to_string(rounds)});
        expect_equal(outcome);
        EXPECT_EQ(outcome.count("restarts"), 0u);
        EXPECT_LT(outcome.count("updates"), updates); // a later round, a later start
        updates = outcome.count("updates");
        Messages messages = outcome.messages();
        // The book of the instrument, level by level.
        EXPECT_EQ(messages["price check is error"], rounds);
        EXPECT_EQ(messages["(price > up) or (price < lower), price is #.#, up is #.#, lower is "
                           "#.#, index is :#"],
                  rounds);
        EXPECT_EQ(messages["ask# px[#.#]vol[#]"], 5 * rounds);
        EXPECT_EQ(messages["bid# px[#.#]vol[#]"], 5 * rounds);
        EXPECT_EQ(messages.size(), 5u); // and the line that names the instrument
    }
}

// Shielded, the check is only a report and the snapshot counts. The first change of the book finds
// it crossed and is undone, the next one is a gap, and the next round is a good one.
TEST_F(RoundFaults, WithTheCheckShieldedAWrongPriceIsAGapLater) {
    const Outcome outcome =
        verify({"price-check"},
               std::string(kWithoutRecovery) + "recovery = enabled\nshield_price_check = 1\n", "2");
    expect_equal(outcome);
    EXPECT_EQ(outcome.messages().count("price check is error"), 0u);
    EXPECT_EQ(outcome.count("restored_books"), 2u); // both copies
    EXPECT_EQ(outcome.count("gaps"), 1u);
    EXPECT_EQ(outcome.count("restarts"), 1u);
}

TEST_F(RoundFaults, AnUnknownFieldIsReportedAndPassedOver) {
    const Outcome outcome = verify({"unknown-field"});
    expect_no_effect(outcome);
    EXPECT_EQ(outcome.messages(), (Messages{{"unknown fieldID: #f#", 1},
                                            {"unkonwn md entry type: #", 1},
                                            {"unkonwn event type: #", 1},
                                            {"abnormal process fieldID: #x#f# length: #", 1}}));
}

// The changes that overtook the round are in the cache, and the replay applies them.
TEST_F(RoundFaults, ALateRoundIsMadeUpForByTheCache) {
    const Outcome outcome = verify({"late-snapshot"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.messages(), Messages{});
    EXPECT_EQ(outcome.count("restarts"), 0u);
    EXPECT_EQ(outcome.count("gaps"), 0u);
    EXPECT_GT(outcome.count("cached"), undisturbed().count("cached") + 2000);
    EXPECT_EQ(outcome.count("replayed"), outcome.count("cached"));
}

TEST_F(RoundFaults, ARoundThatIsNotTakenMayBeAsItLikes) {
    expect_no_effect(verify({"price-check@0.1", "rst-ack@0.1", "tcp-loss@0.1"}));
}

} // namespace
