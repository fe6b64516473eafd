// Numbers and times as `vorn top` shows them.

#include "tools/vorn/top/top_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace {

constexpr uint64_t kSecond = 1'000'000'000;

TEST(TopText, OfDurations) {
    EXPECT_EQ(vorn_cli::duration_text(0), "0 ms");
    EXPECT_EQ(vorn_cli::duration_text(999'999'999), "999 ms");
    EXPECT_EQ(vorn_cli::duration_text(kSecond), "1.0 s");
    EXPECT_EQ(vorn_cli::duration_text(59 * kSecond + 990'000'000), "59.9 s");
    EXPECT_EQ(vorn_cli::duration_text(60 * kSecond), "1:00");
    EXPECT_EQ(vorn_cli::duration_text(3599 * kSecond), "59:59");
    EXPECT_EQ(vorn_cli::duration_text(3661 * kSecond), "1:01:01");
    EXPECT_NE(vorn_cli::duration_text(std::numeric_limits<uint64_t>::max()), "");
}

TEST(TopText, OfRates) {
    EXPECT_EQ(vorn_cli::rate_text(0), "0");
    EXPECT_EQ(vorn_cli::rate_text(0.24), "0.2");
    EXPECT_EQ(vorn_cli::rate_text(9.96), "10");
    EXPECT_EQ(vorn_cli::rate_text(5120.4), "5,120");
    EXPECT_EQ(vorn_cli::rate_text(999'999.6), "1.0 M");
    EXPECT_EQ(vorn_cli::rate_text(1'234'567), "1.2 M");
    EXPECT_EQ(vorn_cli::rate_text(-1), "-");
    EXPECT_EQ(vorn_cli::rate_text(std::numeric_limits<double>::quiet_NaN()), "-");
    EXPECT_EQ(vorn_cli::rate_text(1e300), "-");
}

TEST(TopText, OfTimes) {
    EXPECT_EQ(vorn_cli::clock_text(0), "-");
    EXPECT_THAT(vorn_cli::clock_text(1'768'450'000 * kSecond),
                testing::MatchesRegex("[0-2][0-9]:[0-5][0-9]:[0-6][0-9]"));
}

} // namespace
