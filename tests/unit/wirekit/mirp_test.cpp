#include "wirekit/mirp.h"

#include <gtest/gtest.h>

namespace wirekit {
namespace {

using List = std::initializer_list<uint8_t>;

// The bytes behind the 24-byte header.
Bytes fields_of(const DecodeBufferBuilder& builder) {
    return Bytes(builder.bytes().begin() + 24, builder.bytes().end());
}

TEST(DecodeBuffer, HeaderStandsByteByByte) {
    const Bytes bytes = decode_buffer()
                            .topic(0x1388)
                            .time(0x65A4B3C2, 0x03E7)
                            .packet_no(0x01020304)
                            .instrument(0x11223344)
                            .change_no(0x55667788)
                            .bytes();
    const Bytes expected = {0x88, 0x13,             //  0 topic
                            0xE7, 0x03,             //  2 milliseconds
                            0xC2, 0xB3, 0xA4, 0x65, //  4 time
                            0x04, 0x03, 0x02, 0x01, //  8 packet number
                            0x03, 0x00,             // 12 field id
                            0x44, 0x33, 0x22, 0x11, // 14 instrument
                            0x88, 0x77, 0x66, 0x55, // 18 change number
                            0x00, 0x00};            // 22 reserved
    EXPECT_EQ(bytes, expected);
}

TEST(DecodeBuffer, DefaultsAreAnIncrementalMessageOfTopic1000) {
    const Bytes bytes = decode_buffer().bytes();
    ASSERT_EQ(bytes.size(), 24u);
    EXPECT_EQ(get_le16(&bytes[0]), 1000);
    EXPECT_EQ(get_le16(&bytes[12]), 3);
    EXPECT_EQ(get_le16(decode_buffer().field_id(7).bytes().data() + 12), 7);
}

TEST(DecodeBuffer, PriceChangeStandsByteByByte) {
    EXPECT_EQ(fields_of(decode_buffer().insert(Side::kAsk, 10, -2, 0x01020304)),
              Bytes(List{0x01, 0x10, 1, 10, 0xFE, 0xFF, 0xFF, 0xFF, 4, 3, 2, 1, 1, 0, 0, 0}));
    EXPECT_EQ(fields_of(decode_buffer().update(Side::kBid, 1, 5, 7)),
              Bytes(List{0x01, 0x10, 0, 1, 5, 0, 0, 0, 7, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(fields_of(decode_buffer().erase(Side::kBid, 3)),
              Bytes(List{0x01, 0x10, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0}));
}

TEST(DecodeBuffer, BadLevelsEntriesAndEventsAreTakenAsTheyCome) {
    const Bytes fields = fields_of(decode_buffer().price_change(9, 11, 1, 2, 200));
    EXPECT_EQ(fields[2], 9);
    EXPECT_EQ(fields[3], 11);
    EXPECT_EQ(fields[12], 200);
}

TEST(DecodeBuffer, DealStandsByteByByte) {
    EXPECT_EQ(fields_of(decode_buffer().deal(-3, 4, 0x0102030405060708, -1)),
              Bytes(List{0x02, 0x10,                                     //  0
                         0xFD, 0xFF, 0xFF, 0xFF,                         //  2 last price
                         4,    0,    0,    0,                            //  6 volume
                         8,    7,    6,    5,    4,    3,    2,    1,    // 10 turnover
                         0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, // 18 open interest
                         0,    0,    0,    0,    0,    0}));             // 26 reserved
}

TEST(DecodeBuffer, TotalsAndExtremesStandByteByByte) {
    EXPECT_EQ(
        fields_of(decode_buffer().bid_totals(2, -2)),
        Bytes(List{0x19, 0x10, 2, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0}));
    EXPECT_EQ(fields_of(decode_buffer().ask_totals(-1, 1)),
              Bytes(List{0x1A, 0x10, 0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(fields_of(decode_buffer().highest(9)), Bytes(List{0x11, 0x10, 9, 0, 0, 0, 0, 0}));
    EXPECT_EQ(fields_of(decode_buffer().lowest(-9)),
              Bytes(List{0x12, 0x10, 0xF7, 0xFF, 0xFF, 0xFF, 0, 0}));
}

TEST(DecodeBuffer, FieldsFollowEachOtherAndRawBytesGoBehind) {
    const uint8_t tail[] = {1, 2, 3};
    const auto builder = decode_buffer().highest(1).deal(1, 1, 1, 1).raw(tail);
    EXPECT_EQ(builder.bytes().size(), 24u + 8 + 32 + 3);
    EXPECT_EQ(builder.bytes().back(), 3);
    EXPECT_EQ(get_le16(&builder.bytes()[32]), 0x1002);
}

TEST(DecodeBuffer, ClearStartsOverWithTheDefaults) {
    DecodeBufferBuilder builder;
    builder.topic(5000).change_no(9).time(1, 2).packet_no(3).insert(Side::kBid, 1, 1, 1);
    builder.clear();
    EXPECT_EQ(builder.bytes(), decode_buffer().bytes());
}

} // namespace
} // namespace wirekit
