#pragma once

// What the server answers beyond what feed_json.h has. docs/serve.md tells of all of it.

#include "tools/vorn/bus_view/feed_json.h"
#include "tools/vorn/serve/market_watch.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

namespace vorn_cli {

// {"reset": true, "events": [...]}; reset: all that is known, not what is new.
nlohmann::json events_json(const std::vector<FeedEvent>& events, bool reset);

// {"inst_id": "cu2603", "reset": false, "trades": [{"id", "time_ns", "price", "volume", "side"}]};
// side is "buy", "sell" or null.
nlohmann::json trades_json(const std::string& inst_id, const std::vector<Trade>& trades,
                           bool reset);

// {"inst_id": "cu2603", "time_ns": [...], "last": [...], "bid": [...], "ask": [...]}, null for what
// was not there.
nlohmann::json samples_json(const std::string& inst_id, const std::vector<PriceSample>& samples);

} // namespace vorn_cli
