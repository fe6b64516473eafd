// A feed seen over its bus. The writer is in this process; for the view, time goes on as the test
// says, so that no pause of the machine makes a feed stale or dead.

#include "bus_support.h"
#include "tests/support/child_process.h"
#include "tools/vorn/bus_view/feed_view.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

using bus_support::counters_of;
using bus_support::event_of;
using bus_support::record_of;
using testing::ElementsAre;
using testing::HasSubstr;
using vorn_cli::FeedEvent;
using vorn_cli::FeedEventKind;
using vorn_cli::FeedState;
using vorn_cli::FeedView;

namespace {

constexpr uint64_t kSecond = 1'000'000'000;

uint64_t monotonic() {
    return vorn_bus::clock_ns(CLOCK_MONOTONIC);
}

std::vector<FeedEventKind> kinds(const FeedView& view) {
    std::vector<FeedEventKind> list;
    for (const FeedEvent& event : view.events()) {
        list.push_back(event.kind);
    }
    return list;
}

class FeedViewOfABus : public testing::Test {
protected:
    vorn_cli::FeedViewOptions options() const {
        vorn_cli::FeedViewOptions options;
        options.bus = bus_.name();
        options.stale_after_ns = 600 * kSecond;
        options.window_ns = 600 * kSecond;
        return options;
    }
    void beat_live() {
        const uint64_t now = monotonic();
        bus_.writer().beat(counters_of(VORN_MD_PHASE_LIVE, now, now));
    }
    // Polls at the time at which the test began, or so much later.
    void look(FeedView& view, uint64_t later_ns = 0) const {
        view.poll(nullptr, begin_ns_ + later_ns);
    }

    bus_support::TestBus bus_;
    const uint64_t begin_ns_ = monotonic();
};

TEST_F(FeedViewOfABus, IsAbsentUntilThereIsOne) {
    FeedView view(options());
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kAbsent);
    EXPECT_THAT(view.status().problem, HasSubstr("vorn publish"));
    EXPECT_TRUE(view.events().empty());
    EXPECT_TRUE(view.instruments().empty());
    EXPECT_FALSE(view.instrument_at(1).has_value());

    bus_.open();
    beat_live();
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kLive);
    EXPECT_EQ(view.status().problem, "");
    EXPECT_EQ(view.status().generation, 1u);
    EXPECT_EQ(view.status().writer_pid, static_cast<uint32_t>(::getpid()));
    EXPECT_THAT(kinds(view), ElementsAre(FeedEventKind::kOpened));
}

TEST_F(FeedViewOfABus, WhatIsNoBusIsAbsentAndSaysWhy) {
    std::filesystem::create_directory(bus_.name());
    FeedView view(options());
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kAbsent);
    EXPECT_THAT(view.status().problem, HasSubstr("not a regular file"));
}

TEST(FeedViewName, ThatCannotBeOneIsRefusedAtOnce) {
    EXPECT_THROW(FeedView({.bus = "a b"}), vorn_bus::BusError);
    EXPECT_THROW(FeedView({.bus = ""}), vorn_bus::BusError);
}

TEST_F(FeedViewOfABus, LoadsBeforeTheFirstHeartbeatAndInTheSnapshot) {
    bus_.open();
    FeedView view(options());
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kLoading);
    EXPECT_FALSE(view.status().has_counters);
    EXPECT_EQ(view.status().phase_since_ns, 0u);
    bus_.writer().beat(counters_of(VORN_MD_PHASE_SNAPSHOT, monotonic(), 0));
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kLoading);
    EXPECT_EQ(view.status().phase, static_cast<uint32_t>(VORN_MD_PHASE_SNAPSHOT));
    EXPECT_EQ(view.status().last_update_ns, 0u);
}

TEST_F(FeedViewOfABus, PhaseOfARingEventIsKnownBeforeTheNextHeartbeat) {
    bus_.open();
    const uint64_t now = monotonic();
    bus_.writer().beat(counters_of(VORN_MD_PHASE_SNAPSHOT, now - 1000, 0));
    bus_.writer().publish_event(event_of(VORN_MD_EVENT_PHASE, now, VORN_MD_PHASE_LIVE));
    FeedView view(options());
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kLive);
    // Nor does a heartbeat that was read before the event take it back.
    bus_.writer().beat(counters_of(VORN_MD_PHASE_SNAPSHOT, now - 1000, 0));
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kLive);
}

