// What the feed does about decode buffers that say something wrong.

#include "faulty_session.h"

using vorn_session::contains;

namespace {

using namespace vorn_faults;

class PayloadFaults : public FaultySession {
protected:
    void SetUp() override { make(); }
};

// Neither copy is applied, and the instrument's next change is a gap.
TEST_F(PayloadFaults, ATruncatedChangeIsALostOne) {
    const Outcome outcome = verify({"truncate"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.count("abnormal"), 2u);
    EXPECT_EQ(outcome.count("gaps"), 1u);
    EXPECT_EQ(outcome.count("restarts"), 1u);
    EXPECT_EQ(without_gaps(outcome.messages()), Messages{});
}

TEST_F(PayloadFaults, ATruncatedChangeIsMentionedOnlyToThoseWhoDebug) {
    const Outcome outcome = verify({"truncate"}, std::string(kWithoutRecovery) +
                                                     "recovery = enabled\nlog_level = 15\n");
    EXPECT_EQ(outcome.exit_status, 0) << outcome.err;
    EXPECT_EQ(outcome.count("log_errors"), 1u); // the gap
}

// The record is put back as it was, its change number too, so that the next change is a gap.
TEST_F(PayloadFaults, AnInconsistentBookIsUndoneAndAGapFollows) {
    const Outcome outcome = verify({"bad-book"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.count("restored_books"), 2u); // both copies
    EXPECT_EQ(outcome.count("gaps"), 1u);
    EXPECT_EQ(outcome.count("restarts"), 1u);
    EXPECT_EQ(without_gaps(outcome.messages()), Messages{});
}

TEST_F(PayloadFaults, AnUnknownTopicIsARestart) {
    const Outcome outcome = verify({"wrong-topic"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.count("other"), 1u);
    EXPECT_EQ(outcome.count("gaps"), 0u);
    EXPECT_EQ(outcome.count("restarts"), 1u);
    EXPECT_EQ(outcome.messages(), (Messages{{"unsupported topicID: #x#fff", 1}}));
}

// What was cached of it ends the replay.
TEST_F(PayloadFaults, AnUnknownTopicWhileTheSnapshotLoadsIsARestartToo) {
    const Outcome outcome = verify({"wrong-topic@0.02"});
    expect_equal(outcome);
    EXPECT_EQ(outcome.count("restarts"), 1u);
    EXPECT_EQ(outcome.messages(), (Messages{{"unsupported topicID: #x#fff", 1}}));
}

// While a round is under way the card passes every instrument: one warning, however many come.
TEST_F(PayloadFaults, AnInstrumentBeyondTheLimitIsWarnedOfOnce) {
    const Outcome outcome = verify({"big-number:9"});
    expect_no_effect(outcome);
    uint64_t warnings = 0;
    for (const auto& [text, count] : outcome.messages()) {
        EXPECT_TRUE(contains(text, " InstNo [#] is out of range [#]")) << text;
        EXPECT_EQ(count, 1u) << text;
        warnings += count;
    }
    EXPECT_GE(warnings, 1u);
    EXPECT_LE(warnings, 2u); // one for each exchange
}

// Afterwards the card's filter keeps it from the feed.
TEST_F(PayloadFaults, AnInstrumentBeyondTheLimitDoesNotReachALiveFeed) {
    const Outcome outcome = verify({"big-number@0.3:9"});
    expect_no_effect(outcome);
    EXPECT_EQ(outcome.messages(), Messages{});
    EXPECT_EQ(outcome.count("decode_buffers"), undisturbed().count("decode_buffers"));
}

} // namespace
