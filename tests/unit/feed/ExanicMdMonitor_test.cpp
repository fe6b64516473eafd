// What a consumer can learn of a running feed beside its updates: counters, table, events.

#include "ExanicMdMonitor.h"

#include "feed_fixture.h"
#include "wirekit/mirp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <time.h>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using wirekit::decode_buffer;
using wirekit::Side;

uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

vorn_md_counters_t counters() {
    vorn_md_counters_t result;
    result.size = sizeof(result);
    EXPECT_EQ(vorn_md_counters(&result), 0);
    EXPECT_EQ(result.size, sizeof(result));
    EXPECT_EQ(result.version, 1U);
    return result;
}

std::string text(const unsigned char (&inst_id)[16]) {
    return reinterpret_cast<const char*>(inst_id);
}

// Keeps what a run tells, one line an event.
class Events {
public:
    Events() { vorn_md_set_event_callback(&Events::on_event, this); }
    ~Events() { vorn_md_set_event_callback(nullptr, nullptr); }
    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;

    std::vector<std::string> lines;
    std::vector<vorn_md_event_t> events;
    std::vector<std::thread::id> threads;

private:
    static void on_event(const vorn_md_event_t* event, void* context) {
        auto& self = *static_cast<Events*>(context);
        self.events.push_back(*event);
        self.threads.push_back(std::this_thread::get_id());
        self.lines.push_back(describe(*event));
        vorn_md_counters_t counters{};
        counters.size = sizeof(counters);
        EXPECT_EQ(vorn_md_counters(&counters), 0);
        EXPECT_EQ(counters.phase, event->phase);
    }
    static std::string describe(const vorn_md_event_t& event) {
        constexpr const char* kPhases[] = {"stopped", "bring-up", "snapshot", "replay", "live"};
        switch (event.type) {
        case VORN_MD_EVENT_PHASE:
            return std::string(kPhases[event.previous_phase]) + " -> " + kPhases[event.phase];
        case VORN_MD_EVENT_GAP:
            return "gap " + std::to_string(event.count) + " of " + text(event.inst_id) +
                   " in slot " + std::to_string(event.slot) + ": " +
                   std::to_string(event.expected) + " expected, " + std::to_string(event.received);
        case VORN_MD_EVENT_RESTART:
            return "restart " + std::to_string(event.count);
        case VORN_MD_EVENT_ROUND:
            return "round of feed " + std::to_string(event.feed) + ", " +
                   std::to_string(event.count);
        case VORN_MD_EVENT_OVERFLOW:
            return "overflow " + std::to_string(event.count);
        default:
            return "type " + std::to_string(event.type);
        }
    }
};

std::vector<Bytes> both_snapshots() {
    return joined(snapshot_frames(kShfe, {rebar()}), snapshot_frames(kIne, {crude()}));
}

TEST(MonitorCounters, CountEachLiveBufferByWhatBecameOfIt) {
    FeedFixture feed;
    SnapshotInstrument option = rebar();
    option.info.inst_id = "rb2601C3000";
    option.info.inst_no = option.deal.inst_no = 4;
    feed.config = config_text(feed.cpu(), "insts = all\n");
    Cycle cycle;
    cycle.snapshot =
        joined(snapshot_frames(kShfe, {rebar(), option}), snapshot_frames(kIne, {crude()}));
    cycle.after = {
        {}, // replay's
        shfe_stamp(8),
        shfe_stamp(9),
        ine_stamp(42),                                                 // updates
        decode_buffer().topic(1000).instrument(3).field_id(4).bytes(), // and one unnumbered
        shfe_stamp(9),
        shfe_stamp(3),                                                      // stale
        decode_buffer().topic(1000).instrument(9).change_no(1).bytes(),     // unsubscribed
        decode_buffer().topic(1000).instrument(16384).change_no(1).bytes(), // refused
        decode_buffer()
            .topic(1000)
            .instrument(3)
            .change_no(10)
            .update(Side::kBid, 1, 5, 1)                                // below the second level
            .bytes(),                                                   // restored
        decode_buffer().topic(1000).instrument(4).change_no(8).bytes(), // an option's update
    };
    feed.cycles = {cycle};
    EXPECT_EQ(feed.run(), 0);

    const vorn_md_counters_t c = counters();
    EXPECT_EQ(c.updates, 5U);
    EXPECT_EQ(c.updates, feed.updates.size());
    EXPECT_EQ(c.silent_updates, 0U);
    EXPECT_EQ(c.stale, 2U);
    EXPECT_EQ(c.unsubscribed, 1U);
    EXPECT_EQ(c.refused, 1U);
    EXPECT_EQ(c.restored_books, 1U);
    EXPECT_EQ(c.options_skipped, 0U);
    EXPECT_EQ(c.gaps, 0U);
    EXPECT_EQ(c.frames, 10U);
    EXPECT_EQ(c.cached + c.replayed + c.cache_dropped, 0U);
    EXPECT_EQ(c.cycles, 1U);
    EXPECT_EQ(c.restarts, 0U);
    EXPECT_EQ(c.last_gap.time_ns, 0U);
}

