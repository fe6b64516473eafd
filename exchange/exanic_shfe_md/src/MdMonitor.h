#ifndef MD_MONITOR_H
#define MD_MONITOR_H

// What the feed counts while it runs, and the way out of it for ExanicMdMonitor.h.
//
// There is one monitor for the process, as there is one callback. Every counter has one thread that
// writes it; others only read. A plain load and a plain store of 64 bits is then enough: nothing
// tears, nothing is locked, and the live path pays for an addition in memory that it owns.
//
// Times are kept as ticks of the processor's counter, which costs the live path no call; whoever
// reads the counters translates them.

#include "ExanicMdMonitor.h"

#include <x86intrin.h>

#include <atomic>
#include <cstdint>

class CMdCounter {
public:
    // Owning thread.
    uint64_t Add(uint64_t count = 1) {
        const uint64_t value = Get() + count;
        m_value.store(value, std::memory_order_relaxed);
        return value;
    }
    void Set(uint64_t value) { m_value.store(value, std::memory_order_relaxed); }
    // Whoever sees this value sees what was written before it.
    void SetBehind(uint64_t value) { m_value.store(value, std::memory_order_release); }
    // Any thread.
    uint64_t Get() const { return m_value.load(std::memory_order_relaxed); }
    uint64_t GetFirst() const { return m_value.load(std::memory_order_acquire); }

private:
    std::atomic<uint64_t> m_value{0};
};

class CMdMonitor {
public:
    // Counters by the thread that owns them, so that no two threads write to one cache line.
    struct alignas(64) CallerCounters {
        CMdCounter updates; // first, with the counters of the live path behind it
        CMdCounter stale;
        CMdCounter unsubscribed;
        CMdCounter timedUpdates; // updates at the time of lastUpdate
        CMdCounter lastUpdate;   // ticks
        CMdCounter optionsSkipped;
        CMdCounter restoredBooks;
        CMdCounter silentUpdates;
        CMdCounter gaps;
        CMdCounter refused;
        CMdCounter overflows;
        CMdCounter abnormalLengths;
        CMdCounter cached;
        CMdCounter replayed;
        CMdCounter cacheDropped;
        CMdCounter cycles;
        CMdCounter liveFrames;                    // decode buffers of the live phases that are over
        CMdCounter phaseTicks[VORN_MD_PHASE_CNT]; // without the phase that runs
    };
    struct alignas(64) DecoderCounters { // snapshot decoder thread
        CMdCounter frames;
        CMdCounter overflows;
        CMdCounter abnormalLengths;
    };
    struct alignas(64) WorkerCounters {
        CMdCounter fate[VORN_MD_FATE_CNT];
        CMdCounter rounds[VORN_MD_FEED_CNT];
        CMdCounter roundInstruments[VORN_MD_FEED_CNT]; // instrument numbers when it finished
        CMdCounter wipes;
    };

    CallerCounters caller;
    DecoderCounters decoder;
    WorkerCounters worker;

    // --- Caller thread.

    // Between these the feed runs. Begin zeroes the counters: no other thread of the feed lives.
    void BeginRun();
    void EndRun();
    void SetTable(const share* table) { m_table.store(table, std::memory_order_release); }
    void BeginCycle();
    void EnterPhase(uint32_t phase);
    // Tells of the rounds that the worker has finished meanwhile.
    void TellRounds();

    void CountUpdate() {
        if (__builtin_expect((caller.updates.Add() & TIME_STEP) == 0, 0)) {
            TimeUpdate();
        }
    }
    // Nothing has come.
    void NoteIdle() {
        if (__builtin_expect(caller.updates.Get() != caller.timedUpdates.Get(), 0)) {
            TimeUpdate();
        }
    }
    // What exanic_receive_frame returned when it was neither 0 nor a usable length.
    void CountAbnormal(uint32_t status) __attribute__((cold));
    void CountGap(const instrument& record, uint32_t slot, uint32_t expected, uint32_t received)
        __attribute__((cold));

    // --- Snapshot decoder thread.
    void CountAbnormalRaw(uint32_t status) __attribute__((cold));

    // --- Worker thread.
    void CountFate(uint32_t fate) { worker.fate[fate].Add(); }
    void CountRound(uint32_t feed, int32_t instruments);

    // --- Any thread.
    const share* GetTable() const { return m_table.load(std::memory_order_acquire); }
    void Read(vorn_md_counters_t& counters) const;

    // Before the run.
    void SetCallback(void (*callback)(const vorn_md_event_t*, void*), void* context) {
        m_callback = callback;
        m_context = context;
    }

private:
    static constexpr uint64_t TIME_STEP = 1023; // updates from one time to the next when never idle
    static constexpr uint32_t GAP_WORDS = sizeof(vorn_md_gap_t) / 8;

    void TimeUpdate() __attribute__((noinline));
    void Tell(vorn_md_event_t event) const;
    vorn_md_event_t Event(uint32_t type) const;
    void WriteGap(const vorn_md_gap_t& gap);
    void ReadGap(vorn_md_gap_t& gap) const;
    // Decode buffers that were handled at once. The live path counts what became of a buffer, which
    // for a buffer of the cache is counted when it is replayed.
    uint64_t HandledAtOnce() const;

    std::atomic<const share*> m_table{nullptr};
    // Phase, its beginning in ticks (0 before the first run), the times of the phases and what the
    // live ones have handled, with a count that is odd while they are written.
    std::atomic<uint32_t> m_phaseCount{0};
    std::atomic<uint32_t> m_phase{VORN_MD_PHASE_STOPPED};
    CMdCounter m_phaseSince;
    uint64_t m_toldRounds[VORN_MD_FEED_CNT] = {};
    // The last gap as words, with a count that is odd while they are written.
    std::atomic<uint32_t> m_gapCount{0};
    CMdCounter m_gap[GAP_WORDS]; // time_ns holds ticks
    void (*m_callback)(const vorn_md_event_t*, void*) = nullptr;
    void* m_context = nullptr;
};

extern CMdMonitor g_mdMonitor;

#endif
