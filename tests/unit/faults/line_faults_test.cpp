// Faults of the multicast lines, and the card's.

#include "streams.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace faults {
namespace {

using namespace testing;

constexpr uint32_t kShfeLineA = 0xEF042A48, kShfeLineB = 0xEF032A47;
constexpr uint32_t kIneLineA = 0xEF033447, kIneLineB = 0xEF043448;

std::size_t copies_in(const Stream& stream, const Change& change) {
    return static_cast<std::size_t>(std::count_if(
        stream.begin(), stream.end(), [&](const Sent& frame) { return frame.change() == change; }));
}

TEST(Gap, LosesChangesOnBothLinesAndNothingElse) {
    for (uint64_t seed = 1; seed < 9; ++seed) {
        const Stream after = filtered(session(), "gap:3", seed);
        const Difference found = difference(session(), after);
        EXPECT_TRUE(found.added.empty());
        ASSERT_EQ(found.lost.size(), 6u) << seed;
        for (const Sent& frame : found.lost) {
            ASSERT_TRUE(frame.change().has_value());
            EXPECT_EQ(copies_in(found.lost, *frame.change()), 2u);
            EXPECT_EQ(copies_in(after, *frame.change()), 0u);
        }
    }
}

TEST(Duplicate, SendsDatagramsTwice) {
    const Stream after = filtered(session(), "duplicate:3");
    const Difference found = difference(session(), after);
    EXPECT_TRUE(found.lost.empty());
    ASSERT_EQ(found.added.size(), 3u);
    for (const std::size_t at : found.at) {
        EXPECT_TRUE(after[at] == after[at - 1]);
        EXPECT_TRUE(after[at].change().has_value());
    }
}

TEST(Reorder, PutsEveryCopyBehindTheInstrumentsNextChange) {
    const Stream after = filtered(session(), "reorder:2");
    const Difference found = difference(session(), after);
    EXPECT_TRUE(found.lost.empty());
    EXPECT_TRUE(found.added.empty());
    std::map<uint64_t, uint32_t> highest;
    std::map<uint64_t, std::vector<uint32_t>>
        late; // changes that come behind a higher one at first
    std::vector<Change> seen;
    for (const Sent& frame : after) {
        const auto change = frame.change();
        if (!change) {
            continue;
        }
        uint32_t& top = highest[change->instrument_key()];
        const bool first = std::find(seen.begin(), seen.end(), *change) == seen.end();
        if (first) {
            seen.push_back(*change);
            if (change->change_no < top) {
                EXPECT_EQ(change->change_no + 1, top);
                late[change->instrument_key()].push_back(change->change_no);
            }
        }
        top = std::max(top, change->change_no);
    }
    std::size_t victims = 0;
    for (const auto& [instrument, changes] : late) {
        victims += changes.size();
    }
    EXPECT_EQ(victims, 2u);
    // Apart from them, all is in order.
    Stream rest_before;
    Stream rest_after;
    const auto moved = [&late](const Sent& frame) {
        const auto change = frame.change();
        if (!change || late.count(change->instrument_key()) == 0) {
            return false;
        }
        const auto& numbers = late.at(change->instrument_key());
        return std::find(numbers.begin(), numbers.end(), change->change_no) != numbers.end();
    };
    std::copy_if(session().begin(), session().end(), std::back_inserter(rest_before),
                 [&](const Sent& frame) { return !moved(frame); });
    std::copy_if(after.begin(), after.end(), std::back_inserter(rest_after),
                 [&](const Sent& frame) { return !moved(frame); });
    EXPECT_TRUE(rest_before == rest_after);
}

TEST(LineLoss, TakesDatagramsOfOneLineInARow) {
    const struct {
        const char* fault;
        std::vector<uint32_t> groups;
    } rows[] = {{"line-a-loss:200", {kShfeLineA, kIneLineA}},
                {"line-b-loss:200", {kShfeLineB, kIneLineB}}};
    for (const auto& row : rows) {
        const auto of_line = [&row](const Sent& frame) {
            return frame.change() &&
                   std::count(row.groups.begin(), row.groups.end(), frame.parsed().to.ip) != 0;
        };
        const Stream after = filtered(session(), row.fault);
        const Difference found = difference(session(), after);
        EXPECT_TRUE(found.added.empty());
        ASSERT_EQ(found.lost.size(), 200u) << row.fault;
        Stream line;
        std::copy_if(session().begin(), session().end(), std::back_inserter(line), of_line);
        EXPECT_NE(std::search(line.begin(), line.end(), found.lost.begin(), found.lost.end()),
                  line.end())
            << row.fault;
    }
}

TEST(LineLoss, WithOneLineThatIsLineA) {
    Stream line_b;
    std::copy_if(session().begin(), session().end(), std::back_inserter(line_b),
                 [](const Sent& frame) {
                     return frame.parsed().to.ip != kShfeLineA && frame.parsed().to.ip != kIneLineA;
                 });
    EXPECT_TRUE(filtered(line_b, "line-b-loss:10") == line_b);
    EXPECT_EQ(difference(line_b, filtered(line_b, "line-a-loss:10")).lost.size(), 10u);
}

TEST(Overflow, LosesFramesOfBothPathsAndMarksTheNext) {
    const Stream after = filtered(session(), "overflow@0.012:40");
    const Difference found = difference(session(), after);
    EXPECT_TRUE(found.added.empty());
    ASSERT_EQ(found.lost.size(), 40u);
    const auto gone =
        std::search(session().begin(), session().end(), found.lost.begin(), found.lost.end());
    ASSERT_NE(gone, session().end());
    EXPECT_TRUE(std::any_of(found.lost.begin(), found.lost.end(), is_snapshot_segment));
    const auto at = static_cast<std::size_t>(gone - session().begin());
    for (std::size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(after[i].reader_lapped, i == at) << i;
    }
}

} // namespace
} // namespace faults