TEST(MonitorCounters, CountOptionsThatAreNotHandled) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu(), "options = norecv\n");
    Cycle cycle;
    cycle.snapshot = snapshot_frames(kShfe, {rebar()});
    cycle.after = {shfe_stamp(8), shfe_stamp(9)};
    feed.cycles = {cycle};
    feed.at_update = [&](instrument* record) { std::memcpy(record->inst_id, "rb2601C", 7); };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(counters().options_skipped, 1U);
    EXPECT_EQ(counters().updates, 1U);
    EXPECT_EQ(counters().frames, 2U);
}

TEST(MonitorCounters, TellStatusAndLengthsOfTheCardApart) {
    FeedFixture feed;
    Events events;
    feed.config = shfe_config(feed.cpu());
    Cycle cycle;
    cycle.snapshot = snapshot_frames(kShfe, {rebar()});
    cycle.after = {{}, {}, {}, {}, {}, shfe_stamp(8)};
    feed.cycles = {cycle};
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 1) {
            for (const ssize_t result : {-256, -1, 3, 5000, -256}) {
                feed.card.push_result(0, result);
            }
        }
    };
    feed.at_raw_poll = [&](uint64_t poll) {
        if (poll == 1) {
            for (const ssize_t result : {-256, 14, -256}) {
                feed.card.push_result(1, result);
            }
        }
    };
    EXPECT_EQ(feed.run(), 0);
    const vorn_md_counters_t c = counters();
    EXPECT_EQ(c.overflows, 2U);
    EXPECT_EQ(c.abnormal_lengths, 3U);
    EXPECT_EQ(c.frames, c.updates) << "neither is a frame";
    EXPECT_EQ(c.snapshot_overflows, 2U);
    EXPECT_EQ(c.snapshot_abnormal_lengths, 1U);
    EXPECT_THAT(events.lines, testing::IsSupersetOf({"overflow 1", "overflow 2"}));
}

TEST(MonitorCounters, FollowTheCacheThroughTheReplay) {
    FeedFixture feed;
    Cycle cycle;
    cycle.snapshot = both_snapshots();
    cycle.cached = {shfe_stamp(6), shfe_stamp(7), shfe_stamp(8), ine_stamp(42)};
    cycle.after = {{}, {}, {}, {}, shfe_stamp(9)};
    feed.cycles = {cycle};
    std::vector<vorn_md_counters_t> seen;
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll <= 5) {
            seen.push_back(counters());
        }
    };
    EXPECT_EQ(feed.run(), 0);
    ASSERT_EQ(seen.size(), 5U);
    for (uint64_t poll = 0; poll < 4; ++poll) {
        EXPECT_EQ(seen[poll].phase, VORN_MD_PHASE_REPLAY);
        EXPECT_EQ(seen[poll].cached, 4U);
        EXPECT_EQ(seen[poll].replayed, poll);
        EXPECT_EQ(seen[poll].frames, 4U) << "a frame of the cache counts once";
    }
    EXPECT_EQ(seen[4].phase, VORN_MD_PHASE_LIVE);
    const vorn_md_counters_t c = counters();
    EXPECT_EQ(c.replayed, 4U);
    EXPECT_EQ(c.stale, 2U);
    EXPECT_EQ(c.updates, 3U);
    EXPECT_EQ(c.silent_updates, 2U);
    EXPECT_EQ(c.frames, 5U);
    EXPECT_EQ(feed.updates.size(), 1U);
}

