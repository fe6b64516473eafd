// The check of the first five levels behind every message, and the undoing of the whole message
// when it fails.

#include "udp_fixture.h"

#include <limits>

namespace udp_test {
namespace {

using support::RegisterStore;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using wirekit::Side;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

class UdpCheckTest : public UdpTest {
protected:
    struct Entry {
        char side; // 'b' or 'a'
        int index;
        double price;
        int32_t volume;
    };

    void put(const std::vector<Entry>& entries) {
        for (const Entry& entry : entries) {
            (entry.side == 'b' ? record().bid_px : record().ask_px)[entry.index] = entry.price;
            (entry.side == 'b' ? record().bid_vol : record().ask_vol)[entry.index] = entry.volume;
        }
    }

    instrument stamped() {
        instrument expected = record();
        expected.type = EXCHANGE_TYPE_SHFE;
        expected.update_time = kTime;
        expected.update_milli_sec = kMillisec;
        expected.change_no = kChangeNo + 1;
        return expected;
    }

    struct Row {
        const char* name;
        std::vector<Entry> entries; // over bid 100, 99, ... and ask 101, 102, ...
        const char* failure;        // of the line, without the identifier; null: the book passes
        const char* why;
    };

    // A header-only message on each book.
    void check(const std::vector<Row>& rows) {
        for (const Row& row : rows) {
            SCOPED_TRACE(std::string(row.name) + ": " + row.why);
            subscribe(kSlot, "cu2609");
            put(row.entries);
            instrument expected = record();
            expected.type = EXCHANGE_TYPE_SHFE;
            if (row.failure == nullptr) {
                expected = stamped();
            }
            const Outcome outcome = parse(message());
            EXPECT_EQ(outcome.result, row.failure == nullptr ? RET_TO_CALLBACK : RET_OK);
            EXPECT_TRUE(same_record(expected, record()));
            ASSERT_EQ(outcome.log.size(), row.failure == nullptr ? 3u : 4u);
            if (row.failure != nullptr) {
                EXPECT_EQ(outcome.log[3], std::string("X ExanicUdpFunc _ParseMirp bad mirp ") +
                                              row.failure + ", inst=cu2609, restore");
            }
        }
    }
};

TEST_F(UdpCheckTest, BidsMustFallFromLevelToLevel) {
    check({
        {"Falling", {}, nullptr, "a good book"},
        {"EqualAtOne", {{'b', 1, 100.0, 5}}, "bid: bid[0]=100.00 <= bid[1]=100.00", "equal is bad"},
        {"EqualAtTwo", {{'b', 2, 99.0, 5}}, "bid: bid[1]=99.00 <= bid[2]=99.00", "equal is bad"},
        {"EqualAtThree", {{'b', 3, 98.0, 5}}, "bid: bid[2]=98.00 <= bid[3]=98.00", "equal is bad"},
        {"EqualAtFour", {{'b', 4, 97.0, 5}}, "bid: bid[3]=97.00 <= bid[4]=97.00", "equal is bad"},
        {"RisingAtOne", {{'b', 1, 100.5, 5}}, "bid: bid[0]=100.00 <= bid[1]=100.50", "rising"},
        {"RisingAtFour", {{'b', 4, 97.25, 5}}, "bid: bid[3]=97.00 <= bid[4]=97.25", "rising"},
        {"ByOneBit",
         {{'b', 1, next_above(100.0), 5}},
         "bid: bid[0]=100.00 <= bid[1]=100.00",
         "no tolerance"},
        {"BelowByOneBit", {{'b', 1, next_below(100.0), 5}}, nullptr, "no tolerance"},
        {"SixthNotChecked", {{'b', 5, 500.0, 5}}, nullptr, "five levels are checked"},
        {"SeventhNotChecked",
         {{'b', 5, 50.0, 5}, {'b', 6, 60.0, 5}},
         nullptr,
         "five levels are checked"},
        {"FirstFailureCounts",
         {{'b', 2, 200.0, 5}, {'b', 4, 300.0, 5}},
         "bid: bid[1]=99.00 <= bid[2]=200.00",
         "in order"},
        {"EmptyBetween",
         {{'b', 1, 0.0, 0}, {'b', 2, 100.5, 5}},
         nullptr,
         "only neighbours are compared"},
        {"EmptyBetweenAtEnd",
         {{'b', 3, 0.0, 0}, {'b', 4, 99.5, 5}},
         nullptr,
         "only neighbours are compared"},
        {"EmptyFirst", {{'b', 0, 0.0, 0}}, nullptr, "an empty level is nobody's neighbour"},
        {"EmptyBelowNegative",
         {{'b', 0, -5.0, 5}, {'b', 1, 0.0, 0}},
         nullptr,
         "an empty level is not a level at zero"},
        {"RisingBehindEmptyFirst",
         {{'b', 0, 0.0, 0}, {'b', 2, 99.0, 5}},
         "bid: bid[1]=99.00 <= bid[2]=99.00",
         "later pairs are still compared"},
        {"ZeroPriceWithVolume",
         {{'b', 1, 0.0, 5}},
         "bid: bid[1]=0.00 <= bid[2]=98.00",
         "a volume makes a level of it"},
        {"PriceWithoutVolume",
         {{'b', 1, 100.0, 0}},
         "bid: bid[0]=100.00 <= bid[1]=100.00",
         "a price makes a level of it"},
        {"NegativePrices",
         {{'b', 0, -1.0, 5},
          {'b', 1, -2.0, 5},
          {'b', 2, -3.0, 5},
          {'b', 3, -4.0, 5},
          {'b', 4, -5.0, 5}},
         nullptr,
         "spreads"},
        {"RisingNegativePrices",
         {{'b', 0, -2.0, 5},
          {'b', 1, -1.5, 5},
          {'b', 2, -3.0, 5},
          {'b', 3, -4.0, 5},
          {'b', 4, -5.0, 5}},
         "bid: bid[0]=-2.00 <= bid[1]=-1.50",
         "spreads"},
        {"NotANumberFirst", {{'b', 0, kNan, 5}}, nullptr, "compares with nothing"},
        {"NotANumberSecond", {{'b', 1, kNan, 5}}, nullptr, "compares with nothing"},
        {"InfinityFirst", {{'b', 1, kInfinity, 5}}, "bid: bid[0]=100.00 <= bid[1]=inf", "larger"},
        {"MinusInfinityLast", {{'b', 4, -kInfinity, 5}}, nullptr, "smaller"},
    });
}

TEST_F(UdpCheckTest, AsksMustRiseFromLevelToLevel) {
    check({
        {"EqualAtOne", {{'a', 1, 101.0, 5}}, "ask: ask[0]=101.00 >= ask[1]=101.00", "equal is bad"},
        {"EqualAtTwo", {{'a', 2, 102.0, 5}}, "ask: ask[1]=102.00 >= ask[2]=102.00", "equal is bad"},
        {"EqualAtThree",
         {{'a', 3, 103.0, 5}},
         "ask: ask[2]=103.00 >= ask[3]=103.00",
         "equal is bad"},
        {"EqualAtFour",
         {{'a', 4, 104.0, 5}},
         "ask: ask[3]=104.00 >= ask[4]=104.00",
         "equal is bad"},
        {"FallingAtOne", {{'a', 1, 100.75, 5}}, "ask: ask[0]=101.00 >= ask[1]=100.75", "falling"},
        {"FallingAtFour", {{'a', 4, 103.999, 5}}, "ask: ask[3]=104.00 >= ask[4]=104.00", "falling"},
        {"ByOneBit",
         {{'a', 1, next_below(101.0), 5}},
         "ask: ask[0]=101.00 >= ask[1]=101.00",
         "no tolerance"},
        {"AboveByOneBit", {{'a', 1, next_above(101.0), 5}}, nullptr, "no tolerance"},
        {"SixthNotChecked", {{'a', 5, 1.0, 5}}, nullptr, "five levels are checked"},
        {"FirstFailureCounts",
         {{'a', 2, 3.0, 5}, {'a', 4, 2.0, 5}},
         "ask: ask[1]=102.00 >= ask[2]=3.00",
         "in order"},
        {"EmptyBetween",
         {{'a', 1, 0.0, 0}, {'a', 2, 100.5, 5}},
         nullptr,
         "only neighbours are compared"},
        {"EmptyFirst", {{'a', 0, 0.0, 0}}, nullptr, "an empty level is nobody's neighbour"},
        {"EmptyAboveNegative",
         {{'a', 0, 0.0, 0}, {'a', 1, -5.0, 5}},
         nullptr,
         "an empty level is not a level at zero"},
        {"FallingBehindEmptyFirst",
         {{'a', 0, 0.0, 0}, {'a', 2, 102.0, 5}},
         "ask: ask[1]=102.00 >= ask[2]=102.00",
         "later pairs are still compared"},
        {"ZeroPriceWithVolume",
         {{'a', 4, 0.0, 5}},
         "ask: ask[3]=104.00 >= ask[4]=0.00",
         "a volume makes a level of it"},
        {"PriceWithoutVolume",
         {{'a', 1, 101.0, 0}},
         "ask: ask[0]=101.00 >= ask[1]=101.00",
         "a price makes a level of it"},
        {"NotANumberFirst", {{'a', 0, kNan, 5}}, nullptr, "compares with nothing"},
        {"NotANumberSecond", {{'a', 1, kNan, 5}}, nullptr, "compares with nothing"},
    });
}

TEST_F(UdpCheckTest, BestBidMustStayBelowBestAsk) {
    check({
        {"Equal", {{'b', 0, 101.0, 5}}, "crossed: bid1=101.00 >= ask1=101.00", "locked is bad"},
        {"Above", {{'b', 0, 101.5, 5}}, "crossed: bid1=101.50 >= ask1=101.00", "crossed"},
        {"AskBelow", {{'a', 0, 99.5, 5}}, "crossed: bid1=100.00 >= ask1=99.50", "crossed"},
        {"ByOneBit", {{'b', 0, next_below(101.0), 5}}, nullptr, "no tolerance"},
        {"NoAsk", {{'b', 0, 500.0, 5}, {'a', 0, 0.0, 0}}, nullptr, "nothing to cross"},
        {"NoBid",
         {{'b', 0, 0.0, 0}, {'b', 1, 500.0, 5}, {'a', 0, 1.0, 5}},
         nullptr,
         "only the first levels are compared"},
        {"NoBidAboveNegativeAsk",
         {{'b', 0, 0.0, 0}, {'a', 0, -5.0, 5}},
         nullptr,
         "an empty level is not a level at zero"},
        {"AskWithoutVolume",
         {{'a', 0, 99.5, 0}},
         "crossed: bid1=100.00 >= ask1=99.50",
         "a price makes a level of it"},
        {"AskWithoutPrice",
         {{'a', 0, 0.0, 1}},
         "crossed: bid1=100.00 >= ask1=0.00",
         "a volume makes a level of it"},
        {"BidWithoutPrice",
         {{'b', 0, 0.0, 1}, {'b', 1, 0.0, 0}, {'a', 0, -1.0, 1}},
         "crossed: bid1=0.00 >= ask1=-1.00",
         "a volume makes a level of it"},
        {"NotANumber", {{'b', 0, kNan, 5}, {'a', 0, -5.0, 5}}, nullptr, "compares with nothing"},
        {"BidsBeforeAsks",
         {{'b', 1, 100.0, 5}, {'a', 1, 101.0, 5}, {'b', 0, 100.0, 5}},
         "bid: bid[0]=100.00 <= bid[1]=100.00",
         "the first failure counts"},
        {"AsksBeforeCrossing",
         {{'a', 0, 99.0, 5}, {'a', 3, 103.0, 5}},
         "ask: ask[2]=103.00 >= ask[3]=103.00",
         "the first failure counts"},
        {"BidsBeforeCrossing",
         {{'b', 0, 102.0, 5}, {'b', 4, 97.0, 5}},
         "bid: bid[3]=97.00 <= bid[4]=97.00",
         "the first failure counts"},
    });
}

TEST_F(UdpCheckTest, EmptinessInTheCheckIsByPriceAndVolume) {
    check({
        {"BelowEpsilon", {{'b', 0, next_below(0.00001), 0}}, nullptr, "empty"},
        {"Epsilon", {{'b', 0, 0.00001, 0}}, "bid: bid[0]=0.00 <= bid[1]=99.00", "a price"},
        {"MinusEpsilon", {{'b', 0, -0.00001, 0}}, "bid: bid[0]=-0.00 <= bid[1]=99.00", "a price"},
        {"AboveMinusEpsilon", {{'b', 0, next_above(-0.00001), 0}}, nullptr, "empty"},
        {"NegativeVolume", {{'b', 0, 0.0, -1}}, nullptr, "empty"},
        {"VolumeOne", {{'b', 0, 0.0, 1}}, "bid: bid[0]=0.00 <= bid[1]=99.00", "a level"},
    });
}

TEST_F(UdpCheckTest, AnIdentifierWithTasIsNeverUndone) {
    struct IdCase {
        const char* id;
        bool exempt;
        const char* why;
    };
    const IdCase rows[] = {
        {"cuTAS", true, "at the end"},
        {"TAS609", true, "at the start"},
        {"cTAS09", true, "in the middle"},
        {"cu2609TAS", true, "beyond the sixth character"},
        {"cu2609C50000TAS", true, "in the last three characters"},
        {"TTAS", true, "after a false start"},
        {"TATAS", true, "after a false start"},
        {"cuTas", false, "capitals only"},
        {"cutas", false, "capitals only"},
        {"cuTA2609S", false, "in one piece"},
        {"cuTA", false, "whole"},
    };
    for (const IdCase& row : rows) {
        SCOPED_TRACE(std::string(row.id) + ": " + row.why);
        subscribe(kSlot, row.id);
        put({{'b', 1, 500.0, 5}, {'a', 2, 1.0, 5}, {'b', 0, 300.0, 5}});
        instrument expected = stamped();
        expected.highest_price = 5.0;
        if (!row.exempt) {
            expected = record();
            expected.type = EXCHANGE_TYPE_SHFE;
        }
        const Outcome outcome = parse(message().highest(5));
        EXPECT_EQ(outcome.result, row.exempt ? RET_TO_CALLBACK : RET_OK);
        EXPECT_TRUE(same_record(expected, record()));
        if (row.exempt) {
            EXPECT_THAT(outcome.log, Not(Contains(HasSubstr("restore"))));
        }
    }
}

TEST_F(UdpCheckTest, TasBehindTheEndOfTheIdentifierDoesNotCount) {
    std::memcpy(record().inst_id + 8, "TAS", 3); // behind the terminator
    put({{'b', 1, 500.0, 5}});
    EXPECT_EQ(parse(message()).result, RET_OK);
    subscribe(kSlot, "cu2609C50000abT"); // the longest, and a last price of these bytes behind it
    std::memcpy(&record().last_px, "ASTAS..", 8);
    put({{'b', 1, 500.0, 5}});
    EXPECT_EQ(parse(message()).result, RET_OK);
}

TEST_F(UdpCheckTest, ABadBookUndoesTheWholeMessage) {
    instrument expected = record();
    expected.type = EXCHANGE_TYPE_SHFE; // written before the copy was taken
    const Outcome outcome = parse(message()
                                      .deal(100, 5, 60, 7)
                                      .bid_totals(4, 5)
                                      .ask_totals(6, 7)
                                      .highest(999)
                                      .lowest(1)
                                      .insert(Side::kBid, 6, 95, 5)
                                      .erase(Side::kAsk, 1)
                                      .update(Side::kAsk, 9, 300, 5)
                                      .insert(Side::kBid, 1, 102, 5));
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_TRUE(same_record(expected, record()));
    EXPECT_THAT(outcome.log,
                Contains("X ExanicUdpFunc _ParseMirp bad mirp crossed: bid1=102.00 >= ask1=102.00, "
                         "inst=cu2609, restore"));
    // Outside the record nothing is taken back.
    EXPECT_EQ(outcome.slot, kSlot);
    EXPECT_EQ(table_->shfe_pktno, kPacketNo);
    EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, kTime}));
}

