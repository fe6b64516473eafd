// Updates by instrument over a sliding window.

#include "tools/vorn/bus_view/update_window.h"

#include <gtest/gtest.h>

using vorn_cli::UpdateWindow;

namespace {

constexpr uint64_t kLength = 10'000; // ten steps of 1000

TEST(UpdateWindow, CountsByInstrumentAndForgetsWhatIsOlder) {
    UpdateWindow window(kLength);
    window.advance(100'500);
    window.add(7, 100'200);
    window.add(7, 100'400);
    window.add(9, 95'000);
    EXPECT_EQ(window.updates(), 3u);
    EXPECT_EQ(window.updates(7), 2u);
    EXPECT_EQ(window.updates(9), 1u);
    EXPECT_EQ(window.updates(8), 0u);

    window.advance(105'000); // 95'000 is older by the length now
    EXPECT_EQ(window.updates(9), 0u);
    EXPECT_EQ(window.updates(), 2u);
    window.advance(111'000);
    EXPECT_EQ(window.updates(), 0u);
    EXPECT_EQ(window.updates(7), 0u);
}

TEST(UpdateWindow, WhatCameBeforeCountsForNothing) {
    UpdateWindow window(kLength);
    window.advance(100'500);
    window.add(7, 90'999);
    window.add_lost(5, 90'999);
    window.add(7, 91'000);
    EXPECT_EQ(window.updates(), 1u);
    EXPECT_EQ(window.lost(), 0u);
}

TEST(UpdateWindow, TakesTimesThatAreNotQuiteInOrder) {
    UpdateWindow window(kLength);
    window.advance(100'500);
    for (const uint64_t time : {99'000, 95'000, 97'000, 95'500, 100'000}) {
        window.add(1, time);
    }
    EXPECT_EQ(window.updates(1), 5u);
    window.advance(105'000); // lets 95'000 and 95'500 go
    EXPECT_EQ(window.updates(1), 3u);
    window.advance(107'000);
    EXPECT_EQ(window.updates(1), 2u);
}

TEST(UpdateWindow, SlotsThatAreNoneAreIgnored) {
    UpdateWindow window(kLength);
    window.add(INSTRUMENT_SLOT_CNT, 5);
    window.add(0xffffffff, 5);
    EXPECT_EQ(window.updates(), 0u);
    EXPECT_EQ(window.updates(0xffffffff), 0u);
    window.add(INSTRUMENT_SLOT_CNT - 1, 5);
    EXPECT_EQ(window.updates(), 1u);
}

TEST(UpdateWindow, LostRecordsAreForgottenToo) {
    UpdateWindow window(kLength);
    window.advance(100'500);
    window.add_lost(70, 100'000);
    EXPECT_EQ(window.lost(), 70u);
    window.advance(110'000);
    EXPECT_EQ(window.lost(), 0u);
}

TEST(UpdateWindow, SpanIsTheLengthOrLessAfterTheBeginning) {
    UpdateWindow window(kLength);
    window.begin_at(100'000);
    window.advance(100'010);
    EXPECT_EQ(window.span_ns(100'010), 1000u) << "never shorter than a step";
    window.advance(104'000);
    EXPECT_EQ(window.span_ns(104'000), 4000u);
    window.advance(150'999);
    EXPECT_EQ(window.span_ns(150'999), 9999u) << "nine whole steps and the one that runs";
}

TEST(UpdateWindow, BusiestComeFirstAndTheSameBySlot) {
    UpdateWindow window(kLength);
    for (const uint32_t slot : {5, 3, 5, 8, 8, 5, 2, 3}) {
        window.add(slot, 1);
    }
    const auto busiest = window.busiest(3);
    ASSERT_EQ(busiest.size(), 3u);
    EXPECT_EQ(busiest[0].slot, 5u);
    EXPECT_EQ(busiest[0].updates, 3u);
    EXPECT_EQ(busiest[1].slot, 3u);
    EXPECT_EQ(busiest[2].slot, 8u);
    EXPECT_EQ(window.busiest(100).size(), 4u);
    EXPECT_TRUE(window.busiest(0).empty());
    window.clear();
    EXPECT_TRUE(window.busiest(100).empty());
}

} // namespace