TEST(MonitorCounters, FollowFramesThroughRestarts) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    const auto cycle = [](uint32_t round, std::vector<Bytes> after) {
        return Cycle{{shfe_stamp(8)}, snapshot_frames(kShfe, {rebar()}, round), std::move(after)};
    };
    feed.cycles = {cycle(0, {{}, shfe_stamp(9), shfe_stamp(11)}),
                   cycle(1, {{}, shfe_stamp(9), shfe_stamp(9), shfe_stamp(15)}),
                   cycle(2, {{}, shfe_stamp(9)})};
    uint64_t last_frames = 0;
    feed.at_poll = [&](std::size_t, bool, uint64_t) {
        const uint64_t frames = counters().frames;
        EXPECT_GE(frames, last_frames);
        last_frames = frames;
    };
    const uint64_t begin = now_ns();
    EXPECT_EQ(feed.run(), 0);
    const vorn_md_counters_t c = counters();
    EXPECT_EQ(c.frames, 3U + 2 + 3 + 1);
    EXPECT_EQ(c.cycles, 3U);
    EXPECT_EQ(c.restarts, 2U);
    EXPECT_EQ(c.gaps, 2U);
    EXPECT_EQ(text(c.last_gap.inst_id), "rb2601");
    EXPECT_EQ(c.last_gap.slot, 3U);
    EXPECT_EQ(c.last_gap.expected, 10U);
    EXPECT_EQ(c.last_gap.received, 15U);
    EXPECT_EQ(c.last_gap.reserved, 0U);
    EXPECT_GE(c.last_gap.time_ns + 1'000'000, begin);
    EXPECT_LE(c.last_gap.time_ns, now_ns());
}

// What stood behind a gap in the cache is neither replayed nor there any more.
TEST(MonitorCounters, CountWhatAGapLeavesInTheCacheAsDropped) {
    for (const char* const recovery : {"enabled", "off"}) {
        FeedFixture feed;
        feed.config = shfe_config(feed.cpu(), std::string("recovery = ") + recovery + "\n");
        feed.cycles = {
            {{shfe_stamp(8), shfe_stamp(11), shfe_stamp(12), shfe_stamp(13)},
             snapshot_frames(kShfe, {rebar()}),
             {}},
            {{shfe_stamp(8)}, snapshot_frames(kShfe, {rebar()}, 1), {{}, shfe_stamp(9)}}};
        EXPECT_EQ(feed.run(), 0);
        const vorn_md_counters_t c = counters();
        EXPECT_EQ(c.gaps, 1U) << recovery;
        // The replay takes a new frame in for each one that it takes out; here none comes.
        EXPECT_EQ(c.cached, 5U);
        EXPECT_EQ(c.replayed, 3U);
        EXPECT_EQ(c.cache_dropped, 2U);
        EXPECT_EQ(c.updates, 3U);
        EXPECT_EQ(c.frames, c.updates + c.gaps + c.cache_dropped);
    }
}

TEST(MonitorCounters, BeginAgainWithEveryRun) {
    for (int run = 0; run < 2; ++run) {
        FeedFixture feed;
        feed.config = shfe_config(feed.cpu());
        feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {shfe_stamp(8), shfe_stamp(10)}},
                       {{}, snapshot_frames(kShfe, {rebar()}, 1), {shfe_stamp(8)}}};
        feed.at_poll = [&](std::size_t cycle, bool, uint64_t) {
            if (cycle == 0 && feed.updates.empty()) {
                EXPECT_EQ(counters().gaps + counters().updates, 0U);
                EXPECT_EQ(counters().last_gap.time_ns, 0U);
            }
        };
        EXPECT_EQ(feed.run(), 0);
        EXPECT_EQ(counters().updates, 2U);
        EXPECT_EQ(counters().gaps, 1U);
        EXPECT_EQ(counters().snapshot_rounds[VORN_MD_FEED_SHFE_2PS], 2U);
    }
}

