#include "tools/vorn/progress.h"

#include "tools/vorn/terminal.h"

#include <cmath>
#include <fmt/format.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kInterval = std::chrono::milliseconds(100);
constexpr nanoseconds kFirst = std::chrono::milliseconds(500); // a short run shows nothing
constexpr std::string_view kClearLine = "\r\x1b[K";

std::string grouped(uint64_t value) {
    std::string digits = std::to_string(value);
    for (std::size_t at = digits.size(); at > 3; at -= 3) {
        digits.insert(at - 3, 1, ',');
    }
    return digits;
}

std::string scaled(double rate) {
    return rate >= 1e9   ? fmt::format("{:.1f} G", rate / 1e9)
           : rate >= 1e6 ? fmt::format("{:.1f} M", rate / 1e6)
           : rate >= 1e4 ? fmt::format("{:.0f} k", rate / 1e3)
                         : fmt::format("{:.0f} ", rate);
}

std::string minutes(double seconds) {
    const auto whole = static_cast<uint64_t>(std::ceil(seconds));
    return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                        : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

} // namespace

ProgressDisplay terminal_display(const Globals& globals) {
    ProgressDisplay display;
    display.on = !globals.quiet && is_terminal(STDERR_FILENO);
    display.write = [](std::string_view text) {
        // A line of progress that is lost is no loss.
        [[maybe_unused]] const auto ignored = ::write(STDERR_FILENO, text.data(), text.size());
    };
    display.now = [] { return nanoseconds(std::chrono::steady_clock::now().time_since_epoch()); };
    return display;
}

Progress::Progress(std::string what, uint64_t total, ProgressDisplay display)
    : what_(std::move(what)), total_(total), display_(std::move(display)) {
    if (display_.on) {
        start_ = display_.now();
        next_ = start_ + kFirst;
    }
}

Progress::~Progress() {
    finish();
}

std::string Progress::text(std::string_view what, uint64_t done, uint64_t total,
                           nanoseconds elapsed) {
    std::string line = fmt::format("{} {}", grouped(done), what);
    const double seconds = std::chrono::duration<double>(elapsed).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    if (total > 0) {
        const double share = static_cast<double>(done) / static_cast<double>(total);
        line += fmt::format("  {:.0f} %", std::floor(100 * std::min(share, 1.0)));
    }
    if (rate > 0) {
        line += fmt::format("  {}/s", scaled(rate));
        if (total > done) {
            line += fmt::format("  {} left", minutes(static_cast<double>(total - done) / rate));
        }
    }
    return line;
}

void Progress::draw_if_due(uint64_t done) {
    const nanoseconds now = display_.now();
    if (now < next_) {
        return;
    }
    next_ = now + kInterval;
    drawn_ = true;
    display_.write(std::string(kClearLine) + text(what_, done, total_, now - start_));
}

void Progress::finish() {
    if (drawn_) {
        display_.write(kClearLine);
    }
    drawn_ = false;
    display_.on = false;
}

} // namespace vorn_cli
