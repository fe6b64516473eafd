// `vorn top` in a real terminal, over a bus whose writer is the test itself.

#include "background.h"
#include "bus/bus_process.h"
#include "tests/unit/vorn_cli/bus_support.h"
#include "tmux_terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

using bus_support::record_of;
using testing::HasSubstr;
using testing::Not;
using vorn_top::columns;
using vorn_top::TmuxTerminal;

namespace {

// A feed that is live and moves: cu2603 most, forty others less.
class MovingBus {
public:
    MovingBus() {
        bus_.open();
        thread_ = std::thread([this] { run(); });
    }
    ~MovingBus() {
        stopping_ = true;
        thread_.join();
    }
    MovingBus(const MovingBus&) = delete;
    MovingBus& operator=(const MovingBus&) = delete;
    std::string name() const { return bus_.name(); }

private:
    void run() {
        const uint64_t begin = vorn_bus::clock_ns(CLOCK_MONOTONIC);
        for (uint32_t round = 1; !stopping_; ++round) {
            bus_.writer().publish(record_of("cu2603", round), 99);
            bus_.writer().publish(record_of("cu2603", round), 99);
            const uint32_t other = round % 40;
            bus_.writer().publish(record_of("au" + std::to_string(2601 + other), round), other);
            bus_.writer().beat(bus_support::counters_of(VORN_MD_PHASE_LIVE, begin,
                                                        vorn_bus::clock_ns(CLOCK_MONOTONIC)));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    bus_support::TestBus bus_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// Runs the program and keeps the terminal open behind it. Whoever is in the foreground gets Ctrl+C;
// the shell must outlive it.
std::string script_of(const std::string& arguments) {
    return std::string("trap : INT\nexport LC_ALL=C.UTF-8\nstty -a > before\n") + VORN_PROGRAM +
           " top --interval 0.1 " + arguments +
           "\necho \"status=$?\"\nstty -a > after\nexec sleep 1000\n";
}

bool has_title(const std::vector<std::string>& rows) {
    return !rows.empty() && rows[0].starts_with("vorn top  ");
}

// Whether the picture is drawn for this size: the clock ends at the edge, the keys are below.
bool fills(const std::vector<std::string>& rows, std::size_t width, std::size_t height) {
    return has_title(rows) && columns(rows[0]) == width && rows.size() == height &&
           rows[height - 1].starts_with("q quit");
}

void expect_no_garbage(const TmuxTerminal& terminal, std::size_t width) {
    for (const std::string& row : terminal.rows()) {
        EXPECT_LE(columns(row), width) << row;
        EXPECT_THAT(row, Not(HasSubstr("^[")));
        EXPECT_THAT(row, Not(HasSubstr("?")));
    }
}

class TopScreen : public testing::Test {
protected:
    MovingBus bus_;
};

TEST_F(TopScreen, IsDrawnAtEverySizeAndInBetween) {
    TmuxTerminal terminal(40, 12, script_of("--bus " + bus_.name()));
    const auto expect_size = [&](std::size_t width, std::size_t height) {
        terminal.expect([&](const auto& rows) { return fills(rows, width, height); },
                        std::to_string(width) + "x" + std::to_string(height));
        expect_no_garbage(terminal, width);
    };
    terminal.expect_text("LIVE");
    expect_size(40, 12);
    terminal.expect_text(">cu2603");
    terminal.resize(200, 60);
    expect_size(200, 60);
    terminal.expect_text("writer's run 1"); // the events have a column of their own
    terminal.resize(40, 12);
    expect_size(40, 12);
    terminal.resize(80, 24);
    expect_size(80, 24);
    EXPECT_THAT(terminal.text(), HasSubstr("\u2502")) << "lines where the locale has them";
}

TEST_F(TopScreen, OutlivesResizesToAnySize) {
    TmuxTerminal terminal(80, 24, script_of("--bus " + bus_.name()));
    terminal.expect_text("LIVE");
    std::mt19937 random(20260115);
    for (int i = 0; i < 25; ++i) {
        const int width = i % 5 == 0 ? 1 : 1 + static_cast<int>(random() % 250);
        const int height = i % 7 == 0 ? 1 : 1 + static_cast<int>(random() % 70);
        terminal.resize(width, height);
        if (i % 3 == 0) {
            terminal.press({"Down"});
        }
    }
    terminal.resize(20, 5);
    terminal.expect([](const auto& rows) { return rows[0] == "too small: 24x6 at l"; },
                    "a picture of too little room");
    terminal.resize(1, 1); // whose only cell a terminal cannot be made to show
    terminal.expect([](const auto& rows) { return rows.size() == 1 && columns(rows[0]) <= 1; },
                    "one cell");
    terminal.resize(100, 30);
    terminal.expect([](const auto& rows) { return fills(rows, 100, 30); }, "100x30");
    terminal.press({"q"});
    terminal.expect_text("status=0");
}

TEST_F(TopScreen, KeysChooseAndSearch) {
    TmuxTerminal terminal(100, 30, script_of("--bus " + bus_.name()));
    terminal.expect_text(">cu2603");
    terminal.press({"Down"});
    terminal.expect_text(">au");
    terminal.press({"/", "2", "6", "3", "0"});
    terminal.expect_text("/2630_");
    terminal.expect_text(">au2630");
    terminal.press({"Enter"});
    terminal.expect([](const auto& rows) { return fills(rows, 100, 30); }, "the keys again");
    terminal.expect_text("au2630  100.5");
    terminal.press({"/", "x", "Escape"});
    terminal.expect([](const auto& rows) { return fills(rows, 100, 30); }, "the keys again");
    terminal.expect_text(">au2630");
    terminal.press({"a"});
    terminal.expect_text(">cu2603");
    expect_no_garbage(terminal, 100);
}

class TopScreenEnd : public TopScreen, public testing::WithParamInterface<const char*> {};

TEST_P(TopScreenEnd, LeavesTheTerminalAsItWas) {
    TmuxTerminal terminal(80, 24, "echo before it\n" + script_of("--bus " + bus_.name()));
    terminal.expect_text("LIVE");
    EXPECT_EQ(terminal.flag("alternate_on"), "1");
    EXPECT_EQ(terminal.flag("cursor_flag"), "0");
    terminal.press({GetParam()});
    terminal.expect_text("status=0");
    EXPECT_EQ(terminal.flag("alternate_on"), "0");
    EXPECT_EQ(terminal.flag("cursor_flag"), "1");
    EXPECT_THAT(terminal.text(), HasSubstr("before it"));
    EXPECT_THAT(terminal.text(), Not(HasSubstr("vorn top")));
    ASSERT_TRUE(vorn_top::comes_true([&] { return terminal.file("after") != ""; }));
    EXPECT_EQ(terminal.file("before"), terminal.file("after"));
}

INSTANTIATE_TEST_SUITE_P(By, TopScreenEnd, testing::Values("q", "C-c"),
                         [](const auto& row) { return row.param[0] == 'q' ? "Key" : "CtrlC"; });

TEST_F(TopScreen, WaitsForABusThatIsNotThere) {
    bus_support::TestBus later;
    TmuxTerminal terminal(60, 15, script_of("--bus " + later.name()));
    terminal.expect_text("ABSENT");
    terminal.expect_text("vorn publish");
    terminal.expect_text("waiting for it");
    later.open();
    terminal.expect_text("LOADING");
    later.close();
    terminal.expect_text("STOPPED");
}

TEST_F(TopScreen, TerminalThatIsNotKnownIsNamed) {
    TmuxTerminal terminal(120, 24, "export TERM=no-such\n" + script_of("--bus " + bus_.name()));
    terminal.expect_text("vorn top: the terminal 'no-such' is not known here: set TERM");
    terminal.expect_text("status=1");
}

TEST_F(TopScreen, IsAsciiWithoutAUnicodeLocale) {
    std::string script = script_of("--bus " + bus_.name());
    script.replace(script.find("C.UTF-8"), 7, "C");
    TmuxTerminal terminal(80, 24, script);
    terminal.expect_text(">cu2603");
    terminal.expect_text("####");
    for (const char c : terminal.text()) {
        ASSERT_LT(static_cast<unsigned char>(c), 0x80);
    }
}

TEST_F(TopScreen, HasColourUnlessAskedNotTo) {
    const std::string script = script_of("--bus " + bus_.name());
    const auto green = [](const TmuxTerminal& terminal) {
        return terminal.styled_text().find("\x1b[32m") != std::string::npos ||
               terminal.styled_text().find(";32m") != std::string::npos;
    };
    TmuxTerminal coloured(80, 24, script);
    coloured.expect_text(">cu2603");
    EXPECT_TRUE(green(coloured)) << coloured.styled_text();
    TmuxTerminal plain(80, 24, "export NO_COLOR=1\n" + script);
    plain.expect_text(">cu2603");
    EXPECT_THAT(plain.styled_text(), Not(testing::ContainsRegex("[[;]3[0-7]m")));
    EXPECT_THAT(plain.styled_text(), HasSubstr("\x1b[")) << "bold and reverse remain";
}

} // namespace
