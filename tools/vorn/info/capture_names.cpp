#include "tools/vorn/info/capture_names.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <fmt/format.h>

namespace vorn_cli {

const char* side_name(Side side) {
    return side == Side::kShfe ? "SHFE" : "INE";
}

std::string endpoint_text(const wirekit::Endpoint& endpoint) {
    return fmt::format("{}.{}.{}.{}:{}", endpoint.ip >> 24, endpoint.ip >> 16 & 255,
                       endpoint.ip >> 8 & 255, endpoint.ip & 255, endpoint.port);
}

std::optional<wirekit::Endpoint> parse_endpoint(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    in_addr address = {};
    wirekit::Endpoint endpoint;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, endpoint.port);
    if (::inet_pton(AF_INET, text.substr(0, colon).c_str(), &address) != 1 ||
        error != std::errc() || rest != end) {
        return std::nullopt;
    }
    endpoint.ip = ntohl(address.s_addr);
    return endpoint;
}

const LineName* CaptureNames::line(const wirekit::Endpoint& group) const {
    const auto found = std::find_if(lines.begin(), lines.end(),
                                    [&](const LineName& one) { return one.group == group; });
    return found == lines.end() ? nullptr : &*found;
}

const TopicName* CaptureNames::topic(int topic_id) const {
    const auto found = std::find_if(topics.begin(), topics.end(), [&](const TopicName& one) {
        return one.topic_id == topic_id && topic_id >= 0; // a negative one matches no message
    });
    return found == topics.end() ? nullptr : &*found;
}

bool CaptureNames::is_snapshot_port(uint16_t port) const {
    return std::find(snapshot_ports.begin(), snapshot_ports.end(), port) != snapshot_ports.end();
}

CaptureNames capture_names(const EffectiveConfig& config) {
    CaptureNames names;
    for (const FeedConfig* feed :
         {&config.shfe2ps, &config.shfe4ps, &config.ine2ps, &config.ine4ps}) {
        const Side side = feed->exchange == "INE" ? Side::kIne : Side::kShfe;
        names.topics.push_back({feed->topic_id, feed->name, side});
        for (const char line : {'A', 'B'}) {
            const std::string& text = line == 'A' ? feed->line_a : feed->line_b;
            if (const auto group = parse_endpoint(text)) {
                names.lines.push_back({*group, feed->name, line});
            } else {
                names.unusable.push_back(text);
            }
        }
    }
    names.snapshot_ports = {config.md2ps_snap_port, config.md4ps_snap_port};
    return names;
}

} // namespace vorn_cli