TEST_F(FeedViewOfABus, GoesStaleWithTimeAndLiveWithAnUpdate) {
    bus_.open();
    auto narrow = options();
    narrow.stale_after_ns = 300 * kSecond;
    FeedView view(narrow);
    bus_.writer().beat(
        counters_of(VORN_MD_PHASE_LIVE, begin_ns_ - 500 * kSecond, begin_ns_ - 299 * kSecond));
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kLive);
    EXPECT_EQ(view.status().age_ns, 299 * kSecond);
    look(view, kSecond);
    EXPECT_EQ(view.status().state, FeedState::kStale);
    EXPECT_EQ(view.status().age_ns, 300 * kSecond);
    bus_.writer().publish(record_of("cu2603"), 4);
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kLive);
    EXPECT_LT(view.status().age_ns, 299 * kSecond) << "by the ring, before the heartbeat";
}

TEST_F(FeedViewOfABus, TimesAreSinceTheEpoch) {
    bus_.open();
    const uint64_t before = vorn_bus::clock_ns(CLOCK_REALTIME);
    bus_.writer().publish(record_of("cu2603"), 4);
    bus_.writer().publish_event(event_of(VORN_MD_EVENT_PHASE, monotonic(), VORN_MD_PHASE_LIVE));
    beat_live();
    FeedView view(options());
    look(view);
    const uint64_t after = vorn_bus::clock_ns(CLOCK_REALTIME);
    const auto state = view.instrument_at(4);
    ASSERT_TRUE(state.has_value());
    constexpr uint64_t kSlack = 10 * kSecond; // the two clocks are not read at one moment
    for (const uint64_t time :
         {view.status().time_ns, view.status().last_update_ns, view.status().phase_since_ns,
          state->time_ns, view.events().back().time_ns}) {
        EXPECT_GE(time, before - kSlack);
        EXPECT_LE(time, after + kSlack);
    }
}

TEST_F(FeedViewOfABus, WriterThatEndsInOrderHasStopped) {
    bus_.open();
    beat_live();
    FeedView view(options());
    look(view);
    bus_.writer().publish(record_of("cu2603"), 4);
    bus_.close();
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kStopped);
    EXPECT_EQ(view.updates_in_window(4), 1u) << "what it wrote last is read";
    EXPECT_TRUE(view.instrument_at(4).has_value()) << "its table can still be looked at";
    EXPECT_EQ(view.status().updates_per_s, 0);
    look(view);
    EXPECT_THAT(kinds(view), ElementsAre(FeedEventKind::kOpened, FeedEventKind::kClosed));
}

TEST_F(FeedViewOfABus, WriterWithoutHeartbeatIsDeadUntilItBeatsAgain) {
    bus_.open();
    beat_live();
    FeedView view(options());
    view.poll(nullptr, monotonic() + 5 * kSecond); // after the heartbeat, however late that is
    EXPECT_EQ(view.status().state, FeedState::kDead);
    EXPECT_GE(view.status().heartbeat_age_ns, 5 * kSecond);
    beat_live();
    look(view);
    EXPECT_THAT(kinds(view),
                ElementsAre(FeedEventKind::kOpened, FeedEventKind::kDead, FeedEventKind::kRevived));
}

TEST_F(FeedViewOfABus, WriterThatIsKilledIsDeadAtOnce) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        vorn_bus::BusWriter writer({bus_.name(), 1024, 100'000'000});
        const uint64_t now = monotonic();
        writer.beat(counters_of(VORN_MD_PHASE_LIVE, now, now));
        ::raise(SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    FeedView view(options());
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kDead);
    EXPECT_EQ(view.status().writer_pid, static_cast<uint32_t>(child));
}

TEST_F(FeedViewOfABus, NewWriterIsFollowedAndEventsOfBeforeStay) {
    bus_.open();
    beat_live();
    bus_.writer().publish(record_of("cu2603"), 4);
    FeedView view(options());
    look(view);
    auto gap = event_of(VORN_MD_EVENT_GAP, monotonic(), VORN_MD_PHASE_LIVE);
    gap.slot = 4;
    gap.expected = 8;
    gap.received = 10;
    gap.count = 1;
    std::memcpy(gap.inst_id, "cu2603", 7);
    bus_.writer().publish_event(gap); // after the last poll, before the next writer
    bus_.open();
    look(view);
    EXPECT_EQ(view.status().generation, 2u);
    EXPECT_EQ(view.status().state, FeedState::kLoading) << "nothing of the old writer is left";
    EXPECT_EQ(view.updates_in_window(4), 0u);
    EXPECT_FALSE(view.instrument_at(4).has_value());
    ASSERT_THAT(kinds(view),
                ElementsAre(FeedEventKind::kOpened, FeedEventKind::kGap, FeedEventKind::kOpened));
    EXPECT_EQ(view.events()[1].inst_id, "cu2603");
    EXPECT_EQ(view.events()[1].slot, 4u);
    EXPECT_EQ(view.events()[1].expected, 8u);
    EXPECT_EQ(view.events()[1].received, 10u);
    EXPECT_EQ(view.events()[2].count, 2u);
    EXPECT_EQ(view.events()[2].id, 3u);
}

