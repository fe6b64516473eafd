#include "tools/vorn/info/change_tracker.h"

#include <gtest/gtest.h>
#include <random>
#include <set>

using namespace vorn_cli;

namespace {

class ChangeTrackers : public testing::Test {
protected:
    ChangeKind add(uint32_t change_no, Line line = Line::kA, uint64_t time_ns = 0,
                   uint32_t inst_no = 3) {
        return tracker_.add({Side::kShfe, inst_no, change_no, 1000, line, time_ns, ++frames_});
    }
    const SideTally& side() const { return tracker_.side(Side::kShfe); }
    const InstrumentTally& instrument() const { return *tracker_.find(Side::kShfe, 3); }

    ChangeTracker tracker_;
    uint64_t frames_ = 0;
};

TEST_F(ChangeTrackers, TellWhatAChangeIsToThoseBeforeIt) {
    EXPECT_EQ(add(10), ChangeKind::kFirst);
    EXPECT_EQ(add(11), ChangeKind::kNext);
    EXPECT_EQ(add(11, Line::kB), ChangeKind::kDuplicate);
    EXPECT_EQ(add(14), ChangeKind::kGap);
    EXPECT_EQ(add(12, Line::kB), ChangeKind::kLate);
    EXPECT_EQ(instrument().changes, 4u);
    EXPECT_EQ(instrument().min_change, 10u);
    EXPECT_EQ(instrument().max_change, 14u);
    EXPECT_EQ(instrument().duplicates, 1u);
    EXPECT_EQ(instrument().gaps, 1u);
    EXPECT_EQ(instrument().missing, 1u); // 13
    EXPECT_EQ(instrument().late, 1u);
}

TEST_F(ChangeTrackers, AGapKnowsWhereItShowedAndWhatNeverCame) {
    add(1);
    add(6, Line::kA, 77);
    add(3, Line::kB);
    add(3, Line::kA); // twice late
    add(9);
    ASSERT_EQ(tracker_.gaps().size(), 2u);
    const Gap& gap = tracker_.gaps()[0];
    EXPECT_EQ(gap.first, 2u);
    EXPECT_EQ(gap.last, 5u);
    EXPECT_EQ(gap.missing, 3u); // 2, 4, 5
    EXPECT_EQ(gap.frame, 2u);
    EXPECT_EQ(gap.time_ns, 77u);
    EXPECT_EQ(tracker_.gaps()[1].missing, 2u); // 7, 8
    EXPECT_EQ(side().missing, 5u);
    EXPECT_EQ(side().late, 1u);
    EXPECT_EQ(side().duplicates, 1u);
}

TEST_F(ChangeTrackers, LinesThatShareTheChangesAreNoGap) {
    for (uint32_t number = 1; number < 100; ++number) {
        add(number, number % 2 == 0 ? Line::kA : Line::kB);
    }
    EXPECT_EQ(side().gaps, 0u);
    EXPECT_EQ(side().only[0], 49u);
    EXPECT_EQ(side().only[1], 50u);
    EXPECT_EQ(side().both, 0u);
}

TEST_F(ChangeTrackers, TheLeadIsTheTimeBetweenTheLines) {
    add(1, Line::kA, 100);
    add(1, Line::kB, 130);
    add(2, Line::kB, 200);
    add(2, Line::kA, 250);
    add(2, Line::kA, 900); // again on its own line: no lead
    add(3, Line::kA, 300);
    add(3, Line::kB, 290); // a stamp that steps back
    EXPECT_EQ(side().both, 3u);
    EXPECT_EQ(side().only[0] + side().only[1] + side().only[2], 0u);
    EXPECT_EQ(side().a_first.count(), 2u);
    EXPECT_EQ(side().a_first.max_ns(), 30u);
    EXPECT_EQ(side().b_first.count(), 1u);
    EXPECT_EQ(side().b_first.max_ns(), 50u);
    EXPECT_EQ(side().repeated, 1u);
}

TEST_F(ChangeTrackers, ALineWithoutANameTakesNoPartInTheLead) {
    add(1, Line::kOther, 100);
    add(1, Line::kA, 120);
    add(2, Line::kOther, 100);
    EXPECT_EQ(side().both, 1u);
    EXPECT_EQ(side().only[2], 1u);
    EXPECT_EQ(side().a_first.count() + side().b_first.count(), 0u);
}

TEST_F(ChangeTrackers, NumbersBeforeTheFirstOneAreLateAndNew) {
    add(5, Line::kA);
    add(3, Line::kB);
    add(4, Line::kB);
    add(5, Line::kB);
    EXPECT_EQ(instrument().changes, 3u);
    EXPECT_EQ(instrument().min_change, 3u);
    EXPECT_EQ(side().gaps, 0u);
    EXPECT_EQ(side().missing, 0u);
}

TEST_F(ChangeTrackers, TheWholeRangeOfNumbersIsTaken) {
    add(0);
    EXPECT_EQ(add(0xFFFFFFFF), ChangeKind::kGap);
    EXPECT_EQ(side().missing, 0xFFFFFFFEu);
    EXPECT_EQ(add(0), ChangeKind::kDuplicate);
    EXPECT_EQ(add(0xFFFFFFFE), ChangeKind::kLate);
    EXPECT_EQ(side().missing, 0xFFFFFFFDu);
}

TEST_F(ChangeTrackers, ExchangesAndInstrumentsCountApart) {
    add(1, Line::kA, 0, 3);
    EXPECT_EQ(add(900, Line::kA, 0, 4), ChangeKind::kFirst);
    EXPECT_EQ(tracker_.add({Side::kIne, 3, 50, 5000, Line::kA, 0, 9}), ChangeKind::kFirst);
    EXPECT_EQ(tracker_.side(Side::kIne).changes, 1u);
    EXPECT_EQ(side().changes, 2u);
    EXPECT_EQ(tracker_.find(Side::kIne, 4), nullptr);
}

// More holes than are kept: figures stay sound, only what is late to a forgotten hole is not known.
TEST_F(ChangeTrackers, KeepABoundedNumberOfGaps) {
    uint32_t number = 1;
    for (std::size_t i = 0; i < kMaxGapsKept + 1000; ++i, number += 3) {
        add(number);
    }
    EXPECT_EQ(tracker_.gaps().size(), kMaxGapsKept);
    EXPECT_EQ(side().gaps, kMaxGapsKept + 999);
    EXPECT_EQ(side().missing, 2 * side().gaps);
    add(2, Line::kB); // of the first hole
    EXPECT_EQ(side().missing, 2 * side().gaps - 1);
    add(number - 4, Line::kB); // of the last one, which is not kept
    EXPECT_EQ(side().missing, 2 * side().gaps - 1);
}

// Against sets of numbers.
TEST_F(ChangeTrackers, CountAsSetsDo) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        ChangeTracker tracker;
        std::set<uint32_t> seen[2];
        std::set<uint32_t> all;
        uint32_t next[2] = {1000, 1000};
        for (int i = 0; i < 4000; ++i) {
            const int line = static_cast<int>(random() % 2);
            const uint32_t number = next[line]++;
            if (random() % 5 == 0) {
                continue; // lost
            }
            tracker.add({Side::kIne, 7, number, 5000, line == 0 ? Line::kA : Line::kB, 0, 1});
            seen[line].insert(number);
            all.insert(number);
        }
        const SideTally& side = tracker.side(Side::kIne);
        std::size_t both = 0;
        for (const uint32_t number : seen[0]) {
            both += seen[1].count(number);
        }
        EXPECT_EQ(side.arrivals, seen[0].size() + seen[1].size());
        EXPECT_EQ(side.changes, all.size());
        EXPECT_EQ(side.both, both);
        EXPECT_EQ(side.only[0], seen[0].size() - both);
        EXPECT_EQ(side.only[1], seen[1].size() - both);
        const InstrumentTally& instrument = *tracker.find(Side::kIne, 7);
        EXPECT_EQ(instrument.min_change, *all.begin());
        EXPECT_EQ(instrument.max_change, *all.rbegin());
        // Numbers before the first that came are not known to be missing.
        EXPECT_LE(side.missing, *all.rbegin() - *all.begin() + 1 - all.size());
        uint64_t of_gaps = 0;
        for (const Gap& gap : tracker.gaps()) {
            of_gaps += gap.missing;
            EXPECT_LE(gap.missing, gap.last - gap.first + 1);
        }
        EXPECT_EQ(of_gaps, side.missing);
    }
}

TEST(LeadHistogram, IsExactForShortTimesAndWithinAPercentForLongOnes) {
    EXPECT_EQ(LeadHistogram().quantile_ns(0.5), 0u);
    LeadHistogram small;
    for (uint64_t ns = 1; ns <= 100; ++ns) {
        small.add(ns);
    }
    EXPECT_EQ(small.quantile_ns(0.5), 50u);
    EXPECT_EQ(small.quantile_ns(0.99), 99u);
    EXPECT_EQ(small.quantile_ns(0), 1u);
    EXPECT_EQ(small.quantile_ns(1), 100u);
    for (uint64_t ns = 1; ns < uint64_t{1} << 62; ns += ns / 2 + 1) {
        LeadHistogram one;
        one.add(ns);
        EXPECT_LE(one.quantile_ns(0.5), ns);
        EXPECT_GE(one.quantile_ns(0.5), ns - ns / 100);
        EXPECT_EQ(one.max_ns(), ns);
    }
    LeadHistogram largest;
    largest.add(UINT64_MAX);
    EXPECT_GT(largest.quantile_ns(0.5), UINT64_MAX / 100 * 99);
}

} // namespace
