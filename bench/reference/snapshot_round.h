#pragma once

// One snapshot round of the simulated exchanges, and the feed's snapshot channel to take it.

#include "bench/harness/stand_in_card.h"
#include "bench/reference/market.h"

#include "config/ConfigParse.h"
#include "tcp/ExanicTcpFunc.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace bench {

// The frames that the servers of both exchanges send for `instruments` instruments.
FrameList snapshot_round(uint32_t instruments);

// Each frame in a block of its own with zero bytes behind it, as the worker gets them.
std::vector<std::vector<char>> blocks_of(const FrameList& frames);

// The snapshot channel on tables of its own, subscribed to everything.
struct SnapshotFeed {
    SnapshotFeed();

    std::unique_ptr<Market> market = std::make_unique<Market>();
    ExanicMdConfigData config;
    UEnableMask enabled{};
    UEnableMask finished{};
    std::unique_ptr<CExanicTcpFunc> channel;
};

} // namespace bench
