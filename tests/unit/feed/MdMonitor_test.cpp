// The counters as another thread reads them while their owners write.

#include "MdMonitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace {

instrument named(uint32_t number) {
    instrument record{};
    std::snprintf(reinterpret_cast<char*>(record.inst_id), sizeof(record.inst_id), "i%u", number);
    return record;
}

// Every gap says its number four times; a torn one would not agree with itself.
TEST(MonitorThreads, ReadAGapWhole) {
    CMdMonitor monitor;
    const std::jthread owner([&](const std::stop_token& stop) {
        for (uint32_t i = 1; !stop.stop_requested(); i = i % 1'000'000 + 1) {
            monitor.CountGap(named(i), i, i, i);
        }
    });
    uint64_t last_gaps = 0;
    uint32_t different = 0;
    uint32_t last_slot = 0;
    for (int i = 0; i < 500'000 || different < 2; ++i) {
        vorn_md_counters_t counters;
        monitor.Read(counters);
        const vorn_md_gap_t& gap = counters.last_gap;
        ASSERT_EQ(gap.slot, gap.expected);
        ASSERT_EQ(gap.slot, gap.received);
        ASSERT_EQ(std::string(reinterpret_cast<const char*>(gap.inst_id)),
                  gap.slot == 0 ? "" : "i" + std::to_string(gap.slot));
        ASSERT_GE(counters.gaps, last_gaps);
        last_gaps = counters.gaps;
        different += gap.slot != last_slot ? 1 : 0;
        last_slot = gap.slot;
    }
}

// In the live phase a buffer counts by what became of it, in the others it is cached first; in sum
// the number of frames never goes back.
TEST(MonitorThreads, ReadAGrowingNumberOfFrames) {
    CMdMonitor monitor;
    monitor.BeginRun();
    std::atomic<uint64_t> frames{0};
    std::jthread owner([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            monitor.EnterPhase(VORN_MD_PHASE_SNAPSHOT);
            for (int i = 0; i < 3; ++i) {
                monitor.caller.cached.Add();
                frames.fetch_add(1, std::memory_order_relaxed);
            }
            monitor.EnterPhase(VORN_MD_PHASE_REPLAY);
            for (int i = 0; i < 3; ++i) {
                monitor.CountUpdate();
                monitor.caller.replayed.Add();
            }
            monitor.EnterPhase(VORN_MD_PHASE_LIVE);
            for (int i = 0; i < 3; ++i) {
                monitor.caller.stale.Add();
                frames.fetch_add(1, std::memory_order_relaxed);
            }
        }
    });
    uint64_t last = 0;
    for (int i = 0; i < 20000 || last < 100; ++i) {
        vorn_md_counters_t counters;
        monitor.Read(counters);
        ASSERT_GE(counters.frames, last);
        last = counters.frames;
    }
    owner.request_stop();
    owner.join();
    vorn_md_counters_t counters;
    monitor.Read(counters);
    EXPECT_EQ(counters.frames, frames.load());
}

TEST(MonitorUpdates, AreTimedEvenWhenTheFeedIsNeverIdle) {
    CMdMonitor monitor;
    for (int i = 0; i < 1023; ++i) {
        monitor.CountUpdate();
    }
    EXPECT_EQ(monitor.caller.lastUpdate.Get(), 0U);
    monitor.CountUpdate();
    EXPECT_NE(monitor.caller.lastUpdate.Get(), 0U);
}

TEST(MonitorUpdates, AreTimedByTheFirstIdlePollBehindThem) {
    CMdMonitor monitor;
    monitor.NoteIdle();
    EXPECT_EQ(monitor.caller.lastUpdate.Get(), 0U);
    monitor.CountUpdate();
    monitor.NoteIdle();
    const uint64_t first = monitor.caller.lastUpdate.Get();
    EXPECT_NE(first, 0U);
    monitor.NoteIdle();
    EXPECT_EQ(monitor.caller.lastUpdate.Get(), first);
    monitor.CountUpdate();
    monitor.NoteIdle();
    EXPECT_GT(monitor.caller.lastUpdate.Get(), first);
}

} // namespace
