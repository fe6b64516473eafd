#pragma once

// The catalogue: every instrument of the session, what the dictionary says of it and what the
// market needs to know to trade it.
//
// A price is a whole number of ticks counted from the instrument's codec price, on the wire and in
// the books. The published double is DEFINED as ticks * price_tick + codec_price, each operation
// rounded, in this order; every double the simulator sends or expects comes from published_price().

#include "exchange_sim/products.h"
#include "exchange_sim/session_options.h"

#include <cstdint>
#include <string>
#include <vector>

namespace exchange_sim {

enum class InstrumentKind : uint8_t { kFuture, kOption, kSpread, kTas };

struct Instrument {
    std::string id; // at most 15 characters
    std::string underlying_id;
    Exchange exchange = Exchange::kShfe;
    InstrumentKind kind = InstrumentKind::kFuture;
    uint16_t number = 0;    // the exchange's instrument number
    uint16_t product = 0;   // index into products()
    char option_type = '0'; // '1' call, '2' put
    double strike_price = 0.0;

    int32_t volume_multiple = 1;
    int32_t tick_milli = 1000;
    int64_t codec_milli = 0;
    double price_tick = 1.0;
    double codec_price = 0.0;
    // The dictionary gives "no value" for the codec price, which stands for 0.
    bool codec_unpublished = false;

    // Ticks from the codec price.
    int32_t reference_ticks = 0; // yesterday's settlement price
    int32_t lower_limit_ticks = 0;
    int32_t upper_limit_ticks = 0;
    int64_t pre_open_interest = 0;

    // A move of the product by x millionths moves the fair price by
    // x * fair_slope / (10^9 * tick_milli) ticks.
    int64_t fair_slope = 0;
    uint32_t activity = 1; // weight among the instruments, at least 1
    uint32_t depth = 20;   // resting orders a side that the order flow keeps
};

inline double published_price(const Instrument& instrument, int32_t ticks) {
    return static_cast<double>(ticks) * instrument.price_tick + instrument.codec_price;
}

// What `volume` lots whose prices add up to `ticks_volume` (lots times ticks) cost; the same order
// of operations on both sides of the wire.
inline double published_amount(const Instrument& instrument, int64_t volume, int64_t ticks_volume) {
    return (static_cast<double>(volume) * instrument.codec_price +
            static_cast<double>(ticks_volume) * instrument.price_tick) *
           static_cast<double>(instrument.volume_multiple);
}
inline int64_t exact_amount_milli(const Instrument& instrument, int64_t volume,
                                  int64_t ticks_volume) {
    return (volume * instrument.codec_milli + ticks_volume * instrument.tick_milli) *
           instrument.volume_multiple;
}

// SHFE first, then INE, each by ascending number.
std::vector<Instrument> make_catalogue(const SessionOptions& options);

} // namespace exchange_sim
