// The keys of `vorn top`, and its list over a bus.

#include "bus_support.h"
#include "tools/vorn/top/top_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using bus_support::record_of;
using testing::ElementsAre;
using vorn_cli::Key;
using vorn_cli::TopState;

namespace {

constexpr uint64_t kSecond = 1'000'000'000;

class Top : public testing::Test {
protected:
    Top() {
        bus_.open();
        publish("cu2603", 1, 5);
        publish("au2606", 2, 9);
        publish("sc2601", 20000, 1);
        publish("cu2601", 3, 2);
    }
    void publish(const char* inst_id, uint32_t slot, int times) {
        for (int i = 0; i < times; ++i) {
            bus_.writer().publish(record_of(inst_id), slot);
        }
    }
    void look() {
        view_.poll(nullptr, begin_ns_);
        state_.set_time(now_ns_);
        state_.look(view_);
    }
    bool press(Key key, char character = 0) {
        const bool goes_on = state_.press(key, character, now_ns_);
        look();
        return goes_on;
    }
    void type(const std::string& text) {
        for (const char c : text) {
            EXPECT_TRUE(press(Key::kCharacter, c));
        }
    }
    std::vector<std::string> rows() const {
        std::vector<std::string> ids;
        for (const auto& row : state_.model().rows) {
            ids.push_back(row.inst_id);
        }
        return ids;
    }
    std::string shown() const {
        return state_.model().shown
                   ? vorn_cli::instrument_text(state_.model().shown->record.inst_id)
                   : "nothing";
    }

