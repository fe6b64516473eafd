#include "exchange_sim/instruments.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace exchange_sim {
namespace {

SessionOptions sized(uint32_t instruments) {
    SessionOptions options;
    options.instruments = instruments;
    return options;
}

void expect_sound(const std::vector<Instrument>& catalogue) {
    std::set<std::string> ids;
    std::set<std::pair<Exchange, uint16_t>> numbers;
    for (const Instrument& instrument : catalogue) {
        SCOPED_TRACE(instrument.id);
        EXPECT_TRUE(ids.insert(instrument.id).second);
        EXPECT_TRUE(numbers.insert({instrument.exchange, instrument.number}).second);
        EXPECT_LE(instrument.id.size(), 15u);
        EXPECT_LT(instrument.number, instrument.exchange == Exchange::kShfe ? kMaxShfeInstruments
                                                                            : kMaxIneInstruments);
        EXPECT_EQ(products()[instrument.product].exchange, instrument.exchange);
        EXPECT_EQ(instrument.id.substr(0, 2), products()[instrument.product].code);
        EXPECT_LT(instrument.lower_limit_ticks, instrument.reference_ticks);
        EXPECT_GT(instrument.upper_limit_ticks, instrument.reference_ticks);
        EXPECT_GE(instrument.activity, 1u);
        EXPECT_EQ(instrument.codec_price, static_cast<double>(instrument.codec_milli) / 1000.0);
        EXPECT_EQ(instrument.codec_unpublished, instrument.codec_milli == 0);
        const double lowest = published_price(instrument, instrument.lower_limit_ticks);
        const bool tas = instrument.id.find("TAS") != std::string::npos;
        const bool spread = instrument.id.find('-') != std::string::npos;
        switch (instrument.kind) {
        case InstrumentKind::kFuture:
            EXPECT_EQ(instrument.id.size(), 6u);
            EXPECT_GT(lowest, 1e-3);
            break;
        case InstrumentKind::kOption:
            EXPECT_GT(instrument.id.size(), 6u);
            EXPECT_GT(instrument.strike_price, 0.0);
            EXPECT_GT(lowest, 1e-3);
            break;
        case InstrumentKind::kSpread:
            EXPECT_TRUE(spread);
            break;
        case InstrumentKind::kTas:
            EXPECT_TRUE(tas);
            break;
        }
        EXPECT_EQ(tas, instrument.kind == InstrumentKind::kTas);
        EXPECT_EQ(spread, instrument.kind == InstrumentKind::kSpread);
    }
}

TEST(Instruments, CataloguesOfAnySizeAreSound) {
    for (const uint32_t size : {2u, 5u, 50u, 400u, 3000u}) {
        const auto catalogue = make_catalogue(sized(size));
        EXPECT_EQ(catalogue.size(), size);
        expect_sound(catalogue);
    }
}

TEST(Instruments, FullCatalogueUsesEveryNumberOfBothExchanges) {
    for (const uint32_t options_percent : {0u, 30u, 94u}) {
        SessionOptions options = sized(kMaxShfeInstruments + kMaxIneInstruments);
        options.options_percent = options_percent;
        const auto catalogue = make_catalogue(options);
        expect_sound(catalogue);
        std::map<Exchange, uint32_t> counts;
        for (const Instrument& instrument : catalogue) {
            ++counts[instrument.exchange];
        }
        EXPECT_EQ(counts[Exchange::kShfe], kMaxShfeInstruments);
        EXPECT_EQ(counts[Exchange::kIne], kMaxIneInstruments);
    }
}

TEST(Instruments, DefaultCatalogueHoldsWhatOneExpects) {
    const auto catalogue = make_catalogue(SessionOptions());
    std::map<std::string, const Instrument*> by_id;
    std::map<InstrumentKind, int> kinds;
    for (const Instrument& instrument : catalogue) {
        by_id[instrument.id] = &instrument;
        ++kinds[instrument.kind];
    }
    for (const char* id : {"cu2601", "rb2605", "au2604", "sc2603", "ec2604", "bc2602"}) {
        EXPECT_EQ(by_id.count(id), 1u) << id;
    }
    EXPECT_EQ(kinds[InstrumentKind::kOption], 120);
    EXPECT_GT(kinds[InstrumentKind::kSpread], 5);
    EXPECT_GT(kinds[InstrumentKind::kTas], 5);
    EXPECT_EQ(by_id["cu2601"]->volume_multiple, 5);
    EXPECT_EQ(by_id["cu2601"]->price_tick, 10.0);
    EXPECT_EQ(by_id["au2604"]->price_tick, 0.02);
    EXPECT_EQ(by_id["au2604"]->volume_multiple, 1000);
}

TEST(Instruments, NumbersHaveHolesWhereThereIsRoom) {
    const auto catalogue = make_catalogue(SessionOptions());
    bool hole = false;
    for (std::size_t i = 1; i < catalogue.size(); ++i) {
        if (catalogue[i].exchange == catalogue[i - 1].exchange) {
            EXPECT_GT(catalogue[i].number, catalogue[i - 1].number);
            hole = hole || catalogue[i].number > catalogue[i - 1].number + 1;
        }
    }
    EXPECT_TRUE(hole);
}

TEST(Instruments, ContractMonthsFollowTheDate) {
    SessionOptions options = sized(400);
    options.date = 20281105;
    for (const Instrument& instrument : make_catalogue(options)) {
        if (instrument.kind == InstrumentKind::kFuture) {
            const int month = std::stoi(instrument.id.substr(2));
            EXPECT_GE(month, 2811) << instrument.id;
            EXPECT_LE(month, 3010) << instrument.id;
        }
    }
}

TEST(Instruments, ActivityIsHeavyTailed) {
    std::vector<uint32_t> activity;
    uint64_t total = 0;
    for (const Instrument& instrument : make_catalogue(SessionOptions())) {
        activity.push_back(instrument.activity);
        total += instrument.activity;
    }
    std::sort(activity.rbegin(), activity.rend());
    uint64_t top_tenth = 0;
    for (std::size_t i = 0; i < activity.size() / 10; ++i) {
        top_tenth += activity[i];
    }
    EXPECT_GT(top_tenth * 5, total * 2); // 40 percent at least
    EXPECT_LT(activity.back() * uint64_t{1000}, activity.front());
}

TEST(Instruments, PublishedPriceIsTicksTimesStepPlusCodecInThisOrder) {
    Instrument gold;
    gold.price_tick = 0.02;
    gold.codec_price = 1011.98;
    volatile double product = 7.0 * 0.02; // rounded before the sum
    EXPECT_EQ(published_price(gold, 7), product + 1011.98);
    gold.volume_multiple = 1000;
    volatile double first = 3.0 * 1011.98;
    volatile double second = -4.0 * 0.02;
    volatile double sum = first + second;
    EXPECT_EQ(published_amount(gold, 3, -4), sum * 1000.0);
}

} // namespace
} // namespace exchange_sim
