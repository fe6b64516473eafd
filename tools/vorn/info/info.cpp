// vorn info: what is in a capture, in one pass and without running the feed. It reports and does
// not judge: gaps and damage do not change the exit status, unless nothing could be read at all.

#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/info/info_report.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/subcommands.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr std::size_t kRecordHeader = 16; // of a frame in a pcap, for the progress line

struct InfoOptions {
    std::string capture;
    std::string config;
    bool instruments = false;
    bool gaps = false;
};

CaptureNames names_of(const std::string& config, const Globals& globals) {
    if (config.empty()) {
        return capture_names(effective_config({}));
    }
    std::ifstream file(config, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) {
        throw Failure(kUsage, fmt::format("{}: cannot be read: {}", config, std::strerror(errno)));
    }
    CaptureNames names = capture_names(effective_config(read_ini(content)));
    if (!names.unusable.empty()) {
        say(globals,
            "vorn info: {} in {}: not an address and a port, its line has no name here "
            "(vorn check {} says more)",
            fmt::join(names.unusable, ", "), config, config);
    }
    return names;
}

void write_json(DataOut& out, const CaptureFacts& facts, const CaptureTallies& tallies,
                const InfoOptions& options) {
    out.json(summary_json(facts, tallies));
    if (options.instruments) {
        for_each_instrument(tallies, [&](Side side, uint32_t inst_no, const InstrumentTally& one) {
            out.json(instrument_json(side, inst_no, one));
        });
    }
    if (options.gaps) {
        for (const Gap& gap : tallies.changes().gaps()) {
            out.json(gap_json(gap, tallies));
        }
    }
}

void write_text(DataOut& out, const CaptureFacts& facts, const CaptureTallies& tallies,
                const InfoOptions& options) {
    for (const std::string& line : summary_lines(facts, tallies)) {
        out.line(line);
    }
    if (options.instruments) {
        out.line("");
        out.line(instrument_heading());
        for_each_instrument(tallies, [&](Side side, uint32_t inst_no, const InstrumentTally& one) {
            out.line(instrument_line(side, inst_no, one));
        });
    }
    if (options.gaps && !tallies.changes().gaps().empty()) {
        out.line("");
        for (const Gap& gap : tallies.changes().gaps()) {
            out.line(gap_line(gap, tallies));
        }
    }
}

// Frames until the end, or until a signal.
void read_frames(CaptureReader& capture, CaptureTallies& tallies, CaptureFacts& facts,
                 const Globals& globals) {
    RunFlag flag;
    Progress progress(globals, "bytes", facts.format.bytes);
    uint64_t bytes = 0;
    for (CaptureFrame frame; flag.running() && capture.next(frame);) {
        tallies.add(frame);
        bytes += kRecordHeader + frame.bytes.size();
        progress.update(bytes);
    }
    progress.finish();
    tallies.finish();
    facts.damage = capture.damage();
    facts.interrupted = !flag.running();
}

int run_info(InfoOptions options, const Globals& globals) {
    options.instruments = options.instruments || (globals.verbose > 0 && !globals.json);
    CaptureTallies tallies(names_of(options.config, globals));
    CaptureReader capture(options.capture);
    CaptureFacts facts{options.capture, capture.format(), {}, false};
    read_frames(capture, tallies, facts, globals);
    if (!facts.damage.empty() && tallies.capture().frames == 0) {
        throw Failure(kFailed,
                      fmt::format("{}: no frame can be read: {}", options.capture, facts.damage));
    }

    DataOut out(STDOUT_FILENO);
    if (globals.json) {
        write_json(out, facts, tallies, options);
    } else {
        write_text(out, facts, tallies, options);
    }
    out.close();
    if (!facts.damage.empty()) {
        say(globals, "vorn info: {}: unfinished or damaged behind frame {}: {}", options.capture,
            tallies.capture().frames, facts.damage);
    }
    if (facts.interrupted) {
        say(globals, "vorn info: interrupted; this is what there was up to frame {}",
            tallies.capture().frames);
    }
    return kFine;
}

} // namespace

void add_info(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "info", "what is in a capture",
        {{"vorn info day.pcap", "sessions, lines, instruments, gaps"},
         {"vorn info day.pcap -v", "also a table of the instruments"},
         {"vorn info day.pcap --gaps", "also every gap, with the frame that shows it"},
         {"vorn info day.pcap --json | jq .shfe.missing", "a number for a script"},
         {"vorn info day.pcap --config vorn.ini", "with your own addresses, ports and topics"}});
    auto options = std::make_shared<InfoOptions>();
    sub.add_option("CAPTURE", options->capture, "capture file (pcap, pcapng)")->required();
    sub.add_option("--config", options->config,
                   "configuration of the feed to take addresses, ports and topics from; by default "
                   "those that an empty one has")
        ->option_text("FILE");
    sub.add_flag("--instruments", options->instruments, "list every instrument (as -v does)");
    sub.add_flag("--gaps", options->gaps, "list every gap (the first 100,000)");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_info(*options, g); });
}

} // namespace vorn_cli
