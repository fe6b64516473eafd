// vorn replay: runs the feed over a capture with a consumer that only counts.

#include "tools/vorn/exit_code.h"
#include "tools/vorn/fault_options.h"
#include "tools/vorn/feed/feed_run.h"
#include "tools/vorn/feed/run_summary.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/subcommands.h"

#include <fmt/format.h>

#include <bitset>
#include <memory>

namespace vorn_cli {

namespace {

struct ReplayOptions {
    std::string capture;
    std::string config;
    double speed = 0;
    FaultOptions faults;
};

class Counter final : public FeedWatcher {
public:
    explicit Counter(const Globals& globals) : progress_(globals, "updates", 0) {}

    void on_update(const instrument&, uint32_t slot) override {
        ++updates_;
        seen_.set(slot);
        progress_.update(updates_);
    }
    void finish() { progress_.finish(); }

    uint64_t updates() const { return updates_; }
    std::size_t instruments() const { return seen_.count(); }

private:
    Progress progress_;
    uint64_t updates_ = 0;
    std::bitset<INSTRUMENT_SLOT_CNT> seen_;
};

int run_replay(const ReplayOptions& options, const Globals& globals) {
    Counter counter(globals);
    const FeedReport report = run_feed(
        {options.config, options.capture, options.speed, fault_device_options(options.faults)},
        counter);
    counter.finish();

    print_summary(report, {counter.updates(), counter.instruments()},
                  {{"capture", options.capture}}, {}, globals);
    if (report.result != 0) {
        throw Failure(kFailed, fmt::format("the feed gave up: {}", reason_of(report.log)));
    }
    if (report.counters.gaps != 0) {
        throw Failure(kDiffer, fmt::format("{} in the change numbers: {}",
                                           report.counters.gaps == 1 ? "a gap" : "gaps",
                                           reason_of(report.log)));
    }
    return kFine;
}

} // namespace

void add_replay(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "replay", "run the feed over a capture and count what becomes of it",
        {{"vorn replay session.pcap", "as fast as it goes; nothing is lost"},
         {"vorn replay session.pcap --speed 1", "in the time in which it was recorded"},
         {"vorn replay session.pcap --config vorn.ini --json", "your own subscription, as JSON"},
         {"vorn replay session.pcap --fault gap@2:3 --fault overflow:500", "what if"}});
    auto options = std::make_shared<ReplayOptions>();
    sub.add_option("CAPTURE", options->capture, "capture file (pcap)")->required();
    sub.add_option("--speed", options->speed, "times as fast as recorded; frames can be lost")
        ->option_text("N")
        ->check(CLI::PositiveNumber);
    sub.add_option("--config", options->config,
                   "configuration of the feed (its device is not used); by default every "
                   "instrument of both feeds")
        ->option_text("FILE");
    add_fault_options(sub, options->faults);
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_replay(*options, g); });
}

} // namespace vorn_cli