// A decode buffer of the card has room for 126 changes; what undoes them one by one for 128.
TEST_F(UdpCheckTest, AnyNumberOfChangesIsUndone) {
    for (const int changes : {1, 2, 16, 125, 126, 127, 128, 129, 130, 255, 256, 257, 400, 4000}) {
        SCOPED_TRACE(changes);
        subscribe(kSlot, "cu2609");
        instrument expected = record();
        expected.type = EXCHANGE_TYPE_SHFE;
        wirekit::DecodeBufferBuilder bytes = message();
        for (int i = 1; i < changes; ++i) {
            const Side side = i % 3 == 0 ? Side::kBid : Side::kAsk;
            const uint32_t volume = static_cast<uint32_t>(i) + 1;
            const auto level = static_cast<uint8_t>(i * 7 % 10 + 1);
            if (i % 4 == 0) {
                bytes.insert(side, level, 200 + i, volume);
            } else if (i % 4 == 1) {
                bytes.erase(side, level);
            } else {
                bytes.update(side, level, 300 + i, volume);
            }
        }
        bytes.update(Side::kBid, 1, 100'000, 5).update(Side::kBid, 2, 200'000, 5);
        EXPECT_EQ(parse(bytes).result, RET_OK);
        EXPECT_TRUE(same_record(expected, record()));
    }
}