    bus_support::TestBus bus_;
    const uint64_t begin_ns_ = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    uint64_t now_ns_ = 1000 * kSecond; // of the keys
    vorn_cli::FeedView view_{{.bus = bus_.name(), .window_ns = 600 * kSecond}};
    TopState state_{""};
};

TEST_F(Top, ListsTheBusiestFirstAndShowsIt) {
    look();
    EXPECT_THAT(rows(), ElementsAre("au2606", "cu2603", "cu2601", "sc2601"));
    EXPECT_EQ(shown(), "au2606");
    EXPECT_TRUE(state_.model().automatic);
    publish("sc2601", 20000, 20);
    look();
    EXPECT_EQ(shown(), "sc2601") << "whichever is the busiest";
}

TEST_F(Top, ThoseWithoutUpdatesComeLastByName) {
    auto table = std::make_unique<share>();
    table->instmts[50] = record_of("zn2601");
    table->instmts[51] = record_of("ag2601");
    bus_.writer().refresh(*table); // of a snapshot: no update
    publish("cu2603", 1, 1);
    look();
    EXPECT_THAT(rows(), ElementsAre("cu2603", "ag2601", "zn2601"));
}

TEST_F(Top, CursorKeysChooseAndTheChoiceStays) {
    look();
    press(Key::kDown);
    EXPECT_EQ(shown(), "cu2603");
    EXPECT_FALSE(state_.model().automatic);
    press(Key::kDown);
    EXPECT_EQ(shown(), "cu2601");
    press(Key::kUp);
    EXPECT_EQ(shown(), "cu2603");
    now_ns_ += 60 * kSecond;
    publish("sc2601", 20000, 20);
    look();
    EXPECT_EQ(shown(), "cu2603");
    EXPECT_EQ(state_.model().chosen, 2u) << "the list has moved, not the choice";
}

TEST_F(Top, ListKeepsItsOrderForAMomentAfterACursorKey) {
    look();
    press(Key::kDown);
    publish("sc2601", 20000, 20);
    look();
    EXPECT_THAT(rows(), ElementsAre("au2606", "cu2603", "cu2601", "sc2601"));
    now_ns_ += 6 * kSecond;
    look();
    EXPECT_THAT(rows(), ElementsAre("sc2601", "au2606", "cu2603", "cu2601"));
}

TEST_F(Top, CursorStopsAtBothEnds) {
    look();
    press(Key::kUp);
    EXPECT_EQ(shown(), "au2606");
    press(Key::kEnd);
    EXPECT_EQ(shown(), "sc2601");
    press(Key::kDown);
    EXPECT_EQ(shown(), "sc2601");
    press(Key::kHome);
    EXPECT_EQ(shown(), "au2606");
    press(Key::kPageDown);
    EXPECT_EQ(shown(), "sc2601");
    press(Key::kPageUp);
    EXPECT_EQ(shown(), "au2606");
}

TEST_F(Top, EnterKeepsTheBusiestAndALetsGo) {
    look();
    press(Key::kEnter);
    publish("sc2601", 20000, 20);
    now_ns_ += 60 * kSecond;
    look();
    EXPECT_EQ(shown(), "au2606");
    press(Key::kCharacter, 'a');
    EXPECT_EQ(shown(), "sc2601");
    EXPECT_TRUE(state_.model().automatic);
    press(Key::kDown);
    press(Key::kEscape);
    EXPECT_TRUE(state_.model().automatic);
}

TEST_F(Top, SearchShowsWhatItFindsAndEnterKeepsIt) {
    look();
    type("/C");
    EXPECT_TRUE(state_.model().searching);
    EXPECT_THAT(rows(), ElementsAre("cu2603", "cu2601", "sc2601"))
        << "what begins with it first, upper and lower case the same";
    EXPECT_EQ(shown(), "cu2603");
    press(Key::kDown);
    EXPECT_EQ(shown(), "cu2601");
    type("u26");
    EXPECT_THAT(rows(), ElementsAre("cu2603", "cu2601"));
    EXPECT_EQ(shown(), "cu2603") << "from the top again";
    press(Key::kDown);
    press(Key::kEnter);
    EXPECT_FALSE(state_.model().searching);
    EXPECT_EQ(shown(), "cu2601");
    EXPECT_EQ(rows().size(), 4u);
    EXPECT_FALSE(state_.model().automatic);
}

TEST_F(Top, SearchThatIsLeftChangesNothing) {
    look();
    press(Key::kDown);
    type("/sc");
    EXPECT_EQ(shown(), "sc2601");
    press(Key::kEscape);
    EXPECT_EQ(shown(), "cu2603");
    type("/sc");
    for (int i = 0; i < 2; ++i) {
        press(Key::kBackspace);
    }
    EXPECT_TRUE(state_.model().searching);
    EXPECT_EQ(rows().size(), 4u) << "an empty search finds all";
    press(Key::kBackspace);
    EXPECT_FALSE(state_.model().searching);
    EXPECT_EQ(shown(), "cu2603");
}

TEST_F(Top, SearchThatFindsNothingShowsNothing) {
    look();
    type("/xyz");
    EXPECT_TRUE(rows().empty());
    EXPECT_EQ(shown(), "nothing");
    press(Key::kDown);
    press(Key::kEnter);
    EXPECT_EQ(shown(), "au2606");
    EXPECT_TRUE(state_.model().automatic);
}

TEST_F(Top, QuitsWithQButNotInASearch) {
    look();
    EXPECT_TRUE(press(Key::kCharacter, 'x'));
    EXPECT_TRUE(press(Key::kNone));
    type("/q");
    EXPECT_EQ(state_.model().search, "q");
    press(Key::kEscape);
    EXPECT_FALSE(press(Key::kCharacter, 'q'));
}

TEST_F(Top, SearchTakesNoMoreThanAnIdentifier) {
    look();
    type("/" + std::string(100, 'x'));
    EXPECT_EQ(state_.model().search.size(), 16u);
}

TEST_F(Top, WantedInstrumentIsShownAsSoonAsItIsThere) {
    state_ = TopState("ni2603");
    look();
    EXPECT_EQ(shown(), "nothing");
    publish("ni2603", 9, 1);
    look();
    EXPECT_EQ(shown(), "ni2603");
}

TEST_F(Top, ChoiceOutlivesTheWriter) {
    look();
    press(Key::kDown);
    ASSERT_EQ(shown(), "cu2603");
    bus_.open();
    look();
    EXPECT_EQ(shown(), "nothing");
    publish("au2606", 2, 3);
    publish("cu2603", 7, 1); // in another slot now
    look();
    EXPECT_EQ(shown(), "cu2603");
}

TEST_F(Top, EventsAreNewestFirst) {
    bus_.writer().publish_event(bus_support::event_of(VORN_MD_EVENT_RESTART, 5, 1));
    look();
    ASSERT_EQ(state_.model().events.size(), 2u);
    EXPECT_EQ(state_.model().events[0].kind, vorn_cli::FeedEventKind::kRestart);
}

} // namespace
