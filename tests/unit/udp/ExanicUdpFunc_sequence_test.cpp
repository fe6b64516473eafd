// The change number: exactly one above the record's applies, at or below is a copy or older than
// the snapshot, above is a gap. Unsigned, across 2^32.

#include "udp_fixture.h"

namespace udp_test {
namespace {

using support::RegisterStore;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class UdpSequenceTest : public UdpTest {};

struct SequenceCase {
    const char* name;
    uint32_t stored;
    uint32_t received;
    int32_t result;
    const char* gap; // the numbers in the gap's line
    const char* why;
};

const SequenceCase kSequenceCases[] = {
    {"Next", 7, 8, 1, nullptr, "follows by one"},
    {"FirstEver", 0, 1, 1, nullptr, "a record without snapshot starts at one"},
    {"Same", 7, 7, 0, nullptr, "the other line's copy"},
    {"Before", 7, 6, 0, nullptr, "older than the record"},
    {"Zero", 7, 0, 0, nullptr, "older than the record"},
    {"ZeroOnZero", 0, 0, 0, nullptr, "equal is stale"},
    {"OneMissing", 7, 9, -1, "9, expected changeNo: 8", "one is missing"},
    {"ManyMissing", 7, 100000, -1, "100000, expected changeNo: 8", "many are missing"},
    {"Most", 7, 0xFFFFFFFF, -1, "4294967295, expected changeNo: 8", "compared unsigned"},
    {"AcrossSignBit", 0x7FFFFFFF, 0x80000000, 1, nullptr, "no sign"},
    {"BelowSignBit", 0x80000000, 0x7FFFFFFF, 0, nullptr, "older, though larger when signed"},
    {"GapAtSignBit", 0x7FFFFFFF, 0x80000001, -1, "2147483649, expected changeNo: -2147483648",
     "the expected number is printed signed"},
    {"LastOne", 0xFFFFFFFE, 0xFFFFFFFF, 1, nullptr, "largest number"},
    {"Wraps", 0xFFFFFFFF, 0, 1, nullptr, "zero follows 2^32 - 1"},
    {"OneAfterWrap", 0xFFFFFFFF, 1, 0, nullptr, "a gap at the wrap counts as older"},
    {"SameAtWrap", 0xFFFFFFFF, 0xFFFFFFFF, 0, nullptr, "a copy"},
    {"MiddleAtWrap", 0xFFFFFFFF, 0x80000000, 0, nullptr, "everything but zero is older there"},
    {"ZeroBeforeWrap", 0xFFFFFFFE, 0, 0, nullptr, "zero is older than 2^32 - 2"},
    {"AfterWrap", 0, 2, -1, "2, expected changeNo: 1", "counting goes on after the wrap"},
};

TEST_F(UdpSequenceTest, ChangeNumberDecides) {
    for (const SequenceCase& row : kSequenceCases) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        instrument expected = subscribe(kSlot, "cu2609");
        record().change_no = expected.change_no = row.stored;
        expected.type = EXCHANGE_TYPE_SHFE; // written before the numbers are compared
        if (row.result == RET_TO_CALLBACK) {
            expected.change_no = row.received;
            expected.update_time = kTime;
            expected.update_milli_sec = kMillisec;
            expected.highest_price = 321.0;
        }
        table_->shfe_pktno = -11;
        const Outcome outcome = parse(message().change_no(row.received).highest(321));
        EXPECT_EQ(outcome.result, row.result);
        EXPECT_TRUE(same_record(expected, record()));
        EXPECT_THAT(outcome.changed, ElementsAre(kSlot));
        // Whatever the numbers say, the message was seen.
        EXPECT_EQ(outcome.slot, kSlot);
        EXPECT_EQ(table_->shfe_pktno, kPacketNo);
        EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, kTime}));
        if (row.gap != nullptr) {
            EXPECT_THAT(
                at_levels(outcome, "EWID"),
                ElementsAre(std::string("E ExanicUdpFunc _ParseMirp discontinuous changeNo: ") +
                            row.gap +
                            ", instrumentID: cu2609, instrumentNo: 17, instrumentNo: 17"));
        } else {
            EXPECT_THAT(at_levels(outcome, "EWID"), IsEmpty());
        }
    }
}

