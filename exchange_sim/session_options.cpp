#include "exchange_sim/session_options.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace exchange_sim {

namespace {

constexpr std::string_view kSeparators = " \t\r\n,;";
constexpr uint64_t kMaxRate = 10'000'000;
constexpr uint64_t kMaxSeconds = 86400;

std::optional<uint64_t> parse_whole(std::string_view text, uint64_t low, uint64_t high) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
        return std::nullopt;
    }
    return value;
}

// A decimal such as "1.5", times 10^`decimals`, without a detour through binary fractions.
std::optional<uint64_t> parse_decimal(std::string_view text, int decimals, uint64_t high) {
    const std::size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    std::string digits(point == std::string_view::npos ? "" : text.substr(point + 1));
    if (digits.size() > static_cast<std::size_t>(decimals)) {
        return std::nullopt;
    }
    digits.resize(static_cast<std::size_t>(decimals), '0');
    uint64_t scale = 1;
    for (int i = 0; i < decimals; ++i) {
        scale *= 10;
    }
    const auto units = parse_whole(whole, 0, high);
    const auto rest = parse_whole(digits, 0, scale);
    if (!units || !rest || *units * scale + *rest > high * scale) {
        return std::nullopt;
    }
    return *units * scale + *rest;
}

std::optional<wirekit::Endpoint> parse_endpoint(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    const auto port = parse_whole(text.substr(colon + 1), 1, 65535);
    uint32_t ip = 0;
    std::string_view address = text.substr(0, colon);
    for (int byte = 0; byte < 4; ++byte) {
        const std::size_t dot = address.find('.');
        const auto part = parse_whole(address.substr(0, dot), 0, 255);
        if (!part || (dot == std::string_view::npos) != (byte == 3)) {
            return std::nullopt;
        }
        ip = ip << 8 | static_cast<uint32_t>(*part);
        address.remove_prefix(byte == 3 ? address.size() : dot + 1);
    }
    if (!port) {
        return std::nullopt;
    }
    return wirekit::Endpoint{ip, static_cast<uint16_t>(*port)};
}

bool is_leap_year(uint32_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

std::optional<uint32_t> parse_date(std::string_view text) {
    const auto date = parse_whole(text, 20000101, 20991231);
    if (!date) {
        return std::nullopt;
    }
    const uint32_t year = static_cast<uint32_t>(*date / 10000);
    const uint32_t month = static_cast<uint32_t>(*date / 100 % 100);
    const uint32_t day = static_cast<uint32_t>(*date % 100);
    constexpr uint32_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 ||
        day > kDays[month - 1] + (month == 2 && is_leap_year(year) ? 1 : 0)) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(*date);
}

std::optional<uint32_t> parse_time_of_day(std::string_view text) {
    if (text.size() != 8 || text[2] != ':' || text[5] != ':') {
        return std::nullopt;
    }
    const auto hour = parse_whole(text.substr(0, 2), 0, 23);
    const auto minute = parse_whole(text.substr(3, 2), 0, 59);
    const auto second = parse_whole(text.substr(6, 2), 0, 59);
    if (!hour || !minute || !second) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(*hour * 3600 + *minute * 60 + *second);
}

template <typename Member, typename Value>
bool assign(Member& member, const std::optional<Value>& value) {
    if (value) {
        member = static_cast<Member>(*value);
    }
    return value.has_value();
}

template <typename Member>
bool assign_whole(Member& member, std::string_view text, uint64_t low, uint64_t high) {
    return assign(member, parse_whole(text, low, high));
}

bool assign_milliseconds(uint64_t& nanoseconds, std::string_view text) {
    return assign(nanoseconds, parse_decimal(text, 6, kMaxSeconds * 1000));
}

struct Key {
    std::string_view name;
    std::string_view default_text;
    std::string_view meaning;
    bool (*set)(SessionOptions&, std::string_view);
};

using Options = SessionOptions;
using Text = std::string_view;

