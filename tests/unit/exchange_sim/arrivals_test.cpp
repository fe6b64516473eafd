#include "exchange_sim/arrivals.h"

#include <cmath>
#include <gtest/gtest.h>

namespace exchange_sim {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;

std::vector<Arrival> draw(const std::vector<Instrument>& catalogue, uint32_t rate,
                          uint64_t length_ns) {
    Arrivals arrivals(catalogue, kSecond, rate, Rng(1));
    std::vector<Arrival> drawn;
    while (arrivals.next_time() < kSecond + length_ns) {
        const uint64_t announced = arrivals.next_time();
        drawn.push_back(arrivals.pop());
        EXPECT_EQ(drawn.back().time_ns, announced);
    }
    return drawn;
}

TEST(Arrivals, ComeInOrderAndAtTheRateAskedFor) {
    const auto catalogue = make_catalogue(SessionOptions());
    for (const uint32_t rate : {1'000u, 100'000u}) {
        const uint64_t length_ns = 200'000 * kSecond / rate;
        const auto drawn = draw(catalogue, rate, length_ns);
        EXPECT_NEAR(static_cast<double>(drawn.size()), 200'000.0, 8'000.0) << rate;
        for (std::size_t i = 1; i < drawn.size(); ++i) {
            ASSERT_GE(drawn[i].time_ns, drawn[i - 1].time_ns);
        }
    }
}

TEST(Arrivals, ReachEveryInstrumentInProportionToItsActivity) {
    SessionOptions options;
    options.instruments = 40;
    const auto catalogue = make_catalogue(options);
    uint64_t total = 0;
    for (const Instrument& instrument : catalogue) {
        total += instrument.activity;
    }
    std::vector<uint64_t> firsts(catalogue.size());
    uint64_t all_firsts = 0;
    for (const Arrival& arrival : draw(catalogue, 1'000'000, kSecond)) {
        ASSERT_LT(arrival.instrument, catalogue.size());
        firsts[arrival.instrument] += arrival.is_first ? 1 : 0;
        all_firsts += arrival.is_first ? 1 : 0;
    }
    for (std::size_t i = 0; i < catalogue.size(); ++i) {
        const double expected = static_cast<double>(all_firsts) *
                                static_cast<double>(catalogue[i].activity) /
                                static_cast<double>(total);
        // Five standard deviations.
        EXPECT_NEAR(static_cast<double>(firsts[i]), expected, 5.0 * std::sqrt(expected) + 5.0)
            << catalogue[i].id;
    }
}

// Independent arrivals would have as much variance as mean in a window; clusters have several times
// as much.
TEST(Arrivals, Cluster) {
    const auto catalogue = make_catalogue(SessionOptions());
    constexpr uint64_t kWindow = 1'000'000;
    std::vector<double> counts(1000);
    for (const Arrival& arrival : draw(catalogue, 100'000, 1000 * kWindow)) {
        counts[(arrival.time_ns - kSecond) / kWindow] += 1.0;
    }
    double mean = 0.0;
    for (const double count : counts) {
        mean += count / 1000.0;
    }
    double variance = 0.0;
    for (const double count : counts) {
        variance += (count - mean) * (count - mean) / 1000.0;
    }
    EXPECT_GT(variance, 2.0 * mean);
}

} // namespace
} // namespace exchange_sim
