#pragma once

// What `vorn fanout` says about itself, as JSON and as text.

#include "tools/vorn/fanout/bus_source.h"
#include "tools/vorn/fanout/lanes.h"
#include "tools/vorn/fanout/nats_link.h"
#include "tools/vorn/fanout/sender.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace vorn_cli {

struct FanoutParts {
    const NatsLink& link;
    const BusSource& source;
    const Lanes& lanes;
    const Sender& sender;
};

nlohmann::json fanout_json(const FanoutParts& parts);

// The figures of a moment in one line; `before` is what was over `seconds` ago.
std::string fanout_line(const FanoutParts& parts, uint64_t before, double seconds);

// What deserves a line of its own when it changes; empty while all is well.
std::string fanout_trouble(const FanoutParts& parts);

} // namespace vorn_cli
