// vorn fanout: sends what a bus shows to NATS JetStream, for other machines. It reads the bus as
// any reader does, so that no server and no network can hold the feed up.

#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/fanout/fanout_report.h"
#include "tools/vorn/fanout/payload.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/record/open_recorder.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <memory>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr uint64_t kReportNs = 1'000'000'000;
constexpr int64_t kIdleMs = 1; // between two looks at a bus that has nothing new
constexpr uint64_t kLongestWindowNs = 3600ull * 1'000'000'000;

struct FanoutOptions {
    std::string bus = vorn_bus::kDefaultName;
    NatsOptions nats;
    StreamOptions stream;
    std::string label;
    std::string name;
    std::string window = "2m";
    std::string max_age = "24h";
    std::string max_size = "4G";
    std::string format = "binary";
    std::size_t buffer = 131'072;
    std::size_t under_way = 1024;
    double drain_s = 5;
    bool until_closed = false;
};

uint64_t now_ns() {
    return vorn_bus::clock_ns(CLOCK_MONOTONIC);
}

// The host's name as far as it can be one of ours.
std::string host_name() {
    char host[256] = "";
    ::gethostname(host, sizeof(host) - 1);
    std::string name;
    for (const char* c = host; *c != '\0' && *c != '.' && name.size() < kStampSize - 1; ++c) {
        name += is_stamp_name(std::string(1, *c)) ? *c : '-';
    }
    return name.empty() ? "vorn" : name;
}

void check_options(const FanoutOptions& options) {
    if (!is_stamp_name(options.label)) {
        throw Failure(kUsage, fmt::format("--label '{}': at most 15 letters, digits, '_' and '-', "
                                          "the same at every publisher, another one each session",
                                          options.label));
    }
    if (!is_stamp_name(options.name)) {
        throw Failure(kUsage, fmt::format("--name '{}': at most 15 letters, digits, '_' and '-'",
                                          options.name));
    }
    if (options.stream.name.find_first_of(" .*>/\\\t") != std::string::npos ||
        options.stream.name.empty()) {
        throw Failure(kUsage, fmt::format("--stream '{}' is not a name for a stream (letters, "
                                          "digits, '_' and '-')",
                                          options.stream.name));
    }
    if (options.stream.window_ns < 1'000'000'000 || options.stream.window_ns > kLongestWindowNs) {
        throw Failure(kUsage, "--window must be from 1s to 1h");
    }
}

class Fanout {
public:
    Fanout(const FanoutOptions& options, const Globals& globals, const NatsLink& link,
           const StreamFacts& stream)
        : options_(options), globals_(globals), link_(link), lanes_(options.buffer),
          source_(options.bus, stream.window_ns / 2), sender_(link, sender_options(stream), lanes_),
          out_(STDOUT_FILENO) {}

    void run(const RunFlag& flag) {
        report_ns_ = now_ns();
        bool took = false;
        while (flag.running() &&
               !(options_.until_closed && source_.exhausted() && lanes_.size() == 0)) {
            took = source_.poll(lanes_, now_ns());
            sender_.work(took ? 0 : kIdleMs);
            look(false);
        }
        drain();
        look(true);
        out_.close();
    }
    FanoutParts parts() const { return {link_, source_, lanes_, sender_}; }

private:
    SenderOptions sender_options(const StreamFacts& stream) const {
        SenderOptions sender;
        sender.stamp = {options_.name, options_.label};
        sender.format = options_.format == "json" ? PayloadFormat::kJson : PayloadFormat::kBinary;
        sender.stream = options_.stream.name;
        sender.window_ns = stream.window_ns;
        sender.under_way = options_.under_way;
        return sender;
    }

    // What has been read is sent, if that does not take too long.
    void drain() {
        const uint64_t end = now_ns() + static_cast<uint64_t>(std::llround(options_.drain_s * 1e9));
        while (lanes_.size() != 0 && now_ns() < end) {
            sender_.work(kIdleMs);
            look(false);
        }
    }

    void look(bool last) {
        if (natsConnection_Status(link_.connection()) == NATS_CONN_STATUS_CLOSED) {
            throw Failure(kFailed, "the server has closed the connection for good");
        }
        const uint64_t now = now_ns();
        if (!last && now - report_ns_ < kReportNs) {
            return;
        }
        const double seconds = static_cast<double>(now - report_ns_) / 1e9;
        if (globals_.json) {
            out_.json(fanout_json(parts()));
            out_.flush();
        } else {
            detail(globals_, 1, "{}", fanout_line(parts(), over_, seconds));
        }
        report_ns_ = now;
        over_ = sender_.counts().over();
        tell_changes();
    }

    void tell_changes() {
        if (const uint64_t dropped = source_.counts().dropped; dropped != dropped_) {
            say(globals_, "{} updates and events were overwritten before they could be sent",
                grouped(dropped - dropped_));
            dropped_ = dropped;
        }
        const std::string trouble = fanout_trouble(parts());
        if (trouble != trouble_) {
            say(globals_, "{}", trouble.empty() ? std::string("all goes well again") : trouble);
            trouble_ = trouble;
        }
    }

