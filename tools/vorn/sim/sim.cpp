// vorn sim: a simulated session as a capture, with the truth and a manifest beside it.

#include "exchange_sim/pcap_writer.h"
#include "exchange_sim/session_options.h"
#include "exchange_sim/truth_file.h"
#include "faults/fault_filter.h"
#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/fault_options.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/session_files.h"
#include "tools/vorn/sim/live_exchange.h"
#include "tools/vorn/sim/sha256.h"
#include "tools/vorn/subcommands.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <unistd.h>

namespace vorn_cli {

namespace {

struct SimOptions {
    uint64_t seed = 7;
    std::string seconds;
    std::string changes;
    uint32_t instruments = 400;
    uint32_t rate = 20'000;
    std::vector<std::string> set; // key=value, any option of the simulator
    bool no_truth = false;
    FaultOptions faults;
    bool live = false;
    LiveOptions network; // live only
};

exchange_sim::SessionOptions session_options(const SimOptions& options) {
    std::map<std::string, std::string> pairs = {
        {"seed", std::to_string(options.seed)},
        {"instruments", std::to_string(options.instruments)},
        {"rate", std::to_string(options.rate)},
        // The session ends at whichever comes first; by default it lasts a minute.
        {"seconds", options.seconds.empty() && options.changes.empty() ? "60" : options.seconds},
        {"changes", options.changes.empty() ? "0" : options.changes},
    };
    if (pairs["seconds"].empty()) {
        pairs["seconds"] = "0";
    }
    for (const std::string& pair : options.set) {
        const std::size_t equals = pair.find('=');
        if (equals == std::string::npos) {
            throw Failure(kUsage, fmt::format("--set takes key=value, not '{}'", pair));
        }
        pairs[pair.substr(0, equals)] = pair.substr(equals + 1);
    }
    const auto parsed = exchange_sim::parse_session_options(pairs);
    if (!parsed.ok()) {
        throw Failure(kUsage, parsed.error);
    }
    return parsed.options;
}

// Those that the session is to be written with.
std::vector<faults::FaultSpec> wire_faults(const SimOptions& options) {
    auto specs = parsed_faults(options.faults);
    for (const faults::FaultSpec& spec : specs) {
        if (!faults::fits_into_a_capture(spec.kind)) {
            throw Failure(
                kUsage, fmt::format("{} happens in the card, so that no capture can hold it; give "
                                    "it when the capture is played: vorn replay, vorn verify",
                                    faults::name_of(spec.kind)));
        }
    }
    return specs;
}

// The truth, written while the session is made.
class TruthFile {
public:
    TruthFile(const std::string& path, bool force) : part_(path, force) {
        stream_.reset(::fdopen(::dup(part_.descriptor()), "wb"));
        if (!stream_) {
            throw Failure(kFailed, fmt::format("cannot write {}: {}", path, std::strerror(errno)));
        }
        std::setvbuf(stream_.get(), nullptr, _IOFBF, std::size_t{1} << 20);
    }
    void begin(exchange_sim::Session& session) {
        writer_.emplace(stream_.get(), session);
        session.on_change([this](std::size_t index, const exchange_sim::ExpectedRecord& record) {
            writer_->change(index, record);
        });
    }
    void commit() {
        writer_->finish();
        stream_.reset();
        part_.commit();
    }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    PartFile part_;
    std::unique_ptr<std::FILE, Close> stream_;
    std::optional<exchange_sim::TruthWriter> writer_;
};

nlohmann::json manifest(const SimOptions& options, const exchange_sim::SessionOptions& session,
                        const exchange_sim::WriteResult& written, const SessionFiles& files,
                        uint64_t first_ns, uint64_t last_ns) {
    const auto& c = written.counters;
    nlohmann::json object = {
        {"format", 1},
        {"capture", file_name(files.capture)},
        {"capture_sha256", sha256_of_file(files.capture)},
        {"seed", session.seed},
        {"instruments", session.instruments},
        {"rate", session.rate},
        {"changes", c.changes},
        {"trades", c.trades},
        {"datagrams", c.datagrams},
        {"tcp_segments", c.tcp_segments},
        {"frames", written.frames},
        {"shfe_rounds", c.shfe_rounds},
        {"ine_rounds", c.ine_rounds},
        {"first_ns", first_ns},
        {"last_ns", last_ns},
        {"time_zone",
         "stamps are nanoseconds since the Unix epoch in UTC; the exchange is at UTC+8"},
        {"set", options.set},
    };
    if (!options.faults.texts.empty()) {
        object["faults"] = options.faults.texts;
        object["fault_seed"] = options.faults.seed;
    }
    if (!options.no_truth) {
        object["truth"] = file_name(files.truth);
        object["truth_sha256"] = sha256_of_file(files.truth);
    }
    return object;
}

nlohmann::json live_json(const LiveExchange& live) {
    return {{"datagrams", live.report().datagrams},
            {"segments", live.report().segments},
            {"late_ms_at_most",
             std::chrono::duration<double, std::milli>(live.report().latest).count()}};
}

// A session on the network alone, without files.
int run_unrecorded(const exchange_sim::SessionOptions& options, LiveExchange& live,
                   const RunFlag& run, const Globals& globals) {
    exchange_sim::Session session(options);
    Progress progress(globals, "datagrams", 0);
    for (exchange_sim::WireFrame frame; session.next(frame) && live.send(frame, run);) {
        progress.update(live.report().datagrams);
    }
    progress.finish();
    live.finish(run);
    if (globals.json) {
        DataOut out(STDOUT_FILENO);
        out.json(live_json(live));
        out.close();
    } else {
        say(globals, "{} datagrams and {} segments of snapshots sent", live.report().datagrams,
            live.report().segments);
    }
    return kFine;
}

// Opens the network and waits for the clients; false when the run was ended meanwhile.
bool start_live(const SimOptions& options, const exchange_sim::SessionOptions& session,
                const RunFlag& run, const Globals& globals, std::optional<LiveExchange>& live) {
    if (options.network.interface.empty()) {
        throw Failure(kUsage, "--live needs the interface to send on: --interface IF");
    }
    if (!(options.network.speed > 0) || !(options.network.wait_s >= 0)) {
        throw Failure(kUsage, "--speed must be greater than 0 and --wait not negative");
    }
    if (!options.faults.texts.empty()) {
        throw Failure(kUsage, "--live sends the session as it is: put the faults into what was "
                              "received, as in vorn replay recorded.pcap --fault gap");
    }
    live.emplace(options.network, session);
    say(globals, "waiting for the clients on {}", live->address());
    return live->await_clients(run);
}

int run_sim(const SimOptions& options, const Globals& globals) {
    const auto session = session_options(options);
    if (globals.output.empty() && options.live) {
        RunFlag run;
        std::optional<LiveExchange> live;
        return start_live(options, session, run, globals, live)
                   ? run_unrecorded(session, *live, run, globals)
                   : kFine;
    }
    const auto specs = wire_faults(options);
    if (globals.output.empty()) {
        throw Failure(kUsage, "say where to write the session: -o session.pcap");
    }
    suffix_of(globals.output, {".pcap"});
    const SessionFiles files = session_files(globals.output);
    refuse_existing({files.capture, files.manifest, options.no_truth ? "" : files.truth},
                    globals.force);

    RunFlag run;
    std::optional<TruthFile> truth;
    if (!options.no_truth) {
        truth.emplace(files.truth, globals.force);
    }
    std::optional<LiveExchange> live;
    if (options.live && !start_live(options, session, run, globals, live)) {
        return kFine;
    }
    std::exception_ptr network_failure; // kept, so that the unfinished capture is removed
    const uint64_t wanted = session.changes != 0
                                ? session.changes
                                : session.seconds_ns / 1'000'000 * session.rate / 1000;
    Progress progress(globals, "changes", wanted);
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    exchange_sim::Session* running = nullptr;
    std::optional<faults::FaultFilter> filter;
    exchange_sim::WriteHooks hooks;
    hooks.begin = [&](exchange_sim::Session& made) {
        running = &made;
        if (truth) {
            truth->begin(made);
        }
        if (!specs.empty()) {
            filter.emplace(
                [&made](faults::FilteredFrame& frame) {
                    exchange_sim::WireFrame wire;
                    const bool there = made.next(wire);
                    frame = {wire.timestamp_ns, wire.bytes};
                    return there;
                },
                specs, options.faults.seed);
        }
    };
    hooks.next = [&](exchange_sim::Session& made, exchange_sim::WireFrame& frame) {
        if (!filter) {
            return made.next(frame);
        }
        faults::FilteredFrame filtered;
        const bool there = filter->next(filtered);
        frame = {filtered.timestamp_ns, filtered.bytes};
        return there;
    };
    hooks.frame = [&](const exchange_sim::WireFrame& frame) {
        first_ns = first_ns == 0 ? frame.timestamp_ns : first_ns;
        last_ns = frame.timestamp_ns;
        progress.update(running->counters().changes);
        try {
            return live ? live->send(frame, run) : run.running();
        } catch (...) {
            network_failure = std::current_exception();
            return false;
        }
    };
    const auto written = exchange_sim::write_session(files.capture, session, hooks);
    progress.finish();
    if (network_failure) {
        std::rethrow_exception(network_failure);
    }
    if (!written.ok()) {
        if (!run.running()) {
            say(globals, "interrupted: nothing was kept");
            return kFine;
        }
        throw Failure(kFailed, written.error);
    }
    if (live) {
        live->finish(run);
    }
    if (truth) {
        truth->commit();
    }
    nlohmann::json object = manifest(options, session, written, files, first_ns, last_ns);
    if (live) {
        object["live"] = live_json(*live);
    }
    DataOut manifest_out(files.manifest, true, STDOUT_FILENO);
    manifest_out.line(object.dump(2));
    manifest_out.close();

    if (globals.json) {
        DataOut out(STDOUT_FILENO);
        out.json(object);
        out.close();
    } else {
        say(globals, "{}: {} changes, {} frames, {} snapshot rounds, sha256 {}", files.capture,
            written.counters.changes, written.frames,
            written.counters.shfe_rounds + written.counters.ine_rounds,
            object["capture_sha256"].get<std::string>());
    }
    return kFine;
}

} // namespace

void add_sim(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "sim", "simulate a trading session into a capture, with the truth beside it",
        {{"vorn sim -o session.pcap", "a minute of 400 instruments; also session.truth and "
                                      "session.manifest.json"},
         {"vorn sim -o s.pcap --seed 7 --seconds 60 --instruments 800 --rate 200000",
          "the same seed and options give the same bytes"},
         {"vorn sim --live --interface eth1 --rate 2000",
          "the exchange on a real network; see vorn "
          "client"},
         {"vorn sim -o s.pcap --set feeds=shfe --set options_percent=0", "any option of the "
                                                                         "simulator"},
         {"vorn sim -o s.pcap --fault gap@20 --fault tcp-loss:2", "with faults; the truth is that "
                                                                  "of the session without"}});
    auto options = std::make_shared<SimOptions>();
    sub.add_option("--seed", options->seed, "seed of the session (7)")->option_text("N");
    sub.add_option("--seconds", options->seconds, "length in simulated seconds (60)")
        ->option_text("S");
    sub.add_option("--changes", options->changes, "length in changes")->option_text("N");
    sub.add_option("--instruments", options->instruments, "instruments of all feeds (400)")
        ->option_text("N");
    sub.add_option("--rate", options->rate, "changes a simulated second, on average (20000)")
        ->option_text("N");
    sub.add_option("--set", options->set, "an option of the simulator")
        ->option_text("KEY=VALUE")
        ->allow_extra_args(false);
    sub.add_flag("--no-truth", options->no_truth, "write no truth file");
    CLI::Option* const live = sub.add_flag(
        "--live", options->live, "send it on a network as it happens; -o then also keeps it");
    sub.add_option("--interface", options->network.interface, "live: where to send it")
        ->option_text("IF")
        ->needs(live);
    sub.add_option("--bind", options->network.bind,
                   "live: address of this end (the interface's first)")
        ->option_text("ADDRESS")
        ->needs(live);
    sub.add_option("--speed", options->network.speed,
                   "live: times as fast as the session's time stamps (1)")
        ->option_text("F")
        ->needs(live);
    sub.add_option("--wait", options->network.wait_s, "live: seconds to wait for the clients (30)")
        ->option_text("S")
        ->needs(live);
    sub.footer(sub.get_footer() + "\noptions of the simulator, for --set:\n" +
               exchange_sim::session_options_help());
    add_fault_options(sub, options->faults);
    add_output_options(sub, globals, ".pcap");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_sim(*options, g); });
}

} // namespace vorn_cli
