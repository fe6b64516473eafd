#include "tools/vorn/progress.h"

#include <gtest/gtest.h>

using namespace vorn_cli;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

namespace {

TEST(Progress, SaysCountShareRateAndTimeLeft) {
    EXPECT_EQ(Progress::text("changes", 1234567, 5000000, seconds(1)),
              "1,234,567 changes  24 %  1.2 M/s  0:04 left");
    EXPECT_EQ(Progress::text("frames", 999, 0, seconds(2)), "999 frames  500 /s");
    EXPECT_EQ(Progress::text("frames", 0, 10, seconds(0)), "0 frames  0 %");
    EXPECT_EQ(Progress::text("frames", 12, 10, seconds(1)), "12 frames  100 %  12 /s");
    EXPECT_EQ(Progress::text("rows", 50000, 500000000, seconds(1)),
              "50,000 rows  0 %  50 k/s  2:46:39 left");
    EXPECT_EQ(Progress::text("bytes", 2500000000, 0, seconds(1)), "2,500,000,000 bytes  2.5 G/s");
}

struct Screen {
    std::vector<std::string> writes;
    nanoseconds now{};

    ProgressDisplay display() {
        ProgressDisplay result;
        result.on = true;
        result.write = [this](std::string_view text) { writes.emplace_back(text); };
        result.now = [this] { return now; };
        return result;
    }
};

TEST(Progress, DrawsTenTimesASecondAndLeavesNothingBehind) {
    Screen screen;
    {
        Progress progress("frames", 0, screen.display());
        for (uint64_t done = 1; done <= 256 * 2000; ++done) {
            screen.now = nanoseconds(seconds(2)) * static_cast<int64_t>(done) / (256 * 2000);
            progress.update(done);
        }
    }
    // From half a second on: 15 times in 1.5 seconds, then the line is cleared.
    ASSERT_GE(screen.writes.size(), 15u);
    EXPECT_LE(screen.writes.size(), 18u);
    EXPECT_EQ(screen.writes.back(), "\r\x1b[K");
}

TEST(Progress, AShortRunShowsNothing) {
    Screen screen;
    {
        Progress progress("frames", 10, screen.display());
        screen.now = milliseconds(400);
        progress.update(10);
    }
    EXPECT_TRUE(screen.writes.empty());
}

TEST(Progress, NothingWhenItIsOff) {
    Screen screen;
    ProgressDisplay display = screen.display();
    display.on = false;
    Progress progress("frames", 10, display);
    screen.now = seconds(10);
    progress.update(1);
    progress.finish();
    EXPECT_TRUE(screen.writes.empty());
}

} // namespace
