#pragma once

// The feed and its server in Prometheus' text format. docs/serve.md lists the names.

#include "tools/vorn/bus_view/feed_view.h"

#include <cstdint>
#include <string>

namespace vorn_cli {

struct ServerLoad {
    uint64_t connections = 0;
    uint64_t streams = 0;
    uint64_t requests = 0;
    uint64_t refused = 0;
};

std::string metrics_text(const FeedStatus& status, std::size_t instruments, const ServerLoad& load);

} // namespace vorn_cli
