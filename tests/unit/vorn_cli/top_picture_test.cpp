// What `vorn top` draws, without a terminal.

#include "bus_support.h"
#include "tools/vorn/top/top_picture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using vorn_cli::draw_top;
using vorn_cli::FeedEvent;
using vorn_cli::FeedEventKind;
using vorn_cli::FeedState;
using vorn_cli::Screen;
using vorn_cli::Style;
using vorn_cli::TopModel;

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kNow = 1'768'450'000 * kSecond;

vorn_cli::InstrumentState shown_state() {
    vorn_cli::InstrumentState state{4, 2, kNow, bus_support::record_of("cu2603", 29)};
    for (int i = 0; i < 10; ++i) {
        state.record.bid_px[i] = 71230 - 10 * i;
        state.record.bid_vol[i] = 1 + i;
        state.record.ask_px[i] = 71240 + 10 * i;
        state.record.ask_vol[i] = 21 + i;
    }
    state.record.last_px = 71235;
    return state;
}

TopModel live_model() {
    TopModel model;
    model.status.state = FeedState::kLive;
    model.status.bus = "night";
    model.status.time_ns = kNow;
    model.status.phase = VORN_MD_PHASE_LIVE;
    model.status.phase_since_ns = kNow - 125 * kSecond;
    model.status.last_update_ns = kNow - 4'000'000;
    model.status.age_ns = 4'000'000;
    model.status.updates_per_s = 5120;
    model.status.frames_per_s = 9830.4;
    model.status.writer_pid = 4711;
    model.status.generation = 3;
    model.status.has_counters = true;
    model.status.counters.gaps = 1;
    model.status.counters.restarts = 2;
    model.status.counters.cached = 812;
    model.status.counters.replayed = 811;
    model.status.counters.last_gap.time_ns = 1;
    model.status.counters.last_gap.expected = 29;
    model.status.counters.last_gap.received = 31;
    std::memcpy(model.status.counters.last_gap.inst_id, "sc2601", 7);
    model.rows = {{4, "cu2603", 512}, {5, "au2606", 93.4}, {6, "sc2601", 0}};
    model.shown = shown_state();
    FeedEvent event;
    event.time_ns = kNow;
    event.kind = FeedEventKind::kGap;
    event.inst_id = "sc2601";
    event.expected = 29;
    event.received = 31;
    model.events.push_back(event);
    return model;
}

std::string text_of(const Screen& screen) {
    std::string text;
    for (const std::string& line : screen.lines()) {
        text += line + '\n';
    }
    return text;
}

std::string picture(const TopModel& model, int width, int height, bool unicode = true) {
    return text_of(draw_top(model, width, height, {unicode, true}));
}

// The style of the first cell of `text` on the screen.
Style style_at(const Screen& screen, const std::string& text) {
    for (int row = 0; row < screen.height(); ++row) {
        std::string line;
        for (int column = 0; column < screen.width(); ++column) {
            line += static_cast<char>(screen.at(row, column).glyph);
        }
        if (const auto at = line.find(text); at != std::string::npos) {
            return screen.at(row, static_cast<int>(at)).style;
        }
    }
    ADD_FAILURE() << text << " is not on the screen";
    return Style::kPlain;
}

TEST(TopPicture, OfALiveFeedHasWhatAnOperatorAsksFor) {
    EXPECT_THAT(picture(live_model(), 100, 30),
                AllOf(HasSubstr("vorn top  LIVE  bus night"), HasSubstr("phase live for 2:05"),
                      HasSubstr("last update 4 ms ago"), HasSubstr("updates/s 5,120"),
                      HasSubstr("frames/s 9,830"), HasSubstr("gaps 1"), HasSubstr("restarts 2"),
                      HasSubstr("dropped 0"), HasSubstr("cached 812"), HasSubstr("replayed 811")));
    EXPECT_THAT(picture(live_model(), 100, 30),
                AllOf(HasSubstr("last gap sc2601 expected 29, came 31"),
                      HasSubstr(">cu2603                      512/s"), HasSubstr("\n au2606"),
                      HasSubstr("gap sc2601: 31 for 29"), HasSubstr("q quit  / search")));
}

TEST(TopPicture, LadderHasAsksAboveBidsAndTenLevels) {
    const std::string text = picture(live_model(), 100, 30);
    std::size_t at = 0;
    for (const char* line : {"cu2603  71235  volume 290", "71330  30 ", "71320  29 ", "71240  21 ",
                             "spread 10", "71230   1 ", "71220   2 ", "71140  10 "}) {
        const std::size_t found = text.find(line, at);
        ASSERT_NE(found, std::string::npos) << line << "\n" << text;
        at = found;
    }
}