TEST_F(FeedViewOfABus, IsAbsentAgainWhenTheFileIsRemoved) {
    bus_.open();
    beat_live();
    FeedView view(options());
    look(view);
    std::filesystem::remove(bus_.name());
    look(view);
    EXPECT_EQ(view.status().state, FeedState::kAbsent);
    EXPECT_EQ(view.status().generation, 0u);
}

TEST_F(FeedViewOfABus, EventsKeepTheirMembersAndTheOldestGo) {
    bus_.open();
    auto few = options();
    few.events = 3;
    FeedView view(few);
    auto phase = event_of(VORN_MD_EVENT_PHASE, monotonic(), VORN_MD_PHASE_SNAPSHOT);
    phase.previous_phase = VORN_MD_PHASE_BRING_UP;
    auto restart = event_of(VORN_MD_EVENT_RESTART, monotonic(), VORN_MD_PHASE_BRING_UP);
    restart.count = 5;
    auto round = event_of(VORN_MD_EVENT_ROUND, monotonic(), VORN_MD_PHASE_SNAPSHOT);
    round.feed = VORN_MD_FEED_INE_2PS;
    round.count = 33;
    auto overflow = event_of(VORN_MD_EVENT_OVERFLOW, monotonic(), VORN_MD_PHASE_LIVE);
    overflow.count = 2;
    for (const auto& event : {phase, restart, round, overflow}) {
        bus_.writer().publish_event(event);
    }
    bus_.writer().publish_event(event_of(99, monotonic(), VORN_MD_PHASE_LIVE)); // of a later layout
    look(view);
    ASSERT_THAT(kinds(view), ElementsAre(FeedEventKind::kRestart, FeedEventKind::kRound,
                                         FeedEventKind::kOverflow));
    EXPECT_EQ(view.events()[0].count, 5u);
    EXPECT_EQ(view.events()[1].feed, static_cast<uint32_t>(VORN_MD_FEED_INE_2PS));
    EXPECT_EQ(view.events()[1].count, 33u);
    EXPECT_EQ(view.events()[2].count, 2u);
    EXPECT_EQ(view.events()[2].id, 5u);
}

TEST_F(FeedViewOfABus, BusiestAreKnownAtTheFirstPoll) {
    bus_.open();
    for (int i = 0; i < 30; ++i) {
        bus_.writer().publish(record_of("cu2603"), 4);
        if (i % 3 == 0) {
            bus_.writer().publish(record_of("sc2601"), 20000);
        }
    }
    beat_live();
    FeedView view(options());
    look(view);
    const auto busiest = view.busiest(10);
    ASSERT_EQ(busiest.size(), 2u);
    EXPECT_EQ(busiest[0].inst_id, "cu2603");
    EXPECT_EQ(busiest[0].updates, 30u);
    EXPECT_EQ(busiest[1].slot, 20000u);
    EXPECT_EQ(busiest[1].updates, 10u);
    EXPECT_GT(view.status().updates_per_s, 0);
    EXPECT_NEAR(busiest[0].updates_per_s, view.status().updates_per_s * 0.75,
                view.status().updates_per_s * 0.001);
    EXPECT_EQ(view.busiest(1).size(), 1u);
}

TEST_F(FeedViewOfABus, LappedRecordsAreCountedAsLostAndInTheRate) {
    bus_.open();
    FeedView view(options());
    bus_.writer().publish(record_of("cu2603"), 4);
    look(view);
    for (int i = 0; i < 3000; ++i) {
        bus_.writer().publish(record_of("cu2603"), 4);
    }
    look(view);
    EXPECT_EQ(view.status().ring_head, 3001u);
    EXPECT_EQ(view.status().ring_laps, 1u);
    EXPECT_EQ(view.status().ring_lost, 3000u - 512u) << "goes on in the middle of the ring";
    EXPECT_EQ(view.updates_in_window(4), 513u);
    // All of them within one step of the window, a tenth of 600 s.
    EXPECT_NEAR(view.status().updates_per_s, 3001.0 / 60, 0.01) << "the lost ones included";
    EXPECT_NEAR(view.busiest(1).at(0).updates_per_s, view.status().updates_per_s,
                view.status().updates_per_s * 0.001)
        << "what is lost belongs to whoever was read";
}

