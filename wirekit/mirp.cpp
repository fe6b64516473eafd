#include "wirekit/mirp.h"

namespace wirekit {

namespace {

constexpr std::size_t kHeaderSize = 24;
constexpr uint16_t kDefaultTopic = 1000;
constexpr uint16_t kIncremental = 3; // header's field id

constexpr uint16_t kFieldPriceChange = 0x1001;
constexpr uint16_t kFieldDealSummary = 0x1002;
constexpr uint16_t kFieldHighestPrice = 0x1011;
constexpr uint16_t kFieldLowestPrice = 0x1012;
constexpr uint16_t kFieldBuyStatics = 0x1019;
constexpr uint16_t kFieldSellStatics = 0x101A;

constexpr uint8_t kEventInsert = 1;
constexpr uint8_t kEventUpdate = 2;
constexpr uint8_t kEventDelete = 3;

void put_le_i32(uint8_t* at, int32_t value) {
    put_le32(at, static_cast<uint32_t>(value));
}
void put_le_i64(uint8_t* at, int64_t value) {
    put_le64(at, static_cast<uint64_t>(value));
}

void put_totals(uint8_t* at, uint16_t field, int32_t volume_change, int64_t amount_offset) {
    put_le16(at, field);
    put_le_i32(at + 2, volume_change);
    put_le_i64(at + 6, amount_offset);
}

void put_extreme(uint8_t* at, uint16_t field, int32_t price_ticks) {
    put_le16(at, field);
    put_le_i32(at + 2, price_ticks);
}

} // namespace

DecodeBufferBuilder::DecodeBufferBuilder() {
    clear();
}

void DecodeBufferBuilder::clear() {
    bytes_.assign(kHeaderSize, 0);
    put_le16(&bytes_[0], kDefaultTopic);
    put_le16(&bytes_[12], kIncremental);
}

// Appends `size` zero bytes; returns where they start.
uint8_t* DecodeBufferBuilder::grow(std::size_t size) {
    const std::size_t start = bytes_.size();
    bytes_.resize(start + size);
    return bytes_.data() + start;
}

DecodeBufferBuilder& DecodeBufferBuilder::topic(uint16_t topic_id) {
    put_le16(&bytes_[0], topic_id);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::time(uint32_t snap_time, uint16_t snap_millisec) {
    put_le16(&bytes_[2], snap_millisec);
    put_le32(&bytes_[4], snap_time);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::packet_no(int32_t packet_no) {
    put_le_i32(&bytes_[8], packet_no);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::field_id(uint16_t field_id) {
    put_le16(&bytes_[12], field_id);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::instrument(uint32_t instrument_no) {
    put_le32(&bytes_[14], instrument_no);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::change_no(uint32_t change_no) {
    put_le32(&bytes_[18], change_no);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::insert(Side side, uint8_t level, int32_t price_ticks,
                                                 uint32_t volume) {
    return price_change(static_cast<uint8_t>(side), level, price_ticks, volume, kEventInsert);
}

DecodeBufferBuilder& DecodeBufferBuilder::update(Side side, uint8_t level, int32_t price_ticks,
                                                 uint32_t volume) {
    return price_change(static_cast<uint8_t>(side), level, price_ticks, volume, kEventUpdate);
}

DecodeBufferBuilder& DecodeBufferBuilder::erase(Side side, uint8_t level) {
    return price_change(static_cast<uint8_t>(side), level, 0, 0, kEventDelete);
}

DecodeBufferBuilder& DecodeBufferBuilder::price_change(uint8_t entry_type, uint8_t level,
                                                       int32_t price_ticks, uint32_t volume,
                                                       uint8_t event_type) {
    uint8_t* const at = grow(16);
    put_le16(at, kFieldPriceChange);
    at[2] = entry_type;
    at[3] = level;
    put_le_i32(at + 4, price_ticks);
    put_le32(at + 8, volume);
    at[12] = event_type;
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::deal(int32_t last_price_ticks, int32_t volume_change,
                                               int64_t turnover_offset,
                                               int64_t open_interest_change) {
    uint8_t* const at = grow(32);
    put_le16(at, kFieldDealSummary);
    put_le_i32(at + 2, last_price_ticks);
    put_le_i32(at + 6, volume_change);
    put_le_i64(at + 10, turnover_offset);
    put_le_i64(at + 18, open_interest_change);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::bid_totals(int32_t volume_change, int64_t amount_offset) {
    put_totals(grow(16), kFieldBuyStatics, volume_change, amount_offset);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::ask_totals(int32_t volume_change, int64_t amount_offset) {
    put_totals(grow(16), kFieldSellStatics, volume_change, amount_offset);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::highest(int32_t price_ticks) {
    put_extreme(grow(8), kFieldHighestPrice, price_ticks);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::lowest(int32_t price_ticks) {
    put_extreme(grow(8), kFieldLowestPrice, price_ticks);
    return *this;
}

DecodeBufferBuilder& DecodeBufferBuilder::raw(std::span<const uint8_t> bytes) {
    append(bytes_, bytes);
    return *this;
}

} // namespace wirekit
