#include "tools/vorn/record/decode_wrapper.h"

#include "wirekit/bytes.h"

#include <arpa/inet.h>
#include <string>

namespace vorn_cli {

namespace {

constexpr wirekit::Endpoint kSender{0x0A010101, 40000};

// As the feed programs it into the card; all zero when the text has no colon.
wirekit::Endpoint group_of(const std::string& line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return {};
    }
    return {ntohl(::inet_addr(line.substr(0, colon).c_str())),
            static_cast<uint16_t>(convert_number(line.substr(colon + 1)).value)};
}

bool is_multicast(const wirekit::Endpoint& group) {
    return group.ip >> 28 == 0xE && group.port != 0;
}

wirekit::Endpoint group_of(const FeedConfig& feed) {
    const wirekit::Endpoint a = group_of(feed.line_a);
    const wirekit::Endpoint b = group_of(feed.line_b);
    return is_multicast(a) || !is_multicast(b) ? a : b;
}

} // namespace

DecodeWrapper::DecodeWrapper(const EffectiveConfig& config)
    : exchanges_{{{{config.shfe2ps.topic_id, config.shfe4ps.topic_id}, group_of(config.shfe2ps)},
                  {{config.ine2ps.topic_id, config.ine4ps.topic_id}, group_of(config.ine2ps)}}},
      fallback_(config.shfe2ps.enabled || !config.ine2ps.enabled ? 0 : 1) {}

std::span<const char> DecodeWrapper::wrap(std::span<const char> buffer) {
    std::size_t exchange = fallback_;
    const auto* const bytes = reinterpret_cast<const uint8_t*>(buffer.data());
    if (buffer.size() >= sizeof(int16_t)) {
        const auto topic = static_cast<int16_t>(wirekit::get_le16(bytes));
        for (std::size_t i = 0; i < exchanges_.size(); ++i) {
            if (topic == exchanges_[i].topics[0] || topic == exchanges_[i].topics[1]) {
                exchange = i;
                break;
            }
        }
    }
    wirekit::write_udp_frame(frame_, kSender, exchanges_[exchange].group, 0,
                             {bytes, buffer.size()});
    return {reinterpret_cast<const char*>(frame_.data()), frame_.size()};
}

} // namespace vorn_cli
