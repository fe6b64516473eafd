// The feed's monitor: counters, times and events. See MdMonitor.h for who writes what.

#include "ExanicMdMonitor.h"

#include "MdMonitor.h"

#include <time.h>

#include <algorithm>
#include <cstring>

constinit CMdMonitor g_mdMonitor;

namespace {

constexpr int32_t CARD_OVERFLOW = -256; // status of exanic_receive_frame: the ring came around

uint64_t NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// The same moment on both clocks: of some pairs the one that was read most quickly, because the
// thread may be taken off the CPU between the two.
struct ClockPair {
    uint64_t ns = 0;
    uint64_t ticks = 0;

    ClockPair() {
        constexpr int PAIRS = 5;
        uint64_t narrowest = UINT64_MAX;
        for (int i = 0; i < PAIRS; ++i) {
            const uint64_t before = __rdtsc();
            const uint64_t now = NowNs();
            const uint64_t width = __rdtsc() - before;
            if (width < narrowest) {
                narrowest = width;
                ns = now;
                ticks = before + width / 2;
            }
        }
    }
};
const ClockPair LOAD_TIME; // of the program or library

// Translates ticks by the line through the load time and now. Anchored at now, so that a recent
// time is exact also where the clock's rate is being adjusted.
class CTickClock {
public:
    CTickClock()
        : m_nsPerTick(static_cast<double>(m_now.ns - LOAD_TIME.ns) /
                      static_cast<double>(std::max<uint64_t>(m_now.ticks - LOAD_TIME.ticks, 1))) {}

    uint64_t DurationNs(uint64_t ticks) const {
        return static_cast<uint64_t>(static_cast<double>(ticks) * m_nsPerTick);
    }
    uint64_t NowTicks() const { return m_now.ticks; }
    // 0 stays 0: there is no time.
    uint64_t TimeNs(uint64_t ticks) const {
        if (ticks == 0) {
            return 0;
        }
        return ticks < m_now.ticks ? m_now.ns - DurationNs(m_now.ticks - ticks) : m_now.ns;
    }

private:
    ClockPair m_now;
    double m_nsPerTick;
};

// A group is nothing but counters and the padding of its cache line.
template <typename Counters>
void Zero(Counters& counters) {
    static_assert(sizeof(Counters) % sizeof(CMdCounter) == 0);
    auto* counter = reinterpret_cast<CMdCounter*>(&counters);
    for (size_t i = 0; i < sizeof(Counters) / sizeof(CMdCounter); ++i) {
        counter[i].Set(0);
    }
}

} // namespace

void CMdMonitor::BeginRun() {
    Zero(caller);
    Zero(decoder);
    Zero(worker);
    for (uint64_t& rounds : m_toldRounds) {
        rounds = 0;
    }
    WriteGap({});
}

void CMdMonitor::EndRun() {
    EnterPhase(VORN_MD_PHASE_STOPPED);
    SetTable(nullptr);
}

void CMdMonitor::BeginCycle() {
    const uint64_t cycles = caller.cycles.Add();
    if (cycles > 1) {
        vorn_md_event_t event = Event(VORN_MD_EVENT_RESTART);
        event.count = cycles - 1;
        Tell(event);
    }
    EnterPhase(VORN_MD_PHASE_BRING_UP);
}

void CMdMonitor::EnterPhase(uint32_t phase) {
    const uint32_t previous = m_phase.load(std::memory_order_relaxed);
    if (phase == previous) {
        return;
    }
    const uint64_t now = __rdtsc();
    // Everything between the two counts is written with release order: whoever sees some of it sees
    // the odd count too.
    const uint32_t count = m_phaseCount.load(std::memory_order_relaxed);
    m_phaseCount.store(count + 1, std::memory_order_relaxed);
    if (previous != VORN_MD_PHASE_STOPPED) {
        CMdCounter& ticks = caller.phaseTicks[previous];
        ticks.SetBehind(ticks.Get() + (now - m_phaseSince.Get()));
    }
    if (previous == VORN_MD_PHASE_LIVE) {
        caller.liveFrames.SetBehind(HandledAtOnce());
    }
    m_phase.store(phase, std::memory_order_release);
    m_phaseSince.SetBehind(now);
    m_phaseCount.store(count + 2, std::memory_order_release);

    vorn_md_event_t event = Event(VORN_MD_EVENT_PHASE);
    event.previous_phase = previous;
    Tell(event);
}

