#include "tools/vorn/convert/row_filter.h"

#include "tools/vorn/exit_code.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

using Kind = TimeBound::Kind;

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kDay = 86'400 * kSecond;
constexpr uint64_t kExchangeZone = uint64_t{8} * 3600 * kSecond; // ahead of UTC, all year
constexpr uint64_t kOutOfOrder = 60 * kSecond;
constexpr std::size_t kProductSize = 2;
constexpr std::size_t kComparedSize = 6;
constexpr std::size_t kNanoDigits = 9;

bool number(std::string_view text, uint64_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

bool two_digits(std::string_view text, uint64_t below, uint64_t& value) {
    return text.size() == 2 && number(text, value) && value < below;
}

// "HH:MM", "HH:MM:SS" or "HH:MM:SS.fraction".
bool time_of_day(std::string_view text, uint64_t& ns) {
    uint64_t hours = 0;
    uint64_t minutes = 0;
    uint64_t seconds = 0;
    uint64_t fraction = 0;
    if (text.size() < 5 || text[2] != ':' || !two_digits(text.substr(0, 2), 24, hours) ||
        !two_digits(text.substr(3, 2), 60, minutes)) {
        return false;
    }
    if (text.size() > 5 &&
        (text.size() < 8 || text[5] != ':' || !two_digits(text.substr(6, 2), 60, seconds))) {
        return false;
    }
    if (text.size() > 8) {
        std::string digits(text.substr(9));
        if (text[8] != '.' || digits.empty() || digits.size() > kNanoDigits) {
            return false;
        }
        digits.resize(kNanoDigits, '0');
        if (!number(digits, fraction)) {
            return false;
        }
    }
    ns = ((hours * 60 + minutes) * 60 + seconds) * kSecond + fraction;
    return true;
}

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> items;
    std::string item;
    for (const char c : text + ",") {
        if (c == ',') {
            if (!item.empty()) {
                items.push_back(item);
            }
            item.clear();
        } else if (c != ' ' && c != '\t') {
            item += c;
        }
    }
    return items;
}

} // namespace

uint64_t exchange_time_of_day_ns(uint64_t time_ns) {
    return (time_ns % kDay + kExchangeZone) % kDay;
}

TimeBound TimeBound::parse(const char* option, const std::string& text) {
    TimeBound bound;
    if (text.empty()) {
        return bound;
    }
    if (number(text, bound.ns)) {
        bound.kind = Kind::kMoment;
        return bound;
    }
    if (time_of_day(text, bound.ns)) {
        bound.kind = Kind::kTimeOfDay;
        return bound;
    }
    throw Failure(kUsage,
                  fmt::format("{} takes a time of day at the exchange (09:30, 09:30:15.250) "
                              "or nanoseconds since 1970, not '{}'",
                              option, text));
}

RowFilter::RowFilter(const RowFilterOptions& options)
    : from_(options.from), to_(options.to), limit_(options.limit) {
    if (options.instruments == "all") {
        return;
    }
    items_ = split(options.instruments);
    if (items_.empty() && !options.instruments.empty()) {
        throw Failure(kUsage, "--instruments names none; as in --instruments cu2603,au");
    }
    for (const std::string& item : items_) {
        if (item.size() != kProductSize && item.size() != kComparedSize) {
            throw Failure(
                kUsage, fmt::format("--instruments: '{}' matches nothing: an item is a product of "
                                    "two letters (au) or the first six of an identifier (cu2603), "
                                    "as in the configuration's insts",
                                    item));
        }
    }
}

bool RowFilter::in_time(uint64_t time_ns) const {
    const uint64_t of_day = exchange_time_of_day_ns(time_ns);
    const bool begun =
        from_.kind == Kind::kNone || (from_.kind == Kind::kMoment ? time_ns : of_day) >= from_.ns;
    const bool goes_on =
        to_.kind == Kind::kNone || (to_.kind == Kind::kMoment ? time_ns : of_day) < to_.ns;
    const bool around_midnight =
        from_.kind == Kind::kTimeOfDay && to_.kind == Kind::kTimeOfDay && to_.ns < from_.ns;
    return around_midnight ? begun || goes_on : begun && goes_on;
}

bool RowFilter::of_instrument(const instrument& record) const {
    if (items_.empty()) {
        return true;
    }
    const auto* const text = reinterpret_cast<const char*>(record.inst_id);
    const std::string_view inst_id(text, strnlen(text, sizeof(record.inst_id)));
    return std::any_of(items_.begin(), items_.end(), [&](const std::string& item) {
        return inst_id.substr(0, item.size()) == item;
    });
}

bool RowFilter::wants(const ResearchRow& row) {
    if (limit_reached() || !in_time(row.receive_time_ns) ||
        (!is_event(row) && !of_instrument(row.record))) {
        return false;
    }
    ++taken_;
    return true;
}

bool RowFilter::is_done(const ResearchRow& row) const {
    return limit_reached() || (to_.kind == Kind::kMoment && row.receive_time_ns > to_.ns &&
                               row.receive_time_ns - to_.ns > kOutOfOrder);
}

} // namespace vorn_cli
