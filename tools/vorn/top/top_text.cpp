#include "tools/vorn/top/top_text.h"

#include "tools/vorn/feed/feed_text.h"

#include <cmath>
#include <ctime>
#include <fmt/format.h>

namespace vorn_cli {

std::string duration_text(uint64_t ns) {
    const uint64_t seconds = ns / 1'000'000'000;
    if (seconds == 0) {
        return fmt::format("{} ms", ns / 1'000'000);
    }
    if (seconds < 60) {
        return fmt::format("{}.{} s", seconds, ns / 100'000'000 % 10);
    }
    if (seconds < 3600) {
        return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
    }
    return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string clock_text(uint64_t epoch_ns) {
    const auto seconds = static_cast<time_t>(epoch_ns / 1'000'000'000);
    std::tm local{};
    if (epoch_ns == 0 || ::localtime_r(&seconds, &local) == nullptr) {
        return "-";
    }
    return fmt::format("{:02}:{:02}:{:02}", local.tm_hour, local.tm_min, local.tm_sec);
}

std::string rate_text(double per_second) {
    if (!std::isfinite(per_second) || per_second < 0) {
        return "-";
    }
    if (per_second < 9.95 && per_second > 0) {
        return fmt::format("{:.1f}", per_second);
    }
    if (per_second < 999'999.5) {
        return grouped(static_cast<uint64_t>(std::lround(per_second)));
    }
    return per_second < 1e12 ? fmt::format("{:.1f} M", per_second / 1e6) : "-";
}

} // namespace vorn_cli