// clang-format off
constexpr Key kKeys[] = {
    {"seed", "1", "start of all chance; another seed is another market",
     [](Options& o, Text t) { return assign_whole(o.seed, t, 0, UINT64_MAX); }},
    {"instruments", "400", "instruments of all feeds, up to 20480 (16384 SHFE, 4096 INE)",
     [](Options& o, Text t) { return assign_whole(o.instruments, t, 1, kMaxShfeInstruments + kMaxIneInstruments); }},
    {"options_percent", "30", "share of options; more when the futures run out",
     [](Options& o, Text t) { return assign_whole(o.options_percent, t, 0, 100); }},
    {"spreads_percent", "6", "share of calendar spreads and TAS contracts",
     [](Options& o, Text t) { return assign_whole(o.spreads_percent, t, 0, 100); }},
    {"feeds", "both", "both, shfe or ine",
     [](Options& o, Text t) {
         o.feeds = t == "shfe" ? Feeds::kShfe : t == "ine" ? Feeds::kIne : Feeds::kBoth;
         return t == "both" || o.feeds != Feeds::kBoth;
     }},
    {"lines", "both", "multicast lines: both, a or b",
     [](Options& o, Text t) {
         o.lines = t == "a" ? Lines::kA : t == "b" ? Lines::kB : Lines::kBoth;
         return t == "both" || o.lines != Lines::kBoth;
     }},
    {"changes", "1000000", "changes after which the market closes, 0 for no bound (default 0 with seconds)",
     [](Options& o, Text t) { return assign_whole(o.changes, t, 0, UINT64_MAX); }},
    {"seconds", "0", "simulated time after which the market closes, 0 for no bound",
     [](Options& o, Text t) { return assign(o.seconds_ns, parse_decimal(t, 9, kMaxSeconds)); }},
    {"rate", "100000", "changes a second of simulated time, on average",
     [](Options& o, Text t) { return assign_whole(o.rate, t, 1, kMaxRate); }},
    {"rounds", "unlimited", "snapshot rounds of each feed at most, or unlimited",
     [](Options& o, Text t) {
         o.rounds = UINT32_MAX;
         return t == "unlimited" || assign_whole(o.rounds, t, 0, UINT32_MAX - 1);
     }},
    {"first_round_ms", "0", "start of the first round, 0 for a twentieth of the session",
     [](Options& o, Text t) { return assign_milliseconds(o.first_round_ns, t); }},
    {"round_interval_ms", "0", "from round to round, 0 for a fifth of the session",
     [](Options& o, Text t) { return assign_milliseconds(o.round_interval_ns, t); }},
    {"round_ms", "0", "length of a round, 0 for a hundredth of the session",
     [](Options& o, Text t) { return assign_milliseconds(o.round_length_ns, t); }},
    {"message_instruments", "0", "instruments in each message of a round, up to 64; 0 for a mix",
     [](Options& o, Text t) { return assign_whole(o.message_instruments, t, 0, 64); }},
    {"date", "20260115", "day of the session, yyyymmdd",
     [](Options& o, Text t) { return assign(o.date, parse_date(t)); }},
    {"start", "09:00:00", "time of day at which it starts, at the exchange (UTC+8)",
     [](Options& o, Text t) { return assign(o.start_second, parse_time_of_day(t)); }},
    {"shfe2ps_ip_a", "239.4.42.72:21000", "SHFE line A",
     [](Options& o, Text t) { return assign(o.shfe.line_a, parse_endpoint(t)); }},
    {"shfe2ps_ip_b", "239.3.42.71:21000", "SHFE line B",
     [](Options& o, Text t) { return assign(o.shfe.line_b, parse_endpoint(t)); }},
    {"ine2ps_ip_a", "239.3.52.71:25000", "INE line A",
     [](Options& o, Text t) { return assign(o.ine.line_a, parse_endpoint(t)); }},
    {"ine2ps_ip_b", "239.4.52.72:25000", "INE line B",
     [](Options& o, Text t) { return assign(o.ine.line_b, parse_endpoint(t)); }},
    {"shfe2ps_topic_id", "1000", "topic of SHFE",
     [](Options& o, Text t) { return assign_whole(o.shfe.topic_id, t, 0, 32767); }},
    {"ine2ps_topic_id", "5000", "topic of INE",
     [](Options& o, Text t) { return assign_whole(o.ine.topic_id, t, 0, 32767); }},
    {"md2ps_snap_port", "33022", "server's port of the snapshot connections",
     [](Options& o, Text t) { return assign_whole(o.snapshot_port, t, 1, 65535); }},
    {"shfe_client_port", "50001", "client's port of the SHFE snapshot connection",
     [](Options& o, Text t) { return assign_whole(o.shfe.client_port, t, 1, 65535); }},
    {"ine_client_port", "50002", "client's port of the INE snapshot connection",
     [](Options& o, Text t) { return assign_whole(o.ine.client_port, t, 1, 65535); }},
};
// clang-format on

std::string quoted(std::string_view text) {
    std::string result(1, '\'');
    return result.append(text).append(1, '\'');
}

std::string known_keys() {
    std::string text = "; known keys:";
    for (const Key& key : kKeys) {
        text.append(" ").append(key.name);
    }
    return text;
}

