#pragma once

// The feed's incremental channel on a market of its own, as the run loop holds it.

#include "bench/reference/market.h"

#include "config/ConfigParse.h"
#include "udp/ExanicUdpFunc.h"

#include <exanic/fifo_rx.h>

#include <cstdint>
#include <memory>

namespace bench {

ExanicMdConfigData feed_config();

class IncrementalFeed {
public:
    explicit IncrementalFeed(uint32_t instruments);

    // Table and cache offsets as they were at the start. The cache's bytes stay.
    void reset();
    uint64_t hash() const;
    void call_back() { update_md_count += market->table.instmts[slot].change_no; }

    std::unique_ptr<Market> market;
    CacheBufInfo cache{};
    uint32_t slot = 0;
    uint64_t update_md_count = 0;
    std::unique_ptr<CExanicUdpFunc> channel;

private:
    std::unique_ptr<Market> fresh_;
    ExanicMdConfigData config_;
    std::unique_ptr<char[]> cache_bytes_;
};

} // namespace bench