TEST_F(UdpCheckTest, UndoingKeepsTheExchange) {
    subscribe(LAST_SLOT - kNumber, "sc2609");
    instrument expected = record(LAST_SLOT - kNumber);
    expected.type = EXCHANGE_TYPE_INE;
    const Outcome outcome =
        parse(message().topic(kIne4psTopic).highest(5).update(Side::kBid, 1, 200, 5));
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_EQ(outcome.slot, LAST_SLOT - kNumber);
    EXPECT_TRUE(same_record(expected, record(LAST_SLOT - kNumber)));
}

TEST_F(UdpCheckTest, UndoingKeepsTheStoredChangeNumber) {
    const auto bad = message().update(Side::kBid, 1, 200, 5);
    EXPECT_EQ(parse(bad).result, RET_OK);
    EXPECT_EQ(record().change_no, kChangeNo);
    // The exchange goes on: its next message is a gap.
    const Outcome next = parse(message().change_no(kChangeNo + 2));
    EXPECT_EQ(next.result, RET_FAILED);
    EXPECT_THAT(at_levels(next, "EW"),
                ElementsAre("E ExanicUdpFunc _ParseMirp discontinuous changeNo: 9, expected "
                            "changeNo: 8, instrumentID: cu2609, instrumentNo: 17, "
                            "instrumentNo: 17"));
    // The same message again is tried again, and a good one of that number is taken.
    EXPECT_EQ(parse(bad).result, RET_OK);
    EXPECT_EQ(parse(message().update(Side::kBid, 1, 100, 5)).result, RET_TO_CALLBACK);
    EXPECT_EQ(record().change_no, kChangeNo + 1);
}

