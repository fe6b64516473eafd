#pragma once

// What addresses, ports and topics mean, by a configuration of the feed.

#include "tools/vorn/check/effective_config.h"
#include "wirekit/ethernet.h"

#include <optional>
#include <string>
#include <vector>

namespace vorn_cli {

enum class Side : uint8_t { kShfe = 0, kIne = 1 };
inline constexpr std::size_t kSides = 2;
const char* side_name(Side side);

struct LineName {
    wirekit::Endpoint group;
    std::string feed; // as in "shfe2ps"
    char line = 'A';  // or 'B'
};

struct TopicName {
    int topic_id = 0;
    std::string feed;
    Side side = Side::kShfe;
};

struct CaptureNames {
    std::vector<LineName> lines;
    std::vector<TopicName> topics; // in the order in which the feed compares them
    std::vector<uint16_t> snapshot_ports;
    std::vector<std::string> unusable; // addresses that are none, as they stand

    const LineName* line(const wirekit::Endpoint& group) const;
    const TopicName* topic(int topic_id) const;
    bool is_snapshot_port(uint16_t port) const;
};

CaptureNames capture_names(const EffectiveConfig& config);

// "239.4.42.72:21000"
std::string endpoint_text(const wirekit::Endpoint& endpoint);
std::optional<wirekit::Endpoint> parse_endpoint(const std::string& text);

} // namespace vorn_cli
