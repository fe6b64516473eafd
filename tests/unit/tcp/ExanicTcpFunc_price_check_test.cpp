// The check of the finished books: order and limits of prices, volumes, what is reported.

#include "tests/unit/tcp/segment_script.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace tcp_test {
namespace {

constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

std::string out_of_limits(const std::string& price, const std::string& up, const std::string& low,
                          int index) {
    return line('W', "CheckPrice",
                "(price > up) or (price < lower), price is " + price + ", up is " + up +
                    ", lower is " + low + ", index is :" + std::to_string(index));
}
std::string not_falling(int index) {
    return line('W', "CheckPrice",
                "The price is abnormal, price index is :" + std::to_string(index) + " ");
}
std::string mismatch(int index, const std::string& price, int vol) {
    return line('W', "CheckPrice",
                "Price and Volume mismatch at index " + std::to_string(index) + ": price=" + price +
                    ", vol=" + std::to_string(vol));
}

class PriceCheck : public SnapshotChannel {
protected:
    // A good book: asks 101 to 105, bids 100 to 96, volumes 1 to 5, limits 50 and 150.
    static instrument good_book(const std::string& inst_id = "cu2601") {
        instrument record{};
        wirekit::put_text(record.inst_id, 16, inst_id);
        for (int i = 0; i < 5; ++i) {
            record.bid_px[i] = 100 - i;
            record.ask_px[i] = 101 + i;
            record.bid_vol[i] = record.ask_vol[i] = i + 1;
        }
        return record;
    }
    static Log report(const instrument& record, const inter_info& limits) {
        char text[500];
        const auto said = [&] { return line('E', "ShfeInstPriceCheck", text); };
        std::snprintf(text, sizeof(text), "inst_id [%s]upper[%8lf]lower[%8lf]",
                      reinterpret_cast<const char*>(record.inst_id), limits.upper_limit_price,
                      limits.lower_limit_price);
        Log lines = {said()};
        for (int i = 4; i >= 0; --i) {
            std::snprintf(text, sizeof(text), "ask%d px[%8lf]vol[%d]", i + 1, record.ask_px[i],
                          record.ask_vol[i]);
            lines.push_back(said());
        }
        for (int i = 0; i < 5; ++i) {
            std::snprintf(text, sizeof(text), "bid%d px[%8lf]vol[%d]", i + 1, record.bid_px[i],
                          record.bid_vol[i]);
            lines.push_back(said());
        }
        return lines;
    }
    static constexpr inter_info kLimits{150, 50};
};

TEST_F(PriceCheck, JudgesASequenceOfPrices) {
    // clang-format off
    const struct {
        const char* name;
        std::vector<double> px;
        std::vector<int32_t> vol;
        double upper;
        double lower;
        bool spread;
        int32_t result;
        Log said;
        const char* why;
    } rows[] = {
        {"Falling", {5, 4, 3}, {1, 1, 1}, 10, 0, false, 0, {}, "as it should be"},
        {"None", {}, {}, 10, 0, false, 0, {}, "nothing to object to"},
        {"Empty", {0, 0, 0}, {0, 0, 0}, 0, 0, false, 0, {}, "empty levels are skipped"},
        {"EmptyNegativeVolume", {0}, {-1}, 0, 0, false, 0, {}, "a volume below 1 is none"},
        {"Gap", {5, 0, 4}, {1, 0, 1}, 10, 0, false, 0, {}, "an empty level between is skipped"},
        {"GapRising", {4, 0, 5}, {1, 0, 1}, 10, 0, false, -2, {not_falling(2)},
         "its neighbours are compared with each other"},
        {"Equal", {5, 5}, {1, 1}, 10, 0, false, -2, {not_falling(1)}, "equal is not falling"},
        {"Rising", {4, 5}, {1, 1}, 10, 0, false, -2, {not_falling(1)}, "rising"},
        {"HardlyFalling", {5, std::nextafter(5, 0)}, {1, 1}, 10, 0, false, 0, {},
         "the order knows no tolerance"},
        {"AtUpper", {10}, {1}, 10, 0, false, 0, {}, "the limit is allowed"},
        {"OverUpperALittle", {10.000009}, {1}, 10, 0, false, 0, {}, "less than 0.00001 over"},
        {"OverUpper", {10.00002}, {1}, 10, 0, false, -1,
         {out_of_limits("10.000020", "10.000000", "0.000000", 0)}, "more than 0.00001 over"},
        {"AtLower", {10}, {1}, 20, 10, false, 0, {}, "the limit is allowed"},
        {"UnderLowerALittle", {9.999991}, {1}, 20, 10, false, 0, {}, "less than 0.00001 under"},
        {"UnderLower", {9.99998}, {1}, 20, 10, false, -1,
         {out_of_limits("9.999980", "20.000000", "10.000000", 0)}, "more than 0.00001 under"},
        {"LimitsBeforeOrder", {5, 11}, {1, 1}, 10, 0, false, -1,
         {out_of_limits("11.000000", "10.000000", "0.000000", 1)}, "the limits are tested first"},
        {"PriceOnly", {5, 4}, {1, 0}, 10, 0, false, -3, {mismatch(1, "4.000000", 0)},
         "a price without volume"},
        {"PriceNegativeVolume", {5}, {-1}, 10, 0, false, -3, {mismatch(0, "5.000000", -1)},
         "a price without volume"},
        {"VolumeOnly", {5, 0}, {1, 7}, 10, 0, false, -3, {mismatch(1, "0.000000", 7)},
         "a volume without price"},
        {"MismatchBeforeLimits", {99}, {0}, 10, 0, false, -3, {mismatch(0, "99.000000", 0)},
         "the volume is tested first"},
        {"ZeroBand", {0.00000999}, {0}, 10, 0, false, 0, {}, "below 0.00001 is zero"},
        {"ZeroBandEdge", {0.00001}, {0}, 10, 0, false, -3, {mismatch(0, "0.000010", 0)},
         "0.00001 is not"},
        {"ZeroBandNegative", {-0.00000999}, {0}, 10, 0, false, 0, {}, "above -0.00001 is zero"},
        {"ZeroBandNegativeEdge", {-0.00001}, {0}, 10, -1, false, -3, {mismatch(0, "-0.000010", 0)},
         "-0.00001 is not"},
        {"Stops", {5, 6, 0}, {1, 1, 9}, 10, 0, false, -2, {not_falling(1)},
         "the first violation ends it"},
        {"SpreadNegative", {2, -1, -3}, {1, 1, 1}, kMax, -kMax, true, 0, {},
         "spreads have negative prices"},
        {"SpreadPriceOnly", {5, 4}, {1, 0}, kMax, -kMax, true, 0, {}, "no mismatch for a spread"},
        {"SpreadZero", {2, 0, -3}, {1, 5, 1}, kMax, -kMax, true, 0, {},
         "zero with a volume is a price of 0"},
        {"SpreadZeroOrder", {-1, 0}, {1, 5}, kMax, -kMax, true, -2, {not_falling(1)},
         "and takes part in the order"},
        {"SpreadZeroEmpty", {-1, 0}, {1, 0}, kMax, -kMax, true, 0, {},
         "zero without volume is empty"},
        {"SpreadZeroLimits", {0}, {5}, -1, -2, true, -1,
         {out_of_limits("0.000000", "-1.000000", "-2.000000", 0)}, "and in the range test"},
        {"SpreadPriceOnlyOrder", {4, 5}, {0, 0}, kMax, -kMax, true, -2, {not_falling(1)},
         "prices without volume are ordered too"},
        {"Largest", {kMax}, {1}, kMax, -kMax, true, -2, {not_falling(0)},
         "what comes before the first price is the largest value itself"},
        {"Infinite", {kInf}, {1}, 10, 0, false, -1,
         {out_of_limits("inf", "10.000000", "0.000000", 0)}, "above any limit"},
        {"NotANumber", {5, kNan, 6}, {1, 1, 1}, 10, 0, false, 0, {},
         "compares as nothing, also with what follows"},
        {"NotANumberVolume", {kNan}, {0}, 10, 0, false, -3, {mismatch(0, "nan", 0)},
         "not zero, so it needs a volume"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        int32_t result = 99;
        const Log log = logged(
            [&] { result = core->CheckPrice(row.px, row.vol, row.upper, row.lower, row.spread); });
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(log, row.said);
    }
}

TEST_F(PriceCheck, ReadsTheBookFromTheFifthAskToTheFifthBid) {
    for (int index = 0; index < 10; ++index) {
        SCOPED_TRACE("index " + std::to_string(index));
        instrument record = good_book();
        (index < 5 ? record.ask_vol[4 - index] : record.bid_vol[index - 5]) = 0;
        int32_t result = 0;
        const Log log = logged([&] { result = core->ShfeInstPriceCheck(record, kLimits); });
        EXPECT_EQ(result, -3);
        EXPECT_EQ(at(log, 0), mismatch(index, std::to_string(105 - index) + ".000000", 0));
    }
}

TEST_F(PriceCheck, ReportsAFailingBookInElevenLines) {
    instrument record = good_book("sc2612");
    record.bid_px[0] = 101; // equal to the first ask
    for (const bool shield : {false, true}) {
        config.shield_price_check = shield;
        int32_t result = 99;
        const Log log = logged([&] { result = core->ShfeInstPriceCheck(record, kLimits); });
        EXPECT_EQ(result, shield ? 0 : -2);
        EXPECT_EQ(log, Log{not_falling(5)} + report(record, kLimits));
    }
}

TEST_F(PriceCheck, LimitsAreTheSlotsOwn) {
    const instrument record = good_book();
    const struct {
        const char* name;
        inter_info limits;
        int32_t result;
        const char* said;
    } rows[] = {
        {"Inside", {106, 95}, 0, ""},
        {"Touching", {105, 96}, 0, ""},
        {"TooHigh",
         {104, 90},
         -1,
         "price is 105.000000, up is 104.000000, lower is 90.000000, index is :0"},
        {"TooLow",
         {110, 97},
         -1,
         "price is 96.000000, up is 110.000000, lower is 97.000000, index is :9"},
        {"None", {0, 0}, -1, "price is 105.000000, up is 0.000000, lower is 0.000000, index is :0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        int32_t result = 99;
        const Log log = logged([&] { result = core->ShfeInstPriceCheck(record, row.limits); });
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(log.empty(), row.result == 0);
        if (row.result != 0) {
            EXPECT_EQ(only(log, row.said).size(), 1u);
            EXPECT_EQ(Log(log.begin() + 1, log.end()), report(record, row.limits));
        }
    }
}

TEST_F(PriceCheck, ASpreadHasNoLimitsAndReportsTheSlotsOwn) {
    for (const char* const inst_id : {"SPD cu-al", "-", "cu2601-"}) {
        instrument record = good_book(inst_id);
        EXPECT_EQ(core->ShfeInstPriceCheck(record, {0, 0}), 0) << inst_id;
        record.ask_px[4] = 1e300; // no price is too high or too low
        record.bid_px[4] = -1e300;
        EXPECT_EQ(core->ShfeInstPriceCheck(record, {0, 0}), 0) << inst_id;
        record.bid_px[0] = record.ask_px[0];
        int32_t result = 99;
        const Log log = logged([&] { result = core->ShfeInstPriceCheck(record, {3, 2}); });
        EXPECT_EQ(result, -2);
        EXPECT_EQ(log, Log{not_falling(5)} + report(record, {3, 2}));
    }
    instrument record = good_book("cu2601-cu2602");
    record.ask_px[4] = record.bid_px[3] = 0; // without a price but with a volume
    EXPECT_EQ(core->ShfeInstPriceCheck(record, {0, 0}), -2);
    record.ask_vol[4] = 0;
    record.bid_px[4] = -1;
    EXPECT_EQ(core->ShfeInstPriceCheck(record, {0, 0}), 0);
}

TEST_F(PriceCheck, TasInstrumentsAreNeverChecked) {
    const struct {
        const char* inst_id;
        bool checked;
    } rows[] = {{"TAS", false},           {"scTAS2612", false}, {"sc2612TAS", false},
                {"sc2612-TAS", false},    {"sc2612TA", true},   {"tas", true},
                {"scT-AS", true},         {"TTAS", false},      {"123456789012TAS", false},
                {"1234567890123TA", true}};
    for (const auto& row : rows) {
        instrument record = good_book(row.inst_id);
        record.bid_px[0] = record.ask_px[0];
        int32_t result = 99;
        const Log log = logged([&] { result = core->ShfeInstPriceCheck(record, kLimits); });
        EXPECT_EQ(result, row.checked ? -2 : 0) << row.inst_id;
        EXPECT_EQ(log.size(), row.checked ? 12u : 0u) << row.inst_id;
    }
}

TEST_F(PriceCheck, AnIdentifierWithoutAnEndStopsAtItsField) {
    instrument record = good_book();
    std::memset(record.inst_id, 'Q', 16);
    std::memcpy(&record.last_px, "TAS-----", 8); // lies right behind it
    record.bid_px[0] = record.ask_px[0];
    const Log log = logged([&] { core->ShfeInstPriceCheck(record, {150, 50}); });
    EXPECT_EQ(at(log, 1),
              line('E', "ShfeInstPriceCheck",
                   "inst_id [" + std::string(16, 'Q') + "]upper[150.000000]lower[50.000000]"));
}

TEST_F(PriceCheck, LevelsBehindTheFifthAreNotChecked) {
    instrument record = good_book();
    for (int i = 5; i < 10; ++i) {
        record.bid_px[i] = record.ask_px[i] = 1e6;
    }
    EXPECT_EQ(core->ShfeInstPriceCheck(record, kLimits), 0);
}

TEST_F(PriceCheck, OneSidedAndEmptyBooksPass) {
    instrument bids = good_book();
    std::memset(bids.ask_px, 0, sizeof(bids.ask_px));
    std::memset(bids.ask_vol, 0, sizeof(bids.ask_vol));
    EXPECT_EQ(core->ShfeInstPriceCheck(bids, kLimits), 0);
    instrument asks = good_book();
    std::memset(asks.bid_px, 0, sizeof(asks.bid_px));
    std::memset(asks.bid_vol, 0, sizeof(asks.bid_vol));
    EXPECT_EQ(core->ShfeInstPriceCheck(asks, kLimits), 0);
    EXPECT_EQ(core->ShfeInstPriceCheck(instrument{}, {0, 0}), 0);
}

TEST_F(PriceCheck, VisitsEverySlotInUseOfBothExchanges) {
    table->shfe_inst_cnt = 5;
    table->ine_inst_cnt = 3;
    EXPECT_EQ(core->ShfePriceCheck(), 0); // unused slots are empty
    for (const int index : {0, 4, 5, 20479, 20477, 20476}) {
        SCOPED_TRACE("slot " + std::to_string(index));
        slot(index) = good_book();
        core->inter_infos[index] = {150, 50};
        EXPECT_EQ(core->ShfePriceCheck(), 0);
        slot(index).bid_px[2] = 99; // equal to the second
        const bool in_use = index < 5 || index > 20476;
        EXPECT_EQ(core->ShfePriceCheck(), in_use ? -2 : 0);
        slot(index).bid_px[2] = 98;
        core->inter_infos[index] = {150, 97};
        EXPECT_EQ(core->ShfePriceCheck(), in_use ? -1 : 0);
        slot(index) = instrument{};
    }
}

TEST_F(PriceCheck, ChecksUnsubscribedSlotsToo) {
    table->shfe_inst_cnt = 1;
    slot(0).bid_vol[1] = 3;
    EXPECT_EQ(core->ShfePriceCheck(), -3);
}

TEST_F(PriceCheck, StopsAtTheFirstFailureShfeFirst) {
    table->shfe_inst_cnt = 10;
    table->ine_inst_cnt = 10;
    const auto fail_with = [&](int index, const std::string& inst_id, int32_t code) {
        slot(index) = good_book(inst_id);
        core->inter_infos[index] = code == -1 ? inter_info{100, 50} : inter_info{150, 50};
        if (code == -2) {
            slot(index).bid_px[0] = 101;
        }
        if (code == -3) {
            slot(index).bid_vol[0] = 0;
        }
    };
    const auto failing = [&] {
        Log names;
        for (const std::string& text :
             only(logged([&] { core->ShfePriceCheck(); }, "E"), "inst_id")) {
            names.push_back(text.substr(text.find('[') + 1, 2));
        }
        return names;
    };
    fail_with(20479 - 4, "i4", -2);
    EXPECT_EQ(core->ShfePriceCheck(), -2);
    fail_with(20479 - 2, "i2", -3);
    EXPECT_EQ(core->ShfePriceCheck(), -3);
    EXPECT_EQ(failing(), Log{"i2"});
    fail_with(7, "s7", -1);
    EXPECT_EQ(core->ShfePriceCheck(), -1);
    EXPECT_EQ(failing(), Log{"s7"});
    fail_with(3, "s3", -2);
    EXPECT_EQ(failing(), Log{"s3"});
    // Shielded, all of them are reported and none counts.
    config.shield_price_check = true;
    EXPECT_EQ(failing(), (Log{"s3", "s7", "i2", "i4"}));
    EXPECT_EQ(core->ShfePriceCheck(), 0);
}

TEST_F(PriceCheck, DoesNotChangeTheTable) {
    table->shfe_inst_cnt = 1;
    slot(0) = good_book();
    slot(0).bid_px[1] = 1000;
    const ChannelState before = state();
    EXPECT_EQ(core->ShfePriceCheck(), -1);
    EXPECT_EQ(difference(before), "");
}

} // namespace
} // namespace tcp_test
