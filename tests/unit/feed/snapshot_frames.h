#pragma once

// Snapshots as the exchange sends them: TCP segments with MDQP messages, one session per feed, and
// the records that they leave in the table.

#include "ExanicMdTypes.h"
#include "wirekit/bytes.h"
#include "wirekit/mdqp.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// Topics, slots and local ports of the two feeds that a configuration can enable.
struct FeedLine {
    int16_t topic;
    uint16_t local_port;
    bool is_ine;
};
inline constexpr FeedLine kShfe{1000, 50001, false};
inline constexpr FeedLine kIne{5000, 50002, true};

uint32_t slot_of(const FeedLine& feed, int32_t number);

// One instrument's part of a snapshot: dictionary entry, deal, book levels, order totals.
struct SnapshotInstrument {
    wirekit::InstInfo info;
    wirekit::DealInfo deal;
    std::vector<std::pair<double, int32_t>> bids; // price and volume, best first
    std::vector<std::pair<double, int32_t>> asks;
    int32_t bid_totvol = 0;
    double bid_totamount = 0.0;
    int32_t ask_totvol = 0;
    double ask_totamount = 0.0;
    // The record of a subscribed instrument right after the snapshot.
    instrument record() const;
};

// rb2601, SHFE number 3, tick 1, codec price 3000, multiple 10, change number 7.
SnapshotInstrument rebar();
// sc2601, INE number 0, tick 0.5, codec price 500, multiple 1000, change number 41.
SnapshotInstrument crude();

// The frames of one feed's whole round. `round` keeps the sequence numbers of two rounds apart.
std::vector<wirekit::Bytes> snapshot_frames(const FeedLine& feed,
                                            const std::vector<SnapshotInstrument>& instruments,
                                            uint32_t round = 0);
