// vorn tap: hears on another machine what `vorn fanout` sends: prints it, records it, or puts it on
// a bus there.

#include "bus/bus_process.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/fanout/market_stream.h"
#include "tools/vorn/fanout/subjects.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/tap/stream_reader.h"
#include "tools/vorn/tap/tap_bus.h"
#include "tools/vorn/tap/tap_output.h"
#include "tools/vorn/tap/tap_position.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <thread>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr int64_t kWaitMs = 50; // for a message, before what is written so far is flushed
constexpr uint64_t kTidyNs = 100'000'000;
constexpr uint64_t kSaveNs = 1'000'000'000;

struct TapOptions {
    std::vector<std::string> patterns;
    NatsOptions nats;
    std::string stream = StreamOptions{}.name;
    std::string bus;
    std::string durable;
    bool last = false;
    bool from_start = false;
    bool once = false;
    uint64_t count = 0; // 0: no bound
};

uint64_t now_ns() {
    return vorn_bus::clock_ns(CLOCK_MONOTONIC);
}

class Tap {
public:
    Tap(const TapOptions& options, const Globals& globals, const NatsLink& link)
        : options_(options), globals_(globals), link_(link), filter_(options.patterns),
          reader_(link, options.stream, filter_.server_subject(),
                  options.last         ? ReadFrom::kLast
                  : options.from_start ? ReadFrom::kBeginning
                                       : ReadFrom::kNow) {
        if (!options.bus.empty()) {
            try {
                bus_ = std::make_unique<TapBus>(options.bus);
            } catch (const vorn_bus::BusError& error) {
                throw Failure(kFailed, error.what());
            }
        }
        if (!globals.output.empty()) {
            suffix_of(globals.output, {".csv"});
            rows_ = std::make_unique<TapRows>(globals.output, globals.force);
        }
        if (!bus_ && !rows_) {
            lines_ = std::make_unique<TapLines>(globals.json);
        }
    }

    void resume(const StreamFacts& stream) {
        if (options_.durable.empty()) {
            return;
        }
        position_ = std::make_unique<TapPosition>(link_, options_.stream, options_.durable,
                                                  stream.replicas);
        if (const auto sequence = position_->read()) {
            reader_.resume_behind(*sequence);
        }
    }

    void run(const RunFlag& flag) {
        StreamMessage message;
        while (flag.running() && !ended()) {
            const bool came = reader_.next(message, idle_ ? kWaitMs : 0);
            idle_ = !came;
            if (came && filter_.matches(message.subject)) {
                take(message);
            }
            if (!came || now_ns() >= next_tidy_ns_) {
                tidy();
            }
        }
        close();
    }

    std::string summary() const {
        return fmt::format("{} updates, {} values, {} events, {} repeated, {} missing",
                           grouped(order_.updates()), grouped(order_.values()), grouped(events_),
                           grouped(order_.repeated()), grouped(order_.missing()));
    }
    uint64_t unread() const { return unread_; }

private:
    bool ended() const {
        return (options_.count != 0 && order_.updates() >= options_.count) ||
               (options_.once && reader_.caught_up());
    }

    void take(const StreamMessage& message) {
        const std::optional<Incoming> binary = decode_payload(message.payload);
        Heard heard{message.subject, message.payload, binary};
        if (const auto id = parse_update_id(message.id)) {
            heard.verdict = order_.judge(message.subject, *id);
        } else if (!order_.is_new_event(message.id)) {
            heard.verdict = TapVerdict::kRepeated;
        } else {
            ++events_;
        }
        if (heard.verdict == TapVerdict::kRepeated) {
            return;
        }
        if (lines_) {
            lines_->put(heard);
        } else if (!binary) {
            ++unread_;
            return;
        }
        if (rows_) {
            rows_->put(*binary);
        }
        if (bus_ && heard.verdict == TapVerdict::kNewest) {
            bus_->put(binary->message);
        }
    }

    // Between messages: what is buffered goes out, and then it is noted how far that is.
    void tidy() {
        const uint64_t now = now_ns();
        next_tidy_ns_ = now + kTidyNs;
        if (lines_) {
            lines_->flush();
        }
        if (bus_) {
            bus_->set_counts(order_);
            bus_->set_live(link_.connected() && reader_.caught_up());
        }
        if (position_ && now >= next_save_ns_ && link_.connected()) {
            if (rows_) {
                rows_->flush();
            }
            position_->write(reader_.position());
            next_save_ns_ = now + kSaveNs;
        }
        tell_changes();
    }

