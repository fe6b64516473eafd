#include "tools/vorn/serve/api_json.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace vorn_cli {

namespace {

using nlohmann::json;

json number(double value) {
    return std::isfinite(value) ? json(value) : json();
}

json side_of(const Trade& trade) {
    return trade.side == 'b' ? json("buy") : trade.side == 's' ? json("sell") : json();
}

} // namespace

json events_json(const std::vector<FeedEvent>& events, bool reset) {
    json list = json::array();
    for (const FeedEvent& event : events) {
        list.push_back(to_json(event));
    }
    return {{"reset", reset}, {"events", std::move(list)}};
}

json trades_json(const std::string& inst_id, const std::vector<Trade>& trades, bool reset) {
    json list = json::array();
    for (const Trade& trade : trades) {
        list.push_back({{"id", trade.id},
                        {"time_ns", trade.time_ns},
                        {"price", number(trade.price)},
                        {"volume", trade.volume},
                        {"side", side_of(trade)}});
    }
    return {{"inst_id", inst_id}, {"reset", reset}, {"trades", std::move(list)}};
}

json samples_json(const std::string& inst_id, const std::vector<PriceSample>& samples) {
    json object = {{"inst_id", inst_id},
                   {"time_ns", json::array()},
                   {"last", json::array()},
                   {"bid", json::array()},
                   {"ask", json::array()}};
    for (const PriceSample& sample : samples) {
        object["time_ns"].push_back(sample.time_ns);
        object["last"].push_back(number(sample.last));
        object["bid"].push_back(number(sample.bid));
        object["ask"].push_back(number(sample.ask));
    }
    return object;
}

} // namespace vorn_cli