// Sets options one by one and judges them together at the end.
class OptionReader {
public:
    std::string set(std::string_view name, std::string_view value) {
        changes_given_ = changes_given_ || name == "changes";
        seconds_given_ = seconds_given_ || name == "seconds";
        return set_option(options_, name, value);
    }

    ParsedOptions finish(std::string error) {
        if (seconds_given_ && !changes_given_) {
            options_.changes = 0; // who asks for a time does not mean "but at most a million"
        }
        return {options_, error.empty() ? check_session_options(options_) : std::move(error)};
    }

private:
    static std::string set_option(SessionOptions& options, std::string_view name,
                                  std::string_view value);

    SessionOptions options_;
    bool changes_given_ = false;
    bool seconds_given_ = false;
};

std::string OptionReader::set_option(SessionOptions& options, std::string_view name,
                                     std::string_view value) {
    for (const Key& key : kKeys) {
        if (key.name == name) {
            if (key.set(options, value)) {
                return {};
            }
            std::string text = "bad value ";
            text.append(quoted(value)).append(" for ").append(name).append(" (");
            return text.append(key.meaning).append(")").append(known_keys());
        }
    }
    return std::string("unknown key ").append(quoted(name)).append(known_keys());
}

} // namespace

std::string check_session_options(const SessionOptions& options) {
    const uint32_t limit = options.feeds == Feeds::kShfe ? kMaxShfeInstruments
                           : options.feeds == Feeds::kIne
                               ? kMaxIneInstruments
                               : kMaxShfeInstruments + kMaxIneInstruments;
    if (options.instruments == 0 || options.rate == 0) {
        return "instruments and rate must be at least 1";
    }
    if (options.instruments > limit) {
        return "instruments exceed the " + std::to_string(limit) + " numbers of the chosen feeds";
    }
    if (options.feeds == Feeds::kBoth && options.instruments < 2) {
        return "two feeds need at least two instruments";
    }
    if (options.options_percent + options.spreads_percent > 100) {
        return "options_percent and spreads_percent together exceed 100";
    }
    if (options.feeds == Feeds::kBoth && options.shfe.client_port == options.ine.client_port) {
        return "shfe_client_port and ine_client_port must differ: a port is a connection";
    }
    if (options.shfe.topic_id == options.ine.topic_id) {
        return "shfe2ps_topic_id and ine2ps_topic_id must differ";
    }
    return {};
}

ParsedOptions parse_session_options(std::string_view text) {
    OptionReader reader;
    std::string error;
    while (!text.empty() && error.empty()) {
        if (text.front() == '#') {
            text.remove_prefix(std::min(text.find('\n'), text.size()));
            continue;
        }
        if (kSeparators.find(text.front()) != std::string_view::npos) {
            text.remove_prefix(1);
            continue;
        }
        const std::string_view pair = text.substr(0, text.find_first_of(" \t\r\n,;#"));
        text.remove_prefix(pair.size());
        const std::size_t equals = pair.find('=');
        if (equals == std::string_view::npos) {
            error = quoted(pair).append(" is not key=value").append(known_keys());
        } else {
            error = reader.set(pair.substr(0, equals), pair.substr(equals + 1));
        }
    }
    return reader.finish(std::move(error));
}

ParsedOptions parse_session_options(const std::map<std::string, std::string>& pairs) {
    OptionReader reader;
    for (const auto& [name, value] : pairs) {
        std::string error = reader.set(name, value);
        if (!error.empty()) {
            return reader.finish(std::move(error));
        }
    }
    return reader.finish({});
}

std::string session_options_help() {
    std::string text;
    for (const Key& key : kKeys) {
        std::string name(key.name);
        std::string default_text(key.default_text);
        name.resize(20, ' ');
        default_text.resize(18, ' ');
        text.append(name).append(default_text).append(key.meaning).append("\n");
    }
    return text;
}

int64_t session_midnight(const SessionOptions& options) {
    // Days from the civil date, counted in years that begin in March so that the leap day is last.
    const int64_t month = options.date / 100 % 100;
    const int64_t year = options.date / 10000 - (month <= 2 ? 1 : 0);
    const int64_t day_of_year =
        (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + options.date % 100 - 1;
    const int64_t days = year * 365 + year / 4 - year / 100 + year / 400 + day_of_year - 719468;
    constexpr int64_t kExchangeOffset = 8 * int64_t{3600};
    return days * 86400 - kExchangeOffset;
}

} // namespace exchange_sim
