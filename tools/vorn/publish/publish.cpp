// vorn publish: runs the feed and shows it on a bus, for other processes to read.

#include "ExanicMdMonitor.h"
#include "bus/bus_writer.h"
#include "tools/vorn/check/effective_config.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/feed/feed_run.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/feed/run_summary.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/publish/memory_lock.h"
#include "tools/vorn/publish/pulse.h"
#include "tools/vorn/subcommands.h"

#include <fmt/format.h>

#include <bitset>
#include <memory>

namespace vorn_cli {

namespace {

struct PublishOptions {
    std::string config;
    std::string bus = vorn_bus::kDefaultName;
    uint64_t ring = vorn_bus::WriterOptions{}.ring_records;
    bool lock_memory = false;
};

// The feed's consumer: everything on the feed's thread, which nothing here holds up.
class Publisher final : public FeedWatcher {
public:
    Publisher(vorn_bus::BusWriter& writer, const Globals& globals)
        : writer_(writer), progress_(globals, "updates", 0) {
        vorn_md_set_event_callback(&Publisher::on_event, this);
    }
    ~Publisher() override { vorn_md_set_event_callback(nullptr, nullptr); }
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    void on_update(const instrument& record, uint32_t slot) override {
        writer_.publish(record, slot, live_ ? 0 : vorn_bus::kFlagReplay);
        ++updates_;
        seen_.set(slot);
        progress_.update(updates_);
    }

    void finish() { progress_.finish(); }
    RunTotals totals() const { return {updates_, seen_.count()}; }

private:
    static void on_event(const vorn_md_event_t* event, void* context) {
        static_cast<Publisher*>(context)->publish(*event);
    }
    // The snapshot and the silent part of the replay change records without a callback. Readers who
    // see the event find the table as it is then.
    void publish(const vorn_md_event_t& event) {
        live_ = event.phase == VORN_MD_PHASE_LIVE;
        if (event.type == VORN_MD_EVENT_PHASE && live_) {
            if (const share* table = vorn_md_table()) {
                writer_.refresh(*table);
            }
        }
        writer_.publish_event(event);
    }

    vorn_bus::BusWriter& writer_;
    Progress progress_;
    bool live_ = false;
    uint64_t updates_ = 0;
    std::bitset<INSTRUMENT_SLOT_CNT> seen_;
};

int run_publish(const PublishOptions& options, const Globals& globals) {
    const EffectiveConfig config = effective_config(read_ini(read_config(options.config)));
    if (!vorn_bus::is_bus_name(options.bus)) {
        throw Failure(kUsage,
                      fmt::format("'{}' is not a name for a bus (at most 64 letters, digits, '_', "
                                  "'-' and '.', as in --bus live)",
                                  options.bus));
    }
    if (options.lock_memory) {
        lock_memory();
    }
    const vorn_bus::WriterOptions writer_options{options.bus, options.ring};
    vorn_bus::BusWriter writer(writer_options);
    Publisher publisher(writer, globals);
    say(globals, "showing the feed on the bus {}; Ctrl+C ends it", options.bus);
    FeedReport report;
    {
        const Pulse pulse(writer, writer_options.heartbeat_interval_ns, config.cpucore);
        report = run_feed({options.config, {}, 0}, publisher);
    }
    publisher.finish();
    print_summary(
        report, publisher.totals(),
        {{"bus", options.bus},
         {"bus_path", writer.path()},
         {"bus_generation", writer.generation()},
         {"bus_records", writer.ring_head()}},
        {fmt::format("{:<18}{:>14} records", "bus " + options.bus, grouped(writer.ring_head()))},
        globals);
    if (report.result != 0) {
        throw Failure(kFailed, fmt::format("the feed gave up: {}", reason_of(report.log)));
    }
    return kFine;
}

} // namespace

void add_publish(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "publish", "run the feed and show it to other processes, until Ctrl+C",
        {{"vorn publish --config vorn.ini", "on the bus 'live', /dev/shm/vorn.live.bus"},
         {"vorn publish --config vorn.ini --bus night", "on another, beside it"}});
    auto options = std::make_shared<PublishOptions>();
    sub.add_option("--config", options->config, "configuration of the feed")
        ->option_text("FILE")
        ->required();
    sub.add_option("--bus", options->bus, "name of the bus (live); readers open it by this name")
        ->option_text("NAME");
    sub.add_option("--ring", options->ring,
                   "records that a reader may fall behind before it loses some (65536): a power of "
                   "two from 1024, 384 bytes each")
        ->option_text("N")
        ->check([](const std::string& text) {
            uint64_t records = 0;
            const bool fine =
                CLI::detail::lexical_cast(text, records) && vorn_bus::is_ring_size(records);
            return fine ? std::string() : "must be a power of two from 1024 to 16777216";
        });
    sub.add_flag("--lock-memory", options->lock_memory,
                 "keep the process in RAM, with all it will need; takes an unlimited ulimit -l");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_publish(*options, g); });
}

} // namespace vorn_cli
