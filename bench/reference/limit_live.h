#pragma once

// The least work that gives the same tables and register stores for a stream without a defect: the
// loads, checks and stores needed, all in one function, topics as constants, nothing kept for an
// undo, no log line anywhere. Not usable as a feed: a lower bound to measure against.

#include "bench/reference/market.h"

#include <exanic/fifo_rx.h>

#include <cstdint>

namespace bench {

class LimitLive {
public:
    LimitLive(Market& market, exanic_rx_t* rx, volatile uint32_t* registers)
        : market_(market), rx_(rx), registers_(registers) {}

    // As LiteralLive::receive.
    int32_t receive(uint32_t& slot);

private:
    Market& market_;
    exanic_rx_t* rx_;
    volatile uint32_t* registers_;
    char buffer_[RECV_BUF_SIZE];
};

} // namespace bench