    const FanoutOptions& options_;
    const Globals& globals_;
    const NatsLink& link_;
    Lanes lanes_;
    BusSource source_;
    Sender sender_;
    DataOut out_;
    uint64_t report_ns_ = 0;
    uint64_t over_ = 0;
    uint64_t dropped_ = 0;
    std::string trouble_;
};

void tell_stream(const FanoutOptions& options, const StreamFacts& stream, const Globals& globals) {
    if (stream.created) {
        detail(globals, 1, "made the stream {}", options.stream.name);
    } else if (stream.window_ns != options.stream.window_ns) {
        say(globals, "the stream {} is there already, with a window of {} s, and stays as it is",
            options.stream.name, stream.window_ns / 1'000'000'000);
    }
}

int end_of(const FanoutParts& parts, const FanoutOptions& options, const Globals& globals) {
    say(globals, "{} sent, {} that the stream had, {} dropped",
        grouped(parts.sender.counts().stored),
        grouped(parts.sender.counts().duplicates + parts.sender.counts().known),
        grouped(parts.source.counts().dropped));
    if (parts.lanes.size() != 0) {
        throw Failure(kFailed,
                      fmt::format("{} messages were not acknowledged within {:g} s of the end: {}",
                                  parts.lanes.size(), options.drain_s, fanout_trouble(parts)));
    }
    return kFine;
}

int run_fanout(FanoutOptions options, const Globals& globals) {
    options.stream.window_ns = parse_duration("--window", options.window);
    options.stream.max_age_ns = parse_duration("--max-age", options.max_age);
    options.stream.max_bytes = parse_size("--max-size", options.max_size);
    options.name = options.name.empty() ? host_name() : options.name;
    check_options(options);
    try {
        vorn_bus::bus_path(options.bus);
    } catch (const vorn_bus::BusError& error) {
        throw Failure(kUsage, error.what());
    }
    const RunFlag flag;
    const auto running = [&flag] { return flag.running(); };
    const uint64_t deadline =
        now_ns() + static_cast<uint64_t>(std::llround(options.nats.wait_s * 1e9));
    const NatsLink link(options.nats, "vorn fanout " + options.name, running);
    if (!link.made()) {
        return kFine;
    }
    const StreamFacts stream = open_stream(link.jetstream(), options.stream, deadline, running);
    if (!flag.running()) {
        return kFine;
    }
    tell_stream(options, stream, globals);
    say(globals, "sending the bus {} as {} to the stream {} at {}; Ctrl+C ends it", options.bus,
        options.name, options.stream.name, link.server());
    Fanout fanout(options, globals, link, stream);
    fanout.run(flag);
    return end_of(fanout.parts(), options, globals);
}

void add_stream_options(CLI::App& sub, FanoutOptions& options) {
    sub.add_option("--stream", options.stream.name, "name of the JetStream stream (VORN)")
        ->option_text("NAME");
    sub.add_option("--replicas", options.stream.replicas,
                   "servers that keep the stream, when it is made (1); 3 lose one without harm")
        ->option_text("N")
        ->check(CLI::Range(1, 5));
    sub.add_flag("--memory", options.stream.memory, "keep it in memory, when it is made");
    sub.add_option("--window", options.window,
                   "for how long the stream knows what it has, when it is made (2m)")
        ->option_text("TIME");
    sub.add_option("--max-age", options.max_age, "the stream forgets what is older (24h)")
        ->option_text("TIME");
    sub.add_option("--max-size", options.max_size,
                   "the stream forgets the oldest when it is larger (4G)")
        ->option_text("SIZE");
}

} // namespace

void add_fanout(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "fanout", "send what a bus shows to other machines, through NATS JetStream",
        {{"vorn fanout --label 20260115", "the bus 'live' to nats://127.0.0.1:4222"},
         {"vorn fanout --label 20260115 -s nats://a,nats://b,nats://c --replicas 3",
          "to a cluster, of which one server may fail"},
         {"vorn fanout --label 20260115 --json", "with its counters every second"}});
    auto options = std::make_shared<FanoutOptions>();
    sub.add_option("--label", options->label,
                   "trading session: the same at every publisher, another one each session")
        ->option_text("NAME")
        ->required();
    sub.add_option("--bus", options->bus, "bus to read, by name or path (live)")
        ->option_text("NAME");
    add_nats_options(sub, options->nats);
    sub.add_option("--name", options->name, "of this publisher (the host's name)")
        ->option_text("NAME");
    sub.add_option("--format", options->format,
                   "binary (as docs/fanout.md has it) or json; a tap can only print json")
        ->option_text("FORMAT")
        ->check(CLI::IsMember({"binary", "json"}));
    add_stream_options(sub, *options);
    sub.add_option("--buffer", options->buffer,
                   "messages that may wait for the server, besides the bus's own ring (131072)")
        ->option_text("N")
        ->check(CLI::Range(1024, 16'777'216));
    sub.add_option("--under-way", options->under_way,
                   "messages that may be unacknowledged at a time (1024)")
        ->option_text("N")
        ->check(CLI::Range(1, 20'481));
    sub.add_option("--drain", options->drain_s,
                   "at the end, wait so long for what was not acknowledged yet (5)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.0, 1e6));
    sub.add_flag("--until-closed", options->until_closed,
                 "end when the bus's writer has ended and all of it is sent");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_fanout(*options, g); });
}

} // namespace vorn_cli
