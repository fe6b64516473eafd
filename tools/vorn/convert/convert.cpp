// vorn convert: rows for research from a capture, a recording or a bus.

#include "bus/bus_layout.h"
#include "tools/vorn/convert/row_sources.h"
#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <unistd.h>

namespace vorn_cli {

namespace {

struct ConvertOptions {
    std::string input;
    std::string bus;
    bool no_follow = false;
    std::string config;
    std::string format;
    std::string from;
    std::string to;
    std::string instruments;
    uint64_t limit = 0;
    std::string duckdb;
};

struct Input {
    SourceKind kind;
    std::string name;
};

Input choose_input(const ConvertOptions& options) {
    if (options.input.empty() == options.bus.empty()) {
        throw Failure(kUsage, "say what to convert, one thing: a FILE, or --bus NAME");
    }
    Input input{options.bus.empty() ? kind_of_file(options.input) : SourceKind::kBus,
                options.bus.empty() ? options.input : options.bus};
    if (options.no_follow && input.kind != SourceKind::kBus) {
        throw Failure(kUsage, "--no-follow is for a bus");
    }
    if (!options.config.empty() && input.kind != SourceKind::kCapture) {
        throw Failure(kUsage, "--config is for a capture: no feed runs over anything else");
    }
    return input;
}

// What a .part of an earlier run holds cannot be made again when it came from a bus.
void refuse_left_behind(const std::string& part, bool force) {
    std::error_code error;
    if (!force && std::filesystem::exists(part, error)) {
        throw Failure(kUsage, fmt::format("{} is left of an earlier run: rename it, or replace it "
                                          "with -f",
                                          part));
    }
}

SourceEnd read_rows(const Input& input, const ConvertOptions& options, RowTaker& taker) {
    switch (input.kind) {
    case SourceKind::kCapture:
        return rows_of_capture(input.name, options.config, taker);
    case SourceKind::kCsv:
        return rows_of_csv(input.name, taker);
    case SourceKind::kNpy:
        return rows_of_npy(input.name, taker);
    default:
        return rows_of_bus(input.name, !options.no_follow, taker);
    }
}

void report_json(const Input& input, const std::string& output, RowFormat format,
                 const RowTaker& taker, const SourceEnd& end, uint64_t bytes) {
    const RowCounts& counts = taker.counts();
    nlohmann::json events = nlohmann::json::object();
    for (uint16_t event = 1; event < kRowEvents; ++event) {
        events[row_event_name(static_cast<RowEvent>(event))] = counts.events[event];
    }
    DataOut out(STDOUT_FILENO);
    out.json({{"input", input.name},
              {"input_kind", source_kind_name(input.kind)},
              {"output", output},
              {"format", row_format_name(format)},
              {"bytes", bytes},
              {"rows", counts.rows},
              {"updates", counts.updates},
              {"instruments", taker.instruments()},
              {"events", events},
              {"first_time_ns", counts.first_time_ns},
              {"last_time_ns", counts.last_time_ns},
              {"limit_reached", taker.limit_reached()},
              {"interrupted", end.interrupted},
              {"remark", end.remark}});
    out.close();
}

void report_text(const std::string& output, const RowTaker& taker, const SourceEnd& end,
                 uint64_t bytes, const Globals& globals) {
    const RowCounts& counts = taker.counts();
    std::string events;
    for (uint16_t event = 1; event < kRowEvents; ++event) {
        if (counts.events[event] != 0) {
            events +=
                fmt::format("{}{} {}", events.empty() ? " (" : ", ", grouped(counts.events[event]),
                            row_event_name(static_cast<RowEvent>(event)));
        }
    }
    say(globals, "{}: {} rows{}: {} updates of {} instruments, {} events{}{}",
        printable(output.empty() ? "standard output" : output), grouped(counts.rows),
        bytes != 0 ? fmt::format(", {:.1f} MB", static_cast<double>(bytes) / 1e6) : std::string(),
        grouped(counts.updates), grouped(taker.instruments()), grouped(counts.all_events()), events,
        events.empty() ? "" : ")");
    if (end.interrupted) {
        say(globals, "interrupted; the rows end there");
    }
    if (!end.remark.empty() && !end.failed) {
        say(globals, "{}", printable(end.remark));
    }
}

int run_convert(const ConvertOptions& options, const Globals& globals) {
    RowFilterOptions wanted;
    wanted.from = TimeBound::parse("--from", options.from);
    wanted.to = TimeBound::parse("--to", options.to);
    wanted.instruments = options.instruments;
    wanted.limit = options.limit;
    const RowFilter filter(wanted);
    const std::string output = globals.output == "-" ? "" : globals.output;
    const RowFormat format = choose_row_format(output, options.format);
    if (output.empty() && globals.json) {
        throw Failure(kUsage, "rows and --json cannot both go to standard output; name a file with "
                              "-o");
    }
    const Input input = choose_input(options);
    const bool only_once = input.kind == SourceKind::kBus;
    if (only_once && !output.empty()) {
        refuse_left_behind(output + (format == RowFormat::kParquet ? ".rows.npy.part" : ".part"),
                           globals.force);
    }
    const std::unique_ptr<RowSink> sink =
        open_row_sink({output, format, globals.force, options.duckdb});
    Progress progress(globals, "rows", options.limit);
    RowTaker taker(filter, *sink, progress);
    SourceEnd end;
    try {
        end = read_rows(input, options, taker);
        progress.finish();
        if (end.failed && taker.counts().updates == 0) {
            throw Failure(kFailed, end.remark);
        }
        sink->finish();
    } catch (const Failure& failure) {
        const std::string left =
            only_once && taker.counts().rows != 0 ? sink->leave() : std::string();
        throw left.empty()
            ? failure
            : Failure(failure.code(),
                      fmt::format("{}; the rows until then are in {}", failure.what(), left));
    }
    if (globals.json) {
        report_json(input, output, format, taker, end, sink->bytes());
    } else {
        report_text(output, taker, end, sink->bytes(), globals);
    }
    if (end.failed) {
        throw Failure(kFailed, end.remark);
    }
    if (end.lost) {
        throw Failure(kDiffer, fmt::format("{} records of the bus were overwritten before they "
                                           "were read; rows of event 'lost' say where",
                                           taker.counts().events_of(RowEvent::kLost)));
    }
    return kFine;
}

} // namespace

void add_convert(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "convert", "rows for research from a capture, a recording or a bus",
        {{"vorn convert session.pcap -o session.npy", "every update with ten levels, for numpy"},
         {"vorn convert session.pcap -o au.parquet --instruments au", "one product, for anything "
                                                                      "that reads Parquet"},
         {"vorn convert session.npy -o open.npy --from 09:00 --to 09:05", "a part of it"},
         {"vorn convert updates.csv -o updates.npy", "what the recorder wrote"},
         {"vorn convert --bus live -o today.npy", "the running feed, until Ctrl+C"}});
    auto options = std::make_shared<ConvertOptions>();
    sub.add_option("FILE", options->input,
                   "capture (pcap, pcapng), CSV of the recorder, .npy of vorn convert, or the file "
                   "of a bus");
    sub.add_option("--bus", options->bus, "read this bus: what it holds, then what comes")
        ->option_text("NAME");
    sub.add_flag("--no-follow", options->no_follow, "a bus: only what it holds now");
    sub.add_option(
           "--config", options->config,
           "a capture: configuration of the feed (its device is not used); by default every "
           "instrument of both feeds")
        ->option_text("FILE");
    sub.add_option("--format", options->format,
                   "npy, csv or parquet, whatever the name of the output says")
        ->option_text("NAME");
    sub.add_option("--from", options->from,
                   "rows received from then on: time of day at the exchange (09:30:15.250) or "
                   "nanoseconds since 1970")
        ->option_text("TIME");
    sub.add_option("--to", options->to, "rows received before then")->option_text("TIME");
    sub.add_option("--instruments", options->instruments,
                   "updates of these, as in the configuration's insts (cu2603,au); events are "
                   "always there")
        ->option_text("LIST");
    sub.add_option("--limit", options->limit, "the first N of these rows, events included")
        ->option_text("N")
        ->check(CLI::PositiveNumber);
    sub.add_option("--duckdb", options->duckdb,
                   "DuckDB's library, which writes Parquet (libduckdb.so; VORN_DUCKDB names it, "
                   "too)")
        ->option_text("PATH");
    add_output_options(sub, globals, ".npy, .csv, .parquet");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_convert(*options, g); });
}

} // namespace vorn_cli
