// Prices, amounts and sums to the last bit: doubles in the stated order, each operation rounded,
// integers modulo 2^32.

#include "udp_fixture.h"

#include <cmath>
#include <limits>

namespace udp_test {
namespace {

using wirekit::Side;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// A double that the compiler must round before it goes on.
double rounded(double value) {
    const volatile double stored = value;
    return stored;
}

class UdpAmountsTest : public UdpTest {
protected:
    instrument& scale(double tick, double codec_price, int32_t volume_multiple) {
        // TAS: any price may stand in the book.
        return subscribe(kSlot, "cuTAS", tick, codec_price, volume_multiple);
    }
};

TEST_F(UdpAmountsTest, PriceIsTheRoundedProductPlusTheCodecPrice) {
    const double tick = 0.05;
    const double codec = 391.35;
    const int32_t offset = -2704;
    const double expected = rounded(rounded(offset * tick) + codec);
    ASSERT_NE(expected, std::fma(offset, tick, codec)); // the case tells the two apart
    scale(tick, codec, 1);
    EXPECT_EQ(parse(message()
                        .deal(offset, 0, 0, 0)
                        .highest(offset)
                        .lowest(offset)
                        .update(Side::kBid, 1, offset, 1)
                        .insert(Side::kAsk, 6, offset, 1))
                  .result,
              RET_TO_CALLBACK);
    EXPECT_EQ(record().last_px, expected);
    EXPECT_EQ(record().highest_price, expected);
    EXPECT_EQ(record().lowest_price, expected);
    EXPECT_EQ(record().bid_px[0], expected);
    EXPECT_EQ(record().ask_px[5], expected);
}

TEST_F(UdpAmountsTest, PriceOffsetsAreSigned) {
    scale(2.0, 100.0, 1);
    EXPECT_EQ(parse(message().highest(INT32_MAX).lowest(INT32_MIN)).result, RET_TO_CALLBACK);
    EXPECT_EQ(record().highest_price, 4294967394.0);
    EXPECT_EQ(record().lowest_price, -4294967196.0);
}

struct AmountCase {
    const char* name;
    int32_t volume;
    int64_t offset;
    double tick, codec;
    int32_t multiple;
    double before;
    const char* why;
};

const AmountCase kAmounts[] = {
    {"Order", 5, 7, 0.05, 391.35, 7, 7.8, "neither distributed nor fused nor added in parts"},
    {"FusedOffset", 1, -2704, 0.05, 391.35, 1, 0.0, "the offset's product is rounded by itself"},
    {"Negative", -5, -7, 0.05, 391.35, 7, 100.0, "both may be negative"},
    {"MixedSigns", 5, -100000, 0.05, 391.35, 7, 0.25, "they may pull apart"},
    {"OddOffset", 0, (int64_t{1} << 53) + 1, 1.0, 391.35, 1, 0.0,
     "rounded to double before it is multiplied"},
    {"OddOffsetTimesThree", 0, (int64_t{1} << 53) + 1, 3.0, 0.0, 1, 0.0,
     "an integer product would be exact where the double is not"},
    {"MostOffset", INT32_MAX, INT64_MAX, 0.01, 391.35, 10, 0.0, "no integer overflow"},
    {"LeastOffset", INT32_MIN, INT64_MIN, 0.01, 391.35, 10, 0.0, "no integer overflow"},
    {"BigVolume", INT32_MAX, 0, 0.01, 71230.0, 1000, 1e15, "volume times multiple exceeds 32 bits"},
    {"ZeroMultiple", 5, 7, 0.05, 391.35, 0, 12.5, "an instrument without multiple adds nothing"},
    {"NegativeMultiple", 5, 7, 0.05, 391.35, -3, 12.5, "a signed factor"},
    {"Huge", 1, 1, 1e308, 1e308, INT32_MAX, 0.0, "overflows to infinity, not into a trap"},
};

TEST_F(UdpAmountsTest, AmountsAreComputedInTheStatedOrder) {
    for (const AmountCase& row : kAmounts) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        const double base = rounded(static_cast<double>(row.volume) * row.codec);
        const double above = rounded(static_cast<double>(row.offset) * row.tick);
        const double change = rounded(rounded(base + above) * static_cast<double>(row.multiple));
        const double after = rounded(row.before + change);

        scale(row.tick, row.codec, row.multiple).turnover = row.before;
        record().bid_totamount = row.before;
        record().ask_totamount = row.before;
        instrument expected = record();
        expected.type = EXCHANGE_TYPE_SHFE;
        expected.update_time = kTime;
        expected.update_milli_sec = kMillisec;
        expected.change_no = kChangeNo + 1;
        expected.last_px = row.codec;
        expected.volume += static_cast<uint32_t>(row.volume);
        expected.turnover = after;
        expected.bid_totvol = static_cast<int32_t>(640u + static_cast<uint32_t>(row.volume));
        expected.bid_totamount = after;
        expected.ask_totvol = static_cast<int32_t>(730u + static_cast<uint32_t>(row.volume));
        expected.ask_totamount = after;
        EXPECT_EQ(parse(message()
                            .deal(0, row.volume, row.offset, 0)
                            .bid_totals(row.volume, row.offset)
                            .ask_totals(row.volume, row.offset))
                      .result,
                  RET_TO_CALLBACK);
        EXPECT_TRUE(same_record(expected, record()));
    }
}

TEST_F(UdpAmountsTest, TheAmountCasesTellTheOrdersApart) {
    const double a = rounded(5 * 391.35);
    const double b = rounded(7 * 0.05);
    const double stated = rounded(7.8 + rounded(rounded(a + b) * 7));
    EXPECT_NE(stated, rounded(7.8 + rounded(rounded(a * 7) + rounded(b * 7))));
    EXPECT_NE(stated, rounded(rounded(7.8 + rounded(a * 7)) + rounded(b * 7)));
    EXPECT_NE(stated, rounded(7.8 + rounded(rounded(35 * 391.35) + rounded(49 * 0.05))));
    EXPECT_NE(stated, rounded(7.8 + rounded(std::fma(5, 391.35, b) * 7)));
    EXPECT_NE(stated, std::fma(rounded(a + b), 7, 7.8));
    EXPECT_NE(rounded(391.35 + rounded(-2704 * 0.05)), std::fma(-2704, 0.05, 391.35));
}

struct SumCase {
    const char* name;
    uint32_t before;
    int32_t change;
    uint32_t after;
    const char* why;
};

const SumCase kSums[] = {
    {"Adds", 10, 5, 15, "plain"},
    {"Subtracts", 10, -4, 6, "changes may be negative"},
    {"BelowZero", 3, -5, 0xFFFFFFFE, "wraps below zero"},
    {"AboveSignBit", 0x7FFFFFFF, 1, 0x80000000, "wraps past the largest signed number"},
    {"BelowSignBit", 0x80000000, -1, 0x7FFFFFFF, "wraps past the smallest signed number"},
    {"AboveAll", 0xFFFFFFFF, 1, 0, "wraps past 2^32"},
    {"MostByMost", 0x7FFFFFFF, INT32_MAX, 0xFFFFFFFE, "both at their limit"},
    {"LeastByLeast", 0x80000000, INT32_MIN, 0, "both at their limit"},
};

TEST_F(UdpAmountsTest, VolumeSumsWrapModulo32Bits) {
    for (const SumCase& row : kSums) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        scale(1.0, 0.0, 0);
        record().volume = row.before;
        record().bid_totvol = static_cast<int32_t>(row.before);
        record().ask_totvol = static_cast<int32_t>(row.before);
        EXPECT_EQ(parse(message()
                            .deal(0, row.change, 0, 0)
                            .bid_totals(row.change, 0)
                            .ask_totals(row.change, 0))
                      .result,
                  RET_TO_CALLBACK);
        EXPECT_EQ(record().volume, row.after);
        EXPECT_EQ(record().bid_totvol, static_cast<int32_t>(row.after));
        EXPECT_EQ(record().ask_totvol, static_cast<int32_t>(row.after));
    }
}

