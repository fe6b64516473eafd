#pragma once

// One run of the feed inside this program: configuration, log, run flag and counters around
// vorn_recv.

#include "tools/vorn/feed/card_tap.h"
#include "tools/vorn/globals.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vorn_cli {

struct FeedRunOptions {
    std::string config;      // path of a configuration file; empty: all instruments, with recovery
    std::string capture;     // plays this capture instead of the configuration's device
    double speed = 0;        // of the capture; 0: as fast as the feed takes it, nothing lost
    std::string faults = {}; // of the capture, as fault_device_options() gives them
    std::string device = {}; // replaces the configuration's; empty: it does not
};

// What the feed's log said, by kind of message.
struct FeedLog {
    uint64_t errors = 0;
    uint64_t warnings = 0;
    std::map<std::string, uint64_t> messages; // of errors and warnings, numbers replaced by '#'
    std::vector<std::string> last_errors;     // at most 8, in order
};

struct FeedReport {
    int result = 0;           // of vorn_recv
    int signal = 0;           // that ended the run from outside, 0 if none did
    bool interrupted = false; // ... and it was not the end of a software card's source
    TapCounters counters;
    FeedLog log;
    std::chrono::nanoseconds elapsed{};
};

// The text of a configuration file. Throws Failure.
std::string read_config(const std::string& path);

// Runs the feed until its source is exhausted, a signal comes or it gives up. Descriptor 1 leads
// elsewhere meanwhile. Throws Failure when the run cannot be set up; a feed that gives up is
// reported by `result` and the log.
FeedReport run_feed(const FeedRunOptions& options, FeedWatcher& watcher);

// The last error that the feed logged, or a text for none.
std::string reason_of(const FeedLog& log);

nlohmann::json to_json(const FeedReport& report);

} // namespace vorn_cli
