// vorn record: runs the feed with whatever card there is and writes what the card delivers, or what
// the feed makes of it.

#include "tools/vorn/check/effective_config.h"
#include "tools/vorn/data_out.h"
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
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include <bitset>
#include <memory>
#include <unistd.h>

namespace vorn_cli {

namespace {

struct RecordOptions {
    std::string config;
    std::string rotate_size;
    std::string rotate_every;
    std::string ring_size = "32M";
    bool write_through = false;
};

class Watcher final : public FeedWatcher {
public:
    Watcher(Recorder& recorder, const Globals& globals)
        : recorder_(recorder), progress_(globals, "updates", 0) {}

    void on_update(const instrument& record, uint32_t slot) override {
        recorder_.on_update(record);
        ++updates_;
        seen_.set(slot);
        progress_.update(updates_);
    }
    void on_phase(FeedPhase phase) override { recorder_.on_phase(phase); }
    void on_first_update(uint64_t later) override { recorder_.on_first_update(later); }
    FrameKeeper* frame_keeper() override { return recorder_.frame_keeper(); }

    void finish() { progress_.finish(); }
    uint64_t updates() const { return updates_; }
    std::size_t instruments() const { return seen_.count(); }

private:
    Recorder& recorder_;
    Progress progress_;
    uint64_t updates_ = 0;
    std::bitset<INSTRUMENT_SLOT_CNT> seen_;
};

void report_json(const FeedReport& report, const Watcher& watcher, const RecorderCounts& counts) {
    nlohmann::json object = to_json(report);
    object["updates"] = watcher.updates();
    object["instruments"] = watcher.instruments();
    object["files"] = counts.files;
    object["recorded"] = counts.records;
    object["recorded_bytes"] = counts.bytes;
    object["lost_in_ring"] = counts.lost_in_ring;
    object["lost_on_disk"] = counts.lost_on_disk;
    if (!counts.trouble.empty()) {
        object["trouble"] = counts.trouble;
    }
    DataOut out(STDOUT_FILENO);
    out.json(object);
    out.close();
}

void report_text(const FeedReport& report, const Watcher& watcher, const RecorderCounts& counts,
                 const char* unit, const Globals& globals) {
    const TapCounters& c = report.counters;
    say(globals, "{}: {} {}, {:.1f} MB, of {} updates of {} instruments{}",
        printable(counts.files.empty() ? "nothing kept" : counts.files.back()),
        grouped(counts.records), unit, static_cast<double>(counts.bytes) / 1e6,
        grouped(watcher.updates()), grouped(watcher.instruments()),
        counts.files.size() > 1 ? fmt::format(", the last of {} files", counts.files.size())
                                : std::string());
    if (c.gaps != 0) {
        say(globals, "the feed met {} gaps and started again {} times", grouped(c.gaps),
            grouped(c.cycles - 1));
    }
    if (c.overflows != 0) {
        say(globals, "the card lost frames {} times before they were read", grouped(c.overflows));
    }
    for (const std::string& line : feed_lines(report)) {
        detail(globals, 1, "{}", printable(line));
    }
}

int run_record(const RecordOptions& options, const Globals& globals) {
    RecorderRequest request;
    request.output = globals.output;
    request.force = globals.force;
    request.rotate_bytes = parse_size("--rotate-size", options.rotate_size);
    request.rotate_ns = parse_duration("--rotate-every", options.rotate_every);
    request.ring_bytes = parse_size("--ring-size", options.ring_size);
    request.write_through = options.write_through;
    request.config = effective_config(read_ini(read_config(options.config)));
    if (globals.output.empty()) {
        throw Failure(kUsage, "say where to write: -o session.pcap, or -o updates.csv");
    }
    const std::unique_ptr<Recorder> recorder = open_recorder(request);
    Watcher watcher(*recorder, globals);
    FeedReport report;
    try {
        report = run_feed({options.config, {}, 0}, watcher);
    } catch (...) {
        recorder->finish(false);
        throw;
    }
    watcher.finish();
    detail(globals, 1, "the feed has ended; finishing the file");
    const RecorderCounts counts = recorder->finish(report.result == 0);
    if (globals.json) {
        report_json(report, watcher, counts);
    } else {
        report_text(report, watcher, counts,
                    suffix_of(globals.output, recording_suffixes()) == ".csv" ? "rows" : "frames",
                    globals);
    }
    if (report.result != 0) {
        throw Failure(kFailed, fmt::format("the feed gave up: {}", reason_of(report.log)));
    }
    if (counts.unnamed) {
        throw Failure(kFailed, counts.trouble);
    }
    if (counts.lost() != 0) {
        throw Failure(kDiffer, loss_text(counts));
    }
    return kFine;
}

} // namespace

void add_record(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "record", "run the feed and write every frame, or every update, until Ctrl+C",
        {{"vorn record --config vorn.ini -o session.pcap", "every frame of both receive paths; "
                                                           "vorn replay plays it"},
         {"vorn record --config vorn.ini -o updates.csv", "every update as a row of the recorder"},
         {"vorn record --config vorn.ini -o day.pcap --rotate-every 1h",
          "day.0001.pcap, day.0002.pcap and so on"}});
    auto options = std::make_shared<RecordOptions>();
    sub.add_option("--config", options->config, "configuration of the feed")
        ->option_text("FILE")
        ->required();
    sub.add_option("--rotate-size", options->rotate_size,
                   "start another file before one becomes larger (as in 500M, 1G)")
        ->option_text("SIZE");
    sub.add_option("--rotate-every", options->rotate_every,
                   "start another file when one holds this much time (as in 30s, 15m, 1h)")
        ->option_text("TIME");
    sub.add_option("--ring-size", options->ring_size,
                   "room for what waits to be written, for each receive path (32M)")
        ->option_text("SIZE");
    sub.add_flag("--write-through", options->write_through,
                 "rows: each is in the file before the feed goes on, which then waits for it");
    add_output_options(sub, globals, ".pcap, .csv");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_record(*options, g); });
}

} // namespace vorn_cli