TEST_F(FeedViewOfABus, FrameRateIsThatOfTheHeartbeats) {
    bus_.open();
    FeedView view(options());
    auto counters = counters_of(VORN_MD_PHASE_LIVE, monotonic(), monotonic());
    counters.frames = 1000;
    bus_.writer().beat(counters);
    const uint64_t first = monotonic();
    look(view);
    EXPECT_EQ(view.status().frames_per_s, 0) << "one heartbeat says nothing";
    while (monotonic() < first + 2'000'000) {
    }
    counters.frames = 3000;
    bus_.writer().beat(counters);
    look(view);
    const double least = 2000.0 * 1e9 / static_cast<double>(monotonic() - first + 1'000'000'000);
    EXPECT_GT(view.status().frames_per_s, least);
    EXPECT_LT(view.status().frames_per_s, 2000.0 * 1e9 / 2e6 * 1.001);
    counters.frames = 5; // the feed has begun anew
    bus_.writer().beat(counters);
    look(view);
    EXPECT_EQ(view.status().frames_per_s, 0);
}

TEST_F(FeedViewOfABus, InstrumentsAreFoundBySlotAndName) {
    bus_.open();
    bus_.writer().publish(record_of("cu2603", 7), 4);
    bus_.writer().publish(record_of("sc2601"), 20000);
    bus_.writer().publish(instrument{}, 9); // an update before the dictionary: no name
    FeedView view(options());
    look(view);
    const auto all = view.instruments();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].slot, 4u);
    EXPECT_EQ(all[1].slot, 20000u);
    const auto found = view.instrument_named("cu2603");
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->slot, 4u);
    EXPECT_EQ(found->record.change_no, 7u);
    EXPECT_FALSE(view.instrument_named("cu").has_value());
    EXPECT_FALSE(view.instrument_at(9).has_value());
    EXPECT_FALSE(view.instrument_at(0xffffffff).has_value());
    bus_.writer().publish(record_of("cu2603", 8), 4);
    EXPECT_NE(view.instrument_at(4)->sequence, found->sequence);
}

class Recorder : public vorn_cli::FeedListener {
public:
    void on_open(const vorn_bus::BusReader& reader) override {
        said.push_back("open " + std::to_string(reader.generation()));
    }
    void on_update(const vorn_bus::RingRecord& record, uint64_t) override {
        said.push_back("update " + std::to_string(record.record.change_no));
    }
    void on_event(const FeedEvent& event) override {
        said.push_back(vorn_cli::feed_event_name(event.kind));
    }
    void on_lost(uint64_t records) override { said.push_back("lost " + std::to_string(records)); }

    std::vector<std::string> said;
};

TEST_F(FeedViewOfABus, ListenerHearsEverythingInOrder) {
    bus_.open();
    bus_.writer().publish(record_of("cu2603", 1), 4);
    bus_.writer().publish_event(event_of(VORN_MD_EVENT_RESTART, monotonic(), 1));
    bus_.writer().publish(record_of("cu2603", 2), 4);
    FeedView view(options());
    Recorder recorder;
    view.poll(&recorder);
    EXPECT_THAT(recorder.said, ElementsAre("open 1", "opened", "update 1", "restart", "update 2"));
    recorder.said.clear();
    view.poll(&recorder);
    EXPECT_THAT(recorder.said, ElementsAre());
    bus_.open();
    bus_.writer().publish(record_of("cu2603", 3), 4);
    view.poll(&recorder);
    EXPECT_THAT(recorder.said, ElementsAre("open 2", "opened", "update 3"));
    recorder.said.clear();
    for (uint32_t i = 0; i < 1100; ++i) {
        bus_.writer().publish(record_of("cu2603", 4 + i), 4);
    }
    view.poll(&recorder);
    ASSERT_EQ(recorder.said.size(), 513u);
    EXPECT_EQ(recorder.said[0], "lost 588");
    EXPECT_EQ(recorder.said[1], "update 592");
    EXPECT_EQ(recorder.said.back(), "update 1103");
}

TEST(InstrumentText, IsPrintableWhateverTheBytes) {
    unsigned char bytes[16] = {'c', 'u', 0x1b, 0xff, ' ', '1', 0, 'x'};
    EXPECT_EQ(vorn_cli::instrument_text(bytes), "cu???1");
    std::fill(std::begin(bytes), std::end(bytes), 'a');
    EXPECT_EQ(vorn_cli::instrument_text(bytes), std::string(16, 'a'));
}

} // namespace
