// A double with two decimals, against printf.

#include "tools/vorn/record/two_decimals.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>

namespace {

std::string by_us(double value) {
    char text[vorn_cli::kLongestTwoDecimals + 1];
    return {text, vorn_cli::put_two_decimals(text, value)};
}

std::string by_printf(double value) {
    char text[vorn_cli::kLongestTwoDecimals + 1];
    std::snprintf(text, sizeof(text), "%.2f", value);
    return text;
}

// False after the first difference, so that a broken rule does not print millions of lines.
bool same(double value) {
    const std::string ours = by_us(value);
    const std::string theirs = by_printf(value);
    EXPECT_EQ(ours, theirs) << std::hexfloat << value;
    return ours == theirs;
}

TEST(TwoDecimals, OfValuesThatAreEasyToGetWrong) {
    for (const double value : {0.0,
                               -0.0,
                               0.004,
                               0.005,
                               -0.005,
                               0.00390625,
                               0.0039062499999999996,
                               0.995,
                               0.9949999,
                               0.125,
                               0.375,
                               0.625,
                               0.875,
                               -0.125,
                               1.005,
                               2.675,
                               99.995,
                               99.999,
                               999999.995,
                               0.5,
                               1.0,
                               -1.0,
                               20908.0,
                               530200.25,
                               8796093022207.99,
                               8796093022208.0,
                               -8796093022208.5,
                               1e300,
                               -1e300}) {
        EXPECT_EQ(by_us(value), by_printf(value));
    }
    using Limits = std::numeric_limits<double>;
    for (const double value :
         {Limits::min(), -Limits::min(), Limits::denorm_min(), -Limits::denorm_min(), Limits::max(),
          Limits::lowest(), Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(),
          -Limits::quiet_NaN()}) {
        EXPECT_EQ(by_us(value), by_printf(value));
    }
}

TEST(TwoDecimals, TheLongestIsThatOfTheLowestDouble) {
    EXPECT_EQ(by_us(std::numeric_limits<double>::lowest()).size(), vorn_cli::kLongestTwoDecimals);
}

TEST(TwoDecimals, OfEveryTieUpToAThousandAndItsNeighbours) {
    // Hundredths and a half are representable only at odd multiples of an eighth.
    for (int eighths = -8000; eighths <= 8000; ++eighths) {
        const double tie = eighths / 8.0;
        for (const double value : {tie, std::nextafter(tie, 1e9), std::nextafter(tie, -1e9)}) {
            ASSERT_TRUE(same(value));
        }
    }
}

TEST(TwoDecimals, OfTheNeighboursOfEveryHalfOfAHundredth) {
    std::mt19937_64 random(20260211);
    for (int i = 0; i < 300'000; ++i) {
        const auto halves = static_cast<double>(random() % 20'000'000'001);
        const double value = halves / 200.0;
        for (const double near :
             {value, -value, std::nextafter(value, 1e12), std::nextafter(value, -1e12)}) {
            ASSERT_TRUE(same(near));
        }
    }
}

TEST(TwoDecimals, OfPrices) {
    std::mt19937_64 random(20260212);
    for (int i = 0; i < 1'000'000; ++i) {
        ASSERT_TRUE(same(static_cast<double>(random() % 100'000'000) / 100.0));
        ASSERT_TRUE(same(static_cast<double>(random() % 1'000'000) * 0.005));
    }
}

TEST(TwoDecimals, OfAnyBitsOfADouble) {
    std::mt19937_64 random(20260213);
    for (int i = 0; i < 100'000; ++i) {
        ASSERT_TRUE(same(std::bit_cast<double>(random())));
    }
}

TEST(TwoDecimals, OfAnySignificandAtEveryExponentThatIntegersCanDo) {
    std::mt19937_64 random(20260214);
    for (uint64_t exponent = 1000; exponent < 1080; ++exponent) {
        for (int i = 0; i < 50'000; ++i) {
            const uint64_t bits = random();
            ASSERT_TRUE(
                same(std::bit_cast<double>((bits & 0x800F'FFFF'FFFF'FFFF) | exponent << 52)));
        }
    }
}

} // namespace