TEST(MonitorCounters, GiveEverySnapshotFrameOneFate) {
    FeedFixture feed;
    Cycle cycle;
    cycle.snapshot = both_snapshots();
    cycle.snapshot.insert(cycle.snapshot.begin(), {Bytes(20, 0), Bytes(60, 0)});
    cycle.snapshot.insert(cycle.snapshot.begin() + 3, cycle.snapshot[2]);
    feed.cycles = {cycle};
    EXPECT_EQ(feed.run(), 0);
    const vorn_md_counters_t c = counters();
    uint64_t fates = 0;
    for (const uint64_t fate : c.snapshot_fate) {
        fates += fate;
    }
    EXPECT_EQ(c.snapshot_frames, cycle.snapshot.size());
    EXPECT_EQ(fates, c.snapshot_frames);
    EXPECT_EQ(c.snapshot_fate[VORN_MD_FATE_STARTED], 2U);
    EXPECT_EQ(c.snapshot_fate[VORN_MD_FATE_OLD], 1U);
    EXPECT_EQ(c.snapshot_fate[VORN_MD_FATE_MALFORMED], 2U);
    EXPECT_THAT(c.snapshot_rounds, ElementsAre(1U, 0U, 1U, 0U));
}

TEST(MonitorTimes, AddUpToTheTimeOfTheRun) {
    FeedFixture feed;
    Cycle cycle;
    cycle.snapshot = both_snapshots();
    cycle.cached = {shfe_stamp(8)};
    cycle.after = {{}, shfe_stamp(9), {}};
    feed.cycles = {cycle};
    const uint64_t begin = now_ns();
    uint64_t live_since = 0;
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 3) {
            live_since = counters().phase_since_ns;
            EXPECT_LE(live_since, now_ns());
        }
    };
    EXPECT_EQ(feed.run(), 0);
    const uint64_t end = now_ns();
    const vorn_md_counters_t c = counters();
    uint64_t sum = 0;
    for (const uint64_t time : c.time_in_phase_ns) {
        sum += time;
    }
    // The processor's counter and the clock are two; a run of milliseconds bears a tenth.
    const uint64_t inaccuracy = (end - begin) / 10 + 1'000'000;
    EXPECT_LE(sum, end - begin + inaccuracy);
    for (const int phase : {VORN_MD_PHASE_BRING_UP, VORN_MD_PHASE_SNAPSHOT, VORN_MD_PHASE_REPLAY,
                            VORN_MD_PHASE_LIVE}) {
        EXPECT_GT(c.time_in_phase_ns[phase], 0U) << phase;
    }
    EXPECT_EQ(c.time_in_phase_ns[VORN_MD_PHASE_STOPPED], 0U);
    EXPECT_EQ(c.phase, VORN_MD_PHASE_STOPPED);
    EXPECT_GE(live_since + inaccuracy, begin);
    EXPECT_GE(c.last_update_ns + inaccuracy, live_since);
    EXPECT_LE(c.last_update_ns, end + inaccuracy);
}

TEST(MonitorTimes, OfThePhaseThatRunsGoUpToNow) {
    FeedFixture feed;
    Cycle cycle;
    cycle.snapshot = both_snapshots();
    cycle.after = {{}, {}, {}};
    feed.cycles = {cycle};
    const uint64_t begin = now_ns();
    bool asked = false;
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 3) {
            const vorn_md_counters_t c = counters();
            const uint64_t elapsed = now_ns() - begin;
            uint64_t sum = 0;
            for (const uint64_t time : c.time_in_phase_ns) {
                sum += time;
            }
            EXPECT_LE(sum, elapsed + elapsed / 10 + 1'000'000);
            EXPECT_EQ(c.phase, VORN_MD_PHASE_LIVE);
            EXPECT_GT(c.time_in_phase_ns[VORN_MD_PHASE_LIVE], 0U);
            asked = true;
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_TRUE(asked);
}

TEST(MonitorTimes, KnowOfNoUpdateBeforeTheFirst) {
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {shfe_stamp(3), {}}}};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(counters().last_update_ns, 0U);
}

