// Multicast lines: "a.b.c.d:port", split at the first ':', the address by inet_addr, the port as a
// decimal number. Nothing of it is checked by the feed; the card gets what comes out.

#include "tools/vorn/check/check_context.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <optional>
#include <utility>

namespace vorn_cli {

namespace {

struct Line {
    uint32_t group = 0; // host order; all ones when the text is no address
    long port = 0;
    bool usable = false;
    bool operator==(const Line& other) const { return group == other.group && port == other.port; }
};

std::string dotted(uint32_t ip) {
    return fmt::format("{}.{}.{}.{}", ip >> 24, ip >> 16 & 255, ip >> 8 & 255, ip & 255);
}

// Four decimal numbers without leading zeros, as everyone reads them. inet_addr takes more: fewer
// numbers, octal ones (a leading zero) and hexadecimal ones.
std::optional<uint32_t> plain_address(const std::string& text) {
    uint32_t ip = 0;
    std::size_t at = 0;
    for (int part = 0; part < 4; ++part) {
        const std::size_t end = text.find_first_not_of("0123456789", at);
        const std::string digits = text.substr(at, end == std::string::npos ? end : end - at);
        if (digits.empty() || digits.size() > 3 || (digits.size() > 1 && digits.front() == '0') ||
            std::stoi(digits) > 255 || (end == std::string::npos) != (part == 3) ||
            (part < 3 && text[end] != '.')) {
            return std::nullopt;
        }
        ip = ip << 8 | static_cast<uint32_t>(std::stoi(digits));
        at = end + 1;
    }
    return ip;
}

// Reports on one line's text and returns what the card gets.
Line check_line(CheckContext& context, const FeedConfig& feed, const std::string& key,
                const std::string& text) {
    Line result;
    const std::size_t colon = text.find(':');
    const uint32_t line = context.line_of(key);
    // A bad address of a feed that is off hurts nobody yet.
    const Severity severity = feed.enabled ? Severity::kError : Severity::kWarning;
    const bool silent = context.entry(key) == nullptr;
    const auto report = [&](const char* rule, std::string what, std::string effect,
                            std::string instead) {
        if (!silent) {
            context.add(severity, line, rule, key, std::move(what), std::move(effect),
                        std::move(instead));
        }
    };
    constexpr char kForm[] = "write group:port, as in 239.4.42.72:21000";
    if (colon == std::string::npos) {
        report("address", fmt::format("no ':' in {} = {}", key, quoted(text)),
               "the card is given group 0.0.0.0 and port 0, so this line receives nothing", kForm);
        return result;
    }
    const std::string address = trim_blanks(text.substr(0, colon));
    const std::string port_text = text.substr(colon + 1);
    result.group = ntohl(::inet_addr(text.substr(0, colon).c_str()));
    result.port = convert_number(port_text).value;

    const auto plain = plain_address(address);
    const bool parsable = result.group != INADDR_NONE;
    if (!plain && parsable) {
        report("address", fmt::format("{} is no plain dotted address", quoted(address)),
               fmt::format("the feed reads it as {}", dotted(result.group)),
               "write four decimal numbers without leading zeros");
    } else if (!plain || !parsable) {
        report("address", fmt::format("{} is no IPv4 address", quoted(address)),
               "the card is given group 255.255.255.255, so this line receives nothing", kForm);
    } else if (result.group >> 28 != 0xE) {
        report("address", fmt::format("{} is no multicast group", address),
               "no multicast comes to it, so this line receives nothing",
               "write a group from 224.0.0.0 to 239.255.255.255");
    }

    const ConvertedNumber port = convert_number(port_text);
    if (!port.has_digits) {
        report("port", fmt::format("{} is no port", quoted(trim_blanks(port_text))),
               "the card is given port 0, so this line receives nothing", kForm);
    } else if (!port.rest.empty()) {
        report("port", fmt::format("{} behind the port of {}", quoted(port.rest), key),
               fmt::format("the feed reads as far as the digits go: {}", port.value), kForm);
    } else if (port.value < 1 || port.value > 65535) {
        report("port", fmt::format("port {} of {}", trim_blanks(port_text), key),
               "the card is given it as it stands and no datagram has such a port, so this line "
               "receives nothing",
               "write 1 to 65535");
    }
    result.usable = plain && result.group >> 28 == 0xE && port.rest.empty() && port.value >= 1 &&
                    port.value <= 65535;
    return result;
}

} // namespace

void check_addresses(CheckContext& context) {
    struct Checked {
        std::string key;
        const FeedConfig* feed;
        Line line;
    };
    std::vector<Checked> checked;
    const EffectiveConfig& config = context.config;
    for (const FeedConfig* feed :
         {&config.shfe2ps, &config.shfe4ps, &config.ine2ps, &config.ine4ps}) {
        checked.push_back({feed->name + "_ip_a", feed,
                           check_line(context, *feed, feed->name + "_ip_a", feed->line_a)});
        checked.push_back({feed->name + "_ip_b", feed,
                           check_line(context, *feed, feed->name + "_ip_b", feed->line_b)});
    }
    for (std::size_t i = 0; i < checked.size(); ++i) {
        for (std::size_t j = i + 1; j < checked.size(); ++j) {
            const Checked& one = checked[i];
            const Checked& other = checked[j];
            if (!one.line.usable || !(one.line == other.line) || !one.feed->enabled ||
                !other.feed->enabled) {
                continue;
            }
            const uint32_t line = std::max(context.line_of(one.key), context.line_of(other.key));
            const std::string what =
                fmt::format("{} and {} are the same group and port", one.key, other.key);
            if (one.feed == other.feed) {
                context.warning(line, "same-line", other.key, what,
                                "there is one line only: what it loses is a gap",
                                "give the other line its own address");
            } else {
                context.error(line, "same-line", other.key, what,
                              "the card cannot tell the two feeds apart",
                              "give each feed its own addresses");
            }
        }
    }
}

} // namespace vorn_cli
