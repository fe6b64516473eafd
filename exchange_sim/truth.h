#pragma once

// What a consumer of the feed must hold for an instrument, kept from the simulator's own books and
// never by decoding what it sends.
//
// The record is that of the last change published. A consumer holds the same from that change's
// datagram on, with these differences, all of them due to what a snapshot does not carry:
// - update_time and type come with changes only; until its first change after a snapshot a consumer
//   has 0 in both.
// - A snapshot has five levels a side. Levels 6 to 10 of a consumer are those of the truth once a
//   change has restated them (see book_publisher.h); the closing sweep does so for every
//   instrument, so at the end of a session the records agree in every field.

#include <array>
#include <cstdint>

namespace exchange_sim {

inline constexpr int kDepth = 10; // levels a side in a record

struct ExpectedRecord {
    std::array<char, 16> inst_id{}; // NUL-terminated
    double last_px = 0.0;           // 0 before the first trade, as are the high and the low
    uint32_t volume = 0;            // lots
    uint32_t update_time = 0;       // seconds since the Unix epoch, simulated
    uint16_t update_milli_sec = 0;
    uint16_t type = 0; // 0 SHFE, 1 INE
    uint32_t change_no = 0;
    double turnover = 0.0;
    double open_interest = 0.0;
    int32_t bid_totvol = 0;
    int32_t ask_totvol = 0;
    double bid_totamount = 0.0;
    double ask_totamount = 0.0;
    double highest_price = 0.0;
    double lowest_price = 0.0;
    std::array<double, kDepth> bid_px{}; // best first
    std::array<int32_t, kDepth> bid_vol{};
    std::array<int32_t, kDepth> ask_vol{};
    std::array<double, kDepth> ask_px{};

    bool operator==(const ExpectedRecord&) const = default;
};

// The same amounts without rounding, in thousandths of the currency unit. The doubles of a record
// are running sums and drift from these by rounding only; the tests hold them together.
struct ExactAmounts {
    int64_t turnover_milli = 0;
    int64_t bid_totamount_milli = 0;
    int64_t ask_totamount_milli = 0;
};

} // namespace exchange_sim