TEST(MonitorTable, IsThereWhileTheFeedRuns) {
    EXPECT_EQ(vorn_md_table(), nullptr);
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {{}, {}}}};
    int seen = 0;
    feed.at_poll = [&](std::size_t, bool loading, uint64_t) {
        EXPECT_EQ(vorn_md_table(), feed.table());
        if (!loading) {
            ++seen;
            // A quiet instrument, which has had no update yet.
            expect_record(vorn_md_table()->instmts[3], rebar().record());
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_GT(seen, 0);
    EXPECT_EQ(feed.updates.size(), 0U);
    EXPECT_EQ(vorn_md_table(), nullptr);
}

TEST(MonitorTable, IsGoneWhenTheFeedCouldNotStart) {
    FeedFixture feed;
    Events events;
    feed.config = "[config]\n";
    EXPECT_EQ(feed.run(), -1);
    EXPECT_EQ(vorn_md_table(), nullptr);
    EXPECT_EQ(counters().phase, VORN_MD_PHASE_STOPPED);
    EXPECT_THAT(events.lines, ElementsAre("stopped -> bring-up", "bring-up -> stopped"));
}

TEST(MonitorEvents, TellACycleInItsOrder) {
    FeedFixture feed;
    Events events;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {shfe_stamp(8), shfe_stamp(10)}},
                   {{}, snapshot_frames(kShfe, {rebar()}, 1), {shfe_stamp(8)}}};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(events.lines,
                ElementsAre("stopped -> bring-up", "bring-up -> snapshot", "round of feed 0, 4",
                            "snapshot -> replay", "replay -> live",
                            "gap 1 of rb2601 in slot 3: 9 expected, 10", "restart 1",
                            "live -> bring-up", "bring-up -> snapshot", "round of feed 0, 4",
                            "snapshot -> replay", "replay -> live", "live -> stopped"));
    EXPECT_THAT(events.threads, testing::Each(std::this_thread::get_id()));
    uint64_t last = 0;
    for (const vorn_md_event_t& event : events.events) {
        EXPECT_EQ(event.size, sizeof(event));
        EXPECT_GE(event.time_ns, last);
        last = event.time_ns;
    }
}

TEST(MonitorEvents, StandBetweenTheUpdatesWhereTheyHappened) {
    FeedFixture feed;
    Events events;
    feed.config = shfe_config(feed.cpu());
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {shfe_stamp(8), shfe_stamp(10)}},
                   {{}, snapshot_frames(kShfe, {rebar()}, 1), {shfe_stamp(8)}}};
    std::vector<std::size_t> events_before_update;
    feed.at_update = [&](instrument*) { events_before_update.push_back(events.lines.size()); };
    EXPECT_EQ(feed.run(), 0);
    // Behind "live" of their cycle, and the first one before the gap.
    EXPECT_THAT(events_before_update, ElementsAre(5U, 12U));
}

TEST(MonitorEvents, TellOfEachFeedsRound) {
    FeedFixture feed;
    Events events;
    Cycle cycle;
    cycle.snapshot = both_snapshots();
    feed.cycles = {cycle};
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(events.lines, testing::IsSupersetOf({"round of feed 0, 4", "round of feed 2, 1"}));
}

// What a later version of the library adds at the end, an earlier consumer does not see.
TEST(MonitorSizes, FillInAsMuchAsTheConsumerKnows) {
    alignas(8) unsigned char bytes[sizeof(vorn_md_counters_t) + 64];
    const uint32_t sizes[] = {8, 120, sizeof(vorn_md_counters_t), sizeof(bytes)};
    for (const uint32_t size : sizes) {
        std::memset(bytes, 0xA5, sizeof(bytes));
        auto* record = reinterpret_cast<vorn_md_counters_t*>(bytes);
        record->size = size;
        EXPECT_EQ(vorn_md_counters(record), 0);
        const std::size_t filled = std::min<std::size_t>(size, sizeof(*record));
        EXPECT_EQ(record->size, filled);
        EXPECT_EQ(record->version, 1U);
        for (std::size_t i = filled; i < sizeof(bytes); ++i) {
            ASSERT_EQ(bytes[i], 0xA5) << "byte " << i << " of a record of " << size;
        }
    }
}

TEST(MonitorSizes, RefuseARecordWithoutRoomForItsHead) {
    EXPECT_EQ(vorn_md_counters(nullptr), -1);
    vorn_md_counters_t record;
    std::memset(&record, 0x5A, sizeof(record));
    record.size = 7;
    EXPECT_EQ(vorn_md_counters(&record), -1);
    EXPECT_EQ(record.size, 7U);
    EXPECT_EQ(record.version, 0x5A5A5A5AU);
}

} // namespace
