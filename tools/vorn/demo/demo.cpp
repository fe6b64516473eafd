// vorn demo: what the whole system does, in one command: the simulated exchange trades a session in
// this process, the feed follows it through the software card, and what the feed holds at the end
// is compared with the exchange's own books.

#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"
#include "tools/session_report/truth_rows.h"
#include "tools/vorn/data_out.h"
#include "tools/vorn/demo/demo_table.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/feed/card_time.h"
#include "tools/vorn/feed/feed_run.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/record/open_recorder.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <unistd.h>

namespace vorn_cli {

namespace {

struct DemoOptions {
    uint64_t seed = 7;
    uint64_t changes = 1'000'000;
    uint32_t instruments = 400;
};

class Watcher final : public FeedWatcher {
public:
    Watcher(DemoTable& table, Recorder* recorder, uint64_t changes, const Globals& globals)
        : table_(table), recorder_(recorder), progress_(globals, "updates", changes) {}

    void on_update(const instrument& record, uint32_t slot) override {
        table_.update(record, slot);
        progress_.update(table_.updates());
        if (recorder_ != nullptr) {
            recorder_->on_update(record);
        }
    }
    void on_phase(FeedPhase phase) override {
        if (recorder_ != nullptr) {
            recorder_->on_phase(phase);
        }
    }
    FrameKeeper* frame_keeper() override {
        return recorder_ == nullptr ? nullptr : recorder_->frame_keeper();
    }
    void finish() { progress_.finish(); }

private:
    DemoTable& table_;
    Recorder* recorder_;
    Progress progress_;
};

exchange_sim::SessionOptions session_options(const DemoOptions& options) {
    const auto parsed =
        exchange_sim::parse_session_options({{"seed", std::to_string(options.seed)},
                                             {"changes", std::to_string(options.changes)},
                                             {"instruments", std::to_string(options.instruments)}});
    if (!parsed.ok()) {
        throw Failure(kUsage, parsed.error);
    }
    if (options.changes == 0) {
        throw Failure(kUsage, "--changes 0 would be a session without an end");
    }
    return parsed.options;
}

struct Outcome {
    FeedReport feed;
    RecorderCounts recorded;
    TableComparison comparison;
    bool whole = false; // the session was played to its end
    double rate = 0;    // updates a second while the feed was live
};

void print_text(const DemoTable& table, const Outcome& outcome,
                const exchange_sim::SessionCounters& made) {
    DataOut out(STDOUT_FILENO);
    out.line(fmt::format("{:<12} {} of {} instruments", "updates", grouped(table.updates()),
                         grouped(table.instruments())));
    out.line(fmt::format("{:<12} {} updates a second", "rate",
                         grouped(static_cast<uint64_t>(outcome.rate))));
    if (table.updates() != 0) {
        out.line(fmt::format("\nlast book of the busiest instrument ({} updates)",
                             grouped(table.busiest_updates())));
        out.line(session_report::ladder(table.busiest_row()));
    }
    if (outcome.whole) {
        out.line(fmt::format("the exchange made {} changes and {} trades", grouped(made.changes),
                             grouped(made.trades)));
    }
    for (const std::string& line : outcome.comparison.shown) {
        out.line("  " + line);
    }
    if (outcome.whole && outcome.comparison.different == 0) {
        out.line(fmt::format("the feed's table equals the exchange's truth: {} of {} records",
                             grouped(outcome.comparison.equal), grouped(outcome.comparison.equal)));
    }
    for (const std::string& file : outcome.recorded.files) {
        out.line("recorded     " + printable(file));
    }
    out.close();
}

void print_json(const DemoTable& table, const Outcome& outcome,
                const exchange_sim::SessionCounters& made) {
    nlohmann::json object = to_json(outcome.feed);
    object["updates"] = table.updates();
    object["instruments"] = table.instruments();
    object["updates_per_second"] = outcome.rate;
    object["busiest"] = table.busiest_row();
    object["changes"] = made.changes;
    object["trades"] = made.trades;
    object["whole"] = outcome.whole;
    object["equal"] = outcome.comparison.equal;
    object["different"] = outcome.comparison.different;
    object["differences"] = outcome.comparison.shown;
    object["files"] = outcome.recorded.files;
    DataOut out(STDOUT_FILENO);
    out.json(object);
    out.close();
}

int run_demo(const DemoOptions& options, const Globals& globals) {
    const auto session = session_options(options);
    FeedRunOptions run;
    run.device = fmt::format("sim:seed={}&changes={}&instruments={}&eof=stop", options.seed,
                             options.changes, options.instruments);
    if (!works_in_step(run.device)) {
        throw Failure(kUsage, "the demo needs the software card, and this build is for the ExaNIC; "
                              "build with the preset release");
    }
    std::unique_ptr<Recorder> recorder;
    if (!globals.output.empty()) {
        RecorderRequest request;
        request.output = globals.output;
        request.force = globals.force;
        request.config = effective_config(IniFile{});
        request.config.device = run.device;
        recorder = open_recorder(request);
    }
    say(globals, "a session of both exchanges, simulated, through the software card ({})",
        run.device);
    DemoTable table;
    Outcome outcome;
    try {
        Watcher watcher(table, recorder.get(), options.changes, globals);
        outcome.feed = run_feed(run, watcher);
        watcher.finish();
    } catch (...) {
        if (recorder) {
            recorder->finish(false);
        }
        throw;
    }
    if (recorder) {
        outcome.recorded = recorder->finish(outcome.feed.result == 0);
    }
    if (outcome.feed.result != 0) {
        throw Failure(kFailed, fmt::format("the feed gave up: {}", reason_of(outcome.feed.log)));
    }
    // The same options give the same session: now for its truth alone.
    exchange_sim::Session truth(session);
    for (exchange_sim::WireFrame frame; truth.next(frame);) {
    }
    const auto made = truth.counters();
    // All instruments are subscribed, so that every datagram of a session comes through.
    outcome.whole = outcome.feed.counters.decode_buffers == made.datagrams;
    if (outcome.whole) {
        outcome.comparison = table.compare(truth);
    }
    const double live =
        std::chrono::duration<double>(
            outcome.feed.counters.time_in[static_cast<std::size_t>(FeedPhase::kLive)])
            .count();
    outcome.rate = live > 0 ? static_cast<double>(table.updates()) / live : 0;
    globals.json ? print_json(table, outcome, made) : print_text(table, outcome, made);
    if (outcome.recorded.lost() != 0 || outcome.recorded.unnamed) {
        throw Failure(outcome.recorded.unnamed ? kFailed : kDiffer,
                      outcome.recorded.unnamed ? outcome.recorded.trouble
                                               : loss_text(outcome.recorded));
    }
    if (!outcome.whole) {
        say(globals, "interrupted before the session was over: not compared with the truth");
        return kFine;
    }
    if (outcome.comparison.different != 0) {
        throw Failure(kDiffer, fmt::format("{} records differ from the exchange's truth",
                                           grouped(outcome.comparison.different)));
    }
    return kFine;
}

} // namespace

void add_demo(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "demo", "simulate a session, run the feed over it and check what it holds",
        {{"vorn demo", "a million changes in 400 instruments; takes some seconds"},
         {"vorn demo --seed 8 --instruments 2000", "another market, a larger one"},
         {"vorn demo -o session.pcap", "and record it; vorn replay plays the recording"}});
    auto options = std::make_shared<DemoOptions>();
    sub.add_option("--seed", options->seed, "seed of the session (7)")->option_text("N");
    sub.add_option("--changes", options->changes, "length in changes (1000000)")->option_text("N");
    sub.add_option("--instruments", options->instruments, "instruments of both exchanges (400)")
        ->option_text("N");
    add_output_options(sub, globals, ".pcap, .csv");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_demo(*options, g); });
}

} // namespace vorn_cli