TEST(TopPicture, LadderHasFewerLevelsWhereThereIsLessRoom) {
    const std::string text = picture(live_model(), 40, 12);
    EXPECT_THAT(text, AllOf(HasSubstr("71240  21"), HasSubstr("71250"), HasSubstr("71230   1"),
                            HasSubstr("71220"), Not(HasSubstr("71260")), Not(HasSubstr("71210"))));
}

TEST(TopPicture, BarsAreAsLongAsTheVolumes) {
    const auto bar_of = [](const std::string& text, const std::string& level) {
        const std::size_t begin = text.find(level) + level.size();
        return text.find('\n', begin) - begin;
    };
    TopModel model = live_model();
    model.shown->record.ask_vol[0] = 40;
    model.shown->record.bid_vol[0] = 20;
    model.shown->record.bid_vol[1] = 1;
    const std::string text = picture(model, 100, 30, false);
    const std::size_t longest = bar_of(text, "71240  40 ");
    EXPECT_GT(longest, 30u);
    EXPECT_EQ(bar_of(text, "71230  20 "), (longest + 1) / 2);
    EXPECT_EQ(bar_of(text, "71220   1 "), 1u) << "what is not nothing has a bar";
}

TEST(TopPicture, PricesHaveTheDecimalsThatTheyNeed) {
    TopModel model = live_model();
    model.shown->record.bid_px[0] = 430.30000000000001;
    model.shown->record.bid_px[1] = 430.25;
    EXPECT_THAT(picture(model, 100, 30), AllOf(HasSubstr("430.30"), HasSubstr("430.25"),
                                               HasSubstr("71240.00"), Not(HasSubstr("430.300"))));
}

TEST(TopPicture, SideWithoutLevelsIsEmpty) {
    TopModel model = live_model();
    std::fill(std::begin(model.shown->record.bid_vol), std::end(model.shown->record.bid_vol), 0);
    EXPECT_THAT(picture(model, 100, 30),
                AllOf(Not(HasSubstr("spread")), HasSubstr("71240"), Not(HasSubstr("71230"))));
}

TEST(TopPicture, RecordOfNonsenseIsDrawnWithoutHarm) {
    TopModel model = live_model();
    instrument& record = model.shown->record;
    const double odd[] = {std::numeric_limits<double>::infinity(),
                          -std::numeric_limits<double>::infinity(),
                          std::numeric_limits<double>::quiet_NaN(),
                          std::numeric_limits<double>::max(),
                          std::numeric_limits<double>::denorm_min(),
                          -1e300,
                          -0.0,
                          1e9,
                          123456789.987654321,
                          1e-9};
    for (int i = 0; i < 10; ++i) {
        record.bid_px[i] = odd[i];
        record.ask_px[i] = odd[9 - i];
        record.bid_vol[i] = i % 2 == 0 ? std::numeric_limits<int32_t>::min() : i;
        record.ask_vol[i] = std::numeric_limits<int32_t>::max() - i;
    }
    record.last_px = std::numeric_limits<double>::quiet_NaN();
    record.open_interest = -5;
    record.volume = 0xffffffff;
    for (const int width : {24, 40, 100, 200}) {
        EXPECT_THAT(picture(model, width, 40), HasSubstr("cu2603"));
    }
}

// Each size from nothing to large: no cell beyond the edges, and the title wherever there is room.
TEST(TopPicture, FitsEverySize) {
    TopModel searching = live_model();
    searching.searching = true;
    searching.search = "cu26";
    TopModel empty;
    empty.status.problem =
        "there is no bus /dev/shm/vorn.night.bus: start its writer (vorn publish)";
    for (const TopModel& model : {live_model(), searching, empty}) {
        for (int width = 0; width <= 130; ++width) {
            for (const int height : {0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 12, 15, 16, 24, 30, 60}) {
                const Screen screen = draw_top(model, width, height, {true, true});
                ASSERT_EQ(screen.width(), width);
                ASSERT_EQ(screen.height(), height);
                if (width >= vorn_cli::kLeastWidth && height >= vorn_cli::kLeastHeight) {
                    ASSERT_THAT(screen.lines()[0], HasSubstr("vorn top"));
                    ASSERT_NE(screen.lines().back(), "") << width << "x" << height;
                }
            }
        }
    }
}

TEST(TopPicture, SaysWhenThereIsTooLittleRoom) {
    EXPECT_THAT(picture(live_model(), 30, 5), HasSubstr("too small: 24x6 at least"));
    EXPECT_EQ(picture(live_model(), 5, 2), "too s\n\n");
    EXPECT_EQ(picture(live_model(), 1, 1), "t\n");
}