    void tell_changes() {
        if (natsConnection_Status(link_.connection()) == NATS_CONN_STATUS_CLOSED) {
            throw Failure(kFailed, "the server has closed the connection for good");
        }
        const std::string trouble = link_.connected()
                                        ? reader_.trouble()
                                        : "no connection to a NATS server; waiting for one";
        if (trouble != trouble_) {
            say(globals_, "{}", trouble.empty() ? std::string("all goes well again") : trouble);
            trouble_ = trouble;
        }
    }

    void close() {
        if (lines_) {
            lines_->close();
        }
        if (bus_) {
            bus_->set_counts(order_);
        }
        if (rows_) {
            rows_->close();
        }
        if (position_ && !position_->write(reader_.position())) {
            throw Failure(kFailed, fmt::format("how far {} has come could not be noted: what came "
                                               "last comes again next time",
                                               options_.durable));
        }
    }

    const TapOptions& options_;
    const Globals& globals_;
    const NatsLink& link_;
    const SubjectFilter filter_;
    StreamReader reader_;
    TapOrder order_;
    std::unique_ptr<TapLines> lines_;
    std::unique_ptr<TapRows> rows_;
    std::unique_ptr<TapBus> bus_;
    std::unique_ptr<TapPosition> position_;
    uint64_t events_ = 0;
    uint64_t unread_ = 0; // JSON, where a record was needed
    uint64_t next_tidy_ns_ = 0;
    uint64_t next_save_ns_ = 0;
    std::string trouble_;
    bool idle_ = true;
};

StreamFacts await_stream(const TapOptions& options, const NatsLink& link, uint64_t deadline_ns,
                         const RunFlag& flag) {
    StreamFacts facts;
    std::string trouble;
    while (flag.running() && !stream_facts(link.jetstream(), options.stream, facts, trouble)) {
        if (now_ns() >= deadline_ns) {
            throw Failure(kTimedOut, fmt::format("{} at {}: start vorn fanout, which makes it",
                                                 trouble, link.server()));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return facts;
}

int run_tap(const TapOptions& options, const Globals& globals) {
    // A mistake in a pattern is told before a server is asked.
    [[maybe_unused]] const SubjectFilter wanted{options.patterns};
    if (!options.durable.empty() && !is_stamp_name(options.durable)) {
        throw Failure(kUsage, fmt::format("--durable '{}': at most 15 letters, digits, '_' and '-'",
                                          options.durable));
    }
    const RunFlag flag;
    const uint64_t deadline =
        now_ns() + static_cast<uint64_t>(std::llround(options.nats.wait_s * 1e9));
    const NatsLink link(options.nats, "vorn tap", [&flag] { return flag.running(); });
    if (!link.made()) {
        return kFine;
    }
    const StreamFacts stream = await_stream(options, link, deadline, flag);
    if (!flag.running()) {
        return kFine;
    }
    Tap tap(options, globals, link);
    tap.resume(stream);
    if (!options.bus.empty()) {
        say(globals, "putting what {} has on the bus {}; Ctrl+C ends it", options.stream,
            options.bus);
    }
    tap.run(flag);
    say(globals, "{}", tap.summary());
    if (tap.unread() != 0) {
        throw Failure(kDiffer, fmt::format("{} messages are JSON, from which no record is made: "
                                           "let vorn fanout send binary, or print them (--json)",
                                           tap.unread()));
    }
    return kFine;
}

} // namespace

void add_tap(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "tap", "hear on another machine what vorn fanout sends: print it, record it, serve it",
        {{"vorn tap 'md.shfe.cu*' -s nats://feedhost", "a line for every update from now on"},
         {"vorn tap --last --once --json", "the newest of every instrument, as JSON"},
         {"vorn tap --from-start -o day.csv", "all that the stream holds, as rows"},
         {"vorn tap --last --bus live", "for vorn top and vorn serve on this machine"}});
    auto options = std::make_shared<TapOptions>();
    sub.add_option("SUBJECT", options->patterns,
                   "md.shfe.ID, md.ine.ID or md.event.KIND with * and ?, or just ID (all)");
    add_nats_options(sub, options->nats);
    sub.add_option("--stream", options->stream, "name of the JetStream stream (VORN)")
        ->option_text("NAME");
    auto* const last =
        sub.add_flag("--last", options->last, "begin with the newest of each instrument");
    sub.add_flag("--from-start", options->from_start, "begin with the oldest that the stream holds")
        ->excludes(last);
    sub.add_option("--durable", options->durable,
                   "remember under this name how far it came, and go on there next time")
        ->option_text("NAME");
    sub.add_option("--bus", options->bus, "put it on this bus of this machine, not on the output")
        ->option_text("NAME");
    sub.add_option("--count", options->count, "end after so many updates")->option_text("N");
    sub.add_flag("--once", options->once, "end when all that the stream holds now was heard");
    add_output_options(sub, globals, ".csv");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_tap(*options, g); });
}

} // namespace vorn_cli
