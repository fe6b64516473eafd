// What holds for every kind of fault.

#include "faults/fault_filter.h"

#include "streams.h"

#include <gtest/gtest.h>
#include <random>

namespace faults {
namespace {

using namespace testing;

std::string every_kind() {
    std::string text;
    for (const KindInfo& info : all_kinds()) {
        text += (text.empty() ? "" : "+") + std::string(info.name) + ":3";
    }
    return text;
}

TEST(FaultFilter, WithoutFaultsChangesNothing) {
    EXPECT_TRUE(filtered(session(), "") == session());
}

TEST(FaultFilter, EveryKindChangesSomething) {
    for (const KindInfo& info : all_kinds()) {
        EXPECT_FALSE(filtered(session(), info.name) == session()) << info.name;
    }
}

TEST(FaultFilter, TheSameSeedGivesTheSameFrames) {
    EXPECT_TRUE(filtered(session(), every_kind(), 5) == filtered(session(), every_kind(), 5));
}

TEST(FaultFilter, TheSeedChoosesTheVictims) {
    for (const char* kind : {"gap", "duplicate", "line-a-loss", "overflow", "bad-checksum",
                             "truncate", "tcp-loss", "price-check", "wrong-topic"}) {
        const Stream first = filtered(session(), kind, 1);
        bool differs = false;
        for (uint64_t seed = 2; seed < 8; ++seed) {
            differs = differs || !(filtered(session(), kind, seed) == first);
        }
        EXPECT_TRUE(differs) << kind;
    }
}

TEST(FaultFilter, TimeStampsNeverFall) {
    for (const KindInfo& info : all_kinds()) {
        uint64_t latest = 0;
        for (const Sent& frame : filtered(session(), std::string(info.name) + ":5")) {
            ASSERT_GE(frame.timestamp_ns, latest) << info.name;
            latest = frame.timestamp_ns;
        }
    }
}

TEST(FaultFilter, TimeStampsNeverFallAlsoWhereTheSourcesDo) {
    Stream unordered = session();
    unordered[1000].timestamp_ns -= 5'000'000;
    uint64_t latest = 0;
    for (const Sent& frame : filtered(unordered, "gap")) {
        ASSERT_GE(frame.timestamp_ns, latest);
        latest = frame.timestamp_ns;
    }
}

TEST(FaultFilter, ChecksumsAreRightUnlessTheyAreTheFault) {
    for (const KindInfo& info : all_kinds()) {
        std::size_t wrong = 0;
        for (const Sent& frame : filtered(session(), std::string(info.name) + ":2")) {
            const auto parsed = frame.parsed();
            ASSERT_NE(parsed.kind, wirekit::ParsedFrame::Kind::kOther) << info.name;
            wrong += parsed.checksum_ok ? 0 : 1;
            // The IPv4 header's own.
            EXPECT_EQ(wirekit::fold_checksum(wirekit::add_checksum(
                          0, std::span(frame.bytes).subspan(wirekit::kEthernetSize, 20))),
                      0)
                << info.name;
        }
        EXPECT_EQ(wrong, info.kind == Kind::kBadChecksum ? 2u : 0u) << info.name;
    }
}

TEST(FaultFilter, NothingHappensBeforeTheTime) {
    const uint64_t time = at_seconds(0.05);
    for (const KindInfo& info : all_kinds()) {
        const Stream after = filtered(session(), std::string(info.name) + "@0.05:3");
        EXPECT_FALSE(after == session()) << info.name;
        for (std::size_t i = 0; session()[i].timestamp_ns < time; ++i) {
            ASSERT_TRUE(after[i] == session()[i]) << info.name << ' ' << i;
        }
    }
}

TEST(FaultFilter, ATimeBehindTheEndChangesNothing) {
    for (const KindInfo& info : all_kinds()) {
        EXPECT_TRUE(filtered(session(), std::string(info.name) + "@60") == session()) << info.name;
    }
}

TEST(FaultFilter, ALiveFaultWaitsForTheFirstRounds) {
    const uint64_t live = first_rounds_end();
    ASSERT_GT(live, session().front().timestamp_ns);
    for (const char* kind : {"gap", "duplicate", "reorder", "line-a-loss", "line-b-loss",
                             "overflow", "truncate", "bad-book", "wrong-topic"}) {
        const Stream after = filtered(session(), kind);
        for (std::size_t i = 0; session()[i].timestamp_ns < live; ++i) {
            ASSERT_TRUE(after[i] == session()[i]) << kind << ' ' << i;
        }
    }
}

// Whatever a capture holds: bytes of chance, frames cut short, nothing at all.
TEST(FaultFilter, TakesAnyFrames) {
    EXPECT_TRUE(filtered({}, every_kind()).empty());
    std::mt19937 random(7);
    Stream damaged;
    for (std::size_t i = 0; i < 3000; ++i) {
        Sent frame = session()[i];
        if (random() % 4 == 0) {
            frame.bytes.resize(random() % (frame.bytes.size() + 1));
        }
        for (std::size_t flips = random() % 4; flips > 0 && !frame.bytes.empty(); --flips) {
            frame.bytes[random() % frame.bytes.size()] = static_cast<uint8_t>(random());
        }
        damaged.push_back(frame);
    }
    std::string at_once;
    for (const KindInfo& info : all_kinds()) {
        at_once += (at_once.empty() ? "" : "+") + std::string(info.name) + "@0:20";
    }
    const Stream result = filtered(damaged, at_once);
    EXPECT_GT(result.size(), 2000u);
    EXPECT_LT(result.size(), 4000u);
}

TEST(FaultFilter, AMarkOfLostFramesIsNotLost) {
    Stream marked = session();
    marked[3000].reader_lapped = true;
    std::size_t marks = 0;
    for (const Sent& frame : filtered(marked, "overflow@0:2+gap@0:2")) {
        marks += frame.reader_lapped ? 1 : 0;
    }
    EXPECT_EQ(marks, 2u);
}

} // namespace
} // namespace faults
