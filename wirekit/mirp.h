#pragma once

// Builder of decode buffers: what the card's firmware delivers for one incremental message, and
// what one multicast datagram carries on the simulated wire. A 24-byte header, then fields.
//
//   auto bytes = decode_buffer().topic(1000).instrument(17).change_no(8)
//                    .insert(Side::kBid, 1, 12, 5).bytes();
//
// Prices are ticks counted from the instrument's codec price.

#include "wirekit/bytes.h"

namespace wirekit {

enum class Side : uint8_t { kBid = 0, kAsk = 1 };

class DecodeBufferBuilder {
public:
    DecodeBufferBuilder();

    // Header. Defaults: topic 1000, time 0, packet 0, field id 3, instrument 0, change number 0.
    DecodeBufferBuilder& topic(uint16_t topic_id);
    DecodeBufferBuilder& time(uint32_t snap_time, uint16_t snap_millisec = 0);
    DecodeBufferBuilder& packet_no(int32_t packet_no);
    DecodeBufferBuilder& field_id(uint16_t field_id);
    DecodeBufferBuilder& instrument(uint32_t instrument_no);
    DecodeBufferBuilder& change_no(uint32_t change_no);

    // Book changes. `level` is 1 (best) to 10, taken as it comes so that bad ones can be made too.
    DecodeBufferBuilder& insert(Side side, uint8_t level, int32_t price_ticks, uint32_t volume);
    DecodeBufferBuilder& update(Side side, uint8_t level, int32_t price_ticks, uint32_t volume);
    DecodeBufferBuilder& erase(Side side, uint8_t level);
    DecodeBufferBuilder& price_change(uint8_t entry_type, uint8_t level, int32_t price_ticks,
                                      uint32_t volume, uint8_t event_type);

    // Trade and statistics fields; amounts are tick-weighted offsets from the codec price.
    DecodeBufferBuilder& deal(int32_t last_price_ticks, int32_t volume_change,
                              int64_t turnover_offset, int64_t open_interest_change);
    DecodeBufferBuilder& bid_totals(int32_t volume_change, int64_t amount_offset);
    DecodeBufferBuilder& ask_totals(int32_t volume_change, int64_t amount_offset);
    DecodeBufferBuilder& highest(int32_t price_ticks);
    DecodeBufferBuilder& lowest(int32_t price_ticks);

    // Any bytes behind what stands so far.
    DecodeBufferBuilder& raw(std::span<const uint8_t> bytes);

    const Bytes& bytes() const { return bytes_; }
    // Starts over with the defaults; keeps the allocation.
    void clear();

private:
    uint8_t* grow(std::size_t size);

    Bytes bytes_;
};

inline DecodeBufferBuilder decode_buffer() {
    return {};
}

} // namespace wirekit
