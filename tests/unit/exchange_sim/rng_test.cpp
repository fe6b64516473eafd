#include "exchange_sim/rng.h"

#include <gtest/gtest.h>

namespace exchange_sim {
namespace {

TEST(Rng, ValuesAreTheSameOnEveryMachine) {
    Rng rng(1);
    EXPECT_EQ(rng.next(), 0xCFC5D07F6F03C29Bu);
    EXPECT_EQ(rng.next(), 0xBF424132963FE08Du);
    EXPECT_EQ(Rng(1, 2).below(1'000'000), 333'091u);
    EXPECT_EQ(Rng(1, 2).exponential(1'000'000'000), 1'099'337'954u);
}

TEST(Rng, SeedsAndStreamsDiffer) {
    EXPECT_NE(Rng(1).next(), Rng(2).next());
    EXPECT_NE(Rng(1, 1).next(), Rng(1, 2).next());
    EXPECT_NE(Rng(1, 1).next(), Rng(2, 0).next());
}

TEST(Rng, BelowAndBetweenReachTheirEndsAndNotBeyond) {
    Rng rng(3);
    std::array<int, 5> seen{};
    for (int i = 0; i < 5000; ++i) {
        const uint32_t value = rng.below(5);
        ASSERT_LT(value, 5u);
        ++seen[value];
    }
    for (const int count : seen) {
        EXPECT_NEAR(count, 1000, 150);
    }
    bool low = false;
    bool high = false;
    for (int i = 0; i < 1000; ++i) {
        const int32_t value = rng.between(-3, 3);
        ASSERT_GE(value, -3);
        ASSERT_LE(value, 3);
        low = low || value == -3;
        high = high || value == 3;
    }
    EXPECT_TRUE(low && high);
    EXPECT_EQ(rng.between(7, 7), 7);
    EXPECT_EQ(rng.below(1), 0u);
}

TEST(Rng, ExponentialHasItsMeanAndItsMedian) {
    Rng rng(4);
    constexpr int kDraws = 200'000;
    constexpr uint64_t kMean = 1'000'000;
    uint64_t sum = 0;
    int below_median = 0;
    int beyond_three_means = 0;
    for (int i = 0; i < kDraws; ++i) {
        const uint64_t value = rng.exponential(kMean);
        sum += value;
        below_median += value < 693'147 ? 1 : 0;
        beyond_three_means += value > 3 * kMean ? 1 : 0;
    }
    EXPECT_NEAR(static_cast<double>(sum) / kDraws, static_cast<double>(kMean), 10'000.0);
    EXPECT_NEAR(below_median, kDraws / 2, 1'500);
    EXPECT_NEAR(beyond_three_means, kDraws * 0.0498, 500.0);
}

} // namespace
} // namespace exchange_sim
