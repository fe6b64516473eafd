#pragma once

// The incremental channel as plainly as its description reads, for comparison: every log line is
// formatted before its level is tested, under the logger's lock; the whole record is saved before
// each message; prices are computed where they are used. It gives the same records.

#include "bench/reference/market.h"

#include <exanic/fifo_rx.h>

#include <cstdint>
#include <mutex>

namespace bench {

class LiteralLog {
public:
    void write(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    int mask = 7;
    uint64_t written = 0;

private:
    std::mutex mutex_;
};

class LiteralLive {
public:
    LiteralLive(Market& market, exanic_rx_t* rx, volatile uint32_t* registers)
        : market_(market), rx_(rx), registers_(registers) {}

    // One poll; as the feed's own: 1 when the record of `slot` was updated.
    int32_t receive(uint32_t& slot);

private:
    int32_t parse(char* packet, uint32_t len, uint32_t& slot);
    void book_step(instrument& record, const char* field, uint32_t slot, int& bid_levels,
                   int& ask_levels);
    bool book_is_sane(const instrument& record);
    double price(uint32_t slot, int32_t offset) const;
    double amount(uint32_t slot, int32_t volume, int64_t offset) const;

    Market& market_;
    exanic_rx_t* rx_;
    volatile uint32_t* registers_;
    LiteralLog log_;
    char buffer_[RECV_BUF_SIZE];
};

} // namespace bench