TEST_F(UdpSequenceTest, StaleMessagesAreSilentBehindTheHeader) {
    const Outcome outcome = parse(message().change_no(kChangeNo).highest(1));
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_EQ(outcome.log.size(), 3u); // header, header, record; no field
}

TEST_F(UdpSequenceTest, GapNamesTheNumberReceivedAndThenTheSlot) {
    subscribe(LAST_SLOT - 5, "sc2609");
    const Outcome outcome =
        parse(message().topic(kIne2psTopic).instrument(5).change_no(kChangeNo + 2));
    EXPECT_EQ(outcome.result, RET_FAILED);
    EXPECT_THAT(at_levels(outcome, "EWID"),
                ElementsAre("E ExanicUdpFunc _ParseMirp discontinuous changeNo: 9, expected "
                            "changeNo: 8, instrumentID: sc2609, instrumentNo: 5, "
                            "instrumentNo: 20474"));
    EXPECT_EQ(table_->ine_pktno, kPacketNo);
}

TEST_F(UdpSequenceTest, SecondCopyChangesNothing) {
    const auto twice = message().deal(100, 3, 10, 1).bid_totals(5, 1).highest(110);
    ASSERT_EQ(parse(twice).result, RET_TO_CALLBACK);
    const instrument after_first = record();
    const Outcome outcome = parse(twice);
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_THAT(outcome.changed, IsEmpty());
    EXPECT_TRUE(same_record(after_first, record()));
}

TEST_F(UdpSequenceTest, AGapIsNotForgottenUntilTheMissingNumberCame) {
    EXPECT_EQ(parse(message().change_no(kChangeNo + 2)).result, RET_FAILED);
    EXPECT_EQ(parse(message().change_no(kChangeNo + 2)).result, RET_FAILED);
    EXPECT_EQ(parse(message().change_no(kChangeNo + 1)).result, RET_TO_CALLBACK);
    EXPECT_EQ(parse(message().change_no(kChangeNo + 2)).result, RET_TO_CALLBACK);
}

TEST_F(UdpSequenceTest, EveryInstrumentCountsForItself) {
    subscribe(18, "al2609").change_no = 100;
    subscribe(LAST_SLOT - kNumber, "sc2609").change_no = 200;
    EXPECT_EQ(parse(message()).result, RET_TO_CALLBACK);
    EXPECT_EQ(parse(message().instrument(18).change_no(101)).result, RET_TO_CALLBACK);
    EXPECT_EQ(parse(message().topic(kIne2psTopic).change_no(201)).result, RET_TO_CALLBACK);
    EXPECT_EQ(parse(message().topic(kShfe4psTopic).change_no(9)).result, RET_TO_CALLBACK);
    EXPECT_EQ(record(kSlot).change_no, 9u);
    EXPECT_EQ(record(18).change_no, 101u);
    EXPECT_EQ(record(LAST_SLOT - kNumber).change_no, 201u);
}

TEST_F(UdpSequenceTest, PacketNumbersAreCopiedWhateverTheirOrder) {
    EXPECT_EQ(parse(message().packet_no(100)).result, RET_TO_CALLBACK);
    EXPECT_EQ(table_->shfe_pktno, 100);
    EXPECT_EQ(parse(message().packet_no(50)).result, RET_OK); // stale
    EXPECT_EQ(table_->shfe_pktno, 50);
    EXPECT_EQ(parse(message().packet_no(INT32_MIN).change_no(50)).result, RET_FAILED); // gap
    EXPECT_EQ(table_->shfe_pktno, INT32_MIN);
    EXPECT_EQ(table_->ine_pktno, -12);
}

} // namespace
} // namespace udp_test