void CMdMonitor::TellRounds() {
    for (uint32_t feed = 0; feed < VORN_MD_FEED_CNT; ++feed) {
        const uint64_t rounds = worker.rounds[feed].GetFirst();
        while (m_toldRounds[feed] < rounds) {
            ++m_toldRounds[feed];
            vorn_md_event_t event = Event(VORN_MD_EVENT_ROUND);
            event.feed = feed;
            event.count = worker.roundInstruments[feed].Get();
            Tell(event);
        }
    }
}

void CMdMonitor::CountAbnormal(uint32_t status) {
    if (static_cast<int32_t>(status) != CARD_OVERFLOW) {
        caller.abnormalLengths.Add();
        return;
    }
    vorn_md_event_t event = Event(VORN_MD_EVENT_OVERFLOW);
    event.count = caller.overflows.Add();
    Tell(event);
}

void CMdMonitor::CountAbnormalRaw(uint32_t status) {
    const bool overflow = static_cast<int32_t>(status) == CARD_OVERFLOW;
    (overflow ? decoder.overflows : decoder.abnormalLengths).Add();
}

void CMdMonitor::CountGap(const instrument& record, uint32_t slot, uint32_t expected,
                          uint32_t received) {
    vorn_md_gap_t gap{};
    gap.time_ns = __rdtsc();
    gap.slot = slot;
    gap.expected = expected;
    gap.received = received;
    memcpy(gap.inst_id, record.inst_id, sizeof(gap.inst_id));
    WriteGap(gap);

    vorn_md_event_t event = Event(VORN_MD_EVENT_GAP);
    event.count = caller.gaps.Add();
    event.slot = slot;
    event.expected = expected;
    event.received = received;
    memcpy(event.inst_id, record.inst_id, sizeof(event.inst_id));
    Tell(event);
}

void CMdMonitor::CountRound(uint32_t feed, int32_t instruments) {
    worker.roundInstruments[feed].Set(static_cast<uint64_t>(instruments));
    worker.rounds[feed].SetBehind(worker.rounds[feed].Get() + 1);
}

void CMdMonitor::TimeUpdate() {
    const uint64_t updates = caller.updates.Get();
    if (updates != caller.timedUpdates.Get()) {
        caller.lastUpdate.Set(__rdtsc());
        caller.timedUpdates.Set(updates);
    }
}

vorn_md_event_t CMdMonitor::Event(uint32_t type) const {
    vorn_md_event_t event{};
    event.size = sizeof(event);
    event.type = type;
    event.phase = m_phase.load(std::memory_order_relaxed);
    return event;
}

// The clock is read only for somebody who listens.
void CMdMonitor::Tell(vorn_md_event_t event) const {
    if (m_callback != nullptr) {
        event.time_ns = NowNs();
        m_callback(&event, m_context);
    }
}

void CMdMonitor::WriteGap(const vorn_md_gap_t& gap) {
    uint64_t words[GAP_WORDS];
    memcpy(words, &gap, sizeof(words));
    const uint32_t count = m_gapCount.load(std::memory_order_relaxed);
    m_gapCount.store(count + 1, std::memory_order_relaxed);
    for (uint32_t i = 0; i < GAP_WORDS; ++i) {
        m_gap[i].SetBehind(words[i]);
    }
    m_gapCount.store(count + 2, std::memory_order_release);
}

void CMdMonitor::ReadGap(vorn_md_gap_t& gap) const {
    uint64_t words[GAP_WORDS] = {};
    uint32_t before = 0;
    do {
        before = m_gapCount.load(std::memory_order_acquire);
        for (uint32_t i = 0; i < GAP_WORDS; ++i) {
            words[i] = m_gap[i].GetFirst();
        }
    } while (before % 2 != 0 || m_gapCount.load(std::memory_order_relaxed) != before);
    memcpy(&gap, words, sizeof(gap));
}

