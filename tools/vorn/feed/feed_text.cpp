#include "tools/vorn/feed/feed_text.h"

#include <fmt/format.h>

namespace vorn_cli {

std::string grouped(uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, ",");
    }
    return text;
}

std::vector<std::string> feed_lines(const FeedReport& report) {
    const TapCounters& c = report.counters;
    std::vector<std::string> lines;
    const auto add = [&lines](const char* name, uint64_t value) {
        if (value != 0) {
            lines.push_back(fmt::format("{:<18}{:>14}", name, grouped(value)));
        }
    };
    add("raw frames", c.raw_frames);
    add("decode buffers", c.decode_buffers);
    add("cached", c.cached);
    add("replayed", c.replayed);
    add("applied live", c.applied);
    add("stale", c.stale);
    add("unsubscribed", c.unsubscribed);
    add("options skipped", c.options_skipped);
    add("restored books", c.restored);
    add("gaps", c.gaps);
    add("restarts", c.cycles > 0 ? c.cycles - 1 : 0);
    add("overflows", c.overflows);
    add("damaged frames", c.damaged);
    add("abnormal lengths", c.abnormal);
    add("other", c.other);
    std::string phases;
    for (std::size_t i = 0; i + 1 < kFeedPhases; ++i) {
        phases +=
            fmt::format("{}{} {:.3f} s", i == 0 ? "" : ", ", phase_name(static_cast<FeedPhase>(i)),
                        std::chrono::duration<double>(c.time_in[i]).count());
    }
    lines.push_back("time in           " + phases);
    for (const auto& [message, count] : report.log.messages) {
        lines.push_back(fmt::format("logged {:>8} x  {}", grouped(count), message));
    }
    return lines;
}

} // namespace vorn_cli
