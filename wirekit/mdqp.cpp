#include "wirekit/mdqp.h"

namespace wirekit {

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kFieldHeaderSize = 4;
constexpr std::size_t kIdentifierWidth = 31;

constexpr uint16_t kFieldInstInfo = 0x0101;
constexpr uint16_t kFieldDealInfo = 0x0102;
constexpr uint16_t kFieldPriceDetail = 0x0103;
constexpr uint16_t kFieldOrderStatis = 0x0104;
constexpr uint16_t kFieldSnap = 0x1001;
constexpr uint16_t kFieldPacketNo = 0x1004;

void put_le_i32(uint8_t* at, int32_t value) {
    put_le32(at, static_cast<uint32_t>(value));
}

} // namespace

MdqpMessageBuilder::MdqpMessageBuilder(uint8_t flag, int8_t type_id, int32_t request_id)
    : bytes_(kHeaderSize) {
    bytes_[0] = flag;
    bytes_[1] = static_cast<uint8_t>(type_id);
    put_le_i32(&bytes_[4], request_id);
}

void MdqpMessageBuilder::restart(uint8_t flag, int32_t request_id) {
    const uint8_t type_id = bytes_[1];
    bytes_.assign(kHeaderSize, 0);
    bytes_[0] = flag;
    bytes_[1] = type_id;
    put_le_i32(&bytes_[4], request_id);
    forced_length_ = -1;
}

// Appends a field's header and room for its data, all zero; returns where the data goes.
uint8_t* MdqpMessageBuilder::grow_field(uint16_t field_id, uint16_t data_size) {
    const std::size_t start = bytes_.size();
    bytes_.resize(start + kFieldHeaderSize + data_size);
    put_le16(&bytes_[start], field_id);
    put_le16(&bytes_[start + 2], data_size);
    return bytes_.data() + start + kFieldHeaderSize;
}

MdqpMessageBuilder& MdqpMessageBuilder::snap(int16_t topic_id, int32_t snap_no) {
    uint8_t* const at = grow_field(kFieldSnap, 6);
    put_le16(at, static_cast<uint16_t>(topic_id));
    put_le_i32(at + 2, snap_no);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::inst(const InstInfo& info) {
    uint8_t* const at = grow_field(kFieldInstInfo, 112);
    put_text(at, kIdentifierWidth, info.inst_id);
    put_text(at + 31, kIdentifierWidth, info.underlying_inst_id);
    at[62] = static_cast<uint8_t>(info.product_class);
    put_le_f64(at + 63, info.strike_price);
    at[71] = static_cast<uint8_t>(info.options_type);
    put_le_i32(at + 72, info.volume_multiple);
    put_le_f64(at + 76, info.underlying_multiple);
    put_le_i32(at + 84, info.is_trading);
    put_text(at + 88, 4, info.currency_id);
    put_le_f64(at + 92, info.price_tick);
    put_le_f64(at + 100, info.codec_price);
    put_le_i32(at + 108, info.inst_no);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::deal(const DealInfo& info) {
    uint8_t* const at = grow_field(kFieldDealInfo, 154);
    put_le_i32(at, info.inst_no);
    put_le_f64(at + 4, info.last_price);
    put_le_i32(at + 12, info.volume);
    put_le_f64(at + 16, info.turnover);
    put_le_f64(at + 24, info.open_interest);
    put_le_f64(at + 32, info.highest_price);
    put_le_f64(at + 40, info.lowest_price);
    put_le_f64(at + 48, info.open_price);
    put_le_f64(at + 56, info.close_price);
    put_le_f64(at + 64, info.settlement_price);
    put_le_f64(at + 72, info.upper_limit_price);
    put_le_f64(at + 80, info.lower_limit_price);
    put_le_f64(at + 88, info.pre_settlement_price);
    put_le_f64(at + 96, info.pre_close_price);
    put_le_f64(at + 104, info.pre_open_interest);
    put_le_f64(at + 112, info.pre_delta);
    put_le_f64(at + 120, info.curr_delta);
    put_text(at + 128, 9, info.action_day);
    put_text(at + 137, 9, info.update_time);
    put_le_i32(at + 146, info.update_mill_sec);
    put_le_i32(at + 150, info.change_no);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::price(int32_t inst_no, char direction, double price,
                                              int32_t volume) {
    uint8_t* const at = grow_field(kFieldPriceDetail, 17);
    put_le_i32(at, inst_no);
    at[4] = static_cast<uint8_t>(direction);
    put_le_f64(at + 5, price);
    put_le_i32(at + 13, volume);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::order_totals(int32_t inst_no, int32_t bid_totvol,
                                                     double bid_totamount, int32_t ask_totvol,
                                                     double ask_totamount) {
    uint8_t* const at = grow_field(kFieldOrderStatis, 28);
    put_le_i32(at, inst_no);
    put_le_i32(at + 4, bid_totvol);
    put_le_f64(at + 8, bid_totamount);
    put_le_i32(at + 16, ask_totvol);
    put_le_f64(at + 20, ask_totamount);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::packet_no(int32_t packet_no) {
    put_le_i32(grow_field(kFieldPacketNo, 4), packet_no);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::field(uint16_t field_id, uint16_t field_size,
                                              std::span<const uint8_t> data) {
    uint8_t header[kFieldHeaderSize];
    put_le16(header, field_id);
    put_le16(header + 2, field_size);
    append(bytes_, header);
    append(bytes_, data);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::raw(std::span<const uint8_t> bytes) {
    append(bytes_, bytes);
    return *this;
}

MdqpMessageBuilder& MdqpMessageBuilder::length(uint16_t body_length) {
    forced_length_ = body_length;
    return *this;
}

const Bytes& MdqpMessageBuilder::bytes() {
    const std::size_t body = bytes_.size() - kHeaderSize;
    put_le16(&bytes_[2], static_cast<uint16_t>(
                             forced_length_ < 0 ? body : static_cast<std::size_t>(forced_length_)));
    return bytes_;
}

} // namespace wirekit