uint64_t CMdMonitor::HandledAtOnce() const {
    const uint64_t handled = caller.updates.Get() + caller.stale.Get() + caller.unsubscribed.Get() +
                             caller.optionsSkipped.Get() + caller.restoredBooks.Get() +
                             caller.gaps.Get() + caller.refused.Get();
    return handled - caller.replayed.Get();
}

void CMdMonitor::Read(vorn_md_counters_t& counters) const {
    counters = {};
    counters.version = VORN_MD_COUNTERS_VERSION;

    uint32_t phase = 0;
    uint64_t since = 0;
    uint64_t atOnce = 0;
    uint64_t phaseTicks[VORN_MD_PHASE_CNT];
    uint32_t before = 0;
    do {
        before = m_phaseCount.load(std::memory_order_acquire);
        since = m_phaseSince.GetFirst();
        phase = m_phase.load(std::memory_order_acquire);
        for (uint32_t i = 0; i < VORN_MD_PHASE_CNT; ++i) {
            phaseTicks[i] = caller.phaseTicks[i].GetFirst();
        }
        // Nothing is replayed in a live phase, so that the difference only grows there.
        atOnce = phase == VORN_MD_PHASE_LIVE ? HandledAtOnce() : caller.liveFrames.GetFirst();
    } while (before % 2 != 0 || m_phaseCount.load(std::memory_order_relaxed) != before);
    ReadGap(counters.last_gap);

    const uint64_t lastUpdate = caller.lastUpdate.Get();
    const CTickClock clock;
    if (phase != VORN_MD_PHASE_STOPPED && clock.NowTicks() > since) {
        phaseTicks[phase] += clock.NowTicks() - since;
    }
    counters.phase = phase;
    counters.phase_since_ns = clock.TimeNs(since);
    for (uint32_t i = 0; i < VORN_MD_PHASE_CNT; ++i) {
        counters.time_in_phase_ns[i] = clock.DurationNs(phaseTicks[i]);
    }
    counters.last_update_ns = clock.TimeNs(lastUpdate);
    counters.last_gap.time_ns = clock.TimeNs(counters.last_gap.time_ns);

    counters.cycles = caller.cycles.Get();
    counters.restarts = counters.cycles > 1 ? counters.cycles - 1 : 0;
    counters.cached = caller.cached.Get();
    counters.frames = atOnce + counters.cached;
    counters.updates = caller.updates.Get();
    counters.silent_updates = caller.silentUpdates.Get();
    counters.stale = caller.stale.Get();
    counters.unsubscribed = caller.unsubscribed.Get();
    counters.options_skipped = caller.optionsSkipped.Get();
    counters.restored_books = caller.restoredBooks.Get();
    counters.gaps = caller.gaps.Get();
    counters.refused = caller.refused.Get();
    counters.overflows = caller.overflows.Get();
    counters.abnormal_lengths = caller.abnormalLengths.Get();
    counters.replayed = caller.replayed.Get();
    counters.cache_dropped = caller.cacheDropped.Get();

    counters.snapshot_frames = decoder.frames.Get();
    counters.snapshot_overflows = decoder.overflows.Get();
    counters.snapshot_abnormal_lengths = decoder.abnormalLengths.Get();
    for (uint32_t i = 0; i < VORN_MD_FATE_CNT; ++i) {
        counters.snapshot_fate[i] = worker.fate[i].Get();
    }
    for (uint32_t i = 0; i < VORN_MD_FEED_CNT; ++i) {
        counters.snapshot_rounds[i] = worker.rounds[i].Get();
    }
    counters.snapshot_wipes = worker.wipes.Get();
}

extern "C" {

const share* vorn_md_table(void) {
    return g_mdMonitor.GetTable();
}

int vorn_md_counters(vorn_md_counters_t* counters) {
    constexpr uint32_t HEAD = 8; // size and version
    if (counters == nullptr || counters->size < HEAD) {
        return RET_FAILED;
    }
    vorn_md_counters_t whole;
    g_mdMonitor.Read(whole);
    whole.size = std::min<uint32_t>(counters->size, sizeof(whole));
    memcpy(counters, &whole, whole.size);
    return RET_OK;
}

void vorn_md_set_event_callback(void (*callback)(const vorn_md_event_t*, void*), void* context) {
    g_mdMonitor.SetCallback(callback, context);
}

} // extern "C"
