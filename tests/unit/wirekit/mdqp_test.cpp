#include "wirekit/mdqp.h"

#include <gtest/gtest.h>
#include <string>

namespace wirekit {
namespace {

using List = std::initializer_list<uint8_t>;

std::string text_at(const Bytes& bytes, std::size_t at) {
    return reinterpret_cast<const char*>(bytes.data() + at);
}

// The bytes behind the message's header and the first field's header.
Bytes data_of_first_field(const Bytes& message, uint16_t id, uint16_t size) {
    EXPECT_EQ(get_le16(&message[8]), id);
    EXPECT_EQ(get_le16(&message[10]), size);
    EXPECT_EQ(message.size(), 8u + 4u + size);
    return Bytes(message.begin() + 12, message.end());
}

TEST(MdqpMessage, HeaderStandsByteByByte) {
    MdqpMessageBuilder message(kFlagMore, kTypeSnapshot, 0x01020304);
    message.packet_no(7);
    EXPECT_EQ(message.bytes(), Bytes(List{0x11, 0x32, 8, 0, 4, 3, 2, 1, // header
                                          0x04, 0x10, 4, 0, 7, 0, 0, 0}));
    EXPECT_EQ(mdqp_message(kFlagLast).bytes(), Bytes(List{0x01, 0x32, 0, 0, 0, 0, 0, 0}));
}

TEST(MdqpMessage, LengthIsTheBodysUnlessForced) {
    auto message = mdqp_message().packet_no(1).packet_no(2);
    EXPECT_EQ(get_le16(&message.bytes()[2]), 16);
    message.length(3);
    EXPECT_EQ(get_le16(&message.bytes()[2]), 3);
    message.restart(kFlagLast, 5);
    EXPECT_EQ(message.bytes(), Bytes(List{0x01, 0x32, 0, 0, 5, 0, 0, 0}));
}

TEST(MdqpMessage, SnapStandsByteByByte) {
    auto message = mdqp_message().snap(1000, -2);
    EXPECT_EQ(data_of_first_field(message.bytes(), 0x1001, 6),
              Bytes(List{0xE8, 0x03, 0xFE, 0xFF, 0xFF, 0xFF}));
}

TEST(MdqpMessage, InstStandsAtItsOffsets) {
    InstInfo info;
    info.inst_id = "cu2601C70000";
    info.underlying_inst_id = "cu2601";
    info.product_class = '2';
    info.strike_price = 70000.0;
    info.options_type = '1';
    info.volume_multiple = 5;
    info.underlying_multiple = 2.0;
    info.is_trading = 3;
    info.price_tick = 0.5;
    info.codec_price = kNoValue;
    info.inst_no = 16383;
    auto message = mdqp_message().inst(info);
    const Bytes data = data_of_first_field(message.bytes(), 0x0101, 112);
    EXPECT_EQ(text_at(data, 0), "cu2601C70000");
    EXPECT_EQ(text_at(data, 31), "cu2601");
    EXPECT_EQ(data[62], '2');
    EXPECT_EQ(get_le_f64(&data[63]), 70000.0);
    EXPECT_EQ(data[71], '1');
    EXPECT_EQ(get_le32(&data[72]), 5u);
    EXPECT_EQ(get_le_f64(&data[76]), 2.0);
    EXPECT_EQ(get_le32(&data[84]), 3u);
    EXPECT_EQ(text_at(data, 88), "CNY");
    EXPECT_EQ(get_le_f64(&data[92]), 0.5);
    EXPECT_EQ(get_le_f64(&data[100]), kNoValue);
    EXPECT_EQ(get_le32(&data[108]), 16383u);
}

TEST(MdqpMessage, IdentifierTooLongForItsFieldKeepsAZeroAtItsEnd) {
    auto message = mdqp_message().inst({.inst_id = std::string(40, 'x')});
    EXPECT_EQ(text_at(message.bytes(), 12), std::string(30, 'x'));
}

TEST(MdqpMessage, DealStandsAtItsOffsets) {
    DealInfo deal;
    deal.inst_no = -1;
    double value = 1.5;
    for (double* member :
         {&deal.last_price, &deal.turnover, &deal.open_interest, &deal.highest_price,
          &deal.lowest_price, &deal.open_price, &deal.close_price, &deal.settlement_price,
          &deal.upper_limit_price, &deal.lower_limit_price, &deal.pre_settlement_price,
          &deal.pre_close_price, &deal.pre_open_interest, &deal.pre_delta, &deal.curr_delta}) {
        *member = value++;
    }
    deal.volume = 77;
    deal.action_day = "20260115";
    deal.update_time = "09:00:01";
    deal.update_mill_sec = 500;
    deal.change_no = 12;
    auto message = mdqp_message().deal(deal);
    const Bytes data = data_of_first_field(message.bytes(), 0x0102, 154);
    EXPECT_EQ(get_le32(&data[0]), 0xFFFFFFFFu);
    EXPECT_EQ(get_le_f64(&data[4]), 1.5);
    EXPECT_EQ(get_le32(&data[12]), 77u);
    value = 2.5;
    for (std::size_t at = 16; at <= 120; at += 8) {
        EXPECT_EQ(get_le_f64(&data[at]), value++) << at;
    }
    EXPECT_EQ(text_at(data, 128), "20260115");
    EXPECT_EQ(text_at(data, 137), "09:00:01");
    EXPECT_EQ(get_le32(&data[146]), 500u);
    EXPECT_EQ(get_le32(&data[150]), 12u);
}

TEST(MdqpMessage, PriceAndOrderTotalsStandAtTheirOffsets) {
    auto price = mdqp_message().price(9, '1', -0.5, 4);
    const Bytes level = data_of_first_field(price.bytes(), 0x0103, 17);
    EXPECT_EQ(get_le32(&level[0]), 9u);
    EXPECT_EQ(level[4], '1');
    EXPECT_EQ(get_le_f64(&level[5]), -0.5);
    EXPECT_EQ(get_le32(&level[13]), 4u);

    auto totals = mdqp_message().order_totals(1, 2, 3.5, 4, 5.5);
    const Bytes data = data_of_first_field(totals.bytes(), 0x0104, 28);
    EXPECT_EQ(get_le32(&data[0]), 1u);
    EXPECT_EQ(get_le32(&data[4]), 2u);
    EXPECT_EQ(get_le_f64(&data[8]), 3.5);
    EXPECT_EQ(get_le32(&data[16]), 4u);
    EXPECT_EQ(get_le_f64(&data[20]), 5.5);
}

TEST(MdqpMessage, AnyFieldTakesASizeThatIsNotItsDatas) {
    const uint8_t data[] = {1, 2, 3};
    const uint8_t tail[] = {9};
    auto message = mdqp_message().field(0x7777, 0, data).raw(tail);
    EXPECT_EQ(message.bytes(), Bytes(List{0x11, 0x32, 8, 0, 0, 0, 0, 0, // header
                                          0x77, 0x77, 0, 0, 1, 2, 3, 9}));
    EXPECT_EQ(message.size(), message.bytes().size());
}

} // namespace
} // namespace wirekit
