#include "tools/vorn/feed/run_summary.h"

#include "tools/vorn/data_out.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/terminal.h"

#include <fmt/format.h>

#include <unistd.h>

namespace vorn_cli {

void print_summary(const FeedReport& report, const RunTotals& totals, nlohmann::json json,
                   const std::vector<std::string>& lines, const Globals& globals) {
    const double live = std::chrono::duration<double>(
                            report.counters.time_in[static_cast<std::size_t>(FeedPhase::kLive)])
                            .count();
    const double rate =
        live > 0
            ? static_cast<double>(report.counters.decode_buffers - report.counters.cached) / live
            : 0.0;
    DataOut out(STDOUT_FILENO);
    if (globals.json) {
        json.update(to_json(report));
        json["updates"] = totals.updates;
        json["instruments"] = totals.instruments;
        json["live_buffers_per_second"] = rate;
        out.json(json);
    } else {
        out.line(fmt::format("{:<18}{:>14}", "updates", grouped(totals.updates)));
        out.line(fmt::format("{:<18}{:>14}", "instruments", grouped(totals.instruments)));
        for (const std::string& line : feed_lines(report)) {
            out.line(printable(line));
        }
        out.line(fmt::format("{:<18}{:>14} decode buffers a second", "live rate",
                             grouped(static_cast<uint64_t>(rate))));
        for (const std::string& line : lines) {
            out.line(printable(line));
        }
    }
    out.close();
}

} // namespace vorn_cli
