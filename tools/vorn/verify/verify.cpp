// vorn verify: every update of the feed against the truth that lies beside the capture.

#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/fault_options.h"
#include "tools/vorn/feed/feed_run.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/session_files.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/terminal.h"
#include "tools/vorn/verify/truth_match.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace vorn_cli {

namespace {

struct VerifyOptions {
    std::string capture;
    std::string truth;
    std::string config;
    bool allow_restarts = false;
    FaultOptions faults;
    bool complete = false; // every instrument of the truth must have been updated
};

class Matcher final : public FeedWatcher {
public:
    Matcher(const std::string& truth, const Globals& globals)
        : match_(truth), progress_(globals, "updates", 0) {}

    void on_phase(FeedPhase phase) override {
        if (phase == FeedPhase::kSnapshot) {
            match_.snapshot_begins();
        }
    }
    // A damaged truth file must not throw through the feed: it is kept and told afterwards.
    void on_update(const instrument& record, uint32_t slot) override {
        progress_.update(match_.updates());
        if (!damage_.empty()) {
            return;
        }
        try {
            match_.update(record, slot);
        } catch (const std::runtime_error& error) {
            damage_ = error.what();
        }
    }
    TruthMatch& finish(bool all_subscribed) {
        progress_.finish();
        if (!damage_.empty()) {
            throw Failure(kFailed, damage_);
        }
        // A feed that never got going has a reason of its own, and not one for each instrument.
        match_.finish(all_subscribed && match_.updates() != 0);
        return match_;
    }

private:
    TruthMatch match_;
    Progress progress_;
    std::string damage_;
};

void report_json(const TruthMatch& match, const FeedReport& report) {
    DataOut out(STDOUT_FILENO);
    for (const Difference& d : match.shown()) {
        out.json({{"type", "difference"},
                  {"instrument", d.instrument},
                  {"change_no", d.change_no},
                  {"field", d.field},
                  {"expected", d.expected},
                  {"got", d.got}});
    }
    nlohmann::json summary = to_json(report);
    summary["type"] = "summary";
    summary["updates"] = match.updates();
    summary["instruments"] = match.instruments();
    summary["instruments_updated"] = match.updated();
    summary["differences"] = match.differences();
    out.json(summary);
    out.close();
}

void report_text(const TruthMatch& match, const FeedReport& report, const Globals& globals) {
    DataOut out(STDOUT_FILENO);
    for (const Difference& d : match.shown()) {
        out.line(printable(fmt::format("{} change {}: {}: expected {}, got {}", d.instrument,
                                       d.change_no, d.field, d.expected, d.got)));
    }
    if (match.differences() > match.shown().size()) {
        out.line(fmt::format("and {} more", grouped(match.differences() - match.shown().size())));
    }
    out.close();
    for (const std::string& line : feed_lines(report)) {
        detail(globals, 1, "{}", printable(line));
    }
}

int run_verify(const VerifyOptions& options, const Globals& globals) {
    if (options.capture.empty() && (options.config.empty() || options.truth.empty())) {
        throw Failure(kUsage, "say what to verify: CAPTURE, or with --config and --truth what "
                              "the configuration's own device brings");
    }
    const std::string truth =
        options.truth.empty() ? session_files(options.capture).truth : options.truth;
    const std::string faults = fault_device_options(options.faults);
    std::unique_ptr<Matcher> matcher;
    try {
        matcher = std::make_unique<Matcher>(truth, globals);
    } catch (const std::runtime_error& error) {
        throw Failure(kFailed, fmt::format("{} (the truth lies beside the capture as vorn sim "
                                           "wrote it; --truth names another)",
                                           error.what()));
    }
    const FeedReport report = run_feed({options.config, options.capture, 0, faults}, *matcher);
    const TruthMatch& match = matcher->finish(options.config.empty() || options.complete);
    if (globals.json) {
        report_json(match, report);
    } else {
        report_text(match, report, globals);
    }
    if (match.differences() != 0) {
        // A gap names the instrument from which everything else may follow.
        throw Failure(kDiffer, fmt::format("{} differences in {} updates{}",
                                           grouped(match.differences()), grouped(match.updates()),
                                           report.counters.gaps == 0 ? std::string()
                                                                     : "; the capture has a gap: " +
                                                                           reason_of(report.log)));
    }
    if (report.result != 0) {
        throw Failure(kFailed, fmt::format("the feed gave up: {}", reason_of(report.log)));
    }
    if (report.counters.gaps != 0 && !options.allow_restarts) {
        throw Failure(kDiffer,
                      fmt::format("the capture has a gap: {} (--allow-restarts takes the recovery "
                                  "for an answer)",
                                  reason_of(report.log)));
    }
    if (match.updates() == 0) {
        throw Failure(kDiffer,
                      "the feed made no update: is a whole snapshot round in the capture?");
    }
    say(globals, "{} updates of {} instruments equal the truth", grouped(match.updates()),
        grouped(match.updated()));
    return kFine;
}

} // namespace

void add_verify(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "verify", "hold every update of the feed against the truth of the session",
        {{"vorn verify session.pcap", "against session.truth; status 3 on a difference"},
         {"vorn verify session.pcap --json", "one object a difference, then a summary"},
         {"vorn verify faulty.pcap --allow-restarts", "a gap is fine when the feed recovers"},
         {"vorn verify --config live.ini --truth session.truth", "a session as it comes from the "
                                                                 "configuration's device"}});
    auto options = std::make_shared<VerifyOptions>();
    sub.add_option("CAPTURE", options->capture,
                   "capture written by vorn sim; without it the "
                   "configuration's device is used");
    sub.add_option("--truth", options->truth, "truth file, if it does not lie beside the capture")
        ->option_text("FILE");
    sub.add_option(
           "--config", options->config,
           "configuration of the feed (its device counts only without CAPTURE); by default every "
           "instrument of both feeds")
        ->option_text("FILE");
    sub.add_flag("--complete", options->complete,
                 "with --config: an instrument without an update is a difference, too");
    sub.add_flag("--allow-restarts", options->allow_restarts, "do not take a gap for a difference");
    add_fault_options(sub, options->faults);
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_verify(*options, g); });
}

} // namespace vorn_cli
