#include "bench/reference/market.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace bench {

namespace {

constexpr int kLevels = 5;
constexpr double kTick = 5.0;
constexpr double kCodecPrice = 70'000.0;

} // namespace

Address address_of(uint32_t instrument, uint32_t instruments) {
    // Four fifths are SHFE's, as in the full table.
    const uint32_t shfe = instruments - instruments / 5;
    if (instrument < shfe) {
        return {kShfeTopic, instrument, instrument};
    }
    const uint32_t number = instrument - shfe;
    return {kIneTopic, number, LAST_SLOT - number};
}

std::unique_ptr<Market> make_market(uint32_t instruments) {
    auto market = std::make_unique<Market>();
    std::memset(static_cast<void*>(market.get()), 0, sizeof(Market));
    for (uint32_t i = 0; i < instruments; ++i) {
        const uint32_t slot = address_of(i, instruments).slot;
        instrument& record = market->table.instmts[slot];
        std::snprintf(reinterpret_cast<char*>(record.inst_id), sizeof(record.inst_id), "i%05u", i);
        market->scale.priceTick[slot] = kTick;
        market->scale.codecPrice[slot] = kCodecPrice;
        market->scale.volumeMulti[slot] = 5;
        for (int level = 0; level < kLevels; ++level) {
            record.bid_px[level] = kCodecPrice - kTick * (level + 1) * 4;
            record.ask_px[level] = kCodecPrice + kTick * (level + 1) * 4;
            record.bid_vol[level] = 10 + level;
            record.ask_vol[level] = 20 + level;
        }
        record.last_px = kCodecPrice;
    }
    return market;
}

} // namespace bench
