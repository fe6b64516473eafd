#pragma once

// Puts a decode buffer back into the form in which it travels: a UDP datagram to a multicast group
// of its exchange. Which line it came on the card does not say; line A stands for both, or line B
// where the configuration has no usable line A.

#include "tools/vorn/check/effective_config.h"
#include "wirekit/ethernet.h"

#include <array>
#include <cstdint>
#include <span>

namespace vorn_cli {

class DecodeWrapper {
public:
    explicit DecodeWrapper(const EffectiveConfig& config);

    // The frame, valid until the next call. A buffer of an unknown topic goes to the first exchange
    // whose feed is enabled: the feed meets it there as well.
    std::span<const char> wrap(std::span<const char> buffer);

private:
    struct Exchange {
        std::array<int16_t, 2> topics{};
        wirekit::Endpoint group;
    };

    std::array<Exchange, 2> exchanges_;
    std::size_t fallback_ = 0;
    wirekit::Bytes frame_;
};

} // namespace vorn_cli
