// The wire records of the decoder against the builder that writes by offset: every member has a
// value of its own, so that a member at a wrong offset or of a wrong width shows. The unary plus
// makes a value of a member, which has no alignment that a reference could rely on.

#include "WireRead.h"
#include "tcp/MdqpRecords.h"
#include "wirekit/mdqp.h"

#include <gtest/gtest.h>

namespace tcp_test {
namespace {

using wirekit::Bytes;

template <typename Record>
Record only_field(const Bytes& message, uint16_t field_id) {
    const auto field = ReadRecord<FieldHeader>(message.data() + sizeof(MdqpHeader));
    EXPECT_EQ(+field.field_id, field_id);
    EXPECT_EQ(+field.field_size, sizeof(Record));
    EXPECT_EQ(message.size(), sizeof(MdqpHeader) + sizeof(FieldHeader) + sizeof(Record));
    return ReadRecord<Record>(message.data() + sizeof(MdqpHeader) + sizeof(FieldHeader));
}

std::string text(const char* field, std::size_t width) {
    return std::string(field, strnlen(field, width));
}

TEST(MdqpRecords, HeaderIsWhereTheBuilderWritesIt) {
    const Bytes bytes =
        wirekit::MdqpMessageBuilder(0xA1, -0x32, 0x01020304).raw(Bytes(0x0807, 0)).bytes();
    const auto header = ReadRecord<MdqpHeader>(bytes.data());
    EXPECT_EQ(+header.flag, 0xA1);
    EXPECT_EQ(+header.type_id, -0x32);
    EXPECT_EQ(+header.length, 0x0807);
    EXPECT_EQ(+header.request_id, 0x01020304);
}

TEST(MdqpRecords, FieldHeaderIsLittleEndian) {
    const Bytes bytes = wirekit::mdqp_message().field(0x0102, 0x0304, {}).bytes();
    const auto field = ReadRecord<FieldHeader>(bytes.data() + 8);
    EXPECT_EQ(+field.field_id, 0x0102);
    EXPECT_EQ(+field.field_size, 0x0304);
}

TEST(MdqpRecords, SnapIsWhereTheBuilderWritesIt) {
    const auto snap = only_field<SnapField>(
        wirekit::mdqp_message().snap(-0x0102, 0x03040506).bytes(), FIELD_SNAP);
    EXPECT_EQ(+snap.topic_id, -0x0102);
    EXPECT_EQ(+snap.snap_no, 0x03040506);
}

TEST(MdqpRecords, PacketNumberIsWhereTheBuilderWritesIt) {
    const auto packet = only_field<PacketNoField>(
        wirekit::mdqp_message().packet_no(-0x01020304).bytes(), FIELD_PACKET_NO);
    EXPECT_EQ(+packet.packet_no, -0x01020304);
}

TEST(MdqpRecords, EntryIsWhereTheBuilderWritesIt) {
    const auto entry =
        only_field<InstInfoField>(wirekit::mdqp_message()
                                      .inst({.inst_id = "abcdefghijklmnopqrstuvwxyz0123",
                                             .underlying_inst_id = "ABCDEFGHIJKLMNOPQRSTUVWXYZ9876",
                                             .product_class = '1',
                                             .strike_price = 2.125,
                                             .options_type = '3',
                                             .volume_multiple = 0x04040404,
                                             .underlying_multiple = 5.125,
                                             .is_trading = 0x06060606,
                                             .currency_id = "CNY",
                                             .price_tick = 7.125,
                                             .codec_price = 8.125,
                                             .inst_no = 0x09090909})
                                      .bytes(),
                                  FIELD_INST_INFO);
    EXPECT_EQ(text(entry.inst_id, sizeof(entry.inst_id)), "abcdefghijklmnopqrstuvwxyz0123");
    EXPECT_EQ(text(entry.underlying_inst_id, sizeof(entry.underlying_inst_id)),
              "ABCDEFGHIJKLMNOPQRSTUVWXYZ9876");
    EXPECT_EQ(+entry.product_class, '1');
    EXPECT_EQ(+entry.strike_price, 2.125);
    EXPECT_EQ(+entry.options_type, '3');
    EXPECT_EQ(+entry.volume_multiple, 0x04040404);
    EXPECT_EQ(+entry.underlying_multiple, 5.125);
    EXPECT_EQ(+entry.is_trading, 0x06060606);
    EXPECT_EQ(text(entry.currency_id, sizeof(entry.currency_id)), "CNY");
    EXPECT_EQ(+entry.price_tick, 7.125);
    EXPECT_EQ(+entry.codec_price, 8.125);
    EXPECT_EQ(+entry.inst_no, 0x09090909);
}

TEST(MdqpRecords, DealIsWhereTheBuilderWritesIt) {
    const auto deal = only_field<DealInfoField>(wirekit::mdqp_message()
                                                    .deal({.inst_no = 0x01010101,
                                                           .last_price = 1.5,
                                                           .volume = 0x02020202,
                                                           .turnover = 2.5,
                                                           .open_interest = 3.5,
                                                           .highest_price = 4.5,
                                                           .lowest_price = 5.5,
                                                           .open_price = 6.5,
                                                           .close_price = 7.5,
                                                           .settlement_price = 8.5,
                                                           .upper_limit_price = 9.5,
                                                           .lower_limit_price = 10.5,
                                                           .pre_settlement_price = 11.5,
                                                           .pre_close_price = 12.5,
                                                           .pre_open_interest = 13.5,
                                                           .pre_delta = 14.5,
                                                           .curr_delta = 15.5,
                                                           .action_day = "20260818",
                                                           .update_time = "10:04:05",
                                                           .update_mill_sec = 0x03030303,
                                                           .change_no = 0x04040404})
                                                    .bytes(),
                                                FIELD_DEAL_INFO);
    EXPECT_EQ(+deal.inst_no, 0x01010101);
    EXPECT_EQ(+deal.last_price, 1.5);
    EXPECT_EQ(+deal.volume, 0x02020202);
    EXPECT_EQ(+deal.turnover, 2.5);
    EXPECT_EQ(+deal.open_interest, 3.5);
    EXPECT_EQ(+deal.highest_price, 4.5);
    EXPECT_EQ(+deal.lowest_price, 5.5);
    EXPECT_EQ(+deal.open_price, 6.5);
    EXPECT_EQ(+deal.close_price, 7.5);
    EXPECT_EQ(+deal.settlement_price, 8.5);
    EXPECT_EQ(+deal.upper_limit_price, 9.5);
    EXPECT_EQ(+deal.lower_limit_price, 10.5);
    EXPECT_EQ(+deal.pre_settlement_price, 11.5);
    EXPECT_EQ(+deal.pre_close_price, 12.5);
    EXPECT_EQ(+deal.pre_open_interest, 13.5);
    EXPECT_EQ(+deal.pre_delta, 14.5);
    EXPECT_EQ(+deal.curr_delta, 15.5);
    EXPECT_EQ(text(deal.action_day, sizeof(deal.action_day)), "20260818");
    EXPECT_EQ(text(deal.update_time, sizeof(deal.update_time)), "10:04:05");
    EXPECT_EQ(+deal.update_mill_sec, 0x03030303);
    EXPECT_EQ(+deal.change_no, 0x04040404);
}

TEST(MdqpRecords, PriceIsWhereTheBuilderWritesIt) {
    const auto price = only_field<PriceDetailField>(
        wirekit::mdqp_message().price(0x01020304, '1', -6.5, -0x07080900).bytes(),
        FIELD_PRICE_DETAIL);
    EXPECT_EQ(+price.inst_no, 0x01020304);
    EXPECT_EQ(+price.direction, '1');
    EXPECT_EQ(+price.price, -6.5);
    EXPECT_EQ(+price.volume, -0x07080900);
}

TEST(MdqpRecords, OrderTotalsAreWhereTheBuilderWritesThem) {
    const auto totals = only_field<OrderStatisField>(
        wirekit::mdqp_message().order_totals(0x01020304, -5, 6.5, 7, -8.5).bytes(),
        FIELD_ORDER_STATIS);
    EXPECT_EQ(+totals.inst_no, 0x01020304);
    EXPECT_EQ(+totals.bid_totvol, -5);
    EXPECT_EQ(+totals.bid_totamount, 6.5);
    EXPECT_EQ(+totals.ask_totvol, 7);
    EXPECT_EQ(+totals.ask_totamount, -8.5);
}

TEST(MdqpRecords, ConstantsAreTheWiresOwn) {
    EXPECT_EQ(FIELD_ID_0031, 0x0031);
    EXPECT_EQ(FIELD_ID_0032, 0x0032);
    EXPECT_EQ(FIELD_INST_INFO, 0x0101);
    EXPECT_EQ(FIELD_DEAL_INFO, 0x0102);
    EXPECT_EQ(FIELD_PRICE_DETAIL, 0x0103);
    EXPECT_EQ(FIELD_ORDER_STATIS, 0x0104);
    EXPECT_EQ(FIELD_SNAP, 0x1001);
    EXPECT_EQ(FIELD_ID_1002, 0x1002);
    EXPECT_EQ(FIELD_ID_1003, 0x1003);
    EXPECT_EQ(FIELD_PACKET_NO, 0x1004);
    EXPECT_EQ(MDQP_NO_VALUE, 1.7976931348623157e308);
}

} // namespace
} // namespace tcp_test