TEST(TopPicture, WithoutUnicodeIsAscii) {
    for (const char c : picture(live_model(), 150, 40, false)) {
        ASSERT_TRUE((c >= ' ' && c < 0x7f) || c == '\n');
    }
    EXPECT_THAT(picture(live_model(), 150, 40, true), HasSubstr("\u2588"));
}

TEST(TopPicture, OfNoBusSaysHowToStartOne) {
    TopModel model;
    model.status.bus = "night";
    model.status.problem =
        "there is no bus /dev/shm/vorn.night.bus: start its writer (vorn publish)";
    EXPECT_THAT(picture(model, 40, 12),
                AllOf(HasSubstr("vorn top  ABSENT"), HasSubstr("there is no bus"),
                      HasSubstr("publish)"), HasSubstr("waiting for it"), HasSubstr("q quit")));
}

TEST(TopPicture, NarrowScreenHasTheLadderOrTheSearch) {
    TopModel model = live_model();
    EXPECT_THAT(picture(model, 30, 14), AllOf(HasSubstr("71240"), Not(HasSubstr("au2606"))));
    model.searching = true;
    model.search = "au";
    EXPECT_THAT(picture(model, 30, 14),
                AllOf(HasSubstr("au2606"), Not(HasSubstr("71240")), HasSubstr("/au_")));
}

TEST(TopPicture, ListScrollsToTheChosenOne) {
    TopModel model = live_model();
    model.rows.clear();
    for (uint32_t i = 0; i < 400; ++i) {
        model.rows.push_back({i, "in" + std::to_string(1000 + i), 0});
    }
    model.chosen = 250;
    EXPECT_THAT(picture(model, 80, 20),
                AllOf(HasSubstr("\n>in1250"), Not(HasSubstr("in1000")), Not(HasSubstr("in1399"))));
    model.chosen = 399;
    EXPECT_THAT(picture(model, 80, 20), HasSubstr("\n>in1399"));
    model.chosen = 0;
    EXPECT_THAT(picture(model, 80, 20), HasSubstr("\n>in1000"));
}

TEST(TopPicture, ColourMeansSomething) {
    TopModel model = live_model();
    EXPECT_EQ(style_at(draw_top(model, 100, 30, {}), "LIVE"), Style::kGood);
    EXPECT_EQ(style_at(draw_top(model, 100, 30, {}), "71230"), Style::kBid);
    EXPECT_EQ(style_at(draw_top(model, 100, 30, {}), "71240"), Style::kAsk);
    EXPECT_EQ(style_at(draw_top(model, 100, 30, {}), ">cu2603"), Style::kChosen);
    const auto gaps_value = [](const Screen& screen) {
        const std::string row = screen.lines()[1];
        return screen.at(1, static_cast<int>(row.find("gaps ")) + 5).style;
    };
    EXPECT_EQ(gaps_value(draw_top(model, 140, 30, {})), Style::kWarning);
    model.status.counters.gaps = 0;
    EXPECT_EQ(gaps_value(draw_top(model, 140, 30, {})), Style::kBold);
    model.status.state = FeedState::kDead;
    EXPECT_EQ(style_at(draw_top(model, 100, 30, {}), "DEAD"), Style::kBad);
    model.status.state = FeedState::kStale;
    EXPECT_EQ(style_at(draw_top(model, 100, 30, {}), "STALE"), Style::kWarning);
}

TEST(TopPicture, EveryEventHasALine) {
    const std::pair<FeedEventKind, const char*> cases[] = {
        {FeedEventKind::kPhase, "phase bring up"},   {FeedEventKind::kGap, "gap sc2601: 31 for 29"},
        {FeedEventKind::kRestart, "restart 2"},      {FeedEventKind::kRound, "ine 2ps loaded, 2"},
        {FeedEventKind::kOverflow, "overflow 2"},    {FeedEventKind::kOpened, "writer's run 2"},
        {FeedEventKind::kDead, "writer has died"},   {FeedEventKind::kClosed, "writer has ended"},
        {FeedEventKind::kRevived, "writer is back"},
    };
    for (const auto& [kind, line] : cases) {
        TopModel model = live_model();
        model.events[0].kind = kind;
        model.events[0].phase = VORN_MD_PHASE_BRING_UP;
        model.events[0].feed = VORN_MD_FEED_INE_2PS;
        model.events[0].count = 2;
        EXPECT_THAT(picture(model, 200, 60), HasSubstr(line));
    }
}

} // namespace