TEST_F(UdpCheckTest, OnlyTheBookBehindTheLastFieldCounts) {
    // Crossed on the way, good in the end.
    const Outcome outcome = parse(message().insert(Side::kBid, 1, 101, 5).erase(Side::kAsk, 1));
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_EQ(record().bid_px[0], 101.0);
    EXPECT_EQ(record().ask_px[0], 102.0);
    EXPECT_THAT(outcome.log, Not(Contains(HasSubstr("restore"))));
}

TEST_F(UdpCheckTest, ABadBookThatWasThereBeforeFailsEveryMessage) {
    put({{'a', 0, 100.0, 5}}); // locked since the snapshot
    EXPECT_EQ(parse(message().highest(5)).result, RET_OK);
    EXPECT_EQ(parse(message().highest(5)).result, RET_OK);
    EXPECT_EQ(parse(message().update(Side::kAsk, 1, 101, 5)).result, RET_TO_CALLBACK);
}

TEST_F(UdpCheckTest, LargePricesAreReportedInFull) {
    const double huge = -std::numeric_limits<double>::max();
    put({{'b', 0, huge, 5}, {'b', 1, -1e300, 5}});
    const Outcome outcome = parse(message());
    EXPECT_EQ(outcome.result, RET_OK);
    char text[1024];
    std::snprintf(text, sizeof text,
                  "X ExanicUdpFunc _ParseMirp bad mirp bid: bid[0]=%.2f <= bid[1]=%.2f, "
                  "inst=cu2609, restore",
                  huge, -1e300);
    EXPECT_EQ(outcome.log.back(), text);
}

} // namespace
} // namespace udp_test
