// vorn top: a running feed on the screen.

#include "tools/vorn/bus_view/feed_json.h"
#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/top/top_picture.h"
#include "tools/vorn/top/top_state.h"
#include "tools/vorn/top/top_terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr int kPollMilliseconds = 50;       // see feed_view.h
constexpr uint64_t kGlanceNs = 500'000'000; // what --once looks, so that there are rates
constexpr int kPlainWidth = 100;
constexpr int kPlainHeight = 34;
constexpr std::size_t kJsonBusiest = 10;
constexpr std::size_t kJsonEvents = 20;

struct TopOptions {
    std::string bus = vorn_bus::kDefaultName;
    std::string instrument;
    double interval_s = 1;
    double stale_after_s = static_cast<double>(kStaleAfterNs) / 1e9;
    bool once = false;
};

uint64_t to_ns(double seconds) {
    return static_cast<uint64_t>(std::llround(seconds * 1e9));
}

uint64_t now_ns() {
    return vorn_bus::clock_ns(CLOCK_MONOTONIC);
}

// The feed, and which instrument of it is shown.
struct Look {
    FeedView view;
    TopState state;

    explicit Look(const TopOptions& options)
        : view({.bus = options.bus, .stale_after_ns = to_ns(options.stale_after_s)}),
          state(options.instrument) {}

    // Polls for so long, or until the run ends.
    void watch(uint64_t length_ns, const RunFlag& run) {
        const uint64_t end = now_ns() + length_ns;
        view.poll();
        while (run.running() && now_ns() < end) {
            const uint64_t left = end - std::min(end, now_ns());
            std::this_thread::sleep_for(std::chrono::nanoseconds(
                std::min<uint64_t>(left, uint64_t{kPollMilliseconds} * 1'000'000)));
            view.poll();
        }
        look();
    }
    void look() {
        state.set_time(now_ns());
        state.look(view);
    }
    const TopModel& model() const { return state.model(); }
};

nlohmann::json json_of(const Look& look) {
    nlohmann::json object = to_json(look.view.status(), look.view.options());
    object["type"] = "top";
    object["busiest"] = nlohmann::json::array();
    for (const BusyInstrument& busy : look.view.busiest(kJsonBusiest)) {
        object["busiest"].push_back(to_json(busy));
    }
    object["events"] = nlohmann::json::array(); // newest first
    const auto& events = look.model().events;
    for (std::size_t i = 0; i < std::min(events.size(), kJsonEvents); ++i) {
        object["events"].push_back(to_json(events[i]));
    }
    object["instrument"] = look.model().shown ? to_json(*look.model().shown) : nlohmann::json();
    return object;
}

void print_picture(DataOut& out, const TopModel& model) {
    PictureOptions options;
    options.unicode = locale_has_unicode();
    options.keys = false;
    std::vector<std::string> lines = draw_top(model, kPlainWidth, kPlainHeight, options).lines();
    while (!lines.empty() && lines.back().empty()) {
        lines.pop_back();
    }
    for (const std::string& line : lines) {
        out.line(line);
    }
}

int run_once(Look& look, const TopOptions& options, const Globals& globals, const RunFlag& run) {
    look.watch(std::min(kGlanceNs, to_ns(options.interval_s)), run);
    const FeedStatus& status = look.view.status();
    const bool absent = status.state == FeedState::kAbsent;
    DataOut out(STDOUT_FILENO);
    if (globals.json) {
        out.json(json_of(look));
    } else if (!absent) {
        print_picture(out, look.model());
    }
    out.close();
    if (absent) {
        throw Failure(kFailed, status.problem);
    }
    if (!options.instrument.empty() && !look.model().shown) {
        throw Failure(kFailed, fmt::format("there is no instrument '{}' on the bus {}",
                                           options.instrument, options.bus));
    }
    return kFine;
}

int run_json(Look& look, const TopOptions& options, const RunFlag& run) {
    DataOut out(STDOUT_FILENO);
    while (run.running()) {
        look.watch(to_ns(options.interval_s), run);
        out.json(json_of(look));
        out.flush();
    }
    out.close();
    return kFine;
}

int run_screen(Look& look, const TopOptions& options, const RunFlag& run) {
    TopTerminal terminal;
    const PictureOptions picture{terminal.unicode(), true};
    uint64_t next_ns = 0;
    while (run.running()) {
        look.view.poll();
        if (now_ns() >= next_ns) {
            next_ns = now_ns() + to_ns(options.interval_s);
            look.look();
            terminal.show(draw_top(look.model(), terminal.width(), terminal.height(), picture));
        }
        const TopTerminal::Event event = terminal.wait(kPollMilliseconds);
        if (event.input == TopTerminal::Input::kGone) {
            break;
        }
        if (event.input != TopTerminal::Input::kNothing) {
            next_ns = 0;
        }
        if (event.input == TopTerminal::Input::kKey &&
            !look.state.press(event.key, event.character, now_ns())) {
            break;
        }
    }
    return kFine;
}

int run_top(const TopOptions& options, const Globals& globals) {
    std::unique_ptr<Look> look;
    try {
        look = std::make_unique<Look>(options);
    } catch (const vorn_bus::BusError& error) {
        throw Failure(kUsage, error.what());
    }
    const RunFlag run;
    if (options.once) {
        return run_once(*look, options, globals, run);
    }
    return globals.json ? run_json(*look, options, run) : run_screen(*look, options, run);
}

} // namespace

void add_top(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "top", "a running feed on the screen: state, rates, gaps, and a book that moves",
        {{"vorn top", "the feed that vorn publish shows"},
         {"vorn top --instrument cu2603", "with the ladder of this one"},
         {"vorn top --once", "one picture, for a log or a mail"},
         {"vorn top --once --json", "state and counters for a script"}});
    auto options = std::make_shared<TopOptions>();
    sub.add_option("--bus", options->bus, "bus to look at, by name or path (live)")
        ->option_text("NAME");
    sub.add_option("--instrument", options->instrument,
                   "show this one; by default the busiest, whichever that is")
        ->option_text("ID");
    sub.add_option("--interval", options->interval_s, "time between two pictures (1)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.05, 3600.0));
    sub.add_option("--stale-after", options->stale_after_s,
                   "a live feed without an update for so long is stale (1.5)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.1, 86400.0));
    sub.add_flag("--once", options->once, "print one picture and end; status 1 without a bus");
    add_json_flag(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_top(*options, g); });
}

} // namespace vorn_cli
