// Says what a recording of a simulated session holds, and compares it with the exchange's own
// books: the session is simulated again from the same device text, and the last row of every
// instrument must be what the exchange knows. Exit status 0, 1 when something could not be read or
// run, 2 usage, 3 when the recording differs.

#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"
#include "tools/session_report/recording.h"
#include "tools/session_report/truth_rows.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>

namespace {

using session_report::Recording;

constexpr int kExitDiffers = 3;
constexpr int kShownDifferences = 10;

// The simulator's options out of "sim:key=value&...": those of the card are left out.
exchange_sim::SessionOptions options_of(const std::string& device) {
    constexpr std::string_view kScheme = "sim:";
    if (!device.starts_with(kScheme)) {
        throw std::invalid_argument(
            fmt::format("device '{}' is not a simulated session (sim:key=value&...)", device));
    }
    std::map<std::string, std::string> pairs;
    std::string_view rest = std::string_view(device).substr(kScheme.size());
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('&'), rest.size());
        const std::string_view pair = rest.substr(0, end);
        const std::size_t equals = std::min(pair.find('='), pair.size());
        const std::string key(pair.substr(0, equals));
        if (key != "eof" && key != "speed") {
            pairs[key] = equals < pair.size() ? pair.substr(equals + 1) : "";
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    const auto parsed = exchange_sim::parse_session_options(pairs);
    if (!parsed.ok()) {
        throw std::invalid_argument(parsed.error);
    }
    return parsed.options;
}

struct Comparison {
    uint64_t equal = 0;
    uint64_t missing = 0;
    uint64_t different = 0;
};

Comparison compare(const Recording& recording, const exchange_sim::Session& session) {
    Comparison comparison;
    int shown = 0;
    const auto show = [&shown](const std::string& line) {
        if (shown++ < kShownDifferences) {
            fmt::print(stderr, "  {}\n", line);
        }
    };
    for (std::size_t index = 0; index < session.instruments().size(); ++index) {
        const exchange_sim::ExpectedRecord& truth = session.truth(index);
        const std::string id = truth.inst_id.data();
        const auto found = recording.instruments.find(id);
        if (found == recording.instruments.end()) {
            ++comparison.missing;
            show(fmt::format("{}: no row", id));
            continue;
        }
        const std::string expected = session_report::csv_row(truth);
        if (found->second.last_row == expected) {
            ++comparison.equal;
        } else {
            ++comparison.different;
            show(fmt::format("{}: {}", id,
                             session_report::first_difference(found->second.last_row, expected)));
        }
    }
    return comparison;
}

void print_busiest(const Recording& recording) {
    const session_report::InstrumentRows* busiest = nullptr;
    for (const auto& [id, rows] : recording.instruments) {
        if (busiest == nullptr || rows.rows > busiest->rows) {
            busiest = &rows;
        }
    }
    if (busiest != nullptr) {
        fmt::print("\nlast book of the busiest instrument ({} rows)\n{}\n", busiest->rows,
                   session_report::ladder(busiest->last_row));
    }
}

int report(const std::string& device, const std::string& csv, double seconds) {
    const auto options = options_of(device);
    const Recording recording = session_report::read_recording(csv);
    fmt::print("recorded     {}\n", csv);
    fmt::print("rows         {} of {} columns, {:.1f} MB\n", recording.rows,
               session_report::kCsvColumns, static_cast<double>(recording.bytes) / 1e6);
    fmt::print("instruments  {}\n", recording.instruments.size());
    if (seconds > 0) {
        fmt::print("rate         {:.0f} rows a second ({:.1f} s for the whole run)\n",
                   static_cast<double>(recording.rows) / seconds, seconds);
    }
    print_busiest(recording);
    std::fflush(stdout);

    exchange_sim::Session session(options);
    exchange_sim::WireFrame frame;
    while (session.next(frame)) {
    }
    const Comparison comparison = compare(recording, session);
    const auto counters = session.counters();
    fmt::print("the exchange made {} changes and {} trades in {} instruments\n", counters.changes,
               counters.trades, session.instruments().size());
    if (comparison.missing == 0 && comparison.different == 0) {
        fmt::print("the last row of every instrument equals the exchange's truth\n");
        return 0;
    }
    fmt::print(stderr,
               "session_report: the recording DIFFERS from the exchange's truth: {} instruments "
               "equal, {} different, {} without a row\n",
               comparison.equal, comparison.different, comparison.missing);
    return kExitDiffers;
}

int run(int argc, char** argv) {
    CLI::App app("Reports on a recorded simulated session and checks it against the exchange.");
    std::string device;
    std::string csv;
    double seconds = 0;
    app.add_option("--device", device, "device text that was recorded, sim:...")->required();
    app.add_option("--csv", csv, "file written by the recorder")->required();
    app.add_option("--seconds", seconds, "how long the recording took, for the rate");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    return report(device, csv, seconds);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "session_report: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "session_report: %s\n", error.what());
        return 1;
    }
}
