#pragma once

// A small invented market: instruments of one feed with dictionary entry, deal, totals and book,
// its snapshot as a stream of messages, and the records that the feed's table must then hold.

#include "ExanicMdTypes.h"
#include "wirekit/mdqp.h"

#include <cstdint>
#include <string>
#include <vector>

namespace component_test {

using wirekit::Bytes;

struct Quote {
    double px;
    int32_t vol;
};

struct Instrument {
    wirekit::InstInfo info;
    wirekit::DealInfo deal;
    std::vector<Quote> bids; // best first
    std::vector<Quote> asks;
    int32_t bid_totvol = 0;
    int32_t ask_totvol = 0;
    double bid_totamount = 0;
    double ask_totamount = 0;
};

class Market {
public:
    // `count` instruments with the numbers 0, step, 2 * step, ...; everything in them follows from
    // the seed and the number.
    Market(uint32_t seed, int count, int32_t step, const std::string& product);

    // The round's messages in order: first the one that names the topic, then one for each
    // instrument and now and then a long one of several, last the one that ends the feed.
    std::vector<Bytes> snapshot(int16_t topic) const;

    const std::vector<Instrument>& instruments() const { return instruments_; }
    int32_t highest_number() const { return instruments_.back().info.inst_no; }

    // What the snapshot makes of an empty record.
    static instrument record_of(const Instrument& from);

private:
    std::vector<Instrument> instruments_;
};

// A slot as the exchanges share the table.
int slot_of(bool ine, int32_t number);

// How a stream reaches the card: cut into segments, some lost, repeated, reordered and damaged,
// then everything once more from the start, as a sender does until all is acknowledged.
std::vector<Bytes> rough_delivery(uint32_t seed, const std::vector<Bytes>& messages,
                                  uint32_t first_seq, uint16_t src_port, uint16_t dst_port);

} // namespace component_test