TEST_F(UdpAmountsTest, OpenInterestIsSummedInDouble) {
    struct Row {
        double before;
        int64_t change;
        double after;
    };
    const Row rows[] = {
        {1234.0, 1, 1235.0},
        {1234.5, -2000, -765.5},
        {0.0, 16777217, 16777217.0}, // no float either
        {0.25, INT64_MAX, 9223372036854775808.0},
        {0.0, INT64_MIN, -9223372036854775808.0},
        {9007199254740992.0, 1, 9007199254740992.0}, // 2^53 + 1 has no double
        {0.0, (int64_t{1} << 53) + 1, 9007199254740992.0},
        {kInfinity, -5, kInfinity},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.change);
        scale(1.0, 0.0, 1).open_interest = row.before;
        EXPECT_EQ(parse(message().deal(0, 0, 0, row.change)).result, RET_TO_CALLBACK);
        EXPECT_EQ(record().open_interest, row.after);
    }
}

TEST_F(UdpAmountsTest, BookVolumesConvertModulo32Bits) {
    scale(1.0, 0.0, 1);
    EXPECT_EQ(parse(message()
                        .update(Side::kBid, 1, 5, 0x7FFFFFFF)
                        .update(Side::kBid, 2, 4, 0x80000000)
                        .update(Side::kAsk, 1, 6, 0xFFFFFFFF)
                        .insert(Side::kAsk, 10, 7, 0xFFFFFFFE))
                  .result,
              RET_TO_CALLBACK);
    EXPECT_EQ(record().bid_vol[0], INT32_MAX);
    EXPECT_EQ(record().bid_vol[1], INT32_MIN);
    EXPECT_EQ(record().ask_vol[0], -1);
    EXPECT_EQ(record().ask_vol[9], -2);
}

TEST_F(UdpAmountsTest, ScalingIsThatOfTheSlot) {
    // The neighbours' and the mirrored slot's numbers must not get in.
    const uint32_t slot = LAST_SLOT - 30;
    for (const uint32_t other : {30u, slot - 1, slot + 1}) {
        subscribe(other, "xx2609", 1000.0, 1e6, 1000);
    }
    subscribe(slot, "sc2609", 0.25, 8.0, 4);
    EXPECT_EQ(parse(message().topic(kIne2psTopic).instrument(30).deal(6, 2, 8, 0)).result,
              RET_TO_CALLBACK);
    EXPECT_EQ(record(slot).last_px, 9.5);
    EXPECT_EQ(record(slot).turnover, 501250.5 + 72.0); // (2 * 8 + 8 * 0.25) * 4
}

TEST_F(UdpAmountsTest, AnInstrumentWithoutScalingHasZeroPrices) {
    scale(0.0, 0.0, 0);
    EXPECT_EQ(parse(message().deal(100, 5, 1000, 2).highest(7)).result, RET_TO_CALLBACK);
    EXPECT_EQ(record().last_px, 0.0);
    EXPECT_EQ(record().highest_price, 0.0);
    EXPECT_EQ(record().volume, 5005u);
    EXPECT_EQ(record().turnover, 501250.5);
    EXPECT_EQ(record().open_interest, 1236.0);
}

} // namespace
} // namespace udp_test
