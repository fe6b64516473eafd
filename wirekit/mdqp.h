#pragma once

// Builder of MDQP messages: an 8-byte header (flag, type id, body length, request id) and a body of
// fields, each with a 4-byte header (id, size). Everything is little-endian and packed.
//
//   auto bytes = mdqp_message(kFlagMore).snap(1000, 1).inst({.inst_id = "cu2601", .inst_no = 3})
//                    .packet_no(7).bytes();

#include "wirekit/bytes.h"

#include <limits>
#include <string>

namespace wirekit {

inline constexpr uint8_t kFlagMore = 0x11; // every message of a round but its last
inline constexpr uint8_t kFlagLast = 0x01; // ends a feed's round
inline constexpr int8_t kTypeSnapshot = 0x32;
// "No value" for prices and amounts.
inline constexpr double kNoValue = std::numeric_limits<double>::max();

// Dictionary entry (field 0x0101, 112 bytes).
struct InstInfo {
    std::string inst_id{};
    std::string underlying_inst_id{};
    char product_class = '1';
    double strike_price = 0.0;
    char options_type = '0';
    int32_t volume_multiple = 1;
    double underlying_multiple = 1.0;
    int32_t is_trading = 1;
    std::string currency_id = "CNY";
    double price_tick = 1.0;
    double codec_price = 0.0;
    int32_t inst_no = 0;
};

// Deal and limit prices (field 0x0102, 154 bytes).
struct DealInfo {
    int32_t inst_no = 0;
    double last_price = 0.0;
    int32_t volume = 0;
    double turnover = 0.0;
    double open_interest = 0.0;
    double highest_price = 0.0;
    double lowest_price = 0.0;
    double open_price = 0.0;
    double close_price = 0.0;
    double settlement_price = 0.0;
    double upper_limit_price = 0.0;
    double lower_limit_price = 0.0;
    double pre_settlement_price = 0.0;
    double pre_close_price = 0.0;
    double pre_open_interest = 0.0;
    double pre_delta = 0.0;
    double curr_delta = 0.0;
    std::string action_day{};
    std::string update_time{};
    int32_t update_mill_sec = 0;
    int32_t change_no = 0;
};

class MdqpMessageBuilder {
public:
    explicit MdqpMessageBuilder(uint8_t flag = kFlagMore, int8_t type_id = kTypeSnapshot,
                                int32_t request_id = 0);

    MdqpMessageBuilder& snap(int16_t topic_id, int32_t snap_no); // 0x1001
    MdqpMessageBuilder& inst(const InstInfo& info);              // 0x0101
    MdqpMessageBuilder& deal(const DealInfo& info);              // 0x0102
    MdqpMessageBuilder& price(int32_t inst_no, char direction, double price,
                              int32_t volume); // 0x0103
    MdqpMessageBuilder& order_totals(int32_t inst_no, int32_t bid_totvol, double bid_totamount,
                                     int32_t ask_totvol, double ask_totamount); // 0x0104
    MdqpMessageBuilder& packet_no(int32_t packet_no);                           // 0x1004
    // Any field: `field_size` goes into the field's header as it comes, `data` behind it.
    MdqpMessageBuilder& field(uint16_t field_id, uint16_t field_size,
                              std::span<const uint8_t> data);
    // Any bytes behind what stands so far.
    MdqpMessageBuilder& raw(std::span<const uint8_t> bytes);
    // Forces the header's length to a value that need not be the body's.
    MdqpMessageBuilder& length(uint16_t body_length);

    std::size_t size() const { return bytes_.size(); }
    // The message; the header's length is the body's unless it was forced.
    const Bytes& bytes();
    // Starts over with an empty body; keeps the allocation.
    void restart(uint8_t flag, int32_t request_id = 0);

private:
    uint8_t* grow_field(uint16_t field_id, uint16_t data_size);

    Bytes bytes_;
    int32_t forced_length_ = -1;
};

inline MdqpMessageBuilder mdqp_message(uint8_t flag = kFlagMore) {
    return MdqpMessageBuilder(flag);
}

} // namespace wirekit
